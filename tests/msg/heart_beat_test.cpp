/// Heart beats: a second is a call of the second event, so these cases need no clock at all.
#include <gmock/gmock.h>

#include <functional>
#include <semaphore>
#include <thread>

#include "base/check.h"
#include "msg/heart_beat_manager.h"
#include "support/log_capture.h"
#include "velto/kel_task.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

std::vector<uint32_t> g_reported;

/// A task that does what it is told until it goes.
class Worker {
 public:
  explicit Worker(const char* name) {
    thread_ = std::thread([this, name] {
      TOLA_CHECK(KEL_TaskAdopt(name, &id) == 0 && id < 10);  // the same in every base
      for (done_.release(); go_.acquire(), call_ != nullptr; done_.release()) result_ = call_();
    });
    done_.acquire();
    text = std::to_string(id);
  }
  ~Worker() {
    // Its slot lives on: it is left so that it is not overdue in the cases that follow.
    (void)Do([] { return ModifyCurrentTaskHeartBeatTimeOut(0xFFFF) + TOLA_SendThreadHeartBeat(); });
    call_ = nullptr;
    go_.release();
    thread_.join();
  }
  uint32_t Do(std::function<uint32_t()> call) {
    call_ = std::move(call);
    go_.release();
    done_.acquire();
    return result_;
  }
  uint32_t Register(uint16_t timeoutS) {
    return Do([=] { return TOLA_RegThreadHeartBeat(timeoutS, 0); });
  }
  uint32_t Modify(uint16_t timeoutS) {
    return Do([=] { return ModifyCurrentTaskHeartBeatTimeOut(timeoutS); });
  }

  uint32_t id = 0;
  std::string text;

 private:
  std::binary_semaphore go_{0}, done_{0};
  std::function<uint32_t()> call_;
  uint32_t result_ = 0;
  std::thread thread_;
};

class HeartBeatTest : public ::testing::Test {
 protected:
  HeartBeatTest() {
    const uint32_t ret = TOLA_HeartBeatManagerInit(3);
    TOLA_CHECK(ret == 0 || ret == kHeartErrInitAgain);
    RegTaskInfoRecordFunc([](uint32_t taskId) { g_reported.push_back(taskId); });
    log.Clear();
  }
  /// Who is reported in the course of `seconds`.
  static std::vector<uint32_t> Pass(uint32_t seconds) {
    g_reported.clear();
    for (uint32_t i = 0; i < seconds; ++i) EXPECT_EQ(TOLA_HeartBeatProcessSecondEvent(), 0u);
    return g_reported;
  }
  support::LogCapture log;
  Worker first{"first"}, second{"second"};  // in the order of their slots, the same ones in every case
};

