/// An arena: sections of memory carved from large blocks, with no header and no release of their own.
///
/// Blocks are grouped by key, an identity and a block length, so that one manager serves several tables; only
/// the blocks of a key are given back, all at once. Sections are zero and aligned to 4 bytes, also where
/// pointers are wider. Nothing here locks: the owner lets one thread in at a time.
#pragma once

#include <stdint.h>

inline constexpr uint32_t kArenaErrModuleId = 0x3937;  ///< 14647: memory module id 0
inline constexpr uint32_t kArenaErrClear = 0x3938;     ///< 14648: no key, or the manager is not initialised
inline constexpr uint32_t kArenaErrKey = 0x3939;       ///< 14649: no type of this identity and block length
inline constexpr uint32_t kArenaErrPara = 0x393A;  ///< 14650: null argument, block length 0, not initialised
inline constexpr uint32_t kArenaErrSection = 0x393B;      ///< 14651: the section is not smaller than a block
inline constexpr uint32_t kArenaErrTypeMemory = 0x393C;   ///< 14652: no memory for the type's record
inline constexpr uint32_t kArenaErrBlockMemory = 0x393D;  ///< 14653: no memory for a block

struct MEM_BLOCK_KEY_PARA_INFO_S {
  uint8_t identity[16];  ///< the owner's, compared byte for byte
  uint32_t blockMaxLen;  ///< bytes
};
static_assert(sizeof(MEM_BLOCK_KEY_PARA_INFO_S) == 20);

struct MEM_SECTION_HEAD_INFO_S {
  uint32_t reserved;  ///< 0
  uint32_t length;    ///< bytes asked for
};

struct MEM_BLOCK_LIST_S;
struct TYPE_MEM_BLOCK_LIST_S;

class CMemBlockManage {
 public:
  /// `shared`: blocks come from the shared-memory partition of tola_shm.h instead of the heap.
  explicit CMemBlockManage(bool shared);
  /// Gives every block back: no section may be used any more.
  ~CMemBlockManage();
  CMemBlockManage(const CMemBlockManage&) = delete;
  CMemBlockManage& operator=(const CMemBlockManage&) = delete;

  /// Sets the handle (KEL_HandleInitialize) under which blocks are allocated from now on.
  /// @retval kArenaErrModuleId the id is 0; the one before stays
  [[nodiscard]] uint32_t Init(uint32_t memModuleId);

  /// A section of `section->length` bytes, rounded up to 4, in `out`; null on failure. Only the newest block
  /// of the key is looked at, and what would fill it exactly opens a new one.
  /// @retval kArenaErrPara, kArenaErrSection, kArenaErrTypeMemory, kArenaErrBlockMemory
  /// @retval kErrCopy (0x4501) the identity could not be copied
  [[nodiscard]] uint32_t AllocMemInBlockByKeyInfo(const MEM_BLOCK_KEY_PARA_INFO_S* key,
                                                  const MEM_SECTION_HEAD_INFO_S* section, void*& out);

  /// The same, for whoever has key and length at hand.
  struct Section {
    void* memory;  ///< null when result is not 0
    uint32_t result;
  };
  [[nodiscard]] Section AllocSection(const MEM_BLOCK_KEY_PARA_INFO_S& key, uint32_t length);

  /// Gives back the blocks of the key's identity, those of other block lengths included; the key itself must
  /// be known with its length.
  /// @retval kArenaErrClear, kArenaErrKey
  [[nodiscard]] uint32_t ClearRegMemBlock(const MEM_BLOCK_KEY_PARA_INFO_S* key);

 private:
  TYPE_MEM_BLOCK_LIST_S* FindType(const MEM_BLOCK_KEY_PARA_INFO_S& key) const;
  [[gnu::noinline]] Section AllocFromNewBlock(const MEM_BLOCK_KEY_PARA_INFO_S& key,
                                              TYPE_MEM_BLOCK_LIST_S* type, uint32_t length);
  uint32_t AddType(const MEM_BLOCK_KEY_PARA_INFO_S& key);
  uint32_t AddBlock(TYPE_MEM_BLOCK_LIST_S& type);
  void FreeType(TYPE_MEM_BLOCK_LIST_S* type);

  TYPE_MEM_BLOCK_LIST_S* types_ = nullptr;
  uint32_t memModuleId_ = 0;  // 0: not initialised
  bool shared_;
};
