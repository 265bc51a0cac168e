/// The component runtime: types, instances and the delivery of their messages.
///
/// Each instance has a task of its own, named after its type, that calls the type's message entry for one
/// message after the other: those of priority 1 first, otherwise in the order of arrival. The runtime owns a
/// received message and frees it after the entry has returned, so an entry that keeps something copies it.
#pragma once

#include <stdint.h>

extern "C" {

inline constexpr uint32_t kRtfErrPara = 0x0601;    ///< null, too long or out-of-range argument
inline constexpr uint32_t kRtfErrExists = 0x0602;  ///< the type or instance exists already
inline constexpr uint32_t kRtfErrNoType = 0x0603;  ///< no type of this id
inline constexpr uint32_t kRtfErrNoInst = 0x0604;  ///< no instance of this CPI
inline constexpr uint32_t kRtfErrStage = 0x0605;   ///< stages run 0, 1, 2, each once
inline constexpr uint32_t kRtfErrFull = 0x0606;    ///< the table is full
inline constexpr uint32_t kRtfErrCtor =
    0x0607;  ///< the constructor returned non-zero; the stage may be run again
inline constexpr uint32_t kRtfErrTask = 0x0608;  ///< the instance's task could not be started
inline constexpr uint32_t kRtfErrBusy = 0x0609;  ///< the type still has instances

typedef uint32_t (*RtfCompConstructor)(uint32_t stage);
typedef uint32_t (*RtfCompDestructor)(void);
typedef void (*RtfCompMsgProc)(void* message);

typedef struct {
  char name[24];
  char version[48];
  uint32_t priority;
  RtfCompConstructor constructor;  ///< may be null
  RtfCompDestructor destructor;    ///< may be null
  RtfCompMsgProc msgProc;          ///< never null
} RtfCompTypeInfo;

typedef struct {
  uint32_t csi;
  uint32_t cpi;
} RtfCompInst;

typedef struct {
  uint32_t priority;
  uint32_t streamId;
  uint32_t msgNum;
  uint32_t maxAppMsgNum;
  uint32_t fcmQue;
} RtfMsgStreamAttrib;

/// Attributes of a scheduling container: a task that several instances may share. The settings are the
/// caller's words, kept as given.
typedef struct {
  char taskName[32];
  uint32_t settings[7];
  uint32_t words[8];
} RtfContainerAttrib;

[[nodiscard]] uint32_t RTF_CompTypeRegister(uint32_t typeId, const RtfCompTypeInfo* info);
[[nodiscard]] uint32_t RTF_CompTypeDelete(uint32_t typeId);

/// Runs one creation stage (0, 1, 2) of an instance and the type's constructor with it. The instance id has
/// 28 bits, and the CPI is made of it.
[[nodiscard]] uint32_t RTF_CompInstCreate(uint32_t stage, uint32_t typeId, const RtfCompInst* inst);

/// `enable` 1 starts delivery: the first enabled instance binds the process's socket (dms.h), so no message
/// is taken before somebody handles it; a process without an address of its own has no socket. 0 stops it:
/// messages of this process wait, those of others are refused.
/// @retval kDmsErrSocket the socket could not be bound; one line on standard error says why
[[nodiscard]] uint32_t RTF_CompInstSchEnable(uint32_t cpi, uint32_t enable);

/// Ends the instance's task after the message in hand, frees what waits, calls the destructor. All that has
/// happened on return, unless the instance's own entry calls: then it happens when that entry returns.
[[nodiscard]] uint32_t RTF_CompInstDestroy(uint32_t cpi);

/// Bounds stream `streamId` to `msgNum` messages, as below; the other words have no meaning here.
[[nodiscard]] uint32_t RTF_ScmCompAllMsgStmAttribSet(uint32_t cpi, const RtfMsgStreamAttrib* attrib);

/// How many messages may wait for the instance in stream `stream` (0 normal, 1 priority); `mode` is 0.
[[nodiscard]] uint32_t RTF_ScmCompStmMaxMsgNumSet(uint32_t cpi, uint32_t stream, uint32_t mode,
                                                  uint32_t length);

[[nodiscard]] uint32_t RTF_CmaSContInstRegister(const RtfContainerAttrib* attrib);

}  // extern "C"
