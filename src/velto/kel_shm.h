/// Partitions of shared memory: blocks that several processes see at the same address, and a directory that
/// finds them by name.
///
/// A partition belongs to this process and those that it forks, or, by its name, to all processes of one user
/// and one word size. All calls are thread-safe and safe between processes; a partition in which a process
/// died half way through a change refuses everything from then on.
#pragma once

#include <stdint.h>

extern "C" {

inline constexpr uint32_t kKelErrShmPara = 0x0701;  ///< null, zero, too long or too large argument
inline constexpr uint32_t kKelErrShmFull = 0x0702;  ///< no free partition number, or the directory is full
inline constexpr uint32_t kKelErrShmMap = 0x0703;   ///< the system has no memory, or not at the same address
inline constexpr uint32_t kKelErrShmForeign =
    0x0704;  ///< the name is another user's, or of another form or size
inline constexpr uint32_t kKelErrShmBlock = 0x0705;   ///< no live block of a partition begins there
inline constexpr uint32_t kKelErrShmName = 0x0706;    ///< set: the name is taken; unset, get: no such entry
inline constexpr uint32_t kKelErrShmBroken = 0x0707;  ///< a process died half way through a change
inline constexpr uint32_t kKelErrShmId = 0x0708;      ///< no such partition

inline constexpr uint32_t kKelShmPartitionMax = 16;
inline constexpr uint32_t kKelShmEntryNameSize = 24;  ///< with the terminator

struct KelShmMemPtName {
  char name[36];  ///< zero-terminated, neither empty nor with a '/' in it
};

enum KelShmMode : uint32_t {
  kKelShmInherited = 0,  ///< seen by this process and the ones that it forks afterwards
  kKelShmNamed = 1,      ///< made or joined by name (POSIX shared memory "/velto.<name>", mode 0600)
};

/// Makes a partition of `size` bytes for blocks (each needs 16 more) and `entryCount` directory entries, or
/// joins the named one of these very sizes. `*partition` is its number in this process: the lowest free one,
/// so 0, 1, ... in the order of creation.
/// @retval kKelErrShmPara, kKelErrShmFull, kKelErrShmMap, kKelErrShmForeign, kKelErrShmBroken
[[nodiscard]] uint32_t KEL_ShmStruKvMemPtCreate(const KelShmMemPtName* name, uint32_t size,
                                                uint32_t entryCount, uint32_t mode, uint32_t* partition);
/// Takes a partition out of this process, and removes its name: it ends with the last process that has it.
/// Nobody here may use its blocks any more. @retval kKelErrShmId
[[nodiscard]] uint32_t KEL_ShmStruKvMemPtDelete(uint32_t partition);

/// A block of `size` bytes (not 0), not zeroed, aligned to 16; null when there is no such partition or room.
[[nodiscard]] void* KEL_ShmStruKvMemPtAlloc(uint32_t partition, uint32_t size);
/// Gives a block back, by whichever process. Its directory entries are the caller's to unset.
/// @retval kKelErrShmBlock, kKelErrShmBroken
[[nodiscard]] uint32_t KEL_ShmStruKvMemPtFree(void* block);

/// Enters a live block of at least `size` bytes under `name` (1 to 23 characters) in its partition's
/// directory.
/// @retval kKelErrShmPara, kKelErrShmBlock, kKelErrShmName, kKelErrShmFull, kKelErrShmBroken
[[nodiscard]] uint32_t KEL_ShmStruKvMemEntrySet(const char* name, void* block, uint32_t size);
/// Removes the entry `name` of that block. @retval kKelErrShmPara, kKelErrShmName, kKelErrShmBroken
/// @retval kKelErrShmBlock the address is in no partition
[[nodiscard]] uint32_t KEL_ShmStruKvMemEntryUnset(const char* name, const void* block);
/// Block and size that stand under `name`. @retval kKelErrShmId, kKelErrShmPara, kKelErrShmName,
/// kKelErrShmBroken
[[nodiscard]] uint32_t KEL_ShmStruKvMemEntryGet(uint32_t partition, const char* name, void** block,
                                                uint32_t* size);

}  // extern "C"
