/// The four records of the update script exchange, each a row of fields without tags, padding or alignment,
/// every number in host (little-endian) order: execute request (message 41840), its reply (41841),
/// authorisation request (41842) and its reply (41843).
///
/// For all: results are 0 or 1. SerializeToMsg fails before it writes when GetMsgLength() does not fit.
/// ParseFromMsg reads its fields in order and ignores bytes behind the last; where it fails, the fields
/// before the short one are set. A record belongs to one thread.
#pragma once

#include <stdint.h>

#include <string_view>

namespace TolaCmpMsg {

/// A text of the execute request: absent, owned (zero-terminated), or a view into a message (not terminated).
class MsgText {
 public:
  MsgText() = default;
  MsgText(const MsgText&) = delete;
  MsgText& operator=(const MsgText&) = delete;
  ~MsgText() { Reset(); }

  /// The terminated text, "" when absent. Never called on a view: nothing ends it.
  [[nodiscard]] const char* c_str() const;
  /// All `length()` bytes, zero bytes among them; empty when there is no buffer.
  [[nodiscard]] std::string_view view() const {
    return data_ != nullptr ? std::string_view(data_, length_) : std::string_view();
  }
  [[nodiscard]] uint8_t length() const { return length_; }
  [[nodiscard]] bool empty() const { return length_ == 0; }

  /// Makes a zeroed buffer for `length` bytes and a terminator, once: an existing buffer and its length stay.
  /// @retval 1 longer than `limit` or than the length that is already set; no memory
  [[nodiscard]] uint32_t Init(uint32_t length, uint32_t limit);
  /// Init, then copies `length` bytes over the start of the buffer. kept: a text is meant to be set once. A
  /// longer second text fails, a shorter one overwrites the start and keeps the old length, and an empty one
  /// on an absent text fails. @retval 1 the same as Init, or `text` is null
  [[nodiscard]] uint32_t Set(const char* text, uint32_t length, uint32_t limit);

  void SetView(const char* data, uint8_t length);  ///< `data` outlives the record or the next Set
  void Empty();                                    ///< reads as "" and travels as absent from now on
  void Reset();                                    ///< absent again; an owned buffer is freed
  [[nodiscard]] char* buffer() { return owned_; }  ///< `length()` writable bytes; null unless owned

 private:
  const char* data_ = nullptr;
  char* owned_ = nullptr;
  uint8_t length_ = 0;
};

/// Execute request: 19 bytes and the seven texts.
class TolaMsgExeUpdateScriptData {
 public:
  static constexpr uint32_t kPathLimit = 255;  ///< of the script and the update file
  static constexpr uint32_t kNameLimit = 128;  ///< of the five others

  uint32_t requesterTaskId = 0;
  uint16_t cpuLimit = 0;
  uint8_t caType = 0;
  MsgText scriptFullPath;
  MsgText updateFileFullPath;
  MsgText signaturePath;
  MsgText fileListFileName;
  MsgText signatureFileName;
  MsgText signatureCrlFileName;
  MsgText extendScriptPara;
  uint32_t featureId = 0;
  uint8_t checkFeatureId = 0;

  [[nodiscard]] uint32_t GetMsgLength() const;
  [[nodiscard]] uint32_t SerializeToMsg(unsigned char* buffer, uint32_t length) const;
  /// Texts of an earlier parse or set are dropped first. With `copy` the record owns its texts; without, they
  /// are views into `buffer`, which must outlive them. @retval 1 cut, a text over its limit, or no memory
  [[nodiscard]] uint32_t ParseFromMsg(const unsigned char* buffer, uint32_t length, bool copy);
  [[nodiscard]] uint32_t ParseFromMsg(const unsigned char* buffer, uint32_t length) {
    return ParseFromMsg(buffer, length, true);
  }

/// InitX(length) and SetX(text, length): MsgText's, with the limit of the field.
#define UPDATE_TEXT(Name, field, limit)                                 \
  [[nodiscard]] uint32_t Init##Name(uint32_t length) {                  \
    return field.Init(length, limit);                                   \
  }                                                                     \
  [[nodiscard]] uint32_t Set##Name(const char* text, uint32_t length) { \
    return field.Set(text, length, limit);                              \
  }
  UPDATE_TEXT(ScriptFullPath, scriptFullPath, kPathLimit)
  UPDATE_TEXT(UpdateFileFullPath, updateFileFullPath, kPathLimit)
  UPDATE_TEXT(SignaturePath, signaturePath, kNameLimit)
  UPDATE_TEXT(FileListFileName, fileListFileName, kNameLimit)
  UPDATE_TEXT(SignatureFileName, signatureFileName, kNameLimit)
  UPDATE_TEXT(SignatureCrlFileName, signatureCrlFileName, kNameLimit)
  UPDATE_TEXT(ExtendScriptPara, extendScriptPara, kNameLimit)
#undef UPDATE_TEXT
};

/// Execute reply: 6 bytes.
class TolaMsgExeUpdateScriptAckData {
 public:
  uint32_t requesterTaskId = 0;  ///< echoed from the request
  uint16_t result = 0;

  [[nodiscard]] uint32_t GetMsgLength() const { return 6; }
  [[nodiscard]] uint32_t SerializeToMsg(unsigned char* buffer, uint32_t length) const;
  [[nodiscard]] uint32_t ParseFromMsg(const unsigned char* buffer, uint32_t length);
};

/// Authorisation request: 4 bytes.
class TolaMsgExeUpdateAuthVerifyData {
 public:
  uint32_t requesterTaskId = 0;  ///< of the pending request

  [[nodiscard]] uint32_t GetMsgLength() const { return 4; }
  [[nodiscard]] uint32_t SerializeToMsg(unsigned char* buffer, uint32_t length) const;
  [[nodiscard]] uint32_t ParseFromMsg(const unsigned char* buffer, uint32_t length);
};

/// Authorisation reply: 6 bytes.
class TolaMsgExeUpdateAuthVerifyAckData {
 public:
  uint32_t requesterTaskId = 0;  ///< sent as 0 and not looked at
  uint16_t result = 1;           ///< 0 grants; refused until a reply says otherwise

  [[nodiscard]] uint32_t GetMsgLength() const { return 6; }
  [[nodiscard]] uint32_t SerializeToMsg(unsigned char* buffer, uint32_t length) const;
  [[nodiscard]] uint32_t ParseFromMsg(const unsigned char* buffer, uint32_t length);
};

}  // namespace TolaCmpMsg
