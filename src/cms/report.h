/// Reporting of engine failures, and the walls that exceptions do not pass.
#pragma once

#include <stdint.h>

#include <exception>

#include "cms/verify_ctx.h"

namespace cms {

/// Reports `code` with the place of the call and returns it: `return Report(kSigvfyErrDecode);`
inline uint32_t Report(uint32_t code, const char* text = "", const char* function = __builtin_FUNCTION(),
                       uint32_t line = __builtin_LINE()) {
  SigvfyLogCallback("sigvfy_log.log", line, function, code, text);
  return code;
}

/// The result of `step`; what it throws is a lack of memory.
template <class Step>
uint32_t Contained(Step step, const char* function = __builtin_FUNCTION()) {
  try {
    return step();
  } catch (const std::exception&) {
    return Report(kSigvfyErrMemory, "", function);
  }
}

}  // namespace cms
