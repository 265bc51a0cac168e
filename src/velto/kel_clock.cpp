/// The clocks, and the waits that are measured with them.
///
/// A clock shows base + moved + (real mode: the machine's clock). The bases stand in one of two slots; the
/// generation's lowest bit says in which, so that a signal handler that interrupts a switch still reads a
/// whole slot. `moved` only grows and counts in every mode: no switch can take time back.
#include "velto/kel_clock.h"

#include <sched.h>
#include <time.h>

#include <mutex>

#include "velto/kel_futex.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

static_assert(std::atomic<uint64_t>::is_always_lock_free, "a signal handler may read the clock");

struct ClockSlot {
  std::atomic<uint64_t> monotonicBase{0};
  std::atomic<uint64_t> wallBase{0};
  std::atomic<uint32_t> mode{kKelClockReal};
};

ClockSlot gSlots[2];
std::atomic<uint32_t> gGeneration{0};
std::atomic<uint64_t> gMovedNs{0};
std::mutex gSwitchLock;  // one switch, or one setting of the wall clock, at a time

struct ClockView {
  uint64_t monotonicBase;
  uint64_t wallBase;
  uint64_t machineMonotonic;  // 0 in the manual modes
  uint64_t machineWall;
  uint32_t mode;

  [[nodiscard]] uint64_t Monotonic() const { return monotonicBase + machineMonotonic + gMovedNs.load(); }
  [[nodiscard]] uint64_t Wall() const { return wallBase + machineWall + gMovedNs.load(); }
};

uint64_t MachineNs(clockid_t id) {
  timespec now{};
  (void)clock_gettime(id, &now);  // cannot fail for these two clocks
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

enum class Read : uint8_t { kMonotonic, kWall, kBoth };

// The machine's clock is read between two looks at the generation: it belongs to the bases it is added to.
ClockView View(Read what) {
  for (;;) {
    const uint32_t generation = gGeneration.load();
    const ClockSlot& slot = gSlots[generation & 1];
    ClockView view{slot.monotonicBase.load(std::memory_order_acquire),
                   slot.wallBase.load(std::memory_order_acquire), 0, 0,
                   slot.mode.load(std::memory_order_acquire)};
    if (view.mode == kKelClockReal) {
      if (what != Read::kWall) view.machineMonotonic = MachineNs(CLOCK_MONOTONIC);
      if (what != Read::kMonotonic) view.machineWall = MachineNs(CLOCK_REALTIME);
    }
    if (gGeneration.load() == generation) return view;
  }
}

// Call with gSwitchLock held.
void Publish(uint32_t mode, uint64_t monotonicBase, uint64_t wallBase) {
  const uint32_t next = gGeneration.load() + 1;
  ClockSlot& slot = gSlots[next & 1];
  slot.monotonicBase.store(monotonicBase, std::memory_order_release);
  slot.wallBase.store(wallBase, std::memory_order_release);
  slot.mode.store(mode, std::memory_order_release);
  gGeneration.store(next);
}

// Who waits with a deadline stands here while the wait lasts. A thread that finds no place sleeps in slices.
struct Sleeper {
  std::atomic<std::atomic<uint32_t>*> word{nullptr};
  std::atomic<uint32_t> ticket{0};  // grows with each use of the place
};

constexpr uint32_t kSleeperMax = 512;
Sleeper gSleepers[kSleeperMax];
std::atomic<uint32_t> gSleeperHigh{0};  // places from here on were never used

class SleeperPlace {
 public:
  explicit SleeperPlace(std::atomic<uint32_t>& word) {
    for (uint32_t i = 0; i < kSleeperMax; ++i) {
      std::atomic<uint32_t>* none = nullptr;
      if (!gSleepers[i].word.compare_exchange_strong(none, &word)) continue;
      place_ = &gSleepers[i];
      place_->ticket.fetch_add(1);
      uint32_t high = gSleeperHigh.load();
      while (high <= i && !gSleeperHigh.compare_exchange_weak(high, i + 1)) {
      }
      return;
    }
  }
  ~SleeperPlace() {
    if (place_ != nullptr) place_->word.store(nullptr);
  }
  SleeperPlace(const SleeperPlace&) = delete;
  SleeperPlace& operator=(const SleeperPlace&) = delete;
  [[nodiscard]] bool taken() const { return place_ != nullptr; }

 private:
  Sleeper* place_ = nullptr;
};

void WakeSleepersOnce() {
  const uint32_t high = gSleeperHigh.load();
  for (uint32_t i = 0; i < high; ++i) {
    std::atomic<uint32_t>* word = gSleepers[i].word.load();
    if (word != nullptr) FutexWake(*word, kWakeAll);
  }
}

// After a switch: whoever went to sleep by the old clock is woken until it has left its place. One that takes
// a place later reads the new clock, since it takes the place first.
void WakeSleepersUntilGone() {
  const uint32_t high = gSleeperHigh.load();
  for (uint32_t i = 0; i < high; ++i) {
    Sleeper& sleeper = gSleepers[i];
    const uint32_t ticket = sleeper.ticket.load();
    for (;;) {
      std::atomic<uint32_t>* word = sleeper.word.load();
      if (word == nullptr || sleeper.ticket.load() != ticket) break;
      FutexWake(*word, kWakeAll);
      (void)sched_yield();
    }
  }
}

constexpr uint64_t kManualSliceNs = kNsPerMs;
constexpr uint64_t kCrowdedSliceNs = 50 * kNsPerMs;

}  // namespace

