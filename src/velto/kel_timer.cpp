/// Relative timers on one thread, which is started with the first timer and sleeps until the next one is due.
/// It is also the source of user ticks: at each wake it asks the tick hook how many passed.
#include <algorithm>
#include <mutex>

#include "velto/kel_cfg.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"
#include "velto/kel_tick.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kTimerMax = 128;
constexpr uint32_t kTimerPriority = 10;

// A hook that is asked too rarely takes the gap for a jump of the clock: while timers run it is asked this
// often.
constexpr uint64_t kHookPeriodNs = 250 * kNsPerMs;

struct Timer {
  bool used;
  uint32_t serial;  // tells a timer from an earlier one of the same id
  uint32_t mode;
  uint64_t dueNs;
  uint64_t intervalNs;
  KelTimerCallback callback;
  uintptr_t arg;
};

std::mutex gLock;  // guards what follows, up to the words; never held while a callback runs
Timer gTimers[kTimerMax];
uint32_t gTimerTask = 0;  // 0: not started
uint32_t gRunning = 0;    // the timer whose callback runs
uint32_t gStoppers = 0;   // threads that wait for the end of a callback
uint32_t gLastTaken =
    kTimerMax - 1;  // places are taken in turn, so that an id comes back as late as possible
uint32_t gSerial = 0;

std::atomic<uint32_t> gChanges{0};    // moves on with each start: the thread's word
std::atomic<uint32_t> gCallsDone{0};  // moves on with each callback's end: the stoppers' word

Timer* Earliest() {
  Timer* earliest = nullptr;
  for (Timer& timer : gTimers) {
    if (timer.used && (earliest == nullptr || timer.dueNs < earliest->dueNs)) earliest = &timer;
  }
  return earliest;
}

void RunCallback(Timer& timer, uint64_t now, std::unique_lock<std::mutex>& lock) {
  const KelTimerCallback callback = timer.callback;
  const uintptr_t arg = timer.arg;
  const uint32_t serial = timer.serial;
  timer.dueNs += ((now - timer.dueNs) / timer.intervalNs + 1) * timer.intervalNs;  // the next beat after now
  gRunning = static_cast<uint32_t>(&timer - gTimers) + 1;
  lock.unlock();
  callback(arg);
  lock.lock();
  gRunning = 0;
  // The callback may have stopped this timer and started another one in its place.
  if (timer.serial == serial && timer.mode == kKelTimerOnce) timer.used = false;
  gCallsDone.fetch_add(1);
  if (gStoppers != 0) WordWake(gCallsDone, kWakeAll);
}

using TickHook = uint32_t (*)();
TickHook Hook() {
  return __atomic_load_n(&g_pfnUsrAdjustHook, __ATOMIC_ACQUIRE);
}

void TimerTask(uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
  for (;;) {
    const uint32_t changes = gChanges.load();
    Deadline wake = Deadline::Never();
    {
      std::unique_lock<std::mutex> lock(gLock);
      for (Timer* timer = Earliest(); timer != nullptr; timer = Earliest()) {
        const uint64_t now = KEL_ClockMonotonicNs();
        if (timer->dueNs > now) {
          wake = Deadline::At(Hook() != nullptr ? std::min(timer->dueNs, now + kHookPeriodNs) : timer->dueNs);
          break;
        }
        RunCallback(*timer, now, lock);
      }
    }
    WordWait(gChanges, changes, wake);
    if (const TickHook hook = Hook(); hook != nullptr) UserTicksAdd(hook());
  }
}

/// Call with gLock held.
uint32_t StartThreadOnce() {
  if (gTimerTask != 0) return 0;
  return KEL_TaskCreate("KELTIMER", &gTimerTask, TimerTask, kTimerPriority, 0, 0, nullptr);
}

/// A free place, or null. Call with gLock held.
Timer* TakePlace() {
  for (uint32_t i = 1; i <= kTimerMax; ++i) {
    const uint32_t index = (gLastTaken + i) % kTimerMax;
    if (gTimers[index].used) continue;
    gLastTaken = index;
    return &gTimers[index];
  }
  return nullptr;
}

}  // namespace
}  // namespace velto

uint32_t KEL_ReltmrCbkStart(uint32_t intervalMs, uint32_t mode, KelTimerCallback callback, uintptr_t arg,
                            uint32_t* timerId) {
  if (intervalMs == 0 || mode > kKelTimerRepeat || callback == nullptr || timerId == nullptr) {
    return kKelErrSyncPara;
  }
  {
    const std::lock_guard<std::mutex> guard(velto::gLock);
    const uint32_t started = velto::StartThreadOnce();
    if (started != 0) return started;
    velto::Timer* timer = velto::TakePlace();
    if (timer == nullptr) return kKelErrSyncFull;
    const uint64_t interval = intervalMs * velto::kNsPerMs;
    *timer = {true, ++velto::gSerial, mode, KEL_ClockMonotonicNs() + interval, interval, callback, arg};
    *timerId = static_cast<uint32_t>(timer - velto::gTimers) + 1;
    velto::gChanges.fetch_add(1);
  }
  velto::WordWake(velto::gChanges, 1);
  return 0;
}

uint32_t KEL_ReltmrStop(uint32_t timerId) {
  std::unique_lock<std::mutex> lock(velto::gLock);
  if (timerId == 0 || timerId > velto::kTimerMax || !velto::gTimers[timerId - 1].used) return kKelErrSyncId;
  velto::gTimers[timerId - 1].used = false;
  uint32_t self = 0;
  (void)KEL_TaskCurrentIdGet(&self);  // a thread that is no task is not the timer thread
  if (velto::gRunning != timerId || self == velto::gTimerTask) return 0;
  const uint32_t calls = velto::gCallsDone.load();
  ++velto::gStoppers;
  lock.unlock();
  while (velto::gCallsDone.load() == calls)
    velto::WordWait(velto::gCallsDone, calls, velto::Deadline::Never());
  lock.lock();
  --velto::gStoppers;
  return 0;
}
