/// The fault agent beside a fault manager of the test's own: module 6, in the same process.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "fault/feature_fault_manager.h"
#include "msg/heart_beat_manager.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"
#include "velto/kel_cfg.h"
#include "velto/kel_support.h"

namespace {

constexpr uint16_t kAgent = 1056;
constexpr uint16_t kManager = 6;
constexpr uint16_t kStranger = 7;
constexpr uint16_t kRegister = 2572;
constexpr uint16_t kDebug = 2573;
constexpr uint16_t kRegisterAgain = 41696;

std::atomic<uint32_t> g_calls = 0;  // of the one-second callback

uint32_t Callback() {
  return ++g_calls % 2;  // its result is not used
}

class FaultManagerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    KEL_ClockModeSet(kKelClockManual);
    ASSERT_EQ(KEL_Start(nullptr), 0u);
    ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
    ASSERT_EQ(TOLA_HeartBeatManagerInit(4), 0u);
    ASSERT_EQ(TOLA_MsgModuleRegister(kManager, kMsgNoTask, 1, 64), 0u);
    ASSERT_EQ(TOLA_MsgModuleRegister(kStranger, kMsgNoTask, 1, 64), 0u);
    ASSERT_EQ(FaultRegTimer1sFunc(Callback), 0u) << "before Init";
    ASSERT_EQ(TOLA_FaultManagerInit(nullptr), kFaultErrNullCfg);
    const TOLA_FAULT_MGR_CFG_S taken = {kManager}, cfg = {kAgent};
    ASSERT_EQ(TOLA_FaultManagerInit(&taken), kMsgErrRegistered);
    ASSERT_EQ(TOLA_FaultManagerInit(&cfg), 0u) << "a failure may be repeated";
    ASSERT_EQ(FaultRegTimer1sFunc(Callback), 0u);
  }

  /// Next message to the fault manager, or null when there is none.
  static support::MsgPtr Next(uint16_t to = kManager) {
    tagMsgBuf* msg = nullptr;
    return support::MsgPtr(TOLA_MsgRecv(to, &msg, 0) == 0 ? msg : nullptr);
  }
  static support::MsgPtr Await(uint16_t to = kManager) {
    support::MsgPtr msg;
    EXPECT_TRUE(Eventually([&] { return (msg = Next(to)) != nullptr; }));
    return msg;
  }
  static void Tell(uint16_t type, const std::vector<uint8_t>& data = {}, uint16_t from = kManager) {
    const auto size = static_cast<uint32_t>(data.size());
    EXPECT_EQ(SendSimpleFormatMsg(from, kAgent, type, 5, size, data.data()), 0u);
  }
  /// The answer to a message, which also says that everything before it is done with.
  static int Ask(uint16_t type, const std::vector<uint8_t>& data = {}, uint16_t from = kManager) {
    Tell(type, data, from);
    const support::MsgPtr answer = Await(from);
    uint16_t result = 0;
    EXPECT_TRUE(answer->type == type && answer->subType == 5 && answer->source == kAgent);
    EXPECT_EQ(GetTolaMsgLen(answer.get()), sizeof(result));
    memcpy(&result, TolaMsgData(answer.get()), sizeof(result));
    return result;
  }

  support::LogCapture log_;
};

TEST_F(FaultManagerTest, RegistersEverySecondUntilItIsAcknowledgedAndAgainWhenAsked) {
  const auto pid = static_cast<uint32_t>(getpid());
  const auto isRegistration = [pid](const support::MsgPtr& msg) {
    const uint16_t expected[4] = {0, kAgent, static_cast<uint16_t>(pid), static_cast<uint16_t>(pid >> 16)};
    return msg != nullptr && msg->type == kRegister && msg->subType == 0 && msg->source == kAgent &&
           GetTolaMsgLen(msg.get()) == 8 && memcmp(TolaMsgData(msg.get()), expected, 8) == 0;
  };
  EXPECT_TRUE(isRegistration(Await())) << "at Init";
  for (int second = 0; second < 2; ++second) {
    KEL_ClockAdvanceMs(1000);
    EXPECT_TRUE(isRegistration(Await()));
  }
  Tell(kRegister);
  EXPECT_EQ(Ask(0x123), 1) << "a type that nobody knows";
  KEL_ClockAdvanceMs(1000);
  EXPECT_TRUE(Eventually([] { return g_calls == 6; })) << "two callbacks a second, three seconds";
  EXPECT_EQ(Ask(0x123), 1);
  EXPECT_EQ(Next(), nullptr) << "acknowledged, and the acknowledgement is not replied to";
  Tell(kRegisterAgain);
  EXPECT_TRUE(isRegistration(Await())) << "at once";
  ASSERT_EQ(TOLA_MsgModuleUnregister(kManager), 0u);
  KEL_ClockAdvanceMs(1000);
  EXPECT_TRUE(Eventually([] { return g_calls == 8; }));
  EXPECT_EQ(Ask(0x123, {}, kStranger), 1);
  ASSERT_EQ(TOLA_MsgModuleRegister(kManager, kMsgNoTask, 1, 64), 0u);
  KEL_ClockAdvanceMs(1000);
  EXPECT_TRUE(isRegistration(Await())) << "a fault manager that comes late waits a second, not longer";
}

