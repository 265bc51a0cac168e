#include "log/log_lock.h"

#include <stdio.h>

#include <atomic>
#include <mutex>

#include "log/run_log.h"
#include "velto/kel_sync.h"

namespace runlog {
namespace {

std::atomic<uint32_t> g_sema{0};
constinit thread_local bool t_holds = false;

}  // namespace

uint32_t MakeLogSema() {
  static std::mutex making;
  const std::lock_guard guard(making);
  if (g_sema.load(std::memory_order_relaxed) != 0) return 0;
  uint32_t id = 0;
  const uint32_t result = KEL_SemaCreate("LogPrint", 1, 0, &id);
  if (result == 0) g_sema.store(id, std::memory_order_release);
  return result;
}

LogLock::LogLock() : state_(State::kNotMade) {
  const uint32_t sema = GetSemaLogPrint();
  if (sema == 0) return;
  if (t_holds) {
    state_ = State::kNested;
    return;
  }
  // Marked before the take: what a signal handler logs meanwhile is dropped instead of waiting for this
  // thread.
  t_holds = true;
  if (KEL_SemaP(sema, KEL_WAIT_FOREVER) == 0) {
    state_ = State::kHeld;
    return;
  }
  t_holds = false;
  state_ = State::kFailed;
}

LogLock::~LogLock() {
  if (state_ != State::kHeld) return;
  const uint32_t result = KEL_SemaV(GetSemaLogPrint());
  t_holds = false;
  if (result != 0) puts("V fail");
}

}  // namespace runlog

uint32_t GetSemaLogPrint() {
  return runlog::g_sema.load(std::memory_order_acquire);
}
