/// The update records against bytes written down by hand, cut at every byte, and at the limits of their
/// texts.
#include "update/script_exe_messages.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace TolaCmpMsg {
namespace {

using Bytes = std::vector<uint8_t>;
using Request = TolaMsgExeUpdateScriptData;
using TextField = MsgText Request::*;

struct FieldRow {
  TextField field;
  uint32_t (Request::*set)(const char*, uint32_t);
  uint32_t (Request::*init)(uint32_t);
  uint32_t limit;
};

#define ROW(field, Name, limit) \
  { &Request::field, &Request::Set##Name, &Request::Init##Name, limit }
constexpr FieldRow kFields[] = {
    ROW(scriptFullPath, ScriptFullPath, 255),       ROW(updateFileFullPath, UpdateFileFullPath, 255),
    ROW(signaturePath, SignaturePath, 128),         ROW(fileListFileName, FileListFileName, 128),
    ROW(signatureFileName, SignatureFileName, 128), ROW(signatureCrlFileName, SignatureCrlFileName, 128),
    ROW(extendScriptPara, ExtendScriptPara, 128),
};

/// Every field different, the texts of lengths 1 to 7: "s", "uu", "ppp" and so on.
void Fill(Request& request) {
  request.requesterTaskId = 0x01020304;
  request.cpuLimit = 0x0506;
  request.caType = 7;
  request.featureId = 0x08090A0B;
  request.checkFeatureId = 1;
  std::string text;
  for (const FieldRow& row : kFields) {
    text.assign(text.size() + 1, "suplgce"[text.size()]);
    ASSERT_EQ((request.*row.set)(text.data(), static_cast<uint32_t>(text.size())), 0u);
  }
}

const Bytes kWire = {4,   3,   2,   1,   6,   5,   7,   1,   's', 2,   'u', 'u', 3,   'p', 'p', 'p',
                     4,   'l', 'l', 'l', 'l', 5,   'g', 'g', 'g', 'g', 'g', 6,   'c', 'c', 'c', 'c',
                     'c', 'c', 7,   'e', 'e', 'e', 'e', 'e', 'e', 'e', 0xB, 0xA, 9,   8,   1};

TEST(UpdateRequestTest, FieldsTravelInTheirOrder) {
  Request request;
  Fill(request);
  ASSERT_EQ(request.GetMsgLength(), kWire.size());
  Bytes out(kWire.size() + 1, 0xEE);
  ASSERT_EQ(request.SerializeToMsg(out.data(), static_cast<uint32_t>(out.size())), 0u);
  EXPECT_EQ(out.back(), 0xEE) << "a byte behind the record was written";
  out.pop_back();
  EXPECT_EQ(out, kWire);

  Bytes small(kWire.size() - 1, 0xEE);
  EXPECT_EQ(request.SerializeToMsg(small.data(), static_cast<uint32_t>(small.size())), 1u);
  EXPECT_EQ(small, Bytes(small.size(), 0xEE)) << "written before the length was checked";
}

TEST(UpdateRequestTest, BothParsesReadBackWhatWasSent) {
  for (const bool copy : {true, false}) {
    SCOPED_TRACE(copy);
    Request request;
    Bytes wire = kWire;
    ASSERT_EQ(request.ParseFromMsg(wire.data(), static_cast<uint32_t>(wire.size()), copy), 0u);
    Bytes again(kWire.size());
    ASSERT_EQ(request.SerializeToMsg(again.data(), static_cast<uint32_t>(again.size())), 0u);
    EXPECT_EQ(again, kWire);
    wire.assign(wire.size(), '#');
    if (copy) {
      EXPECT_STREQ(request.extendScriptPara.c_str(), "eeeeeee") << "the text still lies in the message";
    } else {
      EXPECT_EQ(request.extendScriptPara.view(), "#######") << "a text was copied";
    }
  }
}

TEST(UpdateRequestTest, ARequestCutAnywhereIsRefusedAndLeavesTheRecordUsable) {
  for (const bool copy : {true, false}) {
    Request request;
    for (uint32_t length = 0; length < kWire.size(); ++length) {
      const Bytes cut(kWire.begin(), kWire.begin() + length);  // its own allocation: a read behind it is seen
      EXPECT_EQ(request.ParseFromMsg(cut.data(), length, copy), 1u)
          << "cut to " << length << ", copy " << copy;
    }
    EXPECT_EQ(request.ParseFromMsg(kWire.data(), static_cast<uint32_t>(kWire.size()), copy), 0u);
    EXPECT_EQ(request.signaturePath.view(), "ppp");
  }
}

TEST(UpdateRequestTest, AbsentTextsReadAsEmptyEvenInARecordThatWasUsedBefore) {
  Request request;
  Fill(request);
  const Bytes bare(19, 0);
  ASSERT_EQ(request.ParseFromMsg(bare.data(), 19), 0u);
  EXPECT_EQ(request.GetMsgLength(), 19u);
  for (const FieldRow& row : kFields) EXPECT_STREQ((request.*row.field).c_str(), "");
}

TEST(UpdateRequestTest, TextsAreHeldToTheirLimitInBothParses) {
  for (size_t field = 0; field < std::size(kFields); ++field) {
    for (const uint32_t length : {128u, 129u, 255u}) {
      for (const bool copy : {true, false}) {
        SCOPED_TRACE(testing::Message() << "field " << field << ", " << length << " copy " << copy);
        Bytes wire(7 + field, 0);
        wire.push_back(static_cast<uint8_t>(length));
        wire.insert(wire.end(), length, 'x');
        wire.insert(wire.end(), 6 - field + 5, 0);
        Request request;
        const bool fits = length <= kFields[field].limit;
        EXPECT_EQ(request.ParseFromMsg(wire.data(), static_cast<uint32_t>(wire.size()), copy),
                  fits ? 0u : 1u);
        EXPECT_EQ((request.*kFields[field].field).view(), fits ? std::string(length, 'x') : "");
      }
    }
  }
}

TEST(UpdateRequestTest, ATextIsSetOnce) {
  for (const FieldRow& row : kFields) {
    SCOPED_TRACE(&row - kFields);
    Request request;
    const MsgText& text = request.*row.field;
    const std::string longest(300, 'x');
    EXPECT_EQ((request.*row.set)("", 0), 1u) << "an empty text on an absent field fails";
    EXPECT_EQ((request.*row.set)(nullptr, 3), 1u);
    EXPECT_EQ((request.*row.set)(longest.data(), row.limit + 1), 1u);
    EXPECT_EQ((request.*row.set)(longest.data(), 256 + 5), 1u) << "the length was cut to eight bits";
    EXPECT_EQ(text.length(), 0u) << "a refused text left something behind";

    EXPECT_EQ((request.*row.set)("first", 5), 0u);
    EXPECT_EQ((request.*row.set)("longer", 6), 1u);
    EXPECT_STREQ(text.c_str(), "first");
    EXPECT_EQ((request.*row.set)("NO", 2), 0u);
    EXPECT_STREQ(text.c_str(), "NOrst") << "kept: a shorter text overwrites the start";
    EXPECT_EQ(text.length(), 5u);
    EXPECT_EQ((request.*row.init)(5), 0u);
    EXPECT_STREQ(text.c_str(), "NOrst") << "Init on a set field changes nothing";
  }
}

TEST(UpdateRequestTest, AnEmptiedTextTravelsAsAbsentAndALengthWithoutABufferNotAtAll) {
  Request request;
  Fill(request);
  request.signaturePath.Empty();
  EXPECT_STREQ(request.signaturePath.c_str(), "");
  Bytes out(request.GetMsgLength());
  ASSERT_EQ(request.SerializeToMsg(out.data(), static_cast<uint32_t>(out.size())), 0u);
  Bytes expected = kWire;
  expected[12] = 0;
  expected.erase(expected.begin() + 13, expected.begin() + 16);
  EXPECT_EQ(out, expected);
  request.signaturePath.SetView(nullptr, 3);
  out.resize(request.GetMsgLength());
  EXPECT_EQ(request.SerializeToMsg(out.data(), static_cast<uint32_t>(out.size())), 1u);
}

/// Record, its bytes; checks them both ways and at every shorter length.
template <class Record>
void CheckSmall(const Record& record, const Bytes& wire) {
  const auto size = static_cast<uint32_t>(wire.size());
  ASSERT_EQ(record.GetMsgLength(), size);
  for (uint32_t length = 0; length < size; ++length) {
    Bytes out(length, 0xEE);
    EXPECT_EQ(record.SerializeToMsg(out.data(), length), 1u) << length;
    EXPECT_EQ(out, Bytes(length, 0xEE)) << length;
    const Bytes cut(wire.begin(), wire.begin() + length);
    EXPECT_EQ(Record().ParseFromMsg(cut.data(), length), 1u) << length;
  }
  Bytes out(size);
  EXPECT_EQ(record.SerializeToMsg(out.data(), size), 0u);
  EXPECT_EQ(out, wire);
}

TEST(UpdateRecordsTest, SmallRecordsAreFixed) {
  TolaMsgExeUpdateScriptAckData ack;
  ack.requesterTaskId = 0x01020304;
  ack.result = 0x2580;
  CheckSmall(ack, {4, 3, 2, 1, 0x80, 0x25});

  TolaMsgExeUpdateAuthVerifyData auth;
  auth.requesterTaskId = 0x01020304;
  CheckSmall(auth, {4, 3, 2, 1});

  TolaMsgExeUpdateAuthVerifyAckData grant;
  grant.result = 0;
  CheckSmall(grant, {0, 0, 0, 0, 0, 0});
  const Bytes refused = {9, 0, 0, 0, 1, 0};
  ASSERT_EQ(grant.ParseFromMsg(refused.data(), 6), 0u);
  EXPECT_EQ(grant.result, 1) << "a refusal was read as a grant";
  TolaMsgExeUpdateAuthVerifyAckData cut;
  EXPECT_EQ(cut.ParseFromMsg(Bytes(5, 0).data(), 5), 1u);
  EXPECT_NE(cut.result, 0) << "a cut reply reads as granted";
}

}  // namespace
}  // namespace TolaCmpMsg
