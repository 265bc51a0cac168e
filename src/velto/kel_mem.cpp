/// Tagged memory over malloc. A header in front of each allocation holds tag, size and place; all headers
/// stand in a hash table by address, so that a pointer that is given back is recognised or refused without
/// reading memory that may not be ours.
///
/// Each chain of the table is locked by the lowest bit of its head, for a few instructions at a time. Links
/// are stored inverted: they keep nothing alive in the eyes of a leak checker, which then sees real leaks.
#include "velto/kel_mem.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "velto/kel_cfg_table.h"
#include "velto/kel_table.h"
#include "velto/kel_wait.h"

namespace velto {
namespace {

constexpr uint32_t kMagic = 0x4D454D31;

struct alignas(max_align_t) Header {
  uintptr_t next;  // hidden
  const char* file;
  uint32_t size;
  uint32_t line;
  uint32_t handle;
  uint32_t magic;
};

constexpr uint32_t kHandleMax = 256;
char gHandleNames[kHandleMax][kNameSize];
std::atomic<uint32_t> gHandleCount{0};
std::mutex gHandleLock;  // writers of the two above; names are written once, before they are counted

std::atomic<uint64_t> gUsed{0};

constexpr uintptr_t kLocked = 1;

uintptr_t Hide(const Header* header) {
  return header != nullptr ? ~(reinterpret_cast<uintptr_t>(header) | kLocked) : 0;  // headers are even
}

Header* Show(uintptr_t link) {
  return link != 0 ? reinterpret_cast<Header*>(~link & ~kLocked) : nullptr;
}

/// A chain of headers, locked while the object lives.
class Chain {
 public:
  explicit Chain(std::atomic<uintptr_t>& head) : head_(head) {
    for (uint32_t turn = 0; ((first_ = head_.fetch_or(kLocked, std::memory_order_acquire)) & kLocked) != 0;
         ++turn) {
      WaitBriefly(turn);
    }
  }
  ~Chain() { head_.store(first_, std::memory_order_release); }
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;

  [[nodiscard]] const Header* first() const { return Show(first_); }

  void Add(Header* header) {
    header->next = first_;
    first_ = Hide(header);
  }

  [[nodiscard]] bool Remove(const Header* header) {
    Header* before = nullptr;
    for (Header* at = Show(first_); at != nullptr; before = at, at = Show(at->next)) {
      if (at != header) continue;
      (before != nullptr ? before->next : first_) = at->next;
      return true;
    }
    return false;
  }

 private:
  std::atomic<uintptr_t>& head_;
  uintptr_t first_ = 0;
};

constexpr size_t kChains = 4096;
std::atomic<uintptr_t> gChains[kChains];

std::atomic<uintptr_t>& ChainOf(const Header* header) {
  const uint64_t spread =
      static_cast<uint64_t>(reinterpret_cast<uintptr_t>(header) >> 4) * 0x9E3779B97F4A7C15U;
  return gChains[spread >> 52];
}

bool HandleIsKnown(uint32_t handle) {
  return handle != 0 && handle <= gHandleCount.load(std::memory_order_acquire);
}

bool Charge(uint32_t size) {
  const uint64_t used = gUsed.fetch_add(size, std::memory_order_relaxed) + size;
  if (used <= CfgNumber(kCfgMemBudgetBytes)) return true;
  gUsed.fetch_sub(size, std::memory_order_relaxed);
  return false;
}

[[noreturn]] void Die(const void* memory, const char* what, const char* file, uint32_t line) {
  (void)fprintf(stderr, "%s:%u: memory %p given back: %s\n", file != nullptr ? file : "?", line, memory,
                what);
  abort();
}

}  // namespace
}  // namespace velto

using velto::Header;

