/// The platform's main process on a board: the authorisation road, what it knows of its processes, and that
/// it keeps them running.

#include <gmock/gmock.h>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;

class PlatformTest : public testing::Test {
 protected:
  void SetUp() override {
    board_.Shell(
        "printf '#!/bin/sh\\necho ran >>/mnt/ran\\necho OK\\n' >/mnt/s.sh; chmod 700 /mnt/s.sh; echo x "
        ">/mnt/p");
    board_.StartDaemon();
    board_.StartMain();
    EXPECT_TRUE(StatusComes("\"modules\":[1056,4181]"));
  }

  int Ask(const std::string& option) const {
    return board_.Request({"--script", "/mnt/s.sh", "--package", "/mnt/p", option}).result;
  }
  /// Asks in the background; the answer comes into /tmp/held.
  void AskAndHold() const {
    board_.Shell("update_request --script /mnt/s.sh --package /mnt/p --hold >/tmp/held 2>&1 &");
    EXPECT_TRUE(StatusComes("\"heldQuestions\":1"));
  }
  /// Grants what is held, and gives the answer of whoever asked.
  std::string Release() const {
    EXPECT_EQ(board_.Exec({"update_request", "--release"}).output, "1 authorisations granted\n");
    EXPECT_TRUE(board_.Comes("test -s /tmp/held"));
    return board_.Read("/tmp/held");
  }
  bool StatusComes(const std::string& text) const {
    return board_.Comes("update_request --status --json | grep -qF '" + text + "'");
  }

  Board board_;
};

TEST_F(PlatformTest, UpdateWithoutASignatureRunsOnlyWhenItIsAuthorisedInTime) {
  for (const char* option : {"--refuse", "--json"})
    EXPECT_EQ(Ask(option), 9603) << "granted although nobody said so: " << option;
  EXPECT_FALSE(board_.Exists("/mnt/ran"));
  EXPECT_EQ(Ask("--authorise"), 0) << board_.RunLog();
  EXPECT_EQ(board_.Read("/mnt/ran"), "ran\n");

  AskAndHold();
  EXPECT_EQ(Ask("--authorise"), 9601);
  EXPECT_THAT(Release(), HasSubstr("result 0 ")) << "within the period";
  AskAndHold();
  board_.Shell("echo 30001 >/run/update_active.clock");
  EXPECT_THAT(Release(), HasSubstr("result 9600 ")) << "the reply came too late";
  EXPECT_EQ(Ask("--authorise"), 0) << "a late reply must not keep the executor busy";
  EXPECT_EQ(board_.Read("/mnt/ran"), "ran\nran\nran\n");
}

TEST_F(PlatformTest, FaultAgentAnswersDebugRequestsAndRegistersAgain) {
  const auto debug = [&](const std::string& words) {
    return board_.Exec({"update_request", "--debug", "update_active:" + words}).output;
  };
  EXPECT_EQ(debug("1,4096,1"), "the fault agent's result is 0\n");
  EXPECT_EQ(Ask("--authorise"), 0);
  EXPECT_THAT(board_.RunLog(), HasSubstr(" DBG M4096 ")) << "the level that was asked for";
  EXPECT_EQ(debug("7"), "the fault agent's result is 1\n");
  const std::string log = "/mnt/sub_bin/sys_log/board_main_run_log.log";
  board_.Shell("grep -c 'fault agent 1056' " + log + " >/tmp/before");
  EXPECT_EQ(board_.Exec({"update_request", "--register-again", "update_active"}).status, 0);
  EXPECT_TRUE(board_.Comes("[ $(grep -c 'fault agent 1056' " + log + ") -gt $(cat /tmp/before) ]"));
}

TEST_F(PlatformTest, ProcessesAreKnownAgainAfterTheMainProcessAndAreKeptRunning) {
  const std::string first = board_.RegisteredPid("update_active");
  board_.EndMain();
  board_.StartMain();
  EXPECT_TRUE(StatusComes("\"pid\":" + first + ",")) << "the daemon must register with a new main process";
  EXPECT_EQ(Ask("--authorise"), 0) << "the way through a new main process";
  EXPECT_EQ(board_.Shell("board_main --socket /run/other.sock 2>&1 | grep -q only").status, 0)
      << "a second main process read the first one's queue";

  board_.Shell(
      "ipcrm -q $(sed -n 's/.*main queue \\([0-9]*\\),.*/\\1/p' /mnt/sub_bin/sys_log/board_main_run_log.log"
      " | tail -n 1)");
  EXPECT_TRUE(board_.Comes("update_request --script /mnt/s.sh --package /mnt/p --authorise"))
      << "a main queue that is gone is made anew";

  EXPECT_EQ(board_.Exec({"update_request", "--restart", "update_active"}).status, 0);
  const std::string second = board_.RegisteredPid("update_active", first);
  ASSERT_NE(second, "");
  EXPECT_EQ(board_.Exec({"update_request", "--restart", "init"}).status, 1) << "not registered";

  board_.Shell("kill -9 " + second);
  EXPECT_TRUE(StatusComes("\"apps\":[]")) << "messages would go to a dead process";
  EXPECT_EQ(board_.PidOf("update_active"), "") << "started before its time-out";
  board_.Shell("echo 121000 >/run/board_main.clock");
  EXPECT_NE(board_.RegisteredPid("update_active", second), "");
}

}  // namespace
}  // namespace system_test
