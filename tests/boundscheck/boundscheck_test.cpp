// The bounds: one byte less, exact, one byte more, and what a refused call leaves behind.
#include <gtest/gtest.h>
#include <limits.h>

#include <cstdarg>
#include <cstring>
#include <string>

#include "securec.h"

namespace {

// A destination with a guard behind it that no call may touch.
template <size_t kSize>
struct Guarded {
  Guarded() {
    memset(bytes, 'd', kSize);
    memset(guard, 0x5A, sizeof(guard));
  }
  ~Guarded() {
    for (const unsigned char byte : guard) EXPECT_EQ(byte, 0x5A) << "written behind the destination";
  }
  [[nodiscard]] std::string Bytes() const { return {bytes, kSize}; }

  char bytes[kSize];
  unsigned char guard[16];
};

TEST(MemcpyS, CopiesWhatFitsAndZeroesAllOnWhatDoesNot) {
  Guarded<4> exact;
  EXPECT_EQ(memcpy_s(exact.bytes, 4, "abcd", 4), EOK);
  EXPECT_EQ(exact.Bytes(), "abcd");

  Guarded<4> tooLong;
  EXPECT_NE(memcpy_s(tooLong.bytes, 4, "abcde", 5), EOK);
  EXPECT_EQ(tooLong.Bytes(), std::string(4, '\0')) << "a refused copy leaves no half result";

  Guarded<4> noSource;
  EXPECT_NE(memcpy_s(noSource.bytes, 4, nullptr, 2), EOK);
  EXPECT_EQ(noSource.Bytes(), std::string(4, '\0'));
}

TEST(MemcpyS, UntrustedSizesTouchNothing) {
  Guarded<4> dest;
  EXPECT_NE(memcpy_s(dest.bytes, 0, "a", 0), EOK) << "a size of 0 fails even for a count of 0";
  EXPECT_NE(memcpy_s(dest.bytes, SIZE_MAX, "a", 1), EOK) << "a negative size gone astray";
  EXPECT_NE(memcpy_s(nullptr, 4, "a", 1), EOK);
  EXPECT_EQ(memcpy_s(dest.bytes, 4, "a", 0), EOK);
  EXPECT_EQ(dest.Bytes(), "dddd");
}

TEST(MemcpyS, OverlapIsRefusedAndMemmoveSTakesIt) {
  char text[] = "abcdef";
  EXPECT_EQ(memmove_s(text + 1, 5, text, 5), EOK);
  EXPECT_STREQ(text, "aabcde");
  EXPECT_EQ(memcpy_s(text + 3, 3, text, 3), EOK) << "touching is no overlap";
  EXPECT_NE(memcpy_s(text, 5, text + 4, 5), EOK);
  EXPECT_EQ(std::string(text, 5), std::string(5, '\0'));
}

TEST(MemsetS, TooLongACountFillsTheDestinationAndFails) {
  Guarded<4> dest;
  EXPECT_NE(memset_s(dest.bytes, 4, 'x', 5), EOK);
  EXPECT_EQ(dest.Bytes(), "xxxx");
  EXPECT_EQ(memset_s(dest.bytes, 4, 'y', 2), EOK);
  EXPECT_EQ(dest.Bytes(), "yyxx");
}

TEST(StrcpyS, NeedsRoomForTheTerminator) {
  Guarded<4> dest;
  EXPECT_EQ(strcpy_s(dest.bytes, 4, "abc"), EOK);
  EXPECT_STREQ(dest.bytes, "abc");
  EXPECT_NE(strcpy_s(dest.bytes, 4, "abcd"), EOK);
  EXPECT_STREQ(dest.bytes, "");
}

TEST(StrncpyS, CutsByCountOnlyAndNeverByTheDestination) {
  Guarded<4> dest;
  EXPECT_EQ(strncpy_s(dest.bytes, 4, "abcdef", 3), EOK);
  EXPECT_STREQ(dest.bytes, "abc");
  EXPECT_NE(strncpy_s(dest.bytes, 4, "abcdef", 4), EOK) << "no room for the terminator";
  EXPECT_STREQ(dest.bytes, "");
  const char unterminated[2] = {'x', 'y'};
  EXPECT_EQ(strncpy_s(dest.bytes, 4, unterminated, 2), EOK) << "reads no further than count";
  EXPECT_STREQ(dest.bytes, "xy");
}

TEST(StrcatS, AppendsWholeTextsOnly) {
  Guarded<6> dest;
  ASSERT_EQ(strcpy_s(dest.bytes, 6, "ab"), EOK);
  EXPECT_EQ(strncat_s(dest.bytes, 6, "cdef", 1), EOK);
  EXPECT_EQ(strcat_s(dest.bytes, 6, "de"), EOK);
  EXPECT_STREQ(dest.bytes, "abcde");
  EXPECT_NE(strcat_s(dest.bytes, 6, "f"), EOK);
  EXPECT_STREQ(dest.bytes, "");
  memset(dest.bytes, 'z', 6);
  EXPECT_NE(strcat_s(dest.bytes, 6, "f"), EOK) << "an unterminated destination is no text";
  EXPECT_EQ(dest.bytes[0], '\0');
}

TEST(SnprintfS, TellsACutByCountFromATextThatDoesNotFit) {
  struct {
    size_t destMax, count;
    int result;
    const char* text;
  } const cases[] = {
      {6, 6, 5, "hello"},     // exact
      {6, 5, 5, "hello"},     // exact by both
      {6, 4, -1, "hell"},     // cut by count: kept
      {5, 4, -1, "hell"},     // the count's cut at the last character that fits: kept
      {5, 5, -1, ""},         // does not fit: emptied
      {5, SIZE_MAX, -1, ""},  // no count given
      {6, SIZE_MAX, 5, "hello"},
      {6, 0, -1, ""},
  };
  for (const auto& c : cases) {
    Guarded<6> dest;
    EXPECT_EQ(snprintf_s(dest.bytes, c.destMax, c.count, "%s%c", "hell", 'o'), c.result)
        << c.destMax << "/" << c.count;
    EXPECT_STREQ(dest.bytes, c.text) << c.destMax << "/" << c.count;
  }
  Guarded<4> dest;
  EXPECT_EQ(snprintf_s(dest.bytes, 0, 0, "%d", 1), -1);
  EXPECT_EQ(dest.Bytes(), "dddd");
  EXPECT_EQ(sprintf_s(dest.bytes, 4, "%d", 1234), -1);
  EXPECT_STREQ(dest.bytes, "");
}

TEST(SscanfS, ReadsNumbersOfEveryWidth) {
  int d = 0, i = 0;
  unsigned x = 0;
  unsigned short hu = 0;
  unsigned long lu = 0;
  unsigned long long llu = 0;
  EXPECT_EQ(sscanf_s("cpu -7 0x10 ff 65535 4294967295 18446744073709551615 100%",
                     "cpu %d %i %x %hu %lu %llu 100%%", &d, &i, &x, &hu, &lu, &llu),
            6);
  EXPECT_EQ(d, -7);
  EXPECT_EQ(i, 16);
  EXPECT_EQ(x, 255u);
  EXPECT_EQ(hu, 65535);
  EXPECT_EQ(lu, 4294967295ul);
  EXPECT_EQ(llu, ULLONG_MAX);
  EXPECT_EQ(sscanf_s("12 34", "%*d %2u", &x), 1);
  EXPECT_EQ(x, 34u);
  EXPECT_EQ(sscanf_s("", "%d", &d), -1);
}

TEST(SscanfS, RefusesEveryConversionThatIsNoNumber) {
  int number = 77;
  char text[8] = "keep";
  for (const char* format :
       {"%d %s", "%d%c", "%d%[a-z]", "%d%n", "%d%ms", "%d%p", "%1$d", "%d%", "%d%l", "%d%ls"}) {
    EXPECT_EQ(sscanf_s("5 abc", format, &number, text, 8u), -1) << format;
    EXPECT_EQ(number, 77) << format << ": nothing may be stored before the whole format is judged";
    EXPECT_STREQ(text, "keep") << format;
  }
}

}  // namespace
