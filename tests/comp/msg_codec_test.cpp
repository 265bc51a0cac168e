/// The codec against bytes written down by hand, at every number of remaining bytes.
#include "comp/msg_codec.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Bytes = std::vector<uint8_t>;

template <class T>
struct Codec {
  uint32_t (*set)(T, unsigned char*&, unsigned int&);
  uint32_t (*get)(unsigned char*&, unsigned int&, T&);
  uint32_t (*setAll)(const T*, unsigned int, unsigned char*&, unsigned int&);
  uint32_t (*getAll)(unsigned char*&, unsigned int&, T*, unsigned int);
};

/// Moves `first`, and behind it an array of both values, out and in with every number of bytes from none to
/// one more than needed. `pair` are the bytes of both in the network's order; the host's are each value's
/// turned round.
template <class T>
void Sweep(const Codec<T>& codec, bool host, T first, T second, Bytes pair) {
  SCOPED_TRACE(testing::Message() << (host ? "host " : "net ") << first);
  const T values[] = {first, second};
  for (auto at = pair.begin(); host && at != pair.end(); at += sizeof(T)) std::reverse(at, at + sizeof(T));
  Bytes wire(pair.begin(), pair.begin() + sizeof(T));
  wire.insert(wire.end(), pair.begin(), pair.end());
  for (unsigned int room = 0; room <= wire.size() + 1; ++room) {
    SCOPED_TRACE(room);
    const bool one = room >= sizeof(T);
    const bool all = room >= wire.size();
    const size_t used = all ? wire.size() : one ? sizeof(T) : 0;
    Bytes buffer(room, 0xEE);
    Bytes expected = buffer;
    std::copy_n(wire.begin(), used, expected.begin());
    unsigned char* cursor = buffer.data();
    unsigned int remaining = room;
    EXPECT_EQ(codec.set(first, cursor, remaining), one ? 0u : 1u);
    EXPECT_EQ(codec.setAll(values, 2, cursor, remaining), all ? 0u : 1u);
    EXPECT_EQ(cursor, buffer.data() + used);
    EXPECT_EQ(remaining, room - used);
    EXPECT_EQ(buffer, expected) << "wrong order, or a byte written that is not the value's";

    cursor = buffer.data();
    remaining = room;
    T got[] = {77, 77, 77};
    EXPECT_EQ(codec.get(cursor, remaining, got[0]), one ? 0u : 1u);
    EXPECT_EQ(codec.getAll(cursor, remaining, got + 1, 2), all ? 0u : 1u);
    EXPECT_EQ(cursor, buffer.data() + used);
    EXPECT_EQ(remaining, room - used);
    const T onShort = std::is_unsigned_v<T> ? T{77} : T{};
    EXPECT_THAT(got, ElementsAre(one ? first : onShort, all ? first : T{77}, all ? second : T{77}));
  }
  unsigned char* cursor = wire.data();
  unsigned int remaining = sizeof(T);
  const auto wraps = static_cast<unsigned int>(0x100000000ull / sizeof(T)) + 1;
  T value{};
  EXPECT_EQ(codec.setAll(&value, wraps, cursor, remaining), 1u) << "count times width wrapped in 32 bits";
  EXPECT_EQ(codec.getAll(cursor, remaining, &value, wraps), 1u);
  EXPECT_EQ(codec.setAll(nullptr, 0, cursor, remaining), 0u) << "an array of no elements succeeds";
}

