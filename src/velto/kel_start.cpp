/// Start of the runtime, and how busy the machine is.
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>

#include "base/owners.h"
#include "velto/kel_cfg.h"
#include "velto/kel_cfg_table.h"
#include "velto/kel_clock_control.h"
#include "velto/kel_task.h"

uint32_t (*g_pfnUsrAdjustHook)(void) = nullptr;

namespace velto {
namespace {

/// Freed memory that the heap keeps, and the smallest block outside of it; the most that mallopt(3) takes
/// there. With the usual 128 KiB a stream of messages of some frames each has its pages given back and
/// faulted in again for every message, which costs more than their way through the queue.
constexpr int kHeapKeeps = sizeof(void*) == 8 ? 2 * 1024 * 1024 : 512 * 1024;

void KeepHeap() {
  (void)mallopt(M_TRIM_THRESHOLD, kHeapKeeps);
  (void)mallopt(M_MMAP_THRESHOLD, kHeapKeeps);
}

struct CpuTimes {
  uint64_t all = 0;
  uint64_t idle = 0;
};

std::mutex gCpuLock;
CpuTimes gCpuBefore;  // guarded by gCpuLock

/// The machine's times since its start, in clock ticks; false when they cannot be read.
bool ReadCpuTimes(CpuTimes& times) {
  const base::FilePtr file(fopen("/proc/stat", "re"));
  char line[256] = "";
  if (!file || fgets(line, sizeof(line), file.get()) == nullptr || strncmp(line, "cpu ", 4) != 0)
    return false;
  const char* at = line + 4;
  times = {};
  for (int column = 0; column < 8; ++column) {  // user nice system idle wait hard soft steal
    char* end = nullptr;
    const uint64_t ticks = strtoull(at, &end, 10);
    if (end == at) return column >= 4;  // old kernels end after idle
    at = end;
    times.all += ticks;
    if (column == 3 || column == 4) times.idle += ticks;
  }
  return true;
}

}  // namespace
}  // namespace velto

uint32_t KEL_Start([[maybe_unused]] void* reserved) {
  static std::atomic<bool> started{false};
  uint32_t taskId = 0;
  const uint32_t result = KEL_TaskAdopt("main", &taskId);
  if (result == 0 && !started.exchange(true)) {
    velto::KeepHeap();
    char fifo[velto::kCfgTextSize] = "";
    if (KEL_CfgTextGet("clock.control", fifo, sizeof(fifo)) == 0) velto::ClockControlStart(fifo);
  }
  return result;
}

uint32_t KEL_CpupUseRateGet(void) {
  velto::CpuTimes now;
  if (!velto::ReadCpuTimes(now)) return 0;
  const std::lock_guard<std::mutex> guard(velto::gCpuLock);
  const velto::CpuTimes before = velto::gCpuBefore;
  velto::gCpuBefore = now;
  if (before.all == 0 || now.all <= before.all) return 0;
  const uint64_t all = now.all - before.all;
  const uint64_t idle = now.idle > before.idle ? now.idle - before.idle : 0;  // the wait count may go back
  return idle < all ? static_cast<uint32_t>((all - idle) * 100 / all) : 0;
}
