#include "update/script_run.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

#include "base/owners.h"
#include "base/result_codes.h"
#include "update/script_exe_ids.h"
#include "update_fixture.h"

namespace {

using namespace std::chrono_literals;
using update_test::ReadFile;

class ScriptRunTest : public update_test::UpdateTest {
 protected:
  [[nodiscard]] uint32_t Run(const std::string& script, const char* extend = nullptr,
                             uint16_t limit = 0) const {
    return ExeScriptFileCommon(script.c_str(), "/p/pkg.tar.gz", extend, limit);
  }
};

TEST_F(ScriptRunTest, OnlyALineThatBeginsWithOkIsSuccess) {
  const struct {
    const char* body;
    uint32_t result;
  } cases[] = {
      {"echo OK", 0},
      {"echo ok, bank 1 written; exit 3", 0},
      {"echo oK", 0},
      {"printf Ok", 0},
      {"printf 'unpacking\\nOK\\n'", 0},  // both lines arrive in one piece
      {"echo working; echo; echo OK", 0},
      {"echo all is OK", 1},
      {"echo ' OK'", 1},
      {"echo O; echo K", 1},
      {"exit 0", 1},
      {"exec >&-; true", 1},
      {"echo OK >&2", 1},
      {"printf '%0511dOK\\n' 0", 1},  // the line is read in two pieces; the second begins no line
  };
  int number = 0;
  for (const auto& c : cases) {
    const std::string script = Script("case" + std::to_string(number++) + ".sh", c.body);
    EXPECT_EQ(Run(script), c.result) << c.body;
  }
}

TEST_F(ScriptRunTest, TheScriptGetsItsWordsAndALineEndCutsTheRest) {
  const std::string script = Script("args.sh", "echo \"$#:$*\" >> \"$0.args\"; echo OK");
  EXPECT_EQ(Run(script, "fast"), 0u);
  EXPECT_EQ(Run(script), 0u);
  EXPECT_EQ(ExeScriptFileCommon(script.c_str(), "/p/inner.bin\n", "lost", 0), 0u);
  EXPECT_EQ(ReadFile(script + ".args"), "2:/p/pkg.tar.gz fast\n1:/p/pkg.tar.gz\n1:/p/inner.bin\n");
}

TEST_F(ScriptRunTest, WhatIsRefusedNeverRuns) {
  const std::string ran = dir_.File("ran");
  const std::string body = "touch " + ran + "; echo OK";
  const std::string script = Script("run.sh", body);
  ASSERT_EQ(chmod(script.c_str(), 0700), 0);
  EXPECT_EQ(ExeScriptFileCommon(nullptr, "/p", nullptr, 0), kFailure);
  EXPECT_EQ(ExeScriptFileCommon(script.c_str(), "", nullptr, 0), kFailure);
  const std::string longArgument(505 - script.size(), 'a');
  EXPECT_EQ(ExeScriptFileCommon(script.c_str(), longArgument.c_str(), nullptr, 0), kFailure);
  EXPECT_EQ(Logged("CmdErr ScriptName"), 1u);
  EXPECT_EQ(ExeScriptFileCommon(script.c_str(), longArgument.c_str() + 1, std::string(128, 'b').c_str(), 0),
            kErrFormat);
  EXPECT_EQ(Run(dir_.File("absent.sh")), kFailure);
  EXPECT_EQ(Run(dir_.Write("empty.sh", "")), kFailure);
  for (const char* extend : {";id", "$(id)", "`id`", "a|b", "a&b", ">x", "../x", "./x"}) {
    EXPECT_EQ(Run(script, extend), kFailure) << extend;
  }
  // The shell would run something else than the file that was verified.
  for (const char* name : {"run.sh extra", "[r]un.sh", "run\t.sh", "(run.sh)"}) {
    EXPECT_EQ(Run(Script(name, body)), kFailure) << name;
  }
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  dir_.Write("A=1", body);
  EXPECT_EQ(ExeScriptFileCommon("A=1", script.c_str(), nullptr, 0), kFailure)
      << "an assignment, and the argument becomes the command";
  EXPECT_EQ(chdir("/"), 0);
  EXPECT_FALSE(Exists("ran"));
}

TEST_F(ScriptRunTest, ALimitIsTriedButNeverFailsTheScript) {
  const std::string script = Script("limited.sh", "echo OK");
  EXPECT_EQ(Run(script, nullptr, 0), 0u);
  EXPECT_EQ(Logged("get pid fail limited.sh") + Logged("limit limited.sh"), 0u);
  EXPECT_EQ(Run(script, nullptr, 20), 0u);
  EXPECT_EQ(Logged("get pid fail limited.sh") + Logged("limit limited.sh"), 1u);
  ResCtrlByPid("limited.sh", 70000, 20);
  EXPECT_EQ(Logged("DRV_ResCtrlIoctl ERR: -1"), 1u) << "a process id was cut to 16 bits";
}

class ScriptWaitTest : public update_test::UpdateTest {
 protected:
  ScriptWaitTest() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    stream_.reset(fdopen(ends[0], "r"));
    write_.reset(ends[1]);
    result_ = std::async(std::launch::async, [this] { return WaitScriptFinish(stream_.get(), 600); });
  }
  ~ScriptWaitTest() override { write_.reset(); }

