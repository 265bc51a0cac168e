// The bounds: one byte less, exact, one byte more, and what a refused call leaves behind.
#include <gtest/gtest.h>
#include <limits.h>

#include <cstring>
#include <string>

#include "securec.h"

namespace {

using std::string_literals::operator""s;

// Four bytes of destination with a guard behind them that no call may touch.
struct Guarded {
  ~Guarded() { EXPECT_EQ(std::string(guard, 4), "gggg") << "written behind the destination"; }

  char bytes[4] = {'d', 'd', 'd', 'd'};
  char guard[4] = {'g', 'g', 'g', 'g'};
};

constexpr char kUnterminated[] = {'x', 'y'};

TEST(BoundedCopy, TakesWhatFitsAndLeavesNoHalfResult) {
  const struct {
    const char* what;
    errno_t (*call)(char* dest);
    bool taken;
    std::string after;
  } rows[] = {
      {"exact", [](char* d) { return memcpy_s(d, 4, "abcd", 4); }, true, "abcd"},
      {"too long", [](char* d) { return memcpy_s(d, 4, "abcde", 5); }, false, "\0\0\0\0"s},
      {"no source", [](char* d) { return memcpy_s(d, 4, nullptr, 2); }, false, "\0\0\0\0"s},
      {"nothing", [](char* d) { return memcpy_s(d, 4, "a", 0); }, true, "dddd"},
      {"size 0 fails even for a count of 0", [](char* d) { return memcpy_s(d, 0, "a", 0); }, false, "dddd"},
      {"a negative size gone astray", [](char* d) { return memcpy_s(d, SIZE_MAX, "a", 1); }, false, "dddd"},
      {"no destination", [](char*) { return memcpy_s(nullptr, 4, "a", 1); }, false, "dddd"},
      {"set too much fills", [](char* d) { return memset_s(d, 4, 'x', 5); }, false, "xxxx"},
      {"set a part", [](char* d) { return memset_s(d, 4, 'x', 2); }, true, "xxdd"},
      {"text", [](char* d) { return strcpy_s(d, 4, "abc"); }, true, "abc\0"s},
      {"text, no room for its end", [](char* d) { return strcpy_s(d, 4, "abcd"); }, false, "\0ddd"s},
      {"cut by count", [](char* d) { return strncpy_s(d, 4, "abcdef", 3); }, true, "abc\0"s},
      {"cut, no room for the end", [](char* d) { return strncpy_s(d, 4, "abcdef", 4); }, false, "\0ddd"s},
      {"no further than count", [](char* d) { return strncpy_s(d, 4, kUnterminated, 2); }, true, "xy\0d"s},
      {"append to no text", [](char* d) { return strcat_s(d, 4, "f"); }, false, "\0ddd"s},
      {"append", [](char* d) { return strcpy_s(d, 4, "a") + strcat_s(d, 4, "bc"); }, true, "abc\0"s},
      {"append too much", [](char* d) { return strcpy_s(d, 4, "a") + strcat_s(d, 4, "bcd"); }, false,
       "\0\0dd"s},
      {"append by count", [](char* d) { return strcpy_s(d, 4, "a") + strncat_s(d, 4, "bcd", 1); }, true,
       "ab\0d"s},
  };
  for (const auto& row : rows) {
    Guarded dest;
    EXPECT_EQ(row.call(dest.bytes) == EOK, row.taken) << row.what;
    EXPECT_EQ(std::string(dest.bytes, 4), row.after) << row.what;
  }
}

TEST(BoundedCopy, OverlapIsRefusedAndMemmoveSTakesIt) {
  char text[] = "abcdef";
  EXPECT_EQ(memmove_s(text + 1, 5, text, 5), EOK);
  EXPECT_STREQ(text, "aabcde");
  EXPECT_EQ(memcpy_s(text + 3, 3, text, 3), EOK) << "touching is no overlap";
  EXPECT_NE(memcpy_s(text, 5, text + 4, 5), EOK);
  EXPECT_EQ(std::string(text, 5), std::string(5, '\0'));
}

TEST(SnprintfS, TellsACutByCountFromATextThatDoesNotFit) {
  struct {
    size_t destMax, count;
    int result;
    std::string text;
  } const cases[] = {
      {4, 4, 3, "123\0"s},       // exact
      {4, 3, 3, "123\0"s},       // exact by both
      {4, 2, -1, "12\0d"s},      // cut by count: kept
      {3, 2, -1, "12\0d"s},      // the count's cut at the last character that fits: kept
      {3, 3, -1, "\0"s},         // does not fit: emptied
      {3, SIZE_MAX, -1, "\0"s},  // no count given
      {4, SIZE_MAX, 3, "123\0"s}, {4, 0, -1, "\0ddd"s}, {0, 0, -1, "dddd"},
  };
  for (const auto& c : cases) {
    Guarded dest;
    EXPECT_EQ(snprintf_s(dest.bytes, c.destMax, c.count, "%d%c", 12, '3'), c.result)
        << c.destMax << "/" << c.count;
    EXPECT_EQ(std::string(dest.bytes, c.text.size()), c.text) << c.destMax << "/" << c.count;
  }
  Guarded dest;
  EXPECT_EQ(sprintf_s(dest.bytes, 4, "%d", 1234), -1);
  EXPECT_STREQ(dest.bytes, "");
}

TEST(SscanfS, ReadsNumbersOfEveryWidthAndNothingElse) {
  int d = 0, i = 0;
  unsigned x = 0;
  unsigned short hu = 0;
  unsigned long long llu = 0;
  EXPECT_EQ(sscanf_s("cpu -7 0x10 ff 65535 18446744073709551615 100%", "cpu %d %i %x %hu %llu 100%%", &d, &i,
                     &x, &hu, &llu),
            5);
  EXPECT_EQ(d + i, 9);
  EXPECT_EQ(x + hu, 65790u);
  EXPECT_EQ(llu, ULLONG_MAX);
  EXPECT_EQ(sscanf_s("12 34", "%*d %2u", &x), 1);
  EXPECT_EQ(x, 34u);
  EXPECT_EQ(sscanf_s("", "%d", &d), -1);
  char text[8] = "keep";
  for (const char* format :
       {"%d %s", "%d%c", "%d%[a-z]", "%d%n", "%d%ms", "%d%p", "%1$d", "%d%", "%d%l", "%d%ls"}) {
    EXPECT_EQ(sscanf_s("5 abc", format, &d, text, 8u), -1) << format;
    EXPECT_EQ(d, -7) << format << ": nothing may be stored before the whole format is judged";
    EXPECT_STREQ(text, "keep") << format;
  }
}

}  // namespace