TEST(HeartBeatInitTest, NothingWorksBeforeItAndItWorksOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process of its own, where no other case came before
  const auto run = [] {
    uint32_t task = 0;
    bool ok = KEL_TaskAdopt("test", &task) == 0;
    ok = ok && TOLA_HeartBeatProcessSecondEvent() == 23048 && TOLA_SendThreadHeartBeat() == 23048;
    ok = ok && TOLA_RegThreadHeartBeat(5, 0) == 23048 && ModifyCurrentTaskHeartBeatTimeOut(5) == 23048;
    ok = ok && TOLA_HeartBeatManagerInit(0) == 23043 && TOLA_HeartBeatProcessSecondEvent() == 23048;
    ok = ok && TOLA_HeartBeatManagerInit(16) == 0 && TOLA_HeartBeatManagerInit(0) == 23044;
    return ok && TOLA_RegThreadHeartBeat(1, 0) == 0 && TOLA_HeartBeatProcessSecondEvent() == 0;
  };
  EXPECT_EXIT(exit(run() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST_F(HeartBeatTest, ATaskIsReportedInTheSecondOfItsTimeout) {
  ASSERT_EQ(first.Register(300), 0u);
  EXPECT_THAT(Pass(299), IsEmpty());
  EXPECT_EQ(first.Do(TOLA_SendThreadHeartBeat), 0u);
  log.Clear();
  EXPECT_THAT(Pass(299), IsEmpty()) << "the beat did not count";
  EXPECT_THAT(Pass(1), ElementsAre(first.id));
  ASSERT_EQ(first.Do([] { return TOLA_RegHeartBeatId(4, 50, 1); }), 0u);
  EXPECT_THAT(log.Lines(),
              ElementsAre("task: first(0x" + first.text + ") has no heartbeat", "re_reg",
                          MatchesRegex("heartbeat:4,task\\[[0-9]+:" + first.text + "],first time\\[50]")));
  EXPECT_THAT(Pass(49), IsEmpty()) << "the seconds before a registration still counted";
  EXPECT_EQ(first.Modify(60), 0u);
  EXPECT_THAT(Pass(10), IsEmpty()) << "the old time-out was kept";
  EXPECT_THAT(Pass(1), ElementsAre(first.id)) << "a new time-out starts nothing afresh";
}

TEST_F(HeartBeatTest, ATaskThatHoldsTheLogIsHandedOverWithoutIt) {
  static std::binary_semaphore held{0};
  g_reported.reserve(2);  // what follows runs in a signal
  Worker holder("holder");
  ASSERT_EQ(holder.Register(1), 0u);
  RegTaskInfoRecordFunc([](uint32_t taskId) {
    g_reported.push_back(taskId);
    held.release();
  });
  RegLogSeparatePrintFunc([](const TOLA_LOG_PARA_S*, const char*, va_list) {
    while (!held.try_acquire()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  EXPECT_THAT(Pass(1), ElementsAre(holder.id, holder.id)) << "once by its alarm";
  RegLogSeparatePrintFunc(nullptr);
}

TEST_F(HeartBeatTest, SlotsBehindAnOverdueOneDoNotCountInThatSecond) {
  ASSERT_EQ(first.Register(5), 0u);
  ASSERT_EQ(second.Register(6), 0u);
  EXPECT_THAT(Pass(5), ElementsAre(first.id));
  EXPECT_EQ(first.Do(TOLA_SendThreadHeartBeat), 0u);
  EXPECT_THAT(Pass(1), IsEmpty()) << "the second task's five seconds became six";
  EXPECT_THAT(Pass(4), ElementsAre(second.id, second.id, second.id, first.id))
      << "only the first is reported";
}

TEST_F(HeartBeatTest, WhoIsNotRegisteredOrFitsNowhereIsToldSo) {
  Worker third("third"), fourth("fourth");
  for (Worker* worker : {&first, &second, &third}) ASSERT_EQ(worker->Register(0xFFFF), 0u);
  log.Clear();
  EXPECT_EQ(fourth.Do(TOLA_SendThreadHeartBeat), kHeartErrNotRegistered);
  EXPECT_EQ(fourth.Modify(9), kHeartErrNotRegistered);
  EXPECT_EQ(fourth.Register(0), kHeartErrTimeout);
  EXPECT_EQ(fourth.Modify(0), kHeartErrTimeout);
  EXPECT_EQ(fourth.Register(100), kHeartErrFull);
  EXPECT_THAT(log.Lines(),
              ElementsAre("task name(id): fourth(0x" + fourth.text + ") not reg to heartbeat manager",
                          "hb:65535," + fourth.text + ":fourth err time:0",
                          "task " + fourth.text + ":fourth err time:0", "out max num : 3"));
}

TEST_F(HeartBeatTest, TasksMayRegisterAndBeatWhileSecondsPass) {
  ASSERT_EQ(first.Register(0xFFFF), 0u);
  std::thread seconds([] { EXPECT_THAT(Pass(20000), IsEmpty()); });
  const auto beat = [] { return TOLA_RegThreadHeartBeat(0x8000, 0) + TOLA_SendThreadHeartBeat(); };
  for (uint32_t i = 0; i < 300; ++i) EXPECT_EQ(second.Do(beat), 0u);
  seconds.join();
}

}  // namespace
