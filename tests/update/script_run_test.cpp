#include "update/script_run.h"

#include <fcntl.h>
#include <signal.h>
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

class ScriptRunTest : public update_test::UpdateTest {
 protected:
  [[nodiscard]] uint32_t Run(const std::string& script, const char* extend = nullptr,
                             const std::string& file = "/p/pkg.tar.gz", uint16_t limit = 0) const {
    return ExeScriptFileCommon(script.c_str(), file.c_str(), extend, limit);
  }
};

TEST_F(ScriptRunTest, OnlyALineThatBeginsWithOkIsSuccess) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"echo ok, bank 1 written; exit 3", 0},
      {"echo oK", 0},
      {"printf Ok", 0},
      {"printf 'unpacking\\nOK\\n'", 0},  // both lines arrive in one piece
      {"echo working; echo; echo OK", 0},
      {"echo ' OK'", 1},
      {"echo O; echo K", 1},
      {"exit 0", 1},
      {"echo OK >&2", 1},
      {"printf '%0511dOK\\n' 0", 1},  // the line is read in two pieces; the second begins no line
  };
  for (const auto& [body, result] : cases) EXPECT_EQ(Run(Script("case.sh", body)), result) << body;
}

TEST_F(ScriptRunTest, TheScriptGetsItsWordsAndALineEndCutsTheRest) {
  const std::string script = Script("args.sh", "echo \"$#:$*\" >> \"$0.args\"; echo OK");
  EXPECT_EQ(Run(script, "fast"), 0u);
  EXPECT_EQ(Run(script), 0u);
  EXPECT_EQ(Run(script, "lost", "/p/inner.bin\n"), 0u);
  EXPECT_EQ(Read("args.sh.args"), "2:/p/pkg.tar.gz fast\n1:/p/pkg.tar.gz\n1:/p/inner.bin\n");
}

TEST_F(ScriptRunTest, WhatIsRefusedNeverRuns) {
  const std::string body = "touch " + dir_.File("ran") + "; echo OK";
  const std::string script = Script("run.sh", body);
  ASSERT_EQ(chmod(script.c_str(), 0700), 0);
  EXPECT_EQ(Run(script, nullptr, ""), kFailure);
  EXPECT_EQ(Run(script, nullptr, std::string(505 - script.size(), 'a')), kFailure);
  EXPECT_EQ(Logged("CmdErr ScriptName"), 1);
  EXPECT_EQ(Run(script, std::string(128, 'b').c_str(), std::string(504 - script.size(), 'a')), kErrFormat);
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
  EXPECT_EQ(Run("A=1", nullptr, script), kFailure) << "an assignment, and the argument becomes the command";
  EXPECT_EQ(chdir("/"), 0);
  EXPECT_FALSE(Exists("ran"));
}

TEST_F(ScriptRunTest, ALimitIsTriedButNeverFailsTheScript) {
  const std::string script = Script("limited.sh", "echo OK");
  for (const uint16_t limit : {uint16_t{0}, uint16_t{20}}) {
    EXPECT_EQ(Run(script, nullptr, "/p", limit), 0u);
    EXPECT_EQ(Logged("get pid fail limited.sh") + Logged("limit limited.sh"), limit == 0 ? 0 : 1);
  }
  ResCtrlByPid("limited.sh", 70000, 20);
  EXPECT_EQ(Logged("DRV_ResCtrlIoctl ERR: -1"), 1) << "a process id was cut to 16 bits";
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
  [[nodiscard]] bool Ended(std::chrono::milliseconds within) {
    return result_.wait_for(within) == std::future_status::ready;
  }
  /// The result once nothing more comes.
  uint32_t AfterSilence() {
    while (!Ended(1ms)) KEL_ClockAdvanceMs(600000);
    return result_.get();
  }

  base::FilePtr stream_;
  base::UniqueFd write_;
  std::future<uint32_t> result_;
};

TEST_F(ScriptWaitTest, SilenceIsMeasuredFromTheLastOutput) {
  for (const std::string line : {"one", "two"}) {
    Print(line + "\n");
    while (Logged("**buffer " + line) == 0) std::this_thread::yield();
    KEL_ClockAdvanceMs(599000);
    EXPECT_FALSE(Ended(150ms)) << "given up before 600 seconds of silence, after " << line;
  }
  Print("unfinished");  // does not hold the wait for ever
  EXPECT_EQ(AfterSilence(), kFailure);
}

TEST_F(ScriptWaitTest, AnOkWhoseLineEndNeverComesIsAnOk) {
  Print("OK");
  EXPECT_EQ(AfterSilence(), kSuccess);
}

class BootBankTest : public update_test::UpdateTest {
 protected:
  [[nodiscard]] uint32_t Switch(const std::string& backup = "configback.kp") const {
    return ModifyBackPath(dir_.File("config.kp").c_str(), dir_.File(backup).c_str());
  }
};

TEST_F(BootBankTest, ExchangesTheFirstBankOfEachLineAndKeepsEveryOtherByte) {
  const std::string filler = std::string("zero\0byte\n", 10) + std::string(300, 'x');
  dir_.Write("config.kp",
             "path=/app_run/app_bin0/app\n/app_bin1\nsecond /app_bin0 /app_bin0\n/app_bin2/x\n/app_bin\n" +
                 filler + "/app_bin1\nlast /app_bin1");
  ASSERT_EQ(Switch(), 0u);
  EXPECT_EQ(Read("config.kp"),
            "path=/app_run/app_bin1/app\n/app_bin0\nsecond /app_bin1 /app_bin0\n/app_bin2/x\n/app_bin\n" +
                filler + "/app_bin0\nlast /app_bin0");
  EXPECT_FALSE(Exists("configback.kp"));
}

TEST_F(BootBankTest, AFailureLeavesTheConfigurationAsItWas) {
  EXPECT_EQ(Switch(), kExeErrBackOpen);
  EXPECT_FALSE(Exists("config.kp"));
  dir_.Write("config.kp", "/app_bin0\n");
  EXPECT_EQ(Switch("absent/back.kp"), kExeErrBackOpen);
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small = {4, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_EQ(Switch(), kFailure) << "a short write is no rewrite";
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(Read("config.kp"), "/app_bin0\n");
  EXPECT_FALSE(Exists("configback.kp")) << "a half copy was left behind";
}

}  // namespace
