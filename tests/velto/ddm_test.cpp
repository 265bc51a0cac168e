#include "velto/ddm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "velto/kel_support.h"

namespace {

using testing::HasSubstr;

/// A forked process that takes a lock and holds it until it is killed.
class Holder {
 public:
  Holder(uint32_t (*take)(uint32_t, uint32_t), uint32_t lock) : process_(fork()) {
    if (process_ == 0) _exit(take(lock, 0) == 0 ? raise(SIGSTOP) : 1);
    int status = 0;
    EXPECT_EQ(waitpid(process_, &status, WUNTRACED), process_);
    EXPECT_TRUE(WIFSTOPPED(status)) << "the lock was not free";
  }
  ~Holder() { End(); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  void End() {
    if (process_ == 0) return;
    (void)kill(process_, SIGKILL);  // one that did not get the lock has ended and been waited for
    (void)waitpid(process_, nullptr, 0);
    process_ = 0;
  }
  [[nodiscard]] std::string Name() const { return "process " + std::to_string(process_); }

 private:
  pid_t process_;
};

std::string Shown(uint32_t group) {
  testing::internal::CaptureStdout();
  DDM_IpcRwLockShowInfo(group);
  return testing::internal::GetCapturedStdout();
}

uint32_t NewLock(uint32_t group, const char* name) {
  uint32_t lock = 0;
  EXPECT_EQ(DDM_IpcRwLockCreate(group, name, &lock), 0u);
  return lock;
}

TEST(Ddm, ReadersOfTwoProcessesShareALockThatAWriterHasAlone) {
  const uint32_t lock = NewLock(1, "route");
  EXPECT_EQ(NewLock(1, "route"), lock);
  EXPECT_NE(NewLock(2, "route"), lock);
  {
    const Holder reader(DDM_IpcRwLockRLock, lock);
    EXPECT_EQ(DDM_IpcRwLockWLock(lock, 0), kKelErrTimeout);
    EXPECT_EQ(DDM_IpcRwLockRLock(lock, 0), 0u);
    EXPECT_THAT(Shown(1), HasSubstr("route read by " + reader.Name()));
    EXPECT_THAT(Shown(1), HasSubstr("route read by process " + std::to_string(getpid())));
    EXPECT_EQ(Shown(2), "ipc rwlock group 2: none held\n");
    EXPECT_EQ(Shown(kDdmGroupCount), "ipc rwlock group 3: none held\n") << "no such group";
    EXPECT_EQ(DDM_IpcRwLockWUnlock(lock), kDdmErrHeld);
    EXPECT_EQ(DDM_IpcRwLockRUnlock(lock), 0u);
    EXPECT_EQ(DDM_IpcRwLockRUnlock(lock), kDdmErrHeld) << "the other process's hold was given back";
  }
  const Holder writer(DDM_IpcRwLockWLock, lock);
  EXPECT_THAT(Shown(1), HasSubstr("route written by " + writer.Name()));
  const ClockModeScope manual(kKelClockManual);
  TestTask late("late", [&] { EXPECT_EQ(DDM_IpcRwLockRLock(lock, 600'000), kKelErrTimeout); });
  EXPECT_TRUE(late.EndsWhenTimeMoves(600'000)) << "the time-out is not the runtime's own";
}

TEST(Ddm, WhatDeadHoldersHadIsTakenOverAndShownAsSuch) {
  const uint32_t lock = NewLock(0, "dead");
  Holder writer(DDM_IpcRwLockWLock, lock);
  TestTask waiter("waiter", [&] {
    EXPECT_EQ(DDM_IpcRwLockWLock(lock, KEL_WAIT_FOREVER), 0u);
    EXPECT_EQ(DDM_IpcRwLockWUnlock(lock), 0u);
  });
  writer.End();
  waiter.Join();
  for (int i = 0; i < 40 && !HasFailure(); ++i)  // more than there is room for
    const Holder reader(DDM_IpcRwLockRLock, lock);
  EXPECT_THAT(Shown(0), HasSubstr(", which ended"));
  EXPECT_EQ(DDM_IpcRwLockWLock(lock, 0), 0u);
  EXPECT_EQ(DDM_IpcRwLockWUnlock(lock), 0u);
}

}  // namespace
