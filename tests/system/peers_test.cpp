/// Two more processes of the frame on a board: what they exchange, and what becomes of one that is stuck or
/// out of memory.

#include <gmock/gmock.h>

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
    board_.StartMain();
  }

  bool IsUp(const std::string& name) const {
    return board_.Comes("grep -q 'AfterComp, ret=0$' /mnt/sub_bin/sys_log/" + name + "_run_log.log");
  }
  void StartPeers() const {
    for (const std::string name : {"peer_one", "peer_two"}) {
      board_.Shell("/app_run/app_bin/" + name + " >/log/" + name + ".out 2>&1");
      EXPECT_TRUE(IsUp(name)) << board_.Read("/log/" + name + ".out") << board_.RunLog(name);
    }
  }
  /// Moves the clock of peer_one on, second by second, until `condition` holds.
  bool PassSecondsUntil(const std::string& condition) const {
    return board_.Comes(condition, "echo 1000 1<>/run/peer_one.clock");
  }
  /// Waits until ten more messages of each, that is each size twice, are answered.
  bool MoreIsAnswered() const {
    bool comes = true;
    for (const std::string name : {"peer_one", "peer_two"}) {
      const std::string answered =
          "$(sed 's/.* answered \\([0-9]*\\) .*/\\1/' /log/" + name + ".result || echo 0)";
      board_.Shell("echo $((" + answered + " + 10)) >/tmp/goal");
      comes = comes && board_.Comes("[ " + answered + " -ge $(cat /tmp/goal) ]");
    }
    return comes;
  }

  Board board_;
};

TEST_F(PeersTest, ExchangeEveryByteWhileTheMainProcessRestarts) {
  StartPeers();
  board_.Shell(": >/run/exchange");
  for (int restart = 0; restart < 3; ++restart) {
    EXPECT_TRUE(MoreIsAnswered()) << "before restart " << restart;
    board_.EndMain();
    board_.StartMain();
  }
  EXPECT_TRUE(MoreIsAnswered());
  // Asked again: peers may well be answered before the new main process, which refuses strangers, knows them.
  EXPECT_TRUE(board_.Comes("{ : >/run/peer_one.map; grep -q /peer_one$ /log/root_log/peer_one.map.tmp; }"))
      << "the main process's help";
  board_.Shell(": >/run/exchange.stop");
  EXPECT_TRUE(board_.Comes("[ $(cat /log/peer_*.result | grep -c '^done .* wrong 0$') = 2 ]"))
      << board_.Shell("cat /log/peer_*.result").output << board_.RunLog("peer_one")
      << board_.RunLog("peer_two");
}

TEST_F(PeersTest, StuckTaskEndsItsProcessWithStatus17) {
  // A daemon's status goes to whoever adopts it.
  board_.Shell(
      "python3 -c 'import ctypes, os\n"
      "ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)\n"
      "os.spawnv(os.P_WAIT, \"/app_run/app_bin/peer_one\", [\"/app_run/app_bin/peer_one\"])\n"
      "while True: print(\"ended\", os.waitstatus_to_exitcode(os.wait()[1]), flush=True)' >/log/status "
      "2>/log/none &");
  ASSERT_TRUE(IsUp("peer_one"));
  board_.Shell(": >/run/peer_one.stick");
  EXPECT_TRUE(PassSecondsUntil("grep -q 'ended 17' /log/status")) << board_.Read("/log/status");
  EXPECT_THAT(board_.RunLog("peer_one"), HasSubstr("task: PEER("));
  if (!kSignalsReachWaits) return;
  EXPECT_THAT(board_.Read("/log/root_log/fault_manager_except_sys_info_peer_one.tola.tmp"),
              HasSubstr("Exception Task        : PEER("));
}

TEST_F(PeersTest, ProcessThatUsesUpItsMemoryIsStartedAgainByTheMainProcess) {
  StartPeers();
  const std::string before = board_.RegisteredPid("peer_one"), other = board_.RegisteredPid("peer_two");
  board_.Shell(": >/run/peer_one.fill; while [ -e /run/peer_one.fill ]; do sleep 0.01; done");
  EXPECT_TRUE(PassSecondsUntil("grep -q 'Mem Threshold Over' /mnt/sub_bin/sys_log/peer_one_run_log.log"))
      << board_.RunLog("peer_one");
  EXPECT_NE(board_.RegisteredPid("peer_one", before), "") << "it did not come back\n"
                                                          << board_.Read("/log/board_main.log");
  EXPECT_EQ(board_.RegisteredPid("peer_two"), other) << "the wrong process was restarted";
}

}  // namespace
}  // namespace system_test
