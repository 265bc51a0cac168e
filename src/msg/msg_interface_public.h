/// Platform messages between modules: the buffer, registration, posting, receiving, and the hooks through
/// which messages leave for components, for other processes, and for a high-priority queue.
///
/// A message is one heap buffer; only its pointer goes through the receiver's queue, whose task is then woken
/// by an event bit. Data is at most 0xFFFFFF bytes. Every call may be made by any thread once
/// TOLA_MsgManagerInit has returned; a message belongs to one thread at a time.
#pragma once

#include <stdint.h>

/// Header of a platform message; the data follows it. Fields are in the machine's order.
struct tagMsgBuf {
  uint16_t source;
  uint16_t destination;  ///< written by the post
  uint16_t type;
  uint16_t subType;
  uint16_t lengthHigh;  ///< data length, bits 16-23; the upper byte is not looked at
  uint16_t lengthLow;   ///< data length, bits 0-15
};
static_assert(sizeof(tagMsgBuf) == 12, "the header travels");

inline constexpr uint32_t kMsgHeadSize = 12;
inline constexpr uint32_t kMsgMaxDataLength = 0xFFFFFF;

inline constexpr uint16_t kMsgDefaultMaxModule = 1857;  ///< platform modules are 0 .. maximum - 1
inline constexpr uint16_t kMsgAppCompFirst = 4096;      ///< components behind the application IPC
inline constexpr uint16_t kMsgAppCompEnd = 4288;
inline constexpr uint32_t kMsgNoTask =
    0xFFFFFFFF;  ///< a module without a task: a failed wake-up is not logged

inline constexpr uint32_t kMsgErrSema = 0x4901;           ///< 18689: semaphore creation failed
inline constexpr uint32_t kMsgErrModuleId = 0x4902;       ///< 18690: module id out of range
inline constexpr uint32_t kMsgErrQueueLength = 0x4903;    ///< 18691: queue length 0
inline constexpr uint32_t kMsgErrRegistered = 0x4904;     ///< 18692: module already registered
inline constexpr uint32_t kMsgErrQueueCreate = 0x4905;    ///< 18693: queue creation failed
inline constexpr uint32_t kMsgErrNull = 0x4908;           ///< 18696: null message
inline constexpr uint32_t kMsgErrNotRegistered = 0x4909;  ///< 18697: receiving module not registered
inline constexpr uint32_t kMsgErrQueueWrite = 0x490A;     ///< 18698: queue full or broken
inline constexpr uint32_t kMsgErrQueueRead = 0x490C;      ///< 18700: the queue held no message
inline constexpr uint32_t kMsgErrNotInit = 0x490F;        ///< 18703: manager not initialised
inline constexpr uint32_t kMsgErrNoIpc = 0x4911;          ///< 18705: application IPC hooks missing

/// The data behind the header.
inline uint8_t* TolaMsgData(tagMsgBuf* msg) {
  return reinterpret_cast<uint8_t*>(msg) + kMsgHeadSize;
}
inline const uint8_t* TolaMsgData(const tagMsgBuf* msg) {
  return reinterpret_cast<const uint8_t*>(msg) + kMsgHeadSize;
}

/// kept: a length below 0x10000 leaves bits 16-23 of the header as they are. Null is ignored.
void SetTolaMsgLen(tagMsgBuf* msg, uint32_t length);
/// Data length of the header; 0 for null.
uint32_t GetTolaMsgLen(const tagMsgBuf* msg);

/// What a module registered. `queueId` 0: not registered here.
struct MsgModuleBlock {
  uint32_t queueId;
  uint32_t taskId;     ///< is woken ...
  uint32_t eventMask;  ///< ... by these event bits
  uint32_t reserved;
};
static_assert(sizeof(MsgModuleBlock) == 16);

/// Brings the manager up: semaphore, memory handle, module blocks. A second call returns 0 and changes
/// nothing.
/// @retval kMsgErrSema @retval 1 no memory handle, or no memory for the blocks
[[nodiscard]] uint32_t TOLA_MsgManagerInit();
/// Raises the number of platform modules, before TOLA_MsgManagerInit; a value below 1858 is ignored with 0.
/// @retval 1 null, or too late
[[nodiscard]] uint32_t TOLA_RegisterMsgManagerParameter(const uint16_t* maximum);

