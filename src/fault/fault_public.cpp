#include "fault/fault_public.h"

#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <new>

#include "base/owners.h"
#include "base/result_codes.h"
#include "log/file_public.h"
#include "securec.h"
#include "velto/kel_mem.h"

namespace {

char g_damagePath[kFaultPathSize];
char g_leakPath[kFaultPathSize];
std::atomic<FaultExportFileHook> g_exportHook = nullptr;

uint32_t KeepPath(char (&kept)[kFaultPathSize], const char* path) {
  // One that does not fit would clear what is kept.
  if (path == nullptr || strnlen(path, sizeof(kept)) == sizeof(kept)) return kErrTextCopy;
  return strcpy_s(kept, sizeof(kept), path) == EOK ? kSuccess : kErrTextCopy;
}

/// What is out from one place of the sources.
struct Place {
  KelMemLive of;
  uint64_t blocks;
  uint64_t bytes;
};

/// Sums by place. Of fixed size: while the runtime is walked nothing may be allocated from it.
class Places {
 public:
  void Add(const KelMemLive& live) {
    Place* place = Find(live);
    place->blocks += 1;
    place->bytes += live.size;
    blocks_ += 1;
    bytes_ += live.size;
  }

  bool Write(FILE* file) {
    std::sort(places_.begin(), places_.begin() + count_,
              [](const Place& a, const Place& b) { return a.bytes > b.bytes; });
    for (size_t i = 0; i < count_; ++i) {
      const Place& each = places_[i];
      if (fprintf(file, "%s %s:%u blocks:%" PRIu64 " bytes:%" PRIu64 "\n", each.of.handle, each.of.file,
                  each.of.line, each.blocks, each.bytes) < 0) {
        return false;
      }
    }
    return fprintf(file, "all blocks:%" PRIu64 " bytes:%" PRIu64 "\n", blocks_, bytes_) > 0;
  }

 private:
  /// The place of `live`. The last one takes whatever comes when there is no room for one of its own.
  Place* Find(const KelMemLive& live) {
    const char* file = live.file != nullptr ? live.file : "?";
    for (size_t i = 0; i < count_; ++i) {
      const KelMemLive& of = places_[i].of;
      if (of.line == live.line && of.handle == live.handle && strcmp(of.file, file) == 0) return &places_[i];
    }
    if (count_ == places_.size()) return &places_.back();
    Place* place = &places_[count_++];
    place->of = count_ == places_.size() ? KelMemLive{"other", 0, "?", 0}
                                         : KelMemLive{live.handle, live.size, file, live.line};
    return place;
  }

  std::array<Place, 512> places_ = {};
  size_t count_ = 0;
  uint64_t blocks_ = 0;
  uint64_t bytes_ = 0;
};

/// A fresh file at `path`, whatever stood there: no link is followed and nothing is waited for.
base::FilePtr NewFile(const char* path) {
  (void)unlink(path);
  base::UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) return nullptr;
  (void)ChangeFileProperty(path);  // without the account the file stays its maker's
  base::FilePtr file(fdopen(fd.get(), "w"));
  if (file != nullptr) (void)fd.release();  // the stream's now
  return file;
}

}  // namespace

uint32_t TOLA_SetMemDamageRecordPath(const char* path) {
  return KeepPath(g_damagePath, path);
}

uint32_t TOLA_EnableMemDamageForLinux() {
  return kSuccess;
}

uint32_t TOLA_SetMemLeakRecordPath(const char* path) {
  return KeepPath(g_leakPath, path);
}

uint32_t TOLA_EnableMemLeakForLinux(uint32_t /*blocks*/, uint32_t /*seconds*/, const char* path,
                                    uint32_t /*flag*/) {
  return KeepPath(g_leakPath, path);
}

uint32_t RegFaultExportFileHookFunc(FaultExportFileHook hook) {
  g_exportHook = hook;
  return kSuccess;
}

uint32_t MemDamageInit() {
  return TOLA_EnableMemDamageForLinux();
}

uint32_t MemLeakInit() {
  return kSuccess;
}

uint32_t TOLA_MemLeakDump(const char* path) {
  if (path == nullptr) path = g_leakPath;
  const std::unique_ptr<Places> places(new (std::nothrow) Places);
  if (places == nullptr) return kFailure;
  KEL_MemLiveWalk([](const KelMemLive* live, uintptr_t arg) { reinterpret_cast<Places*>(arg)->Add(*live); },
                  reinterpret_cast<uintptr_t>(places.get()));
  base::FilePtr file = NewFile(path);
  if (file == nullptr) return kFailure;
  const bool isWritten = places->Write(file.get());
  if (fclose(file.release()) != 0 || !isWritten) return kFailure;
  if (const FaultExportFileHook hook = g_exportHook.load(); hook != nullptr) hook(path);
  return kSuccess;
}