uint32_t ClockMode() {
  return View(Read::kMonotonic).mode;
}

Deadline::Deadline(uint32_t timeoutMs)
    : ns_(timeoutMs == KEL_WAIT_FOREVER ? kNever : KEL_ClockMonotonicNs() + timeoutMs * kNsPerMs) {}

Deadline Deadline::At(uint64_t monotonicNs) {
  Deadline deadline(KEL_WAIT_FOREVER);
  deadline.ns_ = monotonicNs;
  return deadline;
}

bool Deadline::Passed() const {
  return !never() && KEL_ClockMonotonicNs() >= ns_;
}

void WordWait(std::atomic<uint32_t>& word, uint32_t expected, const Deadline& deadline) {
  if (deadline.never()) {
    FutexWait(word, expected, nullptr);
    return;
  }
  const SleeperPlace place(word);
  const ClockView view = View(Read::kMonotonic);
  const uint64_t now = view.Monotonic();
  if (now >= deadline.ns()) return;
  const bool manual = view.mode != kKelClockReal;
  uint64_t sleep = deadline.ns() - now;
  if (manual) {
    sleep = kManualSliceNs;
  } else if (!place.taken() && sleep > kCrowdedSliceNs) {
    sleep = kCrowdedSliceNs;
  }
  const uint64_t until = (manual ? MachineNs(CLOCK_MONOTONIC) : view.machineMonotonic) + sleep;
  const FutexTime time{static_cast<int64_t>(until / 1'000'000'000U),
                       static_cast<int64_t>(until % 1'000'000'000U)};
  FutexWait(word, expected, &time);
}

void WaitBriefly(uint32_t turn) {
  if (turn >= 64) {
    (void)sched_yield();
    return;
  }
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
  __asm__ __volatile__("yield");
#endif
}

void WordWake(std::atomic<uint32_t>& word, uint32_t count) {
  FutexWake(word, count);
}

}  // namespace velto

uint64_t KEL_ClockMonotonicNs(void) {
  return velto::View(velto::Read::kMonotonic).Monotonic();
}

uint64_t KEL_ClockWallNs(void) {
  return velto::View(velto::Read::kWall).Wall();
}

void KEL_ClockModeSet(uint32_t mode) {
  if (mode > kKelClockAutoAdvance) return;
  const std::lock_guard<std::mutex> guard(velto::gSwitchLock);
  const velto::ClockView old = velto::View(velto::Read::kBoth);
  uint64_t monotonicBase = old.monotonicBase + old.machineMonotonic;
  uint64_t wallBase = old.wallBase + old.machineWall;
  if (mode == kKelClockReal) {
    monotonicBase -= velto::MachineNs(CLOCK_MONOTONIC);
    wallBase -= velto::MachineNs(CLOCK_REALTIME);
  }
  velto::Publish(mode, monotonicBase, wallBase);
  velto::WakeSleepersUntilGone();
}

void KEL_ClockAdvanceMs(uint64_t milliseconds) {
  if (velto::View(velto::Read::kMonotonic).mode == kKelClockReal) return;
  velto::gMovedNs.fetch_add(milliseconds * velto::kNsPerMs);
  velto::WakeSleepersOnce();
}

void KEL_ClockMonotonicMoveMs(uint64_t milliseconds) {
  const std::lock_guard<std::mutex> guard(velto::gSwitchLock);
  const velto::ClockView view = velto::View(velto::Read::kMonotonic);
  const uint64_t left = (uint64_t{1} << 63) - view.Monotonic();
  if (milliseconds > left / velto::kNsPerMs) return;
  velto::Publish(view.mode, view.monotonicBase + milliseconds * velto::kNsPerMs, view.wallBase);
  velto::WakeSleepersUntilGone();
}

void KEL_ClockWallSetNs(uint64_t nanoseconds) {
  const std::lock_guard<std::mutex> guard(velto::gSwitchLock);
  const velto::ClockView view = velto::View(velto::Read::kMonotonic);
  if (view.mode == kKelClockReal) return;
  velto::Publish(view.mode, view.monotonicBase, nanoseconds - velto::gMovedNs.load());
}
