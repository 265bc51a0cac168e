/// The cold half of the codec: arrays, unknown items, floating-point checks.
#include "comp/msg_codec.h"

namespace {

using msg_codec::Order;

template <Order order, class T>
uint32_t PutArray(const T* elements, unsigned int count, unsigned char*& cursor, unsigned int& remaining) {
  const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(T);
  if (remaining < bytes) return 1;
  for (unsigned int i = 0; i < count; ++i) msg_codec::Put<order>(elements[i], cursor);
  remaining -= static_cast<unsigned int>(bytes);
  return 0;
}

template <Order order, class T>
uint32_t TakeArray(unsigned char*& cursor, unsigned int& remaining, T* elements, unsigned int count) {
  const uint64_t bytes = static_cast<uint64_t>(count) * sizeof(T);
  if (remaining < bytes) return 1;
  for (unsigned int i = 0; i < count; ++i) elements[i] = msg_codec::Take<order, T>(cursor);
  remaining -= static_cast<unsigned int>(bytes);
  return 0;
}

/// Reads a length field of sizeof(T) bytes in the chosen order.
template <class T>
uint32_t TakeLength(unsigned char*& cursor, unsigned int& remaining, bool network, uint32_t& length) {
  T value = 0;
  const uint32_t ret = network ? msg_codec::TakeBounded<Order::kNet>(cursor, remaining, value)
                               : msg_codec::TakeBounded<Order::kHost>(cursor, remaining, value);
  length = static_cast<uint32_t>(value);
  return ret;
}

}  // namespace

#define MSG_CODEC_ARRAY(suffix, type)                                                                  \
  uint32_t SetBinaryDataNet##suffix(const type* elements, unsigned int count, unsigned char*& cursor,  \
                                    unsigned int& remaining) {                                         \
    return PutArray<Order::kNet>(elements, count, cursor, remaining);                                  \
  }                                                                                                    \
  uint32_t GetBinaryDataNet##suffix(unsigned char*& cursor, unsigned int& remaining, type* elements,   \
                                    unsigned int count) {                                              \
    return TakeArray<Order::kNet>(cursor, remaining, elements, count);                                 \
  }                                                                                                    \
  uint32_t SetBinaryDataHost##suffix(const type* elements, unsigned int count, unsigned char*& cursor, \
                                     unsigned int& remaining) {                                        \
    return PutArray<Order::kHost>(elements, count, cursor, remaining);                                 \
  }                                                                                                    \
  uint32_t GetBinaryDataHost##suffix(unsigned char*& cursor, unsigned int& remaining, type* elements,  \
                                     unsigned int count) {                                             \
    return TakeArray<Order::kHost>(cursor, remaining, elements, count);                                \
  }
MSG_CODEC_ARRAY(U16, uint16_t)
MSG_CODEC_ARRAY(Int16, int16_t)
MSG_CODEC_ARRAY(U32, uint32_t)
MSG_CODEC_ARRAY(Int32, int32_t)
MSG_CODEC_ARRAY(F32, float)
MSG_CODEC_ARRAY(U64, uint64_t)
MSG_CODEC_ARRAY(D64, double)
#undef MSG_CODEC_ARRAY

uint32_t SkipUnknownTlv(unsigned char*& cursor, unsigned int& remaining, unsigned char lenSize,
                        bool network) {
  uint32_t length = 0;
  uint32_t ret = 1;
  switch (lenSize) {
    case 1:
      ret = TakeLength<uint8_t>(cursor, remaining, network, length);
      break;
    case 2:
      ret = TakeLength<uint16_t>(cursor, remaining, network, length);
      break;
    case 4:
      ret = TakeLength<uint32_t>(cursor, remaining, network, length);
      break;
    case 8:
      ret = TakeLength<uint64_t>(cursor, remaining, network, length);
      break;
    default:
      break;
  }
  if (ret != 0) return ret;
  if (length > remaining) return 1;
  cursor += length;
  remaining -= length;
  return 0;
}

uint32_t SkipUnknownNetTlv(unsigned char*& cursor, unsigned int& remaining, unsigned char lenSize) {
  return SkipUnknownTlv(cursor, remaining, lenSize, true);
}

uint32_t SkipUnknownHostTlv(unsigned char*& cursor, unsigned int& remaining, unsigned char lenSize) {
  return SkipUnknownTlv(cursor, remaining, lenSize, false);
}

bool MsgIsFloatValueValid(float value) {
  const auto bits = std::bit_cast<uint32_t>(value);
  return bits != 0xFFFFFFFFu && (bits & 0x7FFFFFFFu) <= 0x7F800000u;
}

bool MsgIsDoubleValueValid(double value) {
  const auto bits = std::bit_cast<uint64_t>(value);
  return bits != ~0ull && (bits & 0x7FFFFFFFFFFFFFFFull) <= 0x7FF0000000000000ull;
}
