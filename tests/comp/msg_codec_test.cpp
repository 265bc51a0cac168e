/// The codec against bytes written down by hand, at every number of remaining bytes.
#include "comp/msg_codec.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

using ::testing::ElementsAreArray;
using Bytes = std::vector<uint8_t>;

enum class OnShort { kKeeps, kZeroes };

/// Moves `values` out and in again with every number of bytes from none to one more than needed.
template <class T, class Set, class Get>
void Sweep(const char* name, const std::vector<T>& values, const Bytes& wire, Set set, Get get,
           OnShort onShort) {
  SCOPED_TRACE(name);
  for (unsigned int room = 0; room <= wire.size() + 1; ++room) {
    SCOPED_TRACE(room);
    const bool fits = room >= wire.size();
    const unsigned int used = fits ? static_cast<unsigned int>(wire.size()) : 0;
    Bytes buffer(room, 0xEE);
    unsigned char* cursor = buffer.data();
    unsigned int remaining = room;
    EXPECT_EQ(set(values.data(), cursor, remaining), fits ? 0u : 1u);
    EXPECT_EQ(cursor - buffer.data(), used);
    EXPECT_EQ(remaining, room - used);
    Bytes expected(room, 0xEE);
    std::copy_n(wire.begin(), used, expected.begin());
    EXPECT_EQ(buffer, expected) << "wrong order, or a byte written that is not the value's";

    buffer = wire;
    buffer.resize(room, 0xEE);
    cursor = buffer.data();
    remaining = room;
    std::vector<T> got(values.size(), T{77});
    EXPECT_EQ(get(cursor, remaining, got.data()), fits ? 0u : 1u);
    EXPECT_EQ(cursor - buffer.data(), used);
    EXPECT_EQ(remaining, room - used);
    EXPECT_EQ(got, fits ? values : std::vector<T>(values.size(), onShort == OnShort::kZeroes ? T{} : T{77}));
  }
}

template <class T>
void CheckCounts(uint32_t (*set)(const T*, unsigned int, unsigned char*&, unsigned int&),
                 uint32_t (*get)(unsigned char*&, unsigned int&, T*, unsigned int)) {
  unsigned char bytes[8] = {};
  unsigned char* cursor = bytes;
  unsigned int remaining = 0;
  EXPECT_EQ(set(nullptr, 0, cursor, remaining), 0u) << "an array of no elements succeeds";
  EXPECT_EQ(get(cursor, remaining, nullptr, 0), 0u);
  remaining = sizeof(bytes);
  const unsigned int wraps = static_cast<unsigned int>(0x100000000ull / sizeof(T)) + 1;
  T value{};
  EXPECT_EQ(set(&value, wraps, cursor, remaining), 1u) << "count times width wrapped in 32 bits";
  EXPECT_EQ(get(cursor, remaining, &value, wraps), 1u);
  EXPECT_EQ(cursor, bytes);
}

/// `wire` in host order, element by element.
Bytes Host(Bytes wire, size_t width) {
  for (auto at = wire.begin(); at != wire.end(); at += static_cast<ptrdiff_t>(width)) {
    std::reverse(at, at + static_cast<ptrdiff_t>(width));
  }
  return wire;
}

#define CHECK_VALUE(set, get, type, value, wire, onShort)                                 \
  Sweep<type>(                                                                            \
      #set, {value}, wire, [](const type* v, auto& c, auto& r) { return set(*v, c, r); }, \
      [](auto& c, auto& r, type* v) { return get(c, r, *v); }, onShort)

#define CHECK_PAIR(set, get, type, first, second, wire)                                             \
  Sweep<type>(                                                                                      \
      #set, {first, second}, wire, [](const type* v, auto& c, auto& r) { return set(v, 2, c, r); }, \
      [](auto& c, auto& r, type* v) { return get(c, r, v, 2); }, OnShort::kKeeps);                  \
  CheckCounts<type>(set, get)

