/// The codec of component messages: fixed-width numbers in network (big-endian) or host (little-endian)
/// order, runs of bytes and text, arrays, and skipping of unknown items, over a flat byte buffer.
///
/// Two words carry the state: the cursor (next byte) and how many bytes remain behind it. A bounded operation
/// checks first; on 0 it has moved the cursor and lowered `remaining` by exactly the bytes it used, on 1 (too
/// few bytes) it has moved nothing. "Host" order is written byte by byte, so it does not depend on the
/// machine. The functions touch only their arguments.
///
/// On a short buffer the unsigned getters leave their destination alone; the signed and floating-point ones
/// store 0 in it (kept: callers rely on either).
#pragma once

#include <stdint.h>
#include <string.h>

#include <bit>
#include <type_traits>

namespace msg_codec {

enum class Order { kNet, kHost };

template <class T>
using Bits = std::conditional_t<
    sizeof(T) == 1, uint8_t,
    std::conditional_t<sizeof(T) == 2, uint16_t, std::conditional_t<sizeof(T) == 4, uint32_t, uint64_t>>>;

/// The unbounded moves: the caller has checked that sizeof(T) bytes are there.
template <Order order, class T>
inline void Put(T value, unsigned char*& cursor) {
  const auto bits = std::bit_cast<Bits<T>>(value);
  for (unsigned i = 0; i < sizeof(T); ++i) {
    const unsigned shift = 8 * (order == Order::kNet ? static_cast<unsigned>(sizeof(T)) - 1 - i : i);
    cursor[i] = static_cast<unsigned char>(bits >> shift);
  }
  cursor += sizeof(T);
}

template <Order order, class T>
inline T Take(unsigned char*& cursor) {
  Bits<T> bits = 0;
  for (unsigned i = 0; i < sizeof(T); ++i) {
    const unsigned shift = 8 * (order == Order::kNet ? static_cast<unsigned>(sizeof(T)) - 1 - i : i);
    bits = static_cast<Bits<T>>(bits | static_cast<Bits<T>>(static_cast<Bits<T>>(cursor[i]) << shift));
  }
  cursor += sizeof(T);
  return std::bit_cast<T>(bits);
}

template <Order order, class T>
[[nodiscard]] inline uint32_t PutBounded(T value, unsigned char*& cursor, unsigned int& remaining) {
  if (remaining < sizeof(T)) return 1;
  Put<order>(value, cursor);
  remaining -= static_cast<unsigned int>(sizeof(T));
  return 0;
}

template <Order order, class T>
[[nodiscard]] inline uint32_t TakeBounded(unsigned char*& cursor, unsigned int& remaining, T& value) {
  if (remaining < sizeof(T)) {
    if constexpr (!std::is_unsigned_v<T>) value = T{};
    return 1;
  }
  value = Take<order, T>(cursor);
  remaining -= static_cast<unsigned int>(sizeof(T));
  return 0;
}

constexpr size_t kRunMax = 256;  ///< beyond it the library is faster

/// Copies `length` bytes between buffers that do not overlap: blocks of fixed size, the last one over the end
/// of the one before. For the short texts of a record this is well ahead of a library call, and of the string
/// instruction that a compiler puts in a call's place where it knows that the length is short.
inline void CopyRun(unsigned char* to, const unsigned char* from, size_t length) {
  const auto blocks = [&]<size_t kBlock>(std::integral_constant<size_t, kBlock>) {
    for (size_t at = 0; at + kBlock <= length; at += kBlock) memcpy(to + at, from + at, kBlock);
    memcpy(to + length - kBlock, from + length - kBlock, kBlock);
  };
  if (length > kRunMax) {
    memcpy(to, from, length);
  } else if (length >= 16) {
    blocks(std::integral_constant<size_t, 16>{});
  } else if (length >= 8) {
    blocks(std::integral_constant<size_t, 8>{});
  } else if (length >= 4) {
    blocks(std::integral_constant<size_t, 4>{});
  } else {
    for (size_t at = 0; at < length; ++at) to[at] = from[at];
  }
}

/// Hands out the cursor and steps over `count` elements of `width` bytes.
template <class T>
[[nodiscard]] inline uint32_t View(unsigned char*& cursor, unsigned int& remaining, T*& out,
                                   unsigned int count) {
  const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(T);
  if (remaining < bytes) return 1;
  out = reinterpret_cast<T*>(cursor);
  cursor += bytes;
  remaining -= static_cast<unsigned int>(bytes);
  return 0;
}

}  // namespace msg_codec