#define CODEC(order, single, array) \
  { Set##order##single##_s, Get##order##single##_s, SetBinaryData##order##array, GetBinaryData##order##array }
#define SWEEP(type, single, array, ...)                       \
  Sweep<type>(CODEC(Net, single, array), false, __VA_ARGS__); \
  Sweep<type>(CODEC(Host, single, array), true, __VA_ARGS__)

TEST(MsgCodecTest, ValuesAndArraysHaveTheirBytesAndTouchNothingWhenTheyDoNotFit) {
  SWEEP(uint16_t, U16, U16, 0x0102, 0xFF04, {1, 2, 0xFF, 4});
  SWEEP(int16_t, I16, Int16, -2, 3, {0xFF, 0xFE, 0, 3});
  SWEEP(uint32_t, U32, U32, 0x01020384, 5, {1, 2, 3, 0x84, 0, 0, 0, 5});
  SWEEP(int32_t, I32, Int32, std::numeric_limits<int32_t>::min(), 6, {0x80, 0, 0, 0, 0, 0, 0, 6});
  SWEEP(float, F32, F32, -2.5f, 1.0f, {0xC0, 0x20, 0, 0, 0x3F, 0x80, 0, 0});
  SWEEP(uint64_t, U64, U64, 0x0102030405060788, 9, {1, 2, 3, 4, 5, 6, 7, 0x88, 0, 0, 0, 0, 0, 0, 0, 9});
  SWEEP(double, D64, D64, 1.0, -1.0, {0x3F, 0xF0, 0, 0, 0, 0, 0, 0, 0xBF, 0xF0, 0, 0, 0, 0, 0, 0});
}

TEST(MsgCodecTest, UnboundedValuesHaveTheSameBytes) {
  const Bytes wire = {1, 2, 1, 2, 3, 4, 1, 2, 3, 4, 5, 6, 7, 8, 2, 1, 4, 3, 2, 1, 8, 7, 6, 5, 4, 3, 2, 1};
  Bytes out(wire.size());
  unsigned char* cursor = out.data();
  Msg_SetNetU16(0x0102, cursor);
  Msg_SetNetU32(0x01020304, cursor);
  Msg_SetNetU64(0x0102030405060708, cursor);
  SetHostU16(0x0102, cursor);
  SetHostU32(0x01020304, cursor);
  SetHostU64(0x0102030405060708, cursor);
  EXPECT_EQ(out, wire);
  cursor = out.data();
  for (const bool net : {true, false}) {
    uint16_t two = 0;
    uint32_t four = 0;
    uint64_t eight = 0;
    net ? Msg_GetNetU16(cursor, two) : GetHostU16(cursor, two);
    net ? Msg_GetNetU32(cursor, four) : GetHostU32(cursor, four);
    net ? Msg_GetNetU64(cursor, eight) : GetHostU64(cursor, eight);
    EXPECT_TRUE(two == 0x0102 && four == 0x01020304 && eight == 0x0102030405060708) << net;
  }
}

TEST(MsgCodecTest, RunsAreCopiedExactlyOrNotAtAll) {
  unsigned char buffer[4] = {};
  unsigned char* cursor = nullptr;
  unsigned int remaining = 4;
  uint16_t value = 9;
  EXPECT_EQ(GetHostU16_s(cursor, remaining, value), 1u) << "the one call that refuses a null cursor";
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
  unsigned char buffer[9] = {};
  unsigned char* cursor = buffer + 1;
  unsigned int remaining = 8;
  uint32_t* words = nullptr;
  EXPECT_EQ(GetBinaryDataNoCopyU32(cursor, remaining, words, 3), 1u);
  EXPECT_EQ(GetBinaryDataNoCopyU32(cursor, remaining, words, 0x40000001), 1u)
      << "4 bytes in 32-bit arithmetic";
  EXPECT_EQ(words, nullptr);
  EXPECT_EQ(GetBinaryDataNoCopyU32(cursor, remaining, words, 1), 0u);
  EXPECT_EQ(reinterpret_cast<unsigned char*>(words), buffer + 1);
  EXPECT_EQ(cursor, buffer + 5);
  EXPECT_EQ(remaining, 4u);
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
      {"eight counts its low half", true, 8, {0xFF, 0, 0, 0, 0, 0, 0, 1, 9}, 0, 9},
      {"too long keeps the length field consumed", true, 2, {0, 3, 9, 9}, 1, 2},
      {"all ones", true, 4, {0xFF, 0xFF, 0xFF, 0xFF, 9}, 1, 4},
      {"no room for the length", true, 4, {0, 0, 0}, 1, 0},
      {"width 3", true, 3, {0, 0, 0, 9}, 1, 0},
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
  EXPECT_TRUE(MsgIsFloatValueValid(-INFINITY)) << "infinities are values";
  EXPECT_FALSE(MsgIsFloatValueValid(std::bit_cast<float>(0x7F800001u))) << "a signalling NaN";
  EXPECT_FALSE(MsgIsFloatValueValid(std::bit_cast<float>(0xFFFFFFFFu)));
  EXPECT_TRUE(MsgIsDoubleValueValid(HUGE_VAL));
  EXPECT_FALSE(MsgIsDoubleValueValid(std::nan("")));
}

}  // namespace
