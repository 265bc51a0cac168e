/// Two more processes of the frame on a board: what they exchange, and what becomes of one that is stuck or
/// out of memory.

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;

class PeersTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const std::string name : {"peer_one", "peer_two"}) {
      board_.Put(std::string(TOLA_PEER_DIR "/") + name, "/app_run/app_bin/" + name);
      const std::string cfg = "/mnt/config/" + name + ".cfg";
      board_.Shell("echo clock.control=/run/" + name + ".clock >" + cfg +
                   "; echo '<module_cfg><velto><cfg_file>" + cfg +
                   "</cfg_file></velto></module_cfg>' >/app_run/app_bin/accountlib/" + name + ".xml");
    }
  }

  /// Waits until `condition` holds on the board, for a minute at most.
  bool Comes(const std::string& condition) const {
    return board_
               .Shell("n=0; until " + condition +
                      "; do sleep 0.02; n=$((n+1)); [ $n -lt 3000 ] || exit 1; done")
               .status == 0;
  }
  void Start(const std::string& name) const {
    board_.Shell("/app_run/app_bin/" + name + " >/log/" + name + ".out 2>&1");
    EXPECT_TRUE(IsUp(name)) << board_.Read("/log/" + name + ".out") << RunLog(name);
  }
  bool IsUp(const std::string& name) const {
    return Comes("grep -q 'AfterComp, ret=0$' /mnt/sub_bin/sys_log/" + name + "_run_log.log");
  }
  std::string RunLog(const std::string& name) const {
    return board_.Read("/mnt/sub_bin/sys_log/" + name + "_run_log.log");
  }
  void RestartMain() const {
    board_.Shell(
        "kill -9 $(pidof board_main); while pidof board_main; do :; done; rm -f /run/board_main.sock");
    board_.StartMain();
  }
  /// Moves the clock of a process on, second by second, until `condition` holds.
  bool PassSecondsUntil(const std::string& name, const std::string& condition) const {
    return board_
               .Shell("exec 3<>/run/" + name + ".clock; n=0; until " + condition +
                      "; do echo 1000 >&3; sleep 0.01; n=$((n+1)); [ $n -lt 6000 ] || exit 1; done")
               .status == 0;
  }
  /// Messages of a process that its twin has answered.
  unsigned Answered(const std::string& name) const {
    unsigned answered = 0;
    (void)sscanf(board_.Read("/log/" + name + ".result").c_str(), "%*s sent %*u answered %u", &answered);
    return answered;
  }
  bool MoreIsAnswered(const std::string& name) const {
    const unsigned before = Answered(name);
    for (int step = 0; step < 1500; ++step) {
      if (Answered(name) >= before + 10) return true;  // each size twice
      (void)usleep(20000);
    }
    return false;
  }

  Board board_;
};

TEST_F(PeersTest, ExchangeEveryByteWhileTheMainProcessRestarts) {
  board_.StartMain();
  Start("peer_one");
  Start("peer_two");
  board_.Shell(": >/run/exchange");
  for (int restart = 0; restart < 3; ++restart) {
    EXPECT_TRUE(MoreIsAnswered("peer_one") && MoreIsAnswered("peer_two")) << "before restart " << restart;
    RestartMain();
  }
  EXPECT_TRUE(MoreIsAnswered("peer_one") && MoreIsAnswered("peer_two"));
  // Asked again: peers may well be answered before the new main process, which refuses strangers, knows them.
  EXPECT_TRUE(Comes("{ : >/run/peer_one.map; grep -q /peer_one$ /log/root_log/peer_one.map.tmp; }"))
      << "the main process's help";
  board_.Shell(": >/run/exchange.stop");
  for (const std::string name : {"peer_one", "peer_two"}) {
    EXPECT_TRUE(Comes("grep -q ^done /log/" + name + ".result")) << RunLog(name);
    const std::string result = board_.Read("/log/" + name + ".result");
    unsigned sent = 0;
    unsigned answered = 0;
    unsigned received = 0;
    unsigned expected = 0;
    unsigned wrong = 1;
    unsigned twice = 1;
    EXPECT_EQ(sscanf(result.c_str(), "done sent %u answered %u received %u of %u wrong %u twice %u", &sent,
                     &answered, &received, &expected, &wrong, &twice),
              6)
        << result;
    EXPECT_TRUE(sent == answered && received == expected && wrong == 0 && twice == 0)
        << name << ": " << result;
    EXPECT_GE(sent, 40u);
  }
}

TEST_F(PeersTest, StuckTaskEndsItsProcessWithStatus17) {
  board_.StartMain();
  // A daemon's status goes to whoever adopts it.
  board_.Shell(
      "python3 -c 'import ctypes, os\n"
      "ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)\n"
      "os.spawnv(os.P_WAIT, \"/app_run/app_bin/peer_one\", [\"/app_run/app_bin/peer_one\"])\n"
      "while True: print(\"ended\", os.waitstatus_to_exitcode(os.wait()[1]), flush=True)' >/log/status "
      "2>/log/none &");
  ASSERT_TRUE(IsUp("peer_one"));
  board_.Shell(": >/run/peer_one.stick");
  EXPECT_TRUE(PassSecondsUntil("peer_one", "grep -q 'ended 17' /log/status")) << board_.Read("/log/status");
  EXPECT_THAT(RunLog("peer_one"), HasSubstr("task: PEER("));
  EXPECT_THAT(board_.Read("/log/root_log/fault_manager_except_sys_info_peer_one.tola.tmp"),
              HasSubstr("Exception Task        : PEER("));
}

TEST_F(PeersTest, ProcessThatUsesUpItsMemoryIsStartedAgainByTheMainProcess) {
  board_.StartMain();
  Start("peer_one");
  Start("peer_two");
  const std::string before = board_.Exec({"pidof", "peer_one"}).output;
  const std::string other = board_.Exec({"pidof", "peer_two"}).output;
  board_.Shell(": >/run/peer_one.fill; while [ -e /run/peer_one.fill ]; do sleep 0.01; done");
  EXPECT_TRUE(PassSecondsUntil("peer_one",
                               "grep -q 'Mem Threshold Over' "
                               "/mnt/sub_bin/sys_log/peer_one_run_log.log"))
      << RunLog("peer_one");
  EXPECT_TRUE(Comes("p=$(pidof peer_one) && [ $p != " + before.substr(0, before.find('\n')) + " ]"))
      << board_.Read("/log/board_main.log");
  EXPECT_EQ(board_.Exec({"pidof", "peer_two"}).output, other) << "the wrong process was restarted";
  EXPECT_TRUE(Comes("update_request --status | grep -q peer_one")) << "it did not come back";
}

}  // namespace
}  // namespace system_test