/// SetMsgU8_s(value, cursor, remaining), GetMsgU8_s(cursor, remaining, value): one byte.
[[nodiscard]] inline uint32_t SetMsgU8_s(uint8_t value, unsigned char*& cursor, unsigned int& remaining) {
  return msg_codec::PutBounded<msg_codec::Order::kHost>(value, cursor, remaining);
}
[[nodiscard]] inline uint32_t GetMsgU8_s(unsigned char*& cursor, unsigned int& remaining, uint8_t& value) {
  return msg_codec::TakeBounded<msg_codec::Order::kHost>(cursor, remaining, value);
}

/// Unbounded: <set>(value, cursor) and <get>(cursor, value), for a caller that has checked the room.
#define MSG_CODEC_UNBOUNDED(set, get, order, type)                  \
  inline void set(type value, unsigned char*& cursor) {             \
    msg_codec::Put<msg_codec::Order::order>(value, cursor);         \
  }                                                                 \
  inline void get(unsigned char*& cursor, type& value) {            \
    value = msg_codec::Take<msg_codec::Order::order, type>(cursor); \
  }
MSG_CODEC_UNBOUNDED(Msg_SetNetU16, Msg_GetNetU16, kNet, uint16_t)
MSG_CODEC_UNBOUNDED(Msg_SetNetU32, Msg_GetNetU32, kNet, uint32_t)
MSG_CODEC_UNBOUNDED(Msg_SetNetU64, Msg_GetNetU64, kNet, uint64_t)
MSG_CODEC_UNBOUNDED(SetHostU16, GetHostU16, kHost, uint16_t)
MSG_CODEC_UNBOUNDED(SetHostU32, GetHostU32, kHost, uint32_t)
MSG_CODEC_UNBOUNDED(SetHostU64, GetHostU64, kHost, uint64_t)
#undef MSG_CODEC_UNBOUNDED

/// Bounded single values: SetNetU16_s(value, cursor, remaining), GetNetU16_s(cursor, remaining, value), and
/// so on for U16, I16, U32, I32, F32, U64, D64 in both orders. The cursor is never null, but for
/// GetHostU16_s.
#define MSG_CODEC_SET(name, order, type)                                                            \
  [[nodiscard]] inline uint32_t name(type value, unsigned char*& cursor, unsigned int& remaining) { \
    return msg_codec::PutBounded<msg_codec::Order::order>(value, cursor, remaining);                \
  }
#define MSG_CODEC_GET(name, order, type)                                                             \
  [[nodiscard]] inline uint32_t name(unsigned char*& cursor, unsigned int& remaining, type& value) { \
    return msg_codec::TakeBounded<msg_codec::Order::order>(cursor, remaining, value);                \
  }
