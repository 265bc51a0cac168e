/// Components of this process: the registration block that the product fills, the types and instances that
/// are started from it, and the addresses through which messages reach components of this and other
/// processes.
///
/// Start-up runs on one task: TolaOsCompFrameInit, then TolaOsRegAllComp a stage. Everything declared behind
/// the registration block may be called by any thread afterwards. Failures leave one line through the log
/// hook with module id 4096 and are returned; 0 is success.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "velto/rtf.h"

inline constexpr uint32_t kCompTypeMax = 128;  ///< type records of a set
inline constexpr uint32_t kCompInstMax = 4;    ///< instances of a type record
inline constexpr uint32_t kCompDstMax = 32;    ///< destination processes, of a set and in all
inline constexpr uint32_t kCompAddrMax = 128;  ///< component addresses of a process entry
inline constexpr uint32_t kCompIpSize = 16;    ///< dotted IPv4 text with its terminator
inline constexpr uint32_t kCompDynProcId =
    100;  ///< stands for a process id that is made from the IP at start-up
inline constexpr uint16_t kCompLogModule = 4096;  ///< module id of every line of the component layer

/// An instance to start: its id, and what to call with that id before (may be null; non-zero ends the type's
/// start).
struct TOLA_COMP_INST_S {
  uint32_t csi;
  uint32_t (*paraReg)(uint32_t csi);
};

/// A component type and its instances. The texts are zero-terminated; counts above the maximum count as the
/// maximum.
struct TOLA_COMP_TYPE_S {
  char name[24];
  uint32_t typeId;
  char version[48];
  uint32_t priority;
  RtfCompConstructor constructor;
  RtfCompDestructor destructor;
  RtfCompMsgProc msgProc;
  uint32_t (*beforeReg)();   ///< may be null; low 16 bits non-zero end the type's start
  uint32_t (*afterStart)();  ///< may be null; its low 16 bits are the type's result
  uint32_t instNum;
  TOLA_COMP_INST_S inst[kCompInstMax];
  uint8_t stage;  ///< start-up stage
  uint8_t reserved[3];
};
static_assert(sizeof(void*) != 4 ||
                  (sizeof(TOLA_COMP_TYPE_S) == 140 && offsetof(TOLA_COMP_TYPE_S, version) == 28 &&
                   offsetof(TOLA_COMP_TYPE_S, constructor) == 80 && offsetof(TOLA_COMP_TYPE_S, inst) == 104 &&
                   offsetof(TOLA_COMP_TYPE_S, stage) == 136),
              "the record's layout is fixed");

struct TOLA_COMP_PROC_S {
  char ip[kCompIpSize];
  uint32_t procId;
};

struct TOLA_COMP_ADDR_S {
  uint32_t csi;
  uint32_t typeId;
};

/// A process and the components that live in it.
struct TOLA_COMP_DST_PROC_S {
  char ip[kCompIpSize];
  uint32_t procId;
  uint32_t addrNum;
  TOLA_COMP_ADDR_S addr[kCompAddrMax];
};

struct TOLA_COMP_REG_SET_S {
  TOLA_COMP_PROC_S local;
  uint32_t typeNum;
  TOLA_COMP_TYPE_S type[kCompTypeMax];
  uint32_t dstNum;
  TOLA_COMP_DST_PROC_S dst[kCompDstMax];
};

/// Zero-filled before use; about 100 KiB, so on the heap. Nothing keeps a pointer into it. Local process
/// information is the product's; types start and addresses are collected platform first, destinations product
/// first.
struct TOLA_COMP_REG_BLOCK_S {
  TOLA_COMP_REG_SET_S product;
  TOLA_COMP_REG_SET_S platform;
};

/// Initialises the manager with the block's processes: see TolaCompInit. @retval 1 no memory
[[nodiscard]] uint32_t TolaOsCompFrameInit(const TOLA_COMP_REG_BLOCK_S* block);
/// Starts the types of `stage`, those of the platform set first. A type that fails does not stop the others.
void TolaOsRegAllComp(const TOLA_COMP_REG_BLOCK_S* block, uint32_t stage);
void TolaOsRegComps(const TOLA_COMP_REG_SET_S* set, uint32_t stage);
/// Starts one type: hook, registration, each instance in order, hook. The first failure ends it.
/// @retval 1 registration or an instance's start failed @retval other low 16 bits of the failing hook
[[nodiscard]] uint32_t TolaOsKickOffComps(const TOLA_COMP_TYPE_S* type);

