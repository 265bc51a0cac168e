#include "frame/feature_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/owners.h"
#include "base/result_codes.h"
#include "frame/feature_app.h"
#include "frame/feature_identity.h"
#include "frame/user_tick.h"
#include "velto/kel_clock.h"

namespace {

constexpr char kName[] = "update_active";

}  // namespace

const FeatureIdentity g_featureIdentity = {kName, 1056, nullptr};

namespace {

TEST(AppEnv, TakesTheDirectoryByLengthAlone) {
  char env[256] = {};
  EXPECT_EQ(TolaOsGetAppEnv("/app_run/app_bin/update_active", kName, env, sizeof(env)), 0u);
  EXPECT_STREQ(env, "TOLA_ROOT_DIR=/app_run/app_bin/");
  EXPECT_EQ(TolaOsGetAppEnv("/a/some_other_nam", kName, env, sizeof(env)), 0u) << "the name is not compared";
  EXPECT_STREQ(env, "TOLA_ROOT_DIR=/a/s");
}

TEST(AppEnv, RefusesPathsWithoutADirectoryAndTooLongOnes) {
  char env[256] = {};
  EXPECT_EQ(TolaOsGetAppEnv(kName, kName, env, sizeof(env)), 1u) << "started by its bare name";
  EXPECT_EQ(TolaOsGetAppEnv(nullptr, kName, env, sizeof(env)), 1u) << "started without any argument";
  const std::string longest = "/" + std::string(254, 'd') + kName;
  EXPECT_EQ(TolaOsGetAppEnv(longest.c_str(), kName, env, sizeof(env)), kErrTextFormat)
      << "255 characters fit the scratch buffer, not the entry";
  EXPECT_EQ(TolaOsGetAppEnv(("/" + longest).c_str(), kName, env, sizeof(env)), 1u);
}

/// Becomes a daemon whose standard input and output were closed, and reports on standard error.
[[noreturn]] void BecomeDaemon(int report) {
  (void)dup2(report, STDERR_FILENO);
  (void)close(STDIN_FILENO);
  (void)close(STDOUT_FILENO);
  TolaOsMakeMeDaemon();
  std::string seen;
  for (int fd = 0; fd < 10; ++fd) seen += fcntl(fd, F_GETFD) != -1 ? 'o' : '-';
  seen += getsid(0) != getpid() ? " not a leader" : " leader";
  char directory[16] = {};
  seen += getcwd(directory, sizeof(directory)) != nullptr ? std::string(" in ") + directory : " nowhere";
  (void)raise(SIGPIPE);
  seen += " alive";
  _exit(write(STDERR_FILENO, seen.data(), seen.size()) > 0 ? 0 : 1);
}

TEST(Daemon, HoldsThreeDescriptorsAndOutlivesABrokenPipe) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const base::UniqueFd reader(ends[0]);
  base::UniqueFd writer(ends[1]);
  const pid_t child = fork();
  if (child == 0) BecomeDaemon(writer.get());
  writer.reset();
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "whoever starts the daemon sees 0";
  std::string seen;
  char part[64];
  for (ssize_t length = 0; (length = read(reader.get(), part, sizeof(part))) > 0;) {
    seen.append(part, static_cast<size_t>(length));
  }
  EXPECT_EQ(seen, "ooo------- not a leader in /tmp alive");
}

TEST(UnSamePid, TakesTheFirstThatIsNeitherZeroNorOwn) {
  struct Row {
    std::string line;
    uint32_t expected;
  };
  for (Row row : {Row{"17", kNoSuchProcess}, Row{"17 18\t19\n", 18}, Row{"0 17\n", kNoSuchProcess},
                  Row{"x 21", 21}, Row{"", kNoSuchProcess}, Row{"99999999999999999999 5", 5}}) {
    const std::string shown = row.line;
    EXPECT_EQ(TolaOsGetUnSamePid(row.line.data(), 17), row.expected) << shown;
  }
}

TEST(UserTick, CountsTicksKeepsTheRemainderAndReportsAJump) {
  KEL_ClockModeSet(kKelClockManual);
  static const uint32_t kFirst = TolaOsUserTickAdjust();
  EXPECT_EQ(kFirst, 1u) << "the first call starts the count";
  (void)TolaOsUserTickAdjust();  // up to now, when the case is repeated
  KEL_ClockAdvanceMs(1);         // one million ticks of the CPU at 50000 a user tick
  EXPECT_EQ(TolaOsUserTickAdjust(), 20u);
  EXPECT_EQ(TolaOsUserTickAdjust(), 0u) << "no time has passed";
  KEL_ClockAdvanceMs(500);
  EXPECT_EQ(TolaOsUserTickAdjust(), 10000u) << "the largest step that is no jump";
  testing::internal::CaptureStdout();
  KEL_ClockAdvanceMs(501);
  EXPECT_EQ(TolaOsUserTickAdjust(), 1000u);
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("tick error : jump 10020 last(", 0), 0u);
  KEL_ClockModeSet(kKelClockReal);
}

}  // namespace