  void Print(const std::string& text) {
    ASSERT_EQ(write(write_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void PrintLine(const std::string& text) {
    Print(text + "\n");
    while (Logged("**buffer " + text) == 0) std::this_thread::yield();
  }
  [[nodiscard]] bool Ended(std::chrono::milliseconds within) {
    return result_.wait_for(within) == std::future_status::ready;
  }

  base::FilePtr stream_;
  base::UniqueFd write_;
  std::future<uint32_t> result_;
};

TEST_F(ScriptWaitTest, SilenceIsMeasuredFromTheLastOutput) {
  for (const char* line : {"one", "two"}) {
    PrintLine(line);
    KEL_ClockAdvanceMs(599000);
    EXPECT_FALSE(Ended(150ms)) << "given up before 600 seconds of silence, after " << line;
  }
  while (!Ended(1ms)) KEL_ClockAdvanceMs(600000);
  EXPECT_EQ(result_.get(), kFailure);
}

TEST_F(ScriptWaitTest, AnUnfinishedLineDoesNotHoldTheWaitForEver) {
  Print("wor");
  while (!Ended(1ms)) KEL_ClockAdvanceMs(600000);
  EXPECT_EQ(result_.get(), kFailure);
}

TEST_F(ScriptWaitTest, AnOkWhoseLineEndNeverComesIsAnOk) {
  Print("OK");
  while (!Ended(1ms)) KEL_ClockAdvanceMs(600000);
  EXPECT_EQ(result_.get(), kSuccess);
}

class BootBankTest : public update_test::UpdateTest {
 protected:
  std::string config_ = dir_.File("config.kp");
  std::string backup_ = dir_.File("configback.kp");
};

TEST_F(BootBankTest, ExchangesTheFirstBankOfEachLineAndKeepsEveryOtherByte) {
  const std::string filler(300, 'x');
  const std::string binary("zero\0byte\n", 10);
  dir_.Write("config.kp",
             "path=/app_run/app_bin0/app\n/app_bin1\nsecond /app_bin0 /app_bin0\n/app_bin2/x\n/app_bin\n" +
                 binary + filler + "/app_bin1\nlast /app_bin1");
  ASSERT_EQ(ModifyBackPath(config_.c_str(), backup_.c_str()), 0u);
  EXPECT_EQ(ReadFile(config_),
            "path=/app_run/app_bin1/app\n/app_bin0\nsecond /app_bin1 /app_bin0\n/app_bin2/x\n/app_bin\n" +
                binary + filler + "/app_bin0\nlast /app_bin0");
  EXPECT_FALSE(Exists("configback.kp"));
}

TEST_F(BootBankTest, AFailureLeavesTheConfigurationAsItWas) {
  EXPECT_EQ(ModifyBackPath(config_.c_str(), backup_.c_str()), kExeErrBackOpen);
  EXPECT_FALSE(Exists("config.kp"));
  dir_.Write("config.kp", "/app_bin0\n");
  EXPECT_EQ(ModifyBackPath(config_.c_str(), dir_.File("absent/back.kp").c_str()), kExeErrBackOpen);
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small = {4, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(ModifyBackPath(config_.c_str(), backup_.c_str()), kFailure) << "a short write is no rewrite";
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(ReadFile(config_), "/app_bin0\n");
  EXPECT_FALSE(Exists("configback.kp")) << "a half copy was left behind";
}

}  // namespace