#define MSG_CODEC_BOTH(suffix, type)              \
  MSG_CODEC_SET(SetNet##suffix##_s, kNet, type)   \
  MSG_CODEC_GET(GetNet##suffix##_s, kNet, type)   \
  MSG_CODEC_SET(SetHost##suffix##_s, kHost, type) \
  MSG_CODEC_GET(GetHost##suffix##_s, kHost, type)
MSG_CODEC_SET(SetNetU16_s, kNet, uint16_t)
MSG_CODEC_GET(GetNetU16_s, kNet, uint16_t)
MSG_CODEC_SET(SetHostU16_s, kHost, uint16_t)
MSG_CODEC_BOTH(I16, int16_t)
MSG_CODEC_BOTH(U32, uint32_t)
MSG_CODEC_BOTH(I32, int32_t)
MSG_CODEC_BOTH(F32, float)
MSG_CODEC_BOTH(U64, uint64_t)
MSG_CODEC_BOTH(D64, double)
#undef MSG_CODEC_BOTH
#undef MSG_CODEC_GET
#undef MSG_CODEC_SET

/// kept: the one getter that also answers 1 to a null cursor.
[[nodiscard]] inline uint32_t GetHostU16_s(unsigned char*& cursor, unsigned int& remaining, uint16_t& value) {
  if (cursor == nullptr) return 1;
  return msg_codec::TakeBounded<msg_codec::Order::kHost>(cursor, remaining, value);
}

/// Runs of exactly `length` bytes; no length prefix, no terminator is written, read or added. A getter's
/// destination holds `length` bytes. Length 0 touches nothing, so its pointer may be null.
[[nodiscard]] inline uint32_t SetBinaryData(const unsigned char* data, unsigned int length,
                                            unsigned char*& cursor, unsigned int& remaining) {
  if (remaining < length) return 1;
  if (length == 0) return 0;
  msg_codec::CopyRun(cursor, data, length);  // the room was checked above
  cursor += length;
  remaining -= length;
  return 0;
}
[[nodiscard]] inline uint32_t GetBinaryData(unsigned char*& cursor, unsigned int& remaining,
                                            unsigned char* destination, unsigned int length) {
  if (remaining < length) return 1;
  if (length == 0) return 0;
  msg_codec::CopyRun(destination, cursor, length);
  cursor += length;
  remaining -= length;
  return 0;
}
[[nodiscard]] inline uint32_t SetStringData(const char* text, unsigned int length, unsigned char*& cursor,
                                            unsigned int& remaining) {
  return SetBinaryData(reinterpret_cast<const unsigned char*>(text), length, cursor, remaining);
}
[[nodiscard]] inline uint32_t GetStringData(unsigned char*& cursor, unsigned int& remaining,
                                            char* destination, unsigned int length) {
  return GetBinaryData(cursor, remaining, reinterpret_cast<unsigned char*>(destination), length);
}

/// Views into the buffer: `out` is set to the cursor, nothing is copied or converted, and no alignment is
/// promised: wider elements are read with memcpy, as they lie in the buffer.
#define MSG_CODEC_VIEW(name, type)                                                                \
  [[nodiscard]] inline uint32_t name(unsigned char*& cursor, unsigned int& remaining, type*& out, \
                                     unsigned int count) {                                        \
    return msg_codec::View(cursor, remaining, out, count);                                        \
  }
MSG_CODEC_VIEW(GetBinaryDataNoCopy, unsigned char)
MSG_CODEC_VIEW(GetStringDataNoCopy, char)
MSG_CODEC_VIEW(GetBinaryDataNoCopyU16, uint16_t)
MSG_CODEC_VIEW(GetBinaryDataNoCopyInt16, int16_t)
MSG_CODEC_VIEW(GetBinaryDataNoCopyU32, uint32_t)
MSG_CODEC_VIEW(GetBinaryDataNoCopyInt32, int32_t)
MSG_CODEC_VIEW(GetBinaryDataNoCopyU64, uint64_t)
MSG_CODEC_VIEW(GetBinaryDataNoCopyF32, float)
MSG_CODEC_VIEW(GetBinaryDataNoCopyD64, double)
#undef MSG_CODEC_VIEW

/// Arrays, element by element: SetBinaryDataNetU16(elements, count, cursor, remaining),
/// GetBinaryDataNetU16(cursor, remaining, elements, count), and so on for both orders. All or nothing.
#define MSG_CODEC_ARRAY(suffix, type)                                                                \
  [[nodiscard]] uint32_t SetBinaryDataNet##suffix(const type* elements, unsigned int count,          \
                                                  unsigned char*& cursor, unsigned int& remaining);  \
  [[nodiscard]] uint32_t GetBinaryDataNet##suffix(unsigned char*& cursor, unsigned int& remaining,   \
                                                  type* elements, unsigned int count);               \
  [[nodiscard]] uint32_t SetBinaryDataHost##suffix(const type* elements, unsigned int count,         \
                                                   unsigned char*& cursor, unsigned int& remaining); \
  [[nodiscard]] uint32_t GetBinaryDataHost##suffix(unsigned char*& cursor, unsigned int& remaining,  \
                                                   type* elements, unsigned int count);
MSG_CODEC_ARRAY(U16, uint16_t)
MSG_CODEC_ARRAY(Int16, int16_t)
MSG_CODEC_ARRAY(U32, uint32_t)
MSG_CODEC_ARRAY(Int32, int32_t)
MSG_CODEC_ARRAY(F32, float)
MSG_CODEC_ARRAY(U64, uint64_t)
MSG_CODEC_ARRAY(D64, double)
#undef MSG_CODEC_ARRAY

/// Steps over an item whose tag is unknown; the cursor stands at its length field of `lenSize` (1, 2, 4 or 8)
/// bytes. Of an 8-byte length the low 32 bits count. kept: when the announced length is larger than what
/// remains, the result is 1 and the length field stays consumed.
[[nodiscard]] uint32_t SkipUnknownTlv(unsigned char*& cursor, unsigned int& remaining, unsigned char lenSize,
                                      bool network);
[[nodiscard]] uint32_t SkipUnknownNetTlv(unsigned char*& cursor, unsigned int& remaining,
                                         unsigned char lenSize);
[[nodiscard]] uint32_t SkipUnknownHostTlv(unsigned char*& cursor, unsigned int& remaining,
                                          unsigned char lenSize);

/// False for a NaN and for the pattern of all ones, the marker for "no value"; infinities are values.
bool MsgIsFloatValueValid(float value);
bool MsgIsDoubleValueValid(double value);
