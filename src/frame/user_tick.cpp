#include "frame/user_tick.h"

#include <stdio.h>

#include "velto/kel_clock.h"

namespace {

constexpr uint32_t kTickBase = 50000;
constexpr uint32_t kLargestStep = 10000;
constexpr uint32_t kStepAfterJump = 1000;

struct Tick {
  uint32_t high;
  uint32_t low;
};

Tick g_lastTick = {};
uint32_t g_tickBase = 0;
uint32_t g_remainder = 0;
uint8_t g_isFirstCall = 1;

uint32_t StartCounting(const Tick& now) {
  uint32_t result = KEL_CpuTickBaseSet(kTickBase, now.high, now.low);
  if (result != 0) (void)printf("Set Cpu Tick base fail, ret = [%d]\n", static_cast<int>(result));
  result = KEL_CpuTickBaseGet(&g_tickBase);
  if (result != 0) (void)printf("Get Cpu Tick base fail, ret = [%d]\n", static_cast<int>(result));
  g_isFirstCall = 0;
  return 1;
}

}  // namespace

uint32_t TolaOsUserTickAdjust() {
  Tick now = {};
  (void)KEL_GetCpuTick(&now.high, &now.low);  // always 0
  const Tick last = g_lastTick;
  g_lastTick = now;
  if (g_isFirstCall != 0) return StartCounting(now);

  Tick elapsed = {};
  uint32_t result = KEL_64Sub64(now.high, now.low, last.high, last.low, &elapsed.high, &elapsed.low);
  if (result != 0) return result;
  result = KEL_64Add64(elapsed.high, elapsed.low, 0, g_remainder, &elapsed.high, &elapsed.low);
  if (result != 0) return result;
  Tick ticks = {};
  result = KEL_64Div32(elapsed.high, elapsed.low, g_tickBase, &ticks.high, &ticks.low, &g_remainder);
  if (result != 0) return result;
  if (ticks.high == 0 && ticks.low <= kLargestStep) return ticks.low;
  (void)printf("tick error : jump %u last(%u,%u) now(%u,%u)\n", ticks.low, last.high, last.low, now.high,
               now.low);
  return kStepAfterJump;
}