/// Gives `moduleId` a queue of `queueLength` messages, whose posts wake `taskId` with `eventMask`.
/// @retval kMsgErrModuleId @retval kMsgErrQueueLength @retval kMsgErrNotInit @retval kMsgErrRegistered
/// @retval kMsgErrQueueCreate
/// @retval kMsgErrNotRegistered the module whose queue it is to share has none
[[nodiscard]] uint32_t TOLA_MsgModuleRegister(uint16_t moduleId, uint32_t taskId, uint32_t eventMask,
                                              uint32_t queueLength);
/// Forgets the module; posts to it go to other processes from then on. kept: its queue is not deleted.
/// @retval kMsgErrModuleId @retval kMsgErrNotInit
[[nodiscard]] uint32_t TOLA_MsgModuleUnregister(uint16_t moduleId);

/// A message of `length` zeroed data bytes, header filled but for the destination. The caller owns it.
/// Null: no memory, the manager is not initialised, or `length` does not fit the header.
[[nodiscard]] tagMsgBuf* TOLA_MsgAlloc(uint16_t source, uint16_t type, uint16_t subType, uint32_t length);
/// Memory partition of the allocations that follow, of every thread.
void TOLA_MsgAllocSpecifyPartition(uint32_t partition);
void TOLA_MsgFree(tagMsgBuf* msg);  ///< null is ignored

/// Hands `msg` to module `destination`. Never blocks on a local queue and copies nothing but the pointer.
///
/// Route, first match wins: a component goes to the component hook; 4096..4287 to the application IPC hook; a
/// local module to its queue, then its task is woken; a local id without a queue to its process over IPC.
///
/// Ownership: on 0 the buffer is no longer yours, but for one case: a local id without a queue, while no IPC
/// hook is registered, is 0 too, and the buffer stays yours (MsgPost tells). On any other result it still is.
/// The header's destination is overwritten even when the post fails. `flag` is not used.
///
/// @retval kMsgErrNull @retval kMsgErrNotInit @retval kMsgErrNoIpc @retval kMsgErrModuleId
/// @retval kMsgErrQueueWrite one "Qer..." log line
/// @retval other the component's or IPC hook's own result
[[nodiscard]] uint32_t TOLA_MsgPost(uint16_t destination, tagMsgBuf* msg, uint32_t flag);
/// The same through the high-priority queue, and urgent for the hooks. @retval 1 no high-priority object
[[nodiscard]] uint32_t TOLA_HighPriMsgPost(uint16_t destination, tagMsgBuf* msg, uint32_t flag);
/// High-priority post; if that is refused, a normal one.
[[nodiscard]] uint32_t TOLA_MsgUrgPost(uint16_t destination, tagMsgBuf* msg, uint32_t flag);

/// Takes the next message of `moduleId`: from the high-priority object first, else from the module's queue.
/// Never waits on the queue (`wait` is for the high-priority object): a task waits for its event, then
/// drains.
/// @retval kMsgErrNull null `out` @retval kMsgErrModuleId @retval kMsgErrNotInit @retval kMsgErrNotRegistered
/// @retval kMsgErrQueueRead nothing there; `*out` is null then, as on every failure
[[nodiscard]] uint32_t TOLA_MsgRecv(uint16_t moduleId, tagMsgBuf** out, uint32_t wait);

/// Allocates, copies `length` bytes of `data` and posts; leaves nothing to free.
/// @retval 1 no memory, or not posted @retval 17665 (kErrCopy) `data` is null
[[nodiscard]] uint32_t SendSimpleFormatMsg(uint16_t source, uint16_t destination, uint16_t type,
                                           uint16_t subType, uint32_t length, const void* data);

