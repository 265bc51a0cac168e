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

const FeatureIdentity g_featureIdentity = {"update_active", 1056, nullptr};

namespace {

TEST(AppEnv, TakesTheDirectoryByLengthAlone) {
  char env[256] = {};
  const auto get = [&](const char* path) { return TolaOsGetAppEnv(path, "update_active", env, sizeof(env)); };
  EXPECT_EQ(get("/app_run/app_bin/update_active"), 0u);
  EXPECT_STREQ(env, "TOLA_ROOT_DIR=/app_run/app_bin/");
  EXPECT_EQ(get("/a/some_other_nam"), 0u) << "the name is not compared";
  EXPECT_STREQ(env, "TOLA_ROOT_DIR=/a/s");
  EXPECT_EQ(get("update_active"), 1u) << "started by its bare name";
  EXPECT_EQ(get(nullptr), 1u) << "started without any argument";
  const std::string longest = "/" + std::string(254, 'd') + "update_active";
  EXPECT_EQ(get(longest.c_str()), kErrTextFormat) << "255 characters fit the scratch buffer, not the entry";
  EXPECT_EQ(get(("/" + longest).c_str()), 1u);
}

/// Becomes a daemon whose standard input and output were closed, and reports on standard error.
[[noreturn]] void BecomeDaemon(int report) {
  (void)dup2(report, STDERR_FILENO);
  (void)close(STDIN_FILENO);
  (void)close(STDOUT_FILENO);
  sigset_t signals;
  sigfillset(&signals);
  (void)sigprocmask(SIG_BLOCK, &signals, nullptr);
  (void)signal(SIGCHLD, SIG_IGN);
  (void)umask(0);
  TolaOsMakeMeDaemon();
  std::string seen;
  for (int fd = 0; fd < 10; ++fd) seen += fcntl(fd, F_GETFD) != -1 ? 'o' : '-';
  seen += getsid(0) != getpid() ? " not a leader" : " leader";
  char directory[16] = {};
  seen += getcwd(directory, sizeof(directory)) != nullptr ? std::string(" in ") + directory : " nowhere";
  (void)raise(SIGPIPE);
  seen += " alive";
  (void)sigprocmask(SIG_BLOCK, nullptr, &signals);
  seen += sigismember(&signals, SIGTERM) == 1 || signal(SIGCHLD, SIG_DFL) == SIG_IGN ? " deaf" : " hears";
  seen += umask(0) == 022 ? " private" : " open";
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
  char seen[64] = {};  // one write, so one read; it ends when the daemon does
  EXPECT_GT(read(reader.get(), seen, sizeof(seen) - 1), 0);
  EXPECT_STREQ(seen, "ooo------- not a leader in /tmp alive hears private");
}

TEST(UnSamePid, TakesTheFirstThatIsNeitherZeroNorOwn) {
  const std::pair<std::string, uint32_t> cases[] = {{"17", kNoSuchProcess},
                                                    {"17 18\t19\n", 18},
                                                    {"0 x 21", 21},
                                                    {"", kNoSuchProcess},
                                                    {"99999999999999999999 5", 5}};
  for (auto [line, expected] : cases) EXPECT_EQ(TolaOsGetUnSamePid(line.data(), 17), expected) << line;
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
