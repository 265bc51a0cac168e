/// What one record becomes: filter, line, names, limits of the message, and who may log when.
#include "log/run_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace {

using testing::ElementsAre;

TEST(RunLogTest, LevelsBelowTheThresholdAndOutsideTheRangeAreDropped) {
  support::LogCapture log(kLogErr);
  for (uint32_t level = 0; level <= 6; ++level) TOLA_LogPrint(7, level, "a.cpp", 1, "level %u", level);
  EXPECT_THAT(log.Lines(), ElementsAre("level 4", "level 5"));
}

}  // namespace