TEST_F(FaultManagerTest, DebugRequestsAreTheFaultManagersAlone) {
  const std::vector<uint8_t> level = {0, 1, 0x01, 0x2C, 0, 2};  // command 1: module 300 to level 2
  SetPrintPara(300, 0x34);
  EXPECT_EQ(Ask(kDebug, level, kStranger), 1);
  EXPECT_EQ(GetPrintPara(300), 0x34);
  EXPECT_THAT(log_.Lines(), testing::Contains("7->1056 Ty:0xa0d Err:0x1"));
  while (Next() != nullptr) continue;  // the registration at Init, when this case runs alone
  EXPECT_EQ(Ask(kDebug, level), 0);
  EXPECT_EQ(GetPrintPara(300), 0x32);
  Tell(0x123, {1, 0}, kStranger);
  EXPECT_EQ(Ask(0x124, {}, kStranger), 1) << "two agents would refuse each other's answers for ever";
}

/// A process of its own with a budget of 1 MiB of which `kib` are taken; ends as its agent ends it, or with 0
/// after the check.
[[noreturn]] void RunWithMemoryInUse(uint32_t kib) {
  const support::TempDir dir;
  dir.Write("cfg", "mem.budget_bytes=1048576\n");
  KEL_ClockModeSet(kKelClockManual);
  static std::atomic<uint32_t> seconds = 0;
  uint32_t handle = 0;
  const std::string longest(30, 'n');
  const TOLA_FAULT_MGR_CFG_S cfg = {kAgent};
  if (KEL_CfgdbInitByFsldr(dir.File("cfg").c_str()) + KEL_Start(nullptr) +
          KEL_HandleInitialize("load", &handle) + TOLA_CfgProcessMemThreshold(90, longest.c_str()) +
          FaultRegTimer1sFunc([] { return ++seconds, 0u; }) + TOLA_MsgManagerInit() +
          TOLA_FaultManagerInit(&cfg) !=
      0) {
    _exit(99);
  }
  int more = 0;
  while (FaultRegTimer1sFunc([] { return 0u; }) == 0 && more < 9) ++more;
  if (more != 4) _exit(98);  // there are six in all
  // What the manager itself took counts too.
  const uint32_t taken = KEL_MemGetTotalSize() - KEL_MemGetFreeSize();
  if (KEL_MEM_ALLOC(handle, kib * 1024 - taken) == nullptr) _exit(97);
  for (uint32_t i = 1; i <= 300; ++i) {
    KEL_ClockAdvanceMs(1000);
    if (!Eventually([i] { return seconds == i; })) _exit(96);
  }
  _exit(0);
}

TEST(FaultThresholdDeathTest, IsCheckedAndFiresAtItsPercentageAndEndsAProcessThatNobodyRestarts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string tooLong(31, 'n');
  for (const auto& [percent, name] :
       {std::pair(0, "a"), std::pair(100, "a"), std::pair(90, tooLong.c_str())}) {
    EXPECT_EQ(TOLA_CfgProcessMemThreshold(static_cast<uint16_t>(percent), name), kFaultErrThreshold);
  }
  EXPECT_EXIT(RunWithMemoryInUse(920), testing::ExitedWithCode(0), "") << "89.8 are 89 percent";
  EXPECT_EXIT(RunWithMemoryInUse(922), testing::KilledBySignal(SIGKILL), "");
}

}  // namespace
