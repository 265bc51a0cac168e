/// The runtime's configuration and start.
///
/// The configuration is a text file of `key=value` lines; blanks around both are dropped, empty lines and
/// lines that begin with '#' are skipped. Every key stands in the table of kel_cfg.cpp with its kind, bounds
/// and default, and with its meaning in docs/feature.cfg; an unknown key, a key given twice or a value out of
/// its bounds is refused with one line on standard output that names the file, the line and the reason.
///
/// Reading a value never fails: before KEL_CfgdbInitByFsldr every key has its default.
#pragma once

#include <stdint.h>

extern "C" {

inline constexpr uint32_t kKelErrCfgOpen = 0x0101;  ///< the configuration file cannot be read
inline constexpr uint32_t kKelErrCfgValue =
    0x0102;                                        ///< a line is refused; standard output says which and why
inline constexpr uint32_t kKelErrCfgKey = 0x0103;  ///< KEL_Cfg*Get: no key of this name and kind

/// Reads the configuration file. All or nothing: a refused file changes no value. Call before other threads
/// run.
/// @retval kKelErrCfgOpen  the file is missing or unreadable
/// @retval kKelErrCfgValue a line is wrong
[[nodiscard]] uint32_t KEL_CfgdbInitByFsldr(const char* path);

/// Brings the runtime up: makes the calling thread the task "main", so that it may use events. `reserved` is
/// null. A second call returns 0 and changes nothing.
[[nodiscard]] uint32_t KEL_Start(void* reserved);

/// Number of key `key`; `*value` is untouched on failure. Thread-safe once the configuration has been read.
[[nodiscard]] uint32_t KEL_CfgNumberGet(const char* key, uint64_t* value);

/// Text of key `key`, zero-terminated in `buffer`; a text that does not fit is kKelErrCfgKey too.
[[nodiscard]] uint32_t KEL_CfgTextGet(const char* key, char* buffer, uint32_t size);

/// Called by the runtime's tick source, see TolaOsUserTickAdjust; null for none.
extern uint32_t (*g_pfnUsrAdjustHook)(void);

/// CPU use of the whole machine since the previous call, in percent (0..100); 0 at the first call.
uint32_t KEL_CpupUseRateGet(void);

}  // extern "C"
