/// The time by which certificates and revocation lists are judged: the later of the wall clock and the date
/// of this build, so that a clock that fell back to 1970 neither blocks updates nor unlocks old ones.
#pragma once

#include <openssl/asn1.h>
#include <stdint.h>

#include <optional>

namespace cms {

struct VerifyTime {
  int64_t now;  ///< seconds since 1970-01-01 00:00 UTC
  /// False when the clock stands before the build's date and is therefore wrong: the true time is then `now`
  /// or any later one, and nothing can be said to lie in the future.
  bool clockIsPlausible;

  [[nodiscard]] bool IsFuture(int64_t seconds) const { return clockIsPlausible && seconds > now; }
  [[nodiscard]] bool IsPast(int64_t seconds) const { return seconds < now; }
};

[[nodiscard]] VerifyTime CurrentVerifyTime();

/// Date of this build in seconds since 1970: SOURCE_DATE_EPOCH, else the commit's date.
[[nodiscard]] int64_t BuildDateSeconds();

/// Seconds since 1970; none for a null or malformed time. Independent of the width of libcrypto's time_t.
[[nodiscard]] std::optional<int64_t> SecondsOf(const ASN1_TIME* time);

}  // namespace cms