/// @retval kMsgErrModuleId @retval kMsgErrNotInit @retval 1 null
[[nodiscard]] uint32_t TOLA_GetMsgBlock(uint16_t moduleId, MsgModuleBlock* out);
/// The block of the high-priority object; without one 0, and nothing is copied.
[[nodiscard]] uint32_t TOLA_GetHighPriMsgBlock(uint16_t moduleId, MsgModuleBlock* out);
/// Messages that wait in the module's queue; -1 for an id above 1856 (kept: even when the maximum was raised)
/// or a module without a queue.
int32_t TOLA_GetPortMsgNum(uint16_t moduleId);

// Hooks. Each may be replaced at any time; null brings the default back.

/// Components: `isComp` says whether an id is one, `sendToComp` takes the message over when it returns 0. By
/// default nothing is a component.
using MsgIsCompFunc = bool (*)(uint16_t moduleId);
using MsgSendToCompFunc = uint32_t (*)(uint16_t moduleId, tagMsgBuf* msg, bool urgent);
void TolaMsgSendToCompRegFun(MsgIsCompFunc isComp, MsgSendToCompFunc sendToComp);

/// Which modules share the queue of which other, asked at registration. By default each has its own.
using MsgIsUseSameQueueFunc = bool (*)(uint16_t moduleId);
using MsgGetSameQueueModuleIdFunc = uint16_t (*)(uint16_t moduleId);
void Tola_MsgSameQueueRegFun(MsgIsUseSameQueueFunc isUseSameQueue, MsgGetSameQueueModuleIdFunc getModuleId);

/// The road to other processes. `getChannel` gives the channel (a message sequence number) and is called
/// under the manager's semaphore, so it must not call the manager. `send` frees the message when it returns 0
/// and leaves it to the sender otherwise. `notify` is told of modules that came (operation 0) or went (1);
/// its result is not used.
using AppIpcGetChannelFunc = uint32_t (*)();
using AppIpcSendFunc = uint32_t (*)(tagMsgBuf* msg, uint32_t channel, bool urgent);
using AppIpcNotifyFunc = uint32_t (*)(uint32_t operation, uint32_t count, const uint16_t* moduleIds);
void MsgMgrRegAppIpcMsgFun(AppIpcGetChannelFunc getChannel, AppIpcSendFunc send, AppIpcNotifyFunc notify);

/// A queue that is served before the normal one. Results are 0 for success; Receive answers 0 with a message,
/// or anything else when it has none.
class HighPriQueueProcBase {
 public:
  virtual uint32_t RegisterModule(uint16_t moduleId, uint32_t taskId, uint32_t eventMask,
                                  uint32_t queueLength) = 0;
  virtual uint32_t UnregisterModule(uint16_t moduleId) = 0;
  virtual uint32_t Receive(uint16_t moduleId, tagMsgBuf** out, uint32_t wait) = 0;
  virtual uint32_t GetBlock(uint16_t moduleId, MsgModuleBlock* out) = 0;

 protected:
  ~HighPriQueueProcBase() = default;
};
void RegHighPriQueueProcObj(HighPriQueueProcBase* object);

/// Is told of every message buffer that comes and goes, platform and component messages alike; `length` is
/// the data's. Called by any thread.
class MsgMemStatisticBase {
 public:
  virtual void OnAlloc(uint32_t source, uint32_t length) = 0;
  virtual void OnFree(uint32_t source, uint32_t length) = 0;
  /// Asked by a debug request: count `moduleId`'s messages from now on or no more, and print what was
  /// counted.
  virtual void Switch(uint16_t /*moduleId*/, bool /*on*/) {}
  virtual void Print(uint16_t /*moduleId*/) {}

 protected:
  ~MsgMemStatisticBase() = default;
};
void SetMsgMemStatisticInstance(MsgMemStatisticBase* object);
MsgMemStatisticBase* GetMsgMemStatisticInstance();  ///< null when none

/// Is told of every registered queue, and of its fill level after every post. Called by any thread.
class MsgQueueStatistic {
 public:
  virtual void OnRegister(uint16_t moduleId, uint32_t queueId, uint32_t queueLength) = 0;
  virtual void OnFill(uint16_t moduleId, uint32_t queueId, uint32_t messages) = 0;

 protected:
  ~MsgQueueStatistic() = default;
};
void SetMsgQueueStatisticInstance(MsgQueueStatistic* object);
