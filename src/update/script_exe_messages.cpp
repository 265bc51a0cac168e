#include "update/script_exe_messages.h"

#include <new>

#include "base/check.h"
#include "comp/msg_codec.h"
#include "securec.h"

namespace TolaCmpMsg {
namespace {

struct TextRow {
  MsgText TolaMsgExeUpdateScriptData::*field;
  uint32_t limit;
};

/// The texts in the order in which they travel.
constexpr TextRow kTexts[] = {
    {&TolaMsgExeUpdateScriptData::scriptFullPath, TolaMsgExeUpdateScriptData::kPathLimit},
    {&TolaMsgExeUpdateScriptData::updateFileFullPath, TolaMsgExeUpdateScriptData::kPathLimit},
    {&TolaMsgExeUpdateScriptData::signaturePath, TolaMsgExeUpdateScriptData::kNameLimit},
    {&TolaMsgExeUpdateScriptData::fileListFileName, TolaMsgExeUpdateScriptData::kNameLimit},
    {&TolaMsgExeUpdateScriptData::signatureFileName, TolaMsgExeUpdateScriptData::kNameLimit},
    {&TolaMsgExeUpdateScriptData::signatureCrlFileName, TolaMsgExeUpdateScriptData::kNameLimit},
    {&TolaMsgExeUpdateScriptData::extendScriptPara, TolaMsgExeUpdateScriptData::kNameLimit},
};
constexpr uint32_t kFixedBytes = 4 + 2 + 1 + 7 + 4 + 1;

/// The getters take a writable cursor, but never write through it.
unsigned char* ReadCursor(const unsigned char* buffer) {
  return const_cast<unsigned char*>(buffer);
}

uint32_t ParseText(unsigned char*& cursor, unsigned int& remaining, bool copy, uint32_t limit,
                   MsgText& text) {
  uint8_t length = 0;
  if (GetMsgU8_s(cursor, remaining, length) != 0) return 1;
  if (length == 0) return 0;
  if (length > remaining || length > limit) return 1;  // before memory is taken for what is not there
  if (copy) {
    if (text.Init(length, limit) != 0) return 1;
    return GetStringData(cursor, remaining, text.buffer(), length);
  }
  char* view = nullptr;
  if (GetStringDataNoCopy(cursor, remaining, view, length) != 0) return 1;
  text.SetView(view, length);
  return 0;
}

/// A task id and a 16-bit result, the layout of both replies.
uint32_t SerializeReply(uint32_t taskId, uint16_t result, unsigned char* cursor, uint32_t remaining) {
  if (cursor == nullptr || remaining < 6) return 1;
  SetHostU32(taskId, cursor);
  SetHostU16(result, cursor);
  return 0;
}

uint32_t ParseReply(const unsigned char* buffer, uint32_t remaining, uint32_t& taskId, uint16_t& result) {
  if (buffer == nullptr) return 1;
  unsigned char* cursor = ReadCursor(buffer);
  if (GetHostU32_s(cursor, remaining, taskId) != 0) return 1;
  return GetHostU16_s(cursor, remaining, result);
}

}  // namespace

const char* MsgText::c_str() const {
  TOLA_CHECK(data_ == owned_);
  return data_ != nullptr ? data_ : "";
}

uint32_t MsgText::Init(uint32_t length, uint32_t limit) {
  if (data_ != owned_) Reset();  // a view has no buffer of its own
  if (length_ != 0 && length_ < length) return 1;
  if (owned_ != nullptr || length == 0) return 0;
  if (length > limit) return 1;
  owned_ = new (std::nothrow) char[length + 1]();
  if (owned_ == nullptr) return 1;
  data_ = owned_;
  length_ = static_cast<uint8_t>(length);
  return 0;
}

uint32_t MsgText::Set(const char* text, uint32_t length, uint32_t limit) {
  if (text == nullptr || Init(length, limit) != 0) return 1;
  return memcpy_s(owned_, length_, text, length) == EOK ? 0 : 1;
}

void MsgText::SetView(const char* data, uint8_t length) {
  Reset();
  data_ = data;
  length_ = length;
}

void MsgText::Empty() {
  if (data_ != owned_) {
    Reset();
    return;
  }
  if (owned_ != nullptr) owned_[0] = '\0';
  length_ = 0;
}

void MsgText::Reset() {
  delete[] owned_;
  owned_ = nullptr;
  data_ = nullptr;
  length_ = 0;
}

uint32_t TolaMsgExeUpdateScriptData::GetMsgLength() const {
  uint32_t length = kFixedBytes;
  for (const TextRow& row : kTexts) length += (this->*row.field).length();
  return length;
}

uint32_t TolaMsgExeUpdateScriptData::SerializeToMsg(unsigned char* buffer, uint32_t length) const {
  if (buffer == nullptr || GetMsgLength() > length) return 1;
  unsigned char* cursor = buffer;  // the total was checked: what follows needs no check a field
  SetHostU32(requesterTaskId, cursor);
  SetHostU16(cpuLimit, cursor);
  *cursor++ = caType;
  for (const TextRow& row : kTexts) {
    const std::string_view text = (this->*row.field).view();
    *cursor++ = (this->*row.field).length();
    if (text.size() != (this->*row.field).length()) return 1;  // a length without a buffer
    if (text.empty()) continue;
    msg_codec::CopyRun(cursor, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    cursor += text.size();
  }
  SetHostU32(featureId, cursor);
  *cursor = checkFeatureId;
  return 0;
}

uint32_t TolaMsgExeUpdateScriptData::ParseFromMsg(const unsigned char* buffer, uint32_t length, bool copy) {
  for (const TextRow& row : kTexts) (this->*row.field).Reset();
  if (buffer == nullptr) return 1;
  unsigned char* cursor = ReadCursor(buffer);
  unsigned int remaining = length;
  if (GetHostU32_s(cursor, remaining, requesterTaskId) != 0) return 1;
  if (GetHostU16_s(cursor, remaining, cpuLimit) != 0) return 1;
  if (GetMsgU8_s(cursor, remaining, caType) != 0) return 1;
  for (const TextRow& row : kTexts) {
    if (ParseText(cursor, remaining, copy, row.limit, this->*row.field) != 0) return 1;
  }
  if (GetHostU32_s(cursor, remaining, featureId) != 0) return 1;
  return GetMsgU8_s(cursor, remaining, checkFeatureId);
}

uint32_t TolaMsgExeUpdateScriptAckData::SerializeToMsg(unsigned char* buffer, uint32_t length) const {
  return SerializeReply(requesterTaskId, result, buffer, length);
}

uint32_t TolaMsgExeUpdateScriptAckData::ParseFromMsg(const unsigned char* buffer, uint32_t length) {
  return ParseReply(buffer, length, requesterTaskId, result);
}

uint32_t TolaMsgExeUpdateAuthVerifyData::SerializeToMsg(unsigned char* buffer, uint32_t length) const {
  unsigned char* cursor = buffer;
  return buffer != nullptr ? SetHostU32_s(requesterTaskId, cursor, length) : 1;
}

uint32_t TolaMsgExeUpdateAuthVerifyData::ParseFromMsg(const unsigned char* buffer, uint32_t length) {
  unsigned char* cursor = ReadCursor(buffer);
  return buffer != nullptr ? GetHostU32_s(cursor, length, requesterTaskId) : 1;
}

uint32_t TolaMsgExeUpdateAuthVerifyAckData::SerializeToMsg(unsigned char* buffer, uint32_t length) const {
  return SerializeReply(requesterTaskId, result, buffer, length);
}

uint32_t TolaMsgExeUpdateAuthVerifyAckData::ParseFromMsg(const unsigned char* buffer, uint32_t length) {
  return ParseReply(buffer, length, requesterTaskId, result);
}

}  // namespace TolaCmpMsg
