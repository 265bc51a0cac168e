/// The memory map beside the crash file, and the platform's help when it cannot be written here.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "base/result_codes.h"
#include "fault/box.h"
#include "log/file_public.h"
#include "log/run_log.h"
#include "msg/msg_interface_public.h"
#include "securec.h"

namespace {

constexpr uint16_t kLogModule = 0;
constexpr uint16_t kBoxModule = 203;
constexpr uint16_t kCommandModule = 41;
constexpr uint16_t kMsgCommand = 3585;  // 0xE01
constexpr char kMapScript[] = "cat_proc_maps.sh";
constexpr size_t kCommandSize = 2 * kBoxNameSize;

/// `system` with its failures in the run log.
bool RunShell(const char* command) {
  const int status = system(command);  // NOLINT(cert-env33-c): formed here of a number and a checked name
  if (status == -1) {
    LOG_ERR(kLogModule, "SysErr:%s", strerror(errno));
  } else if (!WIFEXITED(status)) {
    LOG_ERR(kLogModule, "system err:%d,%s", status, command);
  } else if (WEXITSTATUS(status) != 0) {
    LOG_ERR(kLogModule, "system:%d,%s", WEXITSTATUS(status), command);
  } else {
    return true;
  }
  return false;
}

}  // namespace

uint32_t CBoxManager::OperatMapInfoFile(const char* path) {
  if (path == nullptr || TOLA_CheckSpecialChar(path, nullptr) != 0) return kErrFormat;
  char whole[kCommandSize];
  char parameter[kCommandSize];
  if (snprintf_s(whole, sizeof(whole), sizeof(whole) - 1, "cat /proc/%d/maps >> %s", getpid(), path) < 0 ||
      snprintf_s(parameter, sizeof(parameter), sizeof(parameter) - 1, "%d >> %s", getpid(), path) < 0) {
    return kErrFormat;
  }
  if (!BoxNewFile(path)) return kBoxErrOpen;  // the shell would make it with another mode
  const bool isWritten =
      geteuid() == 0 ? RunShell(whole) : TOLA_SystemSudoWithParam(kMapScript, parameter) == 0;
  if (isWritten) return 0;
  (void)SendSystemCmdExecMsg(whole, static_cast<uint16_t>(strlen(whole) + 1), 0);  // it logs its result
  return 0;
}

uint32_t SendSystemCmdExecMsg(const char* command, uint16_t length, uint16_t flag) {
  if (command == nullptr || length == 0 || strnlen(command, length) + 1 != length) return kFailure;
  const uint16_t head[] = {1, flag, length};  // in the machine's order; a last word, 0, follows the command
  const size_t size = sizeof(head) + length + sizeof(uint16_t);
  const std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[size]());
  if (!data || memcpy_s(data.get(), size, head, sizeof(head)) != EOK ||
      memcpy_s(data.get() + sizeof(head), size - sizeof(head), command, length) != EOK) {
    return kFailure;
  }
  const uint32_t result = SendSimpleFormatMsg(kBoxModule, kCommandModule, kMsgCommand, 0,
                                              static_cast<uint32_t>(size), data.get());
  LOG_EVT(kLogModule, "send syscmd msg:%u", result);
  return result;
}
