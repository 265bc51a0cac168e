/// Heart beats: a second is a call of the second event, so these cases need no clock at all.
#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/check.h"
#include "msg/heart_beat_manager.h"
#include "support/log_capture.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint16_t kSlots = 4;

/// A task that does what it is told until it goes.
class Worker {
 public:
  explicit Worker(const char* name) {
    TOLA_CHECK(KEL_SemaCreate("go", 0, 0, &go_) == 0 && KEL_SemaCreate("done", 0, 0, &done_) == 0);
    thread_ = std::thread([this, name] {
      TOLA_CHECK(KEL_TaskAdopt(name, &id) == 0 && KEL_SemaV(done_) == 0);
      while (KEL_SemaP(go_, KEL_WAIT_FOREVER) == 0 && call_ != nullptr) {
        result_ = call_();
        TOLA_CHECK(KEL_SemaV(done_) == 0);
      }
    });
    TOLA_CHECK(KEL_SemaP(done_, KEL_WAIT_FOREVER) == 0);
  }
  ~Worker() {
    // Its slot lives on: it is left so that it is not overdue in the cases that follow.
    (void)Do([] { return ModifyCurrentTaskHeartBeatTimeOut(0xFFFF) + TOLA_SendThreadHeartBeat(); });
    call_ = nullptr;
    TOLA_CHECK(KEL_SemaV(go_) == 0);
    thread_.join();
    TOLA_CHECK(KEL_SemaDelete(go_) == 0 && KEL_SemaDelete(done_) == 0);
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  uint32_t Do(std::function<uint32_t()> call) {
    call_ = std::move(call);
    TOLA_CHECK(KEL_SemaV(go_) == 0 && KEL_SemaP(done_, KEL_WAIT_FOREVER) == 0);
    return result_;
  }
  uint32_t Register(uint16_t timeoutS) {
    return Do([=] { return TOLA_RegThreadHeartBeat(timeoutS, 0); });
  }
  uint32_t Beat() { return Do(TOLA_SendThreadHeartBeat); }

  uint32_t id = 0;

 private:
  uint32_t go_ = 0;
  uint32_t done_ = 0;
  std::function<uint32_t()> call_;
  uint32_t result_ = 0;
  std::thread thread_;
};

std::vector<uint32_t> g_reported;

class HeartBeatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const uint32_t ret = TOLA_HeartBeatManagerInit(kSlots);
    ASSERT_TRUE(ret == 0 || ret == kHeartErrInitAgain);
    RegTaskInfoRecordFunc([](uint32_t taskId) { g_reported.push_back(taskId); });
    g_reported.clear();
    log.Clear();
  }

  /// Who is reported in the course of `seconds`.
  std::vector<uint32_t> Pass(uint32_t seconds) {
    g_reported.clear();
    for (uint32_t i = 0; i < seconds; ++i) EXPECT_EQ(TOLA_HeartBeatProcessSecondEvent(), 0u);
    return g_reported;
  }

  support::LogCapture log;
  // In the order of their slots; the same ids, and so the same slots, in every case.
  Worker first{"first"};
  Worker second{"second"};
};

