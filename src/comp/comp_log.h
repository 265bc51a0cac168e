/// One line of the component layer through its log hook; without a hook, or below it, nothing happens.
#pragma once

#include "comp/comp_manager.h"
#include "log/run_log.h"

inline constexpr uint32_t kCompTrace = 1;
inline constexpr uint32_t kCompErr = 4;
inline constexpr uint32_t kCompInf = 5;

#define COMP_LOG(level, ...)                                                            \
  do {                                                                                  \
    const TolaCompLogFunc compLogFunc = __atomic_load_n(&g_compLog, __ATOMIC_ACQUIRE);  \
    if (compLogFunc != nullptr)                                                         \
      compLogFunc(kCompLogModule, level, LogBaseName(__FILE__), __LINE__, __VA_ARGS__); \
  } while (0)
