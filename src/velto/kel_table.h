/// Tables of objects that are known by small ids from 1, with look-ups that take no lock.
///
/// For the runtime's own sources only. Objects stand in static memory for good: a stale id finds an object
/// that is no longer live, or a new one in its place, never freed memory.
#pragma once

#include <stdint.h>
#include <string.h>

#include <atomic>

namespace velto {

inline constexpr size_t kNameSize = 32;  ///< of every named object, with the terminator

/// Whether `name` can name an object: not null, at most 31 characters.
inline bool NameFits(const char* name) {
  return name != nullptr && strnlen(name, kNameSize) < kNameSize;
}

/// A table of `Size` objects. A claimed object belongs to the claimer alone until it is published.
template <class T, uint32_t Size>
class IdTable {
 public:
  /// Takes the lowest free place for an object of this (fitting) name: 0 when there is none.
  [[nodiscard]] uint32_t Claim(const char* name) {
    for (uint32_t i = 0; i < Size; ++i) {
      uint32_t expected = kFree;
      if (!state_[i].compare_exchange_strong(expected, kClaimed)) continue;
      memcpy(names_[i], name, strlen(name) + 1);
      return i + 1;
    }
    return 0;
  }
  void Publish(uint32_t id) { state_[id - 1].store(kLive); }

  /// The live object of this id, or null.
  [[nodiscard]] T* Find(uint32_t id) {
    if (id == 0 || id > Size || state_[id - 1].load(std::memory_order_acquire) != kLive) return nullptr;
    return &objects_[id - 1];
  }
  /// The object of a claimed or live id.
  [[nodiscard]] T& At(uint32_t id) { return objects_[id - 1]; }

  /// Takes a live object out of use, for the one caller who gets true; Free makes its place available.
  [[nodiscard]] bool Retire(uint32_t id) {
    uint32_t expected = kLive;
    return id != 0 && id <= Size && state_[id - 1].compare_exchange_strong(expected, kClaimed);
  }
  void Free(uint32_t id) { state_[id - 1].store(kFree); }

 private:
  enum : uint32_t { kFree, kClaimed, kLive };
  std::atomic<uint32_t> state_[Size]{};
  T objects_[Size]{};
  char names_[Size][kNameSize]{};  // for whoever looks with a debugger
};

}  // namespace velto