/// The single value `first` and the array of both, in both orders; the bytes are those of the network's.
#define CHECK_TYPE(single, array, type, first, second, ...)                                              \
  {                                                                                                      \
    const Bytes net = __VA_ARGS__;                                                                       \
    const Bytes host = Host(net, sizeof(type));                                                          \
    const auto one = [](const Bytes& both) { return Bytes(both.begin(), both.begin() + sizeof(type)); }; \
    const OnShort onShort = std::is_unsigned_v<type> ? OnShort::kKeeps : OnShort::kZeroes;               \
    CHECK_VALUE(SetNet##single##_s, GetNet##single##_s, type, first, one(net), onShort);                 \
    CHECK_VALUE(SetHost##single##_s, GetHost##single##_s, type, first, one(host), onShort);              \
    CHECK_PAIR(SetBinaryDataNet##array, GetBinaryDataNet##array, type, first, second, net);              \
    CHECK_PAIR(SetBinaryDataHost##array, GetBinaryDataHost##array, type, first, second, host);           \
  }

TEST(MsgCodecTest, ValuesAndArraysHaveTheirBytesAndTouchNothingWhenTheyDoNotFit) {
  CHECK_VALUE(SetMsgU8_s, GetMsgU8_s, uint8_t, 0xA5, Bytes{0xA5}, OnShort::kKeeps);
  CHECK_TYPE(U16, U16, uint16_t, 0x0102, 0xFF04, {1, 2, 0xFF, 4});
  CHECK_TYPE(I16, Int16, int16_t, -2, 3, {0xFF, 0xFE, 0, 3});
  CHECK_TYPE(U32, U32, uint32_t, 0x01020384, 5, {1, 2, 3, 0x84, 0, 0, 0, 5});
  CHECK_TYPE(I32, Int32, int32_t, std::numeric_limits<int32_t>::min(), 6, {0x80, 0, 0, 0, 0, 0, 0, 6});
  CHECK_TYPE(F32, F32, float, -2.5f, 1.0f, {0xC0, 0x20, 0, 0, 0x3F, 0x80, 0, 0});
  CHECK_TYPE(U64, U64, uint64_t, 0x0102030405060788, 9, {1, 2, 3, 4, 5, 6, 7, 0x88, 0, 0, 0, 0, 0, 0, 0, 9});
  CHECK_TYPE(D64, D64, double, 1.0, -1.0, {0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0xBF, 0xF0, 0, 0, 0, 0, 0, 0});
}

template <class T>
void CheckUnbounded(void (*set)(T, unsigned char*&), void (*get)(unsigned char*&, T&), T value,
                    const Bytes& wire) {
  unsigned char out[9] = {};
  unsigned char* cursor = out;
  set(value, cursor);
  EXPECT_EQ(Bytes(out, cursor), wire);
  T got = 0;
  cursor = out;
  get(cursor, got);
  EXPECT_EQ(cursor - out, static_cast<ptrdiff_t>(wire.size()));
  EXPECT_EQ(got, value);
}

TEST(MsgCodecTest, UnboundedValuesHaveTheSameBytes) {
  CheckUnbounded<uint16_t>(Msg_SetNetU16, Msg_GetNetU16, 0xFF01, {0xFF, 1});
  CheckUnbounded<uint32_t>(Msg_SetNetU32, Msg_GetNetU32, 0xFF020304, {0xFF, 2, 3, 4});
  CheckUnbounded<uint64_t>(Msg_SetNetU64, Msg_GetNetU64, 0xFF02030405060708, {0xFF, 2, 3, 4, 5, 6, 7, 8});
  CheckUnbounded<uint16_t>(SetHostU16, GetHostU16, 0xFF01, {1, 0xFF});
  CheckUnbounded<uint32_t>(SetHostU32, GetHostU32, 0xFF020304, {4, 3, 2, 0xFF});
  CheckUnbounded<uint64_t>(SetHostU64, GetHostU64, 0xFF02030405060708, {8, 7, 6, 5, 4, 3, 2, 0xFF});
}

TEST(MsgCodecTest, RunsAreCopiedExactlyOrNotAtAll) {
  unsigned char buffer[4] = {};
  unsigned char* cursor = nullptr;
  unsigned int remaining = 4;
  uint16_t value = 9;
  EXPECT_EQ(GetHostU16_s(cursor, remaining, value), 1u) << "the one call that refuses a null cursor";
  EXPECT_TRUE(remaining == 4 && value == 9);
  cursor = buffer;
  EXPECT_EQ(SetStringData("abcde", 5, cursor, remaining), 1u);
  EXPECT_EQ(SetStringData("abc", 3, cursor, remaining), 0u);
  EXPECT_THAT(buffer, ElementsAreArray({'a', 'b', 'c', '\0'})) << "no terminator is added";
  EXPECT_EQ(SetBinaryData(nullptr, 0, cursor, remaining), 0u);
  EXPECT_EQ(remaining, 1u);

  char text[5] = "####";
  cursor = buffer;
  remaining = 3;
  EXPECT_EQ(GetStringData(cursor, remaining, text, 4), 1u);
  EXPECT_STREQ(text, "####") << "a short run changed its destination";
  EXPECT_EQ(GetStringData(cursor, remaining, text, 3), 0u);
  EXPECT_STREQ(text, "abc#");
  EXPECT_EQ(cursor, buffer + 3);
}

TEST(MsgCodecTest, ViewsPointIntoTheBufferAndCountInElements) {
  unsigned char buffer[9] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char* cursor = buffer + 1;
  unsigned int remaining = 8;
  uint32_t* words = nullptr;
  EXPECT_EQ(GetBinaryDataNoCopyU32(cursor, remaining, words, 3), 1u);
  EXPECT_EQ(words, nullptr);
  EXPECT_EQ(GetBinaryDataNoCopyU32(cursor, remaining, words, 0x40000001), 1u)
      << "4 bytes in 32-bit arithmetic";
  EXPECT_EQ(GetBinaryDataNoCopyU32(cursor, remaining, words, 1), 0u);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(words), buffer + 1);
  char* text = nullptr;
  EXPECT_EQ(GetStringDataNoCopy(cursor, remaining, text, 4), 0u);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(text), buffer + 5);
  EXPECT_EQ(remaining, 0u);
}

TEST(MsgCodecTest, UnknownItemsAreSkippedByTheirLength) {
  const struct {
    const char* name;
    bool network;
    unsigned char lenSize;
    Bytes bytes;
    uint32_t result;
    ptrdiff_t consumed;
  } cases[] = {
      {"one byte", true, 1, {2, 9, 9, 9}, 0, 3},
      {"two, network", true, 2, {0, 3, 9, 9, 9}, 0, 5},
      {"two, host", false, 2, {3, 0, 9, 9, 9}, 0, 5},
      {"four, network", true, 4, {0, 0, 0, 1, 9}, 0, 5},
      {"eight, host", false, 8, {1, 0, 0, 0, 0, 0, 0, 0, 9}, 0, 9},
      {"eight counts its low half", true, 8, {0xFF, 0, 0, 0, 0, 0, 0, 1, 9}, 0, 9},
      {"length 0", true, 1, {0}, 0, 1},
      {"too long keeps the length field consumed", true, 2, {0, 3, 9, 9}, 1, 2},
      {"all ones", true, 4, {0xFF, 0xFF, 0xFF, 0xFF, 9}, 1, 4},
      {"no room for the length", true, 4, {0, 0, 0}, 1, 0},
      {"width 3", true, 3, {0, 0, 0, 9}, 1, 0},
      {"width 0", false, 0, {1, 2}, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes bytes = c.bytes;
    unsigned char* cursor = bytes.data();
    auto remaining = static_cast<unsigned int>(bytes.size());
    const auto skip = c.network ? SkipUnknownNetTlv : SkipUnknownHostTlv;
    EXPECT_EQ(skip(cursor, remaining, c.lenSize), c.result);
    EXPECT_EQ(cursor - bytes.data(), c.consumed);
    EXPECT_EQ(remaining, bytes.size() - c.consumed);
  }
}

TEST(MsgCodecTest, NotANumberAndAllOnesAreNoValues) {
  EXPECT_TRUE(MsgIsFloatValueValid(-0.0f));
  EXPECT_TRUE(MsgIsFloatValueValid(-INFINITY)) << "infinities are values";
  EXPECT_FALSE(MsgIsFloatValueValid(std::bit_cast<float>(0x7F800001u))) << "a signalling NaN";
  EXPECT_FALSE(MsgIsFloatValueValid(std::bit_cast<float>(0xFFFFFFFFu)));
  EXPECT_TRUE(MsgIsDoubleValueValid(HUGE_VAL));
  EXPECT_FALSE(MsgIsDoubleValueValid(std::nan("")));
  EXPECT_FALSE(MsgIsDoubleValueValid(std::bit_cast<double>(~0ull)));
}

}  // namespace
