/// The tables behind the component manager: which instance is of which type and where it lives, which
/// processes are known, and one private pointer an instance.
///
/// One object a process, made on first use and never destroyed. Two platform reader-writer locks guard the
/// tables: readers route messages, writers add and remove; neither is held while a hook or an entry of a type
/// runs. Texts that come in end within their field, or the call is refused with 1.
#pragma once

#include <stdint.h>

#include <atomic>
#include <map>
#include <mutex>

#include "base/never_destroyed.h"
#include "comp/comp_manager.h"
#include "velto/rtf.h"

/// Where an instance lives.
struct CompAddr {
  uint32_t typeId;
  uint32_t haState;
  TOLA_COMP_PROC_S proc;  ///< all zero for an instance that was only imported
};

class CompManagerImpl {
 public:
  static CompManagerImpl& GetInstance();

  /// Makes the locks; again is 0. @retval 1 the runtime has none left
  [[nodiscard]] uint32_t InitCompManagerImpl();

  [[nodiscard]] uint32_t CompTypeRegister(uint32_t typeId, const RtfCompTypeInfo& info);
  [[nodiscard]] uint32_t DeleteCompType(uint32_t typeId);  ///< refused while it has instances
  [[nodiscard]] uint32_t CompSchInstRegister(const RtfContainerAttrib& attrib);

  /// Builds the instance in the runtime's three stages; `attrib` null: no message-stream attributes.
  [[nodiscard]] uint32_t CreateComp(uint32_t csi, uint32_t cpi, const RtfMsgStreamAttrib* attrib);
  [[nodiscard]] uint32_t EnableComp(uint32_t cpi);
  /// Ends the instance and forgets its address.
  [[nodiscard]] uint32_t CompDestroy(uint32_t csi);

  /// This process's own address.
  [[nodiscard]] uint32_t SetProcId(const TOLA_COMP_PROC_S& local);
  [[nodiscard]] uint32_t GetLocalProcInfo(TOLA_COMP_PROC_S& local) const;  ///< @retval 1 not set
  /// Makes another process one that messages may be sent to.
  [[nodiscard]] uint32_t AddProcAddr(const TOLA_COMP_PROC_S& proc);
  /// AddProcAddr, and the process's components. An instance that lives here is logged and left where it is.
  [[nodiscard]] uint32_t AddDestProcId(const TOLA_COMP_DST_PROC_S& dst);
  /// Takes the process and every component recorded at it out again.
  [[nodiscard]] uint32_t DelDestProcId(const TOLA_COMP_PROC_S& proc);

  /// Records that instance `csi` lives in `proc`, here and in the runtime's table; one that was recorded
  /// elsewhere moves.
  [[nodiscard]] uint32_t AddCompId(const TOLA_COMP_ADDR_S& addr, uint32_t haState,
                                   const TOLA_COMP_PROC_S& proc);
  /// Makes only the type of an instance known, for one that is created here but addressed by nobody.
  [[nodiscard]] uint32_t CompImport(uint32_t csi, uint32_t typeId);
  /// Forgets where an instance lives, here and in the runtime's table.
  [[nodiscard]] uint32_t RmvCompInfo(uint32_t csi);
  /// @retval 1 unknown
  [[nodiscard]] uint32_t EraseItemFromCsiTable(uint32_t csi);

  /// @retval 1 unknown
  [[nodiscard]] uint32_t GetCompAddr(uint32_t csi, CompAddr& out) const;
  [[nodiscard]] bool IsComponent(uint32_t csi) const;

  [[nodiscard]] uint32_t SaveCompPara(uint32_t csi, void* para);
  [[nodiscard]] void* GetCompPara(uint32_t csi) const;

 private:
  friend class base::NeverDestroyed<CompManagerImpl>;
  CompManagerImpl() = default;
  [[nodiscard]] bool IsLocal(uint32_t csi) const;
  [[nodiscard]] uint32_t PutItem(uint32_t csi, const CompAddr& item);

  std::mutex initMutex_;
  std::atomic<uint32_t> addrLock_{0};  ///< guards csiTable_ and local_; 0 until initialised
  std::atomic<uint32_t> paraLock_{0};  ///< guards paras_
  std::map<uint32_t, CompAddr> csiTable_;
  TOLA_COMP_PROC_S local_{};
  std::map<uint32_t, void*> paras_;
};
