/// The CPU tick counter and its arithmetic on 32-bit halves.
#include "velto/kel_tick.h"

#include <atomic>

#include "velto/kel_clock.h"

namespace velto {
namespace {

std::atomic<uint32_t> gTickBase{0};
std::atomic<uint64_t> gUserTicks{0};

uint64_t Join(uint32_t high, uint32_t low) {
  return uint64_t{high} << 32 | low;
}

void Split(uint64_t value, uint32_t* high, uint32_t* low) {
  *high = static_cast<uint32_t>(value >> 32);
  *low = static_cast<uint32_t>(value);
}

}  // namespace

void UserTicksAdd(uint32_t ticks) {
  gUserTicks.fetch_add(ticks);
}

}  // namespace velto

using velto::Join;
using velto::Split;

uint32_t KEL_GetCpuTick(uint32_t* high, uint32_t* low) {
  if (high != nullptr && low != nullptr) Split(KEL_ClockMonotonicNs(), high, low);
  return 0;
}

uint32_t KEL_CpuTickBaseSet(uint32_t base, [[maybe_unused]] uint32_t tickHigh,
                            [[maybe_unused]] uint32_t tickLow) {
  if (base == 0) return 1;
  velto::gTickBase.store(base);  // the hook itself remembers the tick it counts from
  return 0;
}

uint32_t KEL_CpuTickBaseGet(uint32_t* base) {
  const uint32_t set = velto::gTickBase.load();
  if (base == nullptr || set == 0) return 1;
  *base = set;
  return 0;
}

uint32_t KEL_UserTickGet(uint32_t* high, uint32_t* low) {
  if (high == nullptr || low == nullptr) return 1;
  Split(velto::gUserTicks.load(), high, low);
  return 0;
}

uint32_t KEL_64Sub64(uint32_t high, uint32_t low, uint32_t subHigh, uint32_t subLow, uint32_t* outHigh,
                     uint32_t* outLow) {
  uint64_t difference = 0;
  if (outHigh == nullptr || outLow == nullptr ||
      __builtin_sub_overflow(Join(high, low), Join(subHigh, subLow), &difference)) {
    return 1;
  }
  Split(difference, outHigh, outLow);
  return 0;
}

uint32_t KEL_64Add64(uint32_t high, uint32_t low, uint32_t addHigh, uint32_t addLow, uint32_t* outHigh,
                     uint32_t* outLow) {
  uint64_t sum = 0;
  if (outHigh == nullptr || outLow == nullptr ||
      __builtin_add_overflow(Join(high, low), Join(addHigh, addLow), &sum)) {
    return 1;
  }
  Split(sum, outHigh, outLow);
  return 0;
}

uint32_t KEL_64Div32(uint32_t high, uint32_t low, uint32_t divisor, uint32_t* quotientHigh,
                     uint32_t* quotientLow, uint32_t* remainder) {
  if (quotientHigh == nullptr || quotientLow == nullptr || remainder == nullptr || divisor == 0) return 1;
  const uint64_t dividend = Join(high, low);
  Split(dividend / divisor, quotientHigh, quotientLow);
  *remainder = static_cast<uint32_t>(dividend % divisor);
  return 0;
}