TEST(HeartBeatInitTest, NothingWorksBeforeItAndItWorksOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // in a process of its own, where no other case came before
  EXPECT_EXIT(
      {
        uint32_t task = 0;
        bool ok = KEL_TaskAdopt("test", &task) == 0;
        ok = ok && TOLA_HeartBeatProcessSecondEvent() == 23048 && TOLA_SendThreadHeartBeat() == 23048;
        ok = ok && TOLA_RegThreadHeartBeat(5, 0) == 23048 && ModifyCurrentTaskHeartBeatTimeOut(5) == 23048;
        ok = ok && TOLA_HeartBeatManagerInit(0) == 23043 && TOLA_HeartBeatProcessSecondEvent() == 23048;
        ok = ok && TOLA_HeartBeatManagerInit(16) == 0 && TOLA_HeartBeatManagerInit(0) == 23044;
        ok = ok && TOLA_RegThreadHeartBeat(1, 0) == 0;
        ok = ok && TOLA_HeartBeatProcessSecondEvent() == 0;  // overdue, and nobody there to be told
        exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(HeartBeatTest, ATaskIsReportedInTheSecondOfItsTimeout) {
  ASSERT_EQ(first.Register(300), 0u);
  for (uint32_t beat = 0; beat < 10; ++beat) {
    EXPECT_THAT(Pass(200), IsEmpty()) << "it beats in time";
    EXPECT_EQ(first.Beat(), 0u);
  }
  log.Clear();
  EXPECT_THAT(Pass(299), IsEmpty());
  EXPECT_THAT(log.Lines(), IsEmpty());
  EXPECT_THAT(Pass(1), ElementsAre(first.id)) << "in the 300th second after its last beat";
  char line[64];
  (void)snprintf(line, sizeof(line), "task: first(%#x) has no heartbeat", first.id);
  ASSERT_FALSE(log.Records().empty());
  EXPECT_EQ(log.Records().back().message, line);
  EXPECT_EQ(log.Records().back().level, "ERR");
}

TEST_F(HeartBeatTest, SlotsBehindAnOverdueOneDoNotCountInThatSecond) {
  ASSERT_EQ(first.Register(5), 0u);
  ASSERT_EQ(second.Register(6), 0u);
  EXPECT_THAT(Pass(5), ElementsAre(first.id));
  EXPECT_EQ(first.Beat(), 0u);
  EXPECT_THAT(Pass(1), IsEmpty()) << "the second task's five seconds became six";
  EXPECT_THAT(Pass(1), ElementsAre(second.id));
  EXPECT_THAT(Pass(3), ElementsAre(second.id, second.id, first.id)) << "only the first of two is reported";
}

TEST_F(HeartBeatTest, ARegistrationAgainStartsAfreshAndANewTimeoutDoesNot) {
  ASSERT_EQ(first.Register(100), 0u);
  ASSERT_EQ(second.Register(0xFFFF), 0u);
  EXPECT_THAT(Pass(99), IsEmpty());
  log.Clear();
  ASSERT_EQ(first.Do([] { return TOLA_RegHeartBeatId(4, 50, 1); }), 0u);
  int32_t thread = 0;
  ASSERT_EQ(KEL_TaskThreadIdGet(first.id, &thread), 0u);
  EXPECT_THAT(log.Lines(), ElementsAre("re_reg", "heartbeat:4,task[" + std::to_string(thread) + ":" +
                                                     std::to_string(first.id) + "],first time[50]"));
  EXPECT_THAT(Pass(49), IsEmpty()) << "the seconds before it still counted";
  EXPECT_EQ(first.Do([] { return ModifyCurrentTaskHeartBeatTimeOut(60); }), 0u);
  EXPECT_THAT(Pass(10), IsEmpty()) << "the old time-out was kept";
  EXPECT_THAT(Pass(1), ElementsAre(first.id));
}

TEST_F(HeartBeatTest, WhoIsNotRegisteredOrFitsNowhereIsToldSo) {
  Worker third("third");
  Worker fourth("fourth");
  Worker fifth("fifth");
  log.Clear();
  EXPECT_EQ(fifth.Beat(), kHeartErrNotRegistered);
  char line[96];
  (void)snprintf(line, sizeof(line), "task name(id): fifth(0x%X) not reg to heartbeat manager", fifth.id);
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].message, line);
  EXPECT_EQ(log.Records()[0].level, "WRN");
  EXPECT_EQ(fifth.Do([] { return ModifyCurrentTaskHeartBeatTimeOut(9); }), kHeartErrNotRegistered);

  log.Clear();
  EXPECT_EQ(fifth.Register(0), kHeartErrTimeout);
  EXPECT_EQ(fifth.Do([] { return ModifyCurrentTaskHeartBeatTimeOut(0); }), kHeartErrTimeout);
  const std::string id = std::to_string(fifth.id);
  EXPECT_THAT(log.Lines(),
              ElementsAre("hb:65535," + id + ":fifth err time:0", "task " + id + ":fifth err time:0"));

  for (Worker* worker : {&first, &second, &third, &fourth}) ASSERT_EQ(worker->Register(100), 0u);
  log.Clear();
  EXPECT_EQ(fifth.Register(100), kHeartErrFull);
  EXPECT_THAT(log.Lines(), ElementsAre("out max num : 4"));
  EXPECT_EQ(first.Register(100), 0u) << "one that has a slot needs no other";

  std::thread([] {
    EXPECT_EQ(TOLA_RegThreadHeartBeat(5, 0), kHeartErrTaskId);
    EXPECT_EQ(TOLA_SendThreadHeartBeat(), kHeartErrTaskId);
  }).join();
}

TEST_F(HeartBeatTest, TasksMayRegisterAndBeatWhileSecondsPass) {
  ASSERT_EQ(first.Register(0xFFFF), 0u);
  std::thread seconds([] {
    for (uint32_t i = 0; i < 20000; ++i) (void)TOLA_HeartBeatProcessSecondEvent();
  });
  EXPECT_EQ(second.Do([] {
    uint32_t failed = 0;
    for (uint32_t i = 0; i < 300; ++i) {
      failed += TOLA_RegThreadHeartBeat(0x8000, 0) + TOLA_SendThreadHeartBeat();
      failed += ModifyCurrentTaskHeartBeatTimeOut(0xFFFF);
    }
    return failed;
  }),
            0u);
  seconds.join();
  EXPECT_THAT(g_reported, IsEmpty());
}

}  // namespace
