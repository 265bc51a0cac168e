#include "cms/verify_time.h"

#include <time.h>

#include <algorithm>

#include "velto/kel_clock.h"

static_assert(sizeof(time_t) == 8, "dates after 2038 have to be told apart");

namespace cms {

int64_t BuildDateSeconds() {
  return TOLA_BUILD_DATE;
}

VerifyTime CurrentVerifyTime() {
  const int64_t clock = static_cast<int64_t>(KEL_ClockWallNs() / 1000000000u);
  return {.now = std::max(clock, BuildDateSeconds()), .clockIsPlausible = clock >= BuildDateSeconds()};
}

std::optional<int64_t> SecondsOf(const ASN1_TIME* time) {
  // The calendar form is taken on purpose: libcrypto may have been built with a narrower time_t than this
  // program.
  tm calendar = {};
  if (time == nullptr || ASN1_TIME_to_tm(time, &calendar) != 1) return std::nullopt;
  return timegm(&calendar);
}

}  // namespace cms
