/// Process resource control: puts processes under a CPU limit, or takes them out again, by running the
/// board's script "/etc/init.d/cgrouputil.sh".
///
/// The driver knows no run log. Its lines go to the function set with DrvSetLogFunc under the tag
/// "resctrldriver", or to standard output while none is set. Calls for one process must not overlap;
/// otherwise any thread may call.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kResCtrlDeviceId = 37888;  ///< 0x9400
inline constexpr uint32_t kResCtrlCmdSet = 2;
inline constexpr uint32_t kResCtrlCmdUnset = 3;
inline constexpr uint32_t kResCtrlPidMax = 3;

struct DRV_RES_CTRL_S {
  uint16_t pids[kResCtrlPidMax];
  uint16_t pidNum;  ///< how many of `pids` are used, from the first
  uint16_t limit;   ///< percent of one CPU
  uint16_t period;  ///< second limit parameter, in milliseconds
};
static_assert(sizeof(DRV_RES_CTRL_S) == 12, "six 16-bit words");

/// `text` is one finished line without its end. Set before other threads run; null restores standard output.
using DrvLogFunc = void (*)(const char* tag, const char* file, uint32_t line, const char* text);
void DrvSetLogFunc(DrvLogFunc func);

/// Prepares the driver configuration for a device. @retval 0 success @retval 1 no device has an id of more
/// than 16 bits
[[nodiscard]] int32_t DRV_CfgInit(uint32_t deviceId);

/// Runs `command` with "sh -c", with no descriptor but 0 to 2, and waits for it.
/// @retval 0..255 exit code @retval 128+n ended by signal n @retval -1 null, or it could not be started
[[nodiscard]] int32_t DRV_System(const char* command);

/// @retval 0 ready @retval -1 no configuration, or not the resource-control device
[[nodiscard]] int32_t DRV_ResCtrlInit(uint32_t deviceId);

/// Runs the script once for each process of `record`, 100 ms apart on the runtime's clock, and stops at the
/// first failure.
/// @retval 0 all done @retval -1 refused before anything ran, or a script could not be started
/// @retval other the script's exit code, see DRV_System
[[nodiscard]] int32_t DRV_ResCtrlIoctl(uint32_t deviceId, uint32_t command, const DRV_RES_CTRL_S* record);