uint32_t KEL_HandleInitialize(const char* name, uint32_t* handle) {
  if (!velto::NameFits(name) || handle == nullptr) return kKelErrMemPara;
  const std::lock_guard<std::mutex> guard(velto::gHandleLock);
  const uint32_t count = velto::gHandleCount.load();
  uint32_t index = 0;
  while (index < count && strcmp(velto::gHandleNames[index], name) != 0) ++index;
  if (index == velto::kHandleMax) return kKelErrMemFull;
  if (index == count) {
    memcpy(velto::gHandleNames[index], name, strlen(name) + 1);
    velto::gHandleCount.store(count + 1);
  }
  *handle = index + 1;
  return 0;
}

void* KEL_MemAlloc_F(uint32_t handle, uint32_t partition, uint32_t size, const char* file, uint32_t line) {
  if (partition != 0 || !velto::HandleIsKnown(handle) || !velto::Charge(size)) return nullptr;
  const uint64_t whole = uint64_t{size} + sizeof(Header);
  auto* header = whole <= SIZE_MAX ? static_cast<Header*>(malloc(static_cast<size_t>(whole))) : nullptr;
  if (header == nullptr) {
    velto::gUsed.fetch_sub(size, std::memory_order_relaxed);
    return nullptr;
  }
  *header = {0, file, size, line, handle, velto::kMagic};
  velto::Chain(velto::ChainOf(header)).Add(header);
  return header + 1;
}

void KEL_MemFree_F(void* memory, const char* file, uint32_t line) {
  if (memory == nullptr) return;
  // The address is only compared, and read once it is known to be ours.
  auto* header = reinterpret_cast<Header*>(reinterpret_cast<uintptr_t>(memory) - sizeof(Header));
  if (!velto::Chain(velto::ChainOf(header)).Remove(header)) {
    velto::Die(memory, "it is not live tagged memory, or was given back before", file, line);
  }
  if (header->magic != velto::kMagic)
    velto::Die(memory, "the bytes in front of it were overwritten", file, line);
  header->magic = 0;
  velto::gUsed.fetch_sub(header->size, std::memory_order_relaxed);
  free(header);
}

uint32_t KEL_MemGetTotalSize(void) {
  return static_cast<uint32_t>(velto::CfgNumber(velto::kCfgMemBudgetBytes));
}

uint32_t KEL_MemGetFreeSize(void) {
  const uint64_t budget = velto::CfgNumber(velto::kCfgMemBudgetBytes);
  const uint64_t used = velto::gUsed.load();
  return used < budget ? static_cast<uint32_t>(budget - used) : 0;
}

void KEL_MemLiveWalk(void (*visit)(const KelMemLive* live, uintptr_t arg), uintptr_t arg) {
  if (visit == nullptr) return;
  for (std::atomic<uintptr_t>& head : velto::gChains) {
    const velto::Chain chain(head);
    for (const Header* at = chain.first(); at != nullptr; at = velto::Show(at->next)) {
      const char* handle = velto::HandleIsKnown(at->handle) ? velto::gHandleNames[at->handle - 1] : "?";
      const KelMemLive live{handle, at->size, at->file, at->line};
      visit(&live, arg);
    }
  }
}

uint32_t KEL_HandleUseGet(uint32_t handle, uint64_t* bytes, uint64_t* count) {
  if (bytes == nullptr || count == nullptr) return kKelErrMemPara;
  if (!velto::HandleIsKnown(handle)) return kKelErrMemHandle;
  uint64_t byteSum = 0;
  uint64_t countSum = 0;
  for (std::atomic<uintptr_t>& head : velto::gChains) {
    const velto::Chain chain(head);
    for (const Header* at = chain.first(); at != nullptr; at = velto::Show(at->next)) {
      if (at->handle != handle) continue;
      byteSum += at->size;
      ++countSum;
    }
  }
  *bytes = byteSum;
  *count = countSum;
  return 0;
}

const char* KEL_StrStr(const char* text, const char* needle) {
  return text != nullptr && needle != nullptr ? strstr(text, needle) : nullptr;
}
