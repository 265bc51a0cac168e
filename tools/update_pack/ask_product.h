/// What a tool sets up around the product's own verification before it asks it.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

/// Trusts the root certificate in file `path` in place of the built-in one of `caType`; nothing for "". The
/// root table points into `bytes` from then on. False with a sentence in `error`.
[[nodiscard]] bool TrustRoot(const std::string& path, uint16_t caType, std::string& bytes,
                             std::string& error);

/// While one lives, what the product logs as errors goes to `said` and nowhere else. One at a time, and for
/// programs that verify in one thread.
class LogListener {
 public:
  explicit LogListener(std::vector<std::string>& said);
  ~LogListener();
  LogListener(const LogListener&) = delete;
  LogListener& operator=(const LogListener&) = delete;
};
