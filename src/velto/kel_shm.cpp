/// The partitions of this process, and the mappings behind them.
#include "velto/kel_shm.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string_view>

#include "base/owners.h"
#include "velto/shm_partition.h"

namespace velto {
namespace {

constexpr char kNamePrefix[] = "/velto.";
struct ShmName {
  char text[sizeof(kNamePrefix) + sizeof(KelShmMemPtName)];
};

struct Place {
  std::atomic<ShmPartition*> partition{nullptr};
  size_t mapped = 0;
  ShmName name{};  // empty for one without a name
};

constinit Place gPlaces[kKelShmPartitionMax];
std::mutex gPlacesLock;  // whoever makes or deletes a partition

ShmPartition* FindPartition(uint32_t number) {
  return number < kKelShmPartitionMax ? gPlaces[number].partition.load(std::memory_order_acquire) : nullptr;
}

ShmPartition* FindPartitionOf(const void* address) {
  for (Place& place : gPlaces) {
    ShmPartition* partition = place.partition.load(std::memory_order_acquire);
    if (partition != nullptr && partition->Contains(address)) return partition;
  }
  return nullptr;
}

/// Runs `change` with the partition's lock held.
template <class Change>
uint32_t WithLock(ShmPartition& partition, Change change) {
  if (!partition.Lock()) return kKelErrShmBroken;
  const uint32_t result = change();
  partition.Release();
  return result;
}

bool EntryNameFits(const char* name) {
  return name != nullptr && *name != '\0' && strnlen(name, kKelShmEntryNameSize) < kKelShmEntryNameSize;
}

/// A shared mapping that is given back unless it is released.
class Mapping {
 public:
  Mapping(void* address, size_t size, int flags, int fd)
      : at_(mmap(address, size, PROT_READ | PROT_WRITE, MAP_SHARED | flags, fd, 0)), size_(size) {}
  ~Mapping() {
    if (ok()) (void)munmap(at_, size_);  // fails only for what is no mapping
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  [[nodiscard]] bool ok() const { return at_ != MAP_FAILED; }
  [[nodiscard]] ShmPartition* partition() const { return static_cast<ShmPartition*>(at_); }
  [[nodiscard]] ShmPartition* release() { return static_cast<ShmPartition*>(std::exchange(at_, MAP_FAILED)); }

 private:
  void* at_;
  size_t size_;
};

struct Wanted {
  uint32_t size;
  uint32_t entryCount;
  size_t mapped;
};

uint32_t MapInherited(const Wanted& wanted, ShmPartition*& partition) {
  Mapping mapping(nullptr, wanted.mapped, MAP_ANONYMOUS, -1);
  if (!mapping.ok() || !mapping.partition()->Make(wanted.size, wanted.entryCount)) return kKelErrShmMap;
  partition = mapping.release();
  return 0;
}

/// Opens the file of the name, empty or not, with its lock held: who makes the partition is alone with it.
uint32_t OpenNamed(const ShmName& name, base::UniqueFd& file, uint64_t& size) {
  file.reset(shm_open(name.text, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
  if (!file) return errno == EACCES ? kKelErrShmForeign : kKelErrShmMap;
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return kKelErrShmMap;
  if (status.st_uid != geteuid() || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) return kKelErrShmForeign;
  while (flock(file.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return kKelErrShmMap;
  }
  if (fstat(file.get(), &status) != 0) return kKelErrShmMap;
  size = static_cast<uint64_t>(status.st_size);
  return 0;
}

uint32_t MapNamed(const ShmName& name, const Wanted& wanted, ShmPartition*& partition) {
  base::UniqueFd file;
  uint64_t fileSize = 0;
  const uint32_t opened = OpenNamed(name, file, fileSize);
  if (opened != 0) return opened;
  if (fileSize == 0) {
    // Now, and not when a page is first written, which would end the process.
    if (posix_fallocate(file.get(), 0, static_cast<off_t>(wanted.mapped)) != 0) return kKelErrShmMap;
  } else if (fileSize != wanted.mapped) {
    return kKelErrShmForeign;
  }
  uint64_t address = 0;
  {
    Mapping mapping(nullptr, wanted.mapped, 0, file.get());
    if (!mapping.ok()) return kKelErrShmMap;
    if (!mapping.partition()->IsMade()) {  // new, or its maker died before it was ready
      if (!mapping.partition()->Make(wanted.size, wanted.entryCount)) return kKelErrShmMap;
      partition = mapping.release();
      return 0;
    }
    if (!mapping.partition()->Fits(wanted.size, wanted.entryCount)) return kKelErrShmForeign;
    address = mapping.partition()->address();
  }
  // Blocks hold addresses: they mean something only where the maker has them.
  Mapping mapping(reinterpret_cast<void*>(static_cast<uintptr_t>(address)), wanted.mapped,
                  MAP_FIXED_NOREPLACE, file.get());
  if (!mapping.ok() || reinterpret_cast<uintptr_t>(mapping.partition()) != address) return kKelErrShmMap;
  partition = mapping.release();
  return 0;
}

Place* FreePlace() {
  for (Place& place : gPlaces) {
    if (place.partition.load(std::memory_order_relaxed) == nullptr) return &place;
  }
  return nullptr;
}

}  // namespace
}  // namespace velto

uint32_t KEL_ShmStruKvMemPtCreate(const KelShmMemPtName* name, uint32_t size, uint32_t entryCount,
                                  uint32_t mode, uint32_t* partition) {
  if (name == nullptr || partition == nullptr || size == 0 || entryCount == 0 || mode > kKelShmNamed)
    return kKelErrShmPara;
  const std::string_view text(name->name, strnlen(name->name, sizeof(name->name)));
  if (text.empty() || text.size() == sizeof(name->name) || text.find('/') != std::string_view::npos)
    return kKelErrShmPara;
  const uint64_t whole = velto::ShmPartition::SizeOf(size, entryCount);
  if (whole > INT32_MAX) return kKelErrShmPara;  // offsets have 32 bits, on every machine
  const velto::Wanted wanted{size, entryCount, static_cast<size_t>(whole)};

  const std::lock_guard<std::mutex> guard(velto::gPlacesLock);
  velto::Place* place = velto::FreePlace();
  if (place == nullptr) return kKelErrShmFull;
  velto::ShmName full{};
  velto::ShmPartition* made = nullptr;
  uint32_t result = 0;
  if (mode == kKelShmNamed) {
    memcpy(full.text, velto::kNamePrefix, sizeof(velto::kNamePrefix) - 1);
    memcpy(full.text + sizeof(velto::kNamePrefix) - 1, text.data(), text.size());
    result = velto::MapNamed(full, wanted, made);
  } else {
    result = velto::MapInherited(wanted, made);
  }
  if (result != 0) return result;
  place->mapped = wanted.mapped;
  place->name = full;
  place->partition.store(made, std::memory_order_release);
  *partition = static_cast<uint32_t>(place - velto::gPlaces);
  return 0;
}

uint32_t KEL_ShmStruKvMemPtDelete(uint32_t partition) {
  const std::lock_guard<std::mutex> guard(velto::gPlacesLock);
  velto::ShmPartition* gone = velto::FindPartition(partition);
  if (gone == nullptr) return kKelErrShmId;
  velto::Place& place = velto::gPlaces[partition];
  place.partition.store(nullptr);
  if (place.name.text[0] != '\0') (void)shm_unlink(place.name.text);  // another process may have done it
  (void)munmap(gone, place.mapped);
  return 0;
}

void* KEL_ShmStruKvMemPtAlloc(uint32_t partition, uint32_t size) {
  velto::ShmPartition* at = velto::FindPartition(partition);
  void* block = nullptr;
  if (at == nullptr || size == 0) return nullptr;
  const uint32_t result = velto::WithLock(*at, [&]() -> uint32_t {
    block = at->Alloc(size);
    return 0;
  });
  return result == 0 ? block : nullptr;
}

uint32_t KEL_ShmStruKvMemPtFree(void* block) {
  velto::ShmPartition* at = velto::FindPartitionOf(block);
  if (at == nullptr) return kKelErrShmBlock;
  return velto::WithLock(*at, [&] { return at->Free(block) ? 0 : kKelErrShmBlock; });
}

uint32_t KEL_ShmStruKvMemEntrySet(const char* name, void* block, uint32_t size) {
  if (!velto::EntryNameFits(name) || size == 0) return kKelErrShmPara;
  velto::ShmPartition* at = velto::FindPartitionOf(block);
  if (at == nullptr) return kKelErrShmBlock;
  return velto::WithLock(
      *at, [&] { return at->LiveSize(block) < size ? kKelErrShmBlock : at->Set(name, block, size); });
}

uint32_t KEL_ShmStruKvMemEntryUnset(const char* name, const void* block) {
  if (!velto::EntryNameFits(name)) return kKelErrShmPara;
  velto::ShmPartition* at = velto::FindPartitionOf(block);
  if (at == nullptr) return kKelErrShmBlock;
  return velto::WithLock(*at, [&] {
    velto::ShmPartition::Entry* entry = at->Find(name);
    if (entry == nullptr || at->At(entry->at) != block) return kKelErrShmName;
    at->Unset(entry);
    return uint32_t{0};
  });
}

uint32_t KEL_ShmStruKvMemEntryGet(uint32_t partition, const char* name, void** block, uint32_t* size) {
  if (!velto::EntryNameFits(name) || block == nullptr || size == nullptr) return kKelErrShmPara;
  velto::ShmPartition* at = velto::FindPartition(partition);
  if (at == nullptr) return kKelErrShmId;
  return velto::WithLock(*at, [&] {
    const velto::ShmPartition::Entry* entry = at->Find(name);
    if (entry == nullptr) return kKelErrShmName;
    *block = at->At(entry->at);
    *size = entry->size;
    return uint32_t{0};
  });
}
