#include "frame/box_init.h"

#include <stdio.h>
#include <string.h>
#include <sys/resource.h>

#include <string_view>

#include "fault/box.h"
#include "frame/feature_identity.h"
#include "frame/public_file_cfg.h"
#include "securec.h"
#include "velto/kel_cfg.h"

namespace {

constexpr char kExceptionFile[] = "/log/root_log/fault_manager_except_sys_info_%s.tola";
constexpr std::string_view kEnding = ".tola";
constexpr char kBackupEnding[] = "_back.tola";

void DenyCoreFiles() {
  char wish[8];
  if (KEL_CfgTextGet("debug.core", wish, sizeof(wish)) == 0 && strcmp(wish, "on") == 0) return;
  const struct rlimit none = {0, 0};
  if (setrlimit(RLIMIT_CORE, &none) != 0) perror("core limit");  // the run log does not stand yet
}

/// The names of the exception file and, beside it, of the backup. A name that does not fit stays empty, which
/// the box refuses for the one and goes without for the other.
TOLA_SIGNAL_BOX_S Files() {
  TOLA_SIGNAL_BOX_S files = {};
  char known[sizeof(files.exceptionFile)];
  if (snprintf_s(known, sizeof(known), sizeof(known) - 1, kExceptionFile, g_featureIdentity.name) < 0 ||
      strcpy_s(files.exceptionFile, sizeof(files.exceptionFile), TOLA_GetFileFullName(known)) != EOK) {
    files.exceptionFile[0] = '\0';
    return files;
  }
  std::string_view name = files.exceptionFile;
  if (name.ends_with(kEnding)) name.remove_suffix(kEnding.size());
  if (snprintf_s(files.backupFile, sizeof(files.backupFile), sizeof(files.backupFile) - 1, "%.*s%s",
                 static_cast<int>(name.size()), name.data(), kBackupEnding) < 0) {
    files.backupFile[0] = '\0';
  }
  return files;
}

}  // namespace

uint32_t TolaOsFetureBoxInit() {
  DenyCoreFiles();
  const TOLA_SIGNAL_BOX_S files = Files();
  return TOLA_SignalBoxInit(&files);
}
