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
  uint32_t limit;
};

constexpr FieldRow kFields[] = {
    {&Request::scriptFullPath, &Request::SetScriptFullPath, 255},
    {&Request::updateFileFullPath, &Request::SetUpdateFileFullPath, 255},
    {&Request::signaturePath, &Request::SetSignaturePath, 128},
    {&Request::fileListFileName, &Request::SetFileListFileName, 128},
    {&Request::signatureFileName, &Request::SetSignatureFileName, 128},
    {&Request::signatureCrlFileName, &Request::SetSignatureCrlFileName, 128},
    {&Request::extendScriptPara, &Request::SetExtendScriptPara, 128},
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

/// Writes the record and checks its bytes; nothing is written where there is no room for all of them.
template <class Record>
void CheckWritten(const Record& record, const Bytes& wire) {
  ASSERT_EQ(record.GetMsgLength(), wire.size());
  Bytes out(wire.size() + 1, 0xEE);
  EXPECT_EQ(record.SerializeToMsg(out.data(), static_cast<uint32_t>(wire.size() - 1)), 1u);
  EXPECT_EQ(out, Bytes(wire.size() + 1, 0xEE)) << "written before the length was checked";
  EXPECT_EQ(record.SerializeToMsg(out.data(), static_cast<uint32_t>(out.size())), 0u);
  EXPECT_EQ(out.back(), 0xEE) << "a byte behind the record was written";
  out.pop_back();
  EXPECT_EQ(out, wire);
}

/// Reads the record of the first bytes of `wire`, in an allocation of their own: a read behind it is seen.
template <class Record, class... Copy>
uint32_t Parse(Record& record, const Bytes& wire, size_t length, Copy... copy) {
  const Bytes cut(wire.begin(), wire.begin() + static_cast<ptrdiff_t>(length));
  return record.ParseFromMsg(cut.data(), static_cast<uint32_t>(length), copy...);
}

TEST(UpdateRequestTest, FieldsTravelInTheirOrderAndARequestCutAnywhereIsRefused) {
  Request request;
  Fill(request);
  CheckWritten(request, kWire);
  for (const bool copy : {true, false}) {
    SCOPED_TRACE(copy);
    Request got;
    for (size_t length = 0; length < kWire.size(); ++length)
      EXPECT_EQ(Parse(got, kWire, length, copy), 1u) << length;
    Bytes wire = kWire;
    ASSERT_EQ(got.ParseFromMsg(wire.data(), static_cast<uint32_t>(wire.size()), copy), 0u);
    CheckWritten(got, kWire);
    wire.assign(wire.size(), '#');
    EXPECT_EQ(got.extendScriptPara.view(), copy ? "eeeeeee" : "#######") << "copied, or still in the message";
    ASSERT_EQ(Parse(got, Bytes(19, 0), 19), 0u);
    for (const FieldRow& row : kFields)
      EXPECT_STREQ((got.*row.field).c_str(), "") << "absent in a used record";
  }
}

TEST(UpdateRequestTest, TextsAreHeldToTheirLimitInBothParses) {
  for (size_t field = 0; field < std::size(kFields); ++field) {
    for (const uint32_t length : {128u, 129u, 255u}) {
      for (const bool copy : {true, false}) {
        SCOPED_TRACE(testing::Message() << "field " << field << ", " << length << " copy " << copy);
        Bytes wire(19, 0);
        wire[7 + field] = static_cast<uint8_t>(length);
        wire.insert(wire.begin() + 8 + static_cast<ptrdiff_t>(field), length, 'x');
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
    EXPECT_EQ((request.*row.set)("", 0), 1u) << "kept: an empty text on an absent field fails";
    EXPECT_EQ((request.*row.set)(longest.data(), row.limit + 1), 1u);
    EXPECT_EQ((request.*row.set)(longest.data(), 256 + 5), 1u) << "the length was cut to eight bits";
    EXPECT_EQ(text.length(), 0u) << "a refused text left something behind";
    EXPECT_EQ((request.*row.set)("first", 5), 0u);
    EXPECT_EQ((request.*row.set)("longer", 6), 1u);
    EXPECT_EQ((request.*row.set)("NO", 2), 0u);
    EXPECT_STREQ(text.c_str(), "NOrst") << "kept: a shorter text overwrites the start";
    EXPECT_EQ(text.length(), 5u);
  }
}

TEST(UpdateRequestTest, AnEmptiedTextTravelsAsAbsentAndALengthWithoutABufferNotAtAll) {
  Request request;
  Fill(request);
  request.signaturePath.Empty();
  EXPECT_STREQ(request.signaturePath.c_str(), "");
  Bytes expected = kWire;
  expected[12] = 0;
  expected.erase(expected.begin() + 13, expected.begin() + 16);
  CheckWritten(request, expected);
  request.signaturePath.SetView(nullptr, 3);
  Bytes out(request.GetMsgLength());
  EXPECT_EQ(request.SerializeToMsg(out.data(), static_cast<uint32_t>(out.size())), 1u);
}

/// Checks a record without texts both ways and at every shorter length.
template <class Record>
Record CheckSmall(const Bytes& wire) {
  Record record;
  for (size_t length = 0; length < wire.size(); ++length)
    EXPECT_EQ(Parse(record, wire, length), 1u) << length;
  EXPECT_EQ(Parse(record, wire, wire.size()), 0u);
  CheckWritten(record, wire);
  return record;
}

TEST(UpdateRecordsTest, SmallRecordsAreFixed) {
  const auto ack = CheckSmall<TolaMsgExeUpdateScriptAckData>({4, 3, 2, 1, 0x80, 0x25});
  EXPECT_EQ(ack.requesterTaskId, 0x01020304u);
  EXPECT_EQ(ack.result, 0x2580);
  EXPECT_EQ(CheckSmall<TolaMsgExeUpdateAuthVerifyData>({4, 3, 2, 1}).requesterTaskId, 0x01020304u);
  EXPECT_EQ(CheckSmall<TolaMsgExeUpdateAuthVerifyAckData>({9, 0, 0, 0, 1, 0}).result, 1);
  TolaMsgExeUpdateAuthVerifyAckData cut;
  EXPECT_EQ(Parse(cut, Bytes(5, 0), 5), 1u);
  EXPECT_NE(cut.result, 0) << "a cut reply reads as granted";
}

}  // namespace
}  // namespace TolaCmpMsg