/// Makes the manager, tells the runtime its own address and those of all components, and becomes the message
/// manager's component hook. At most 128 local addresses, 32 destinations and 128 addresses of each count.
/// @retval 1 `dstNum` without `dst`, null `local`, local process id 0, a text without end, manager not made
/// @retval other this process or one of its components could not be registered, or a destination could not
/// (with component HA such a one is skipped)
[[nodiscard]] uint32_t TolaCompInit(const TOLA_COMP_DST_PROC_S* local, uint32_t dstNum,
                                    const TOLA_COMP_DST_PROC_S* dst);

/// Registers the type with the runtime. @retval 1 a text without end @retval other the runtime's
[[nodiscard]] uint32_t TolaCompReg(const TOLA_COMP_TYPE_S* type);
/// Creates and enables instance `csi`, whose type is read from the local addresses. @retval the runtime's,
/// also for an instance that is not among them
[[nodiscard]] uint32_t TolaCompKickOff(uint32_t csi);

/// A scheduling container: a named task and its settings; settings[0] is the priority class.
struct TOLA_COMP_SCH_S {
  char taskName[32];
  uint32_t settings[7];
  uint32_t words[8];
};
/// Registers the container; a priority class above 13 becomes 7. @retval 1 a name without end, or null
[[nodiscard]] uint32_t TolaAddCompSch(const TOLA_COMP_SCH_S* sch);
/// The containers "INTER_CORE_COMM" and "WIFI_COMP", for processes that talk to another core or to the
/// wireless module: all settings at the runtime's defaults.
[[nodiscard]] uint32_t AddIccCompSchAttr();
[[nodiscard]] uint32_t AddWifiCompSchAttr();

/// One pointer of private data an instance; the pointed-at stays the caller's. Get gives null when there is
/// none.
[[nodiscard]] uint32_t TolaCompSetPara(uint32_t csi, void* para);
[[nodiscard]] void* TolaCompGetPara(uint32_t csi);

/// Adds a process and its components; Del takes back what Add gave. An instance that lives in this process
/// stays here.
/// @retval 1 null, text without end, no memory, or before TolaCompInit @retval other the runtime's
[[nodiscard]] uint32_t TolaAddCompDstProcInfo(const TOLA_COMP_DST_PROC_S* dst);
/// There are no secured links: with `secInfo` the process is refused with 1, never reached in the clear
/// instead.
[[nodiscard]] uint32_t TolaAddCompDstProcInfoWithSecInfo(const TOLA_COMP_DST_PROC_S* dst,
                                                         const void* secInfo);
[[nodiscard]] uint32_t TolaDelCompDstProcInfo(const TOLA_COMP_PROC_S* dst);
/// @retval 1 null, or TolaCompInit has not set it
[[nodiscard]] uint32_t TolaCompGetLocalProcInfo(TOLA_COMP_PROC_S* local);

/// Component id of a process from its address: 0x10000 and the low 16 bits of `ip` (in_addr bytes) in host
/// order.
uint32_t TolaOsGenProcId(uint32_t ip);

// Component high availability: off, and the default state 2, until start-up sets them. The state is 0 or 1 in
// a pair, whose two sides differ, and 2 where there is none.
void TOLA_EnableCompHaState();
bool IsCompHaEnable();
void TOLA_CompDefaultHaStateSet(uint32_t state);
uint32_t TOLA_CompDefaultHaStateGet();
/// State of components at `dstIp` as seen from `localIp`: on the same address the default state, on another
/// one its counterpart.
uint32_t GetDstDmsHaState(const char* localIp, const char* dstIp);

/// Runtime address of instance `csi`: with bit 31, or with bits 31 and 28 when HA is on and the default state
/// is not 2.
uint32_t MakeCompCpi(uint32_t csi);

/// Where the component layer's lines go (arguments as TOLA_LogPrint); nothing is logged while it is null.
typedef void (*TolaCompLogFunc)(uint16_t moduleId, uint32_t level, const char* file, uint32_t line,
                                const char* fmt, ...) __attribute__((format(printf, 5, 6)));
extern TolaCompLogFunc g_compLog;
void TolaCompRegLogFuc(TolaCompLogFunc log);

/// Is told of each local component that becomes known, so that other processes can be; null for none. Filled
/// by whoever runs the IPC manager (TolaFeatureAppCompIDAddNotify).
using TolaCompIdAddNotifyFunc = void (*)(uint32_t csi);
void TolaCompRegIdAddNotify(TolaCompIdAddNotifyFunc notify);
