/// A record on its way allocates nothing: the C library's allocator is counted from outside. Not built with a
/// sanitizer, which brings an allocator of its own.
#include "log/log_test_support.h"

namespace {
thread_local size_t t_allocations = 0;
}

extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) {
  ++t_allocations;
  return __libc_malloc(size);
}

TEST(RunLogAllocationTest, NeitherRecordNorRepeatNorSummaryAllocates) {
  const logtest::StandingClock clock;
  support::LogCapture log(kLogErr);
  const uint8_t on = 1;
  ASSERT_EQ(TOLA_LogRepeatControl(kLogRepeatEnable, &on), 0u);
  const size_t first = t_allocations;
  ASSERT_GT(first, 0u) << "the counter counts nothing";
  for (uint32_t i = 0; i < 200; ++i) {
    TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "record %u of many", i % 50);  // written, pushes another out
    TOLA_LogPrint(7, kLogErr, "a.cpp", 1, "record %u of many", i % 50);  // folded
    KEL_ClockAdvanceMs(20'000);  // date prefixes, time-outs, and the hourly look
  }
  EXPECT_EQ(t_allocations, first);
  EXPECT_GT(log.Lines().size(), 200u) << "records and summaries were written";
}
