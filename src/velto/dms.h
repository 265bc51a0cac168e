/// Component messages: allocation, attributes, addresses and sending.
///
/// A message is known by the pointer to its data; length, ids, priority and a 16-byte reserved head stand in
/// front of it. A component is addressed by its CPI: its instance id (csi) with bit 31 set, or bits 31
/// and 28.
///
/// Where a destination lives is read from the address tables: a local instance is a queue of its task
/// (rtf.h); an instance of another process is reached over one SOCK_SEQPACKET Unix socket per (IPv4 text,
/// component process id) in the directory of the key dms.dir, mode 0700. Process ids of components are
/// numbers of the platform, never operating-system pids. Every send is answered, so the sender learns at once
/// when nobody takes the message. Thread-safe throughout.
#pragma once

#include <stdint.h>

extern "C" {

inline constexpr uint32_t kDmsErrPara = 0x0501;    ///< null or wrong argument
inline constexpr uint32_t kDmsErrNoAddr = 0x0502;  ///< no address is known for the destination
inline constexpr uint32_t kDmsErrNoPeer = 0x0503;  ///< the destination's process does not listen
inline constexpr uint32_t kDmsErrRefused =
    0x0504;  ///< no such component at the destination; at a peer also: not enabled, or its queue is full
inline constexpr uint32_t kDmsErrQueueFull = 0x0505;  ///< the local destination's queue is full
inline constexpr uint32_t kDmsErrTooLong =
    0x0506;  ///< longer than dms.message_bytes allows between processes
inline constexpr uint32_t kDmsErrFarHost = 0x0507;  ///< destination on another address: needs a secured link
inline constexpr uint32_t kDmsErrLink = 0x0508;  ///< the link broke or did not answer in time (dms.answer_ms)
inline constexpr uint32_t kDmsErrPeerUser =
    0x0509;  ///< the peer runs as a user who is not allowed (dms.peer_user)
inline constexpr uint32_t kDmsErrFull = 0x050A;  ///< an address table is full
inline constexpr uint32_t kDmsErrSocket =
    0x050B;  ///< the process's own socket could not be bound, or dms.dir is unsafe; standard error says why
inline constexpr uint32_t kDmsErrNameTaken = 0x050C;  ///< a living process has the name

inline constexpr uint32_t kDmsReservedHeadSize = 16;

/// A message of `length` zeroed data bytes from component `sendCid`; null when memory is used up. The caller
/// owns it.
[[nodiscard]] void* DMS_MsgAlloc(uint32_t sendCid, uint32_t length);
/// The same under flow control: null too while the sender has `limit` messages of either kind under way in
/// this process that nobody freed.
[[nodiscard]] void* DMS_MsgFlowCtrlAlloc(uint32_t sendCid, uint32_t limit, uint32_t length);
/// `cid` is who frees; any owner may. @retval kDmsErrPara `message` is null or readable memory that is no
/// message
[[nodiscard]] uint32_t DMS_MsgFree(uint32_t cid, void* message);

uint32_t DMS_MsgRecvIidGet(const void* message);  ///< message id
void DMS_MsgRecvIidSet(void* message, uint32_t messageId);
uint32_t DMS_MsgSendCidGet(const void* message);  ///< source, as it was given or as a CPI
uint32_t DMS_MsgRecvCidGet(const void* message);  ///< destination CPI; 0 before it is sent
uint32_t DMS_MsgLenGet(const void* message);
[[nodiscard]] uint32_t DMS_MsgQuePrioGet(const void* message, uint32_t* priority);
[[nodiscard]] uint32_t DMS_MsgPrioSet(void* message, uint8_t priority);  ///< 1 is delivered before all others
void* DMS_MsgReserveHeadGet(void* message);  ///< 16 bytes that travel with the message; null for null

/// Hands the message to the component `cpi`. The message is consumed in every case, also on failure.
/// The source travels as given at allocation. A send to another process returns when that process has
/// answered; on kDmsErrLink alone it is not known whether the message was delivered.
[[nodiscard]] uint32_t DMS_MsgSend(uint32_t cpi, void* message);

/// Makes this process the only one of its `name` (1 to 31 characters) while it lives, by a lock in dms.dir,
/// which is made where it is not there. Once in a process.
/// @retval kDmsErrPara @retval kDmsErrNameTaken @retval kDmsErrSocket no lock could be had
[[nodiscard]] uint32_t DMS_ProcNameTake(const char* name);

/// This process's own address; `ip` is dotted IPv4 text. Both may be set again until the first instance is
/// enabled, then another value is kDmsErrPara.
[[nodiscard]] uint32_t KEL_SysProcIdSet(uint32_t processId);
[[nodiscard]] uint32_t DMS_MeshCamProcAddrItemAdd(const char* ip, uint32_t processId);

/// Makes (ip, processId) a process that messages may be sent to; adding it again is 0. Del undoes it,
/// together with every component that was recorded at it.
[[nodiscard]] uint32_t DMS_CamMeshOtherProcAddrItemAdd(const char* ip, uint32_t processId);
[[nodiscard]] uint32_t DMS_CamMeshOtherProcAddrItemDel(const char* ip, uint32_t processId);

/// Records that instance `csi` of type `typeId` lives in (ip, processId), the local process or one added
/// above; a csi that is recorded already moves there.
[[nodiscard]] uint32_t DMS_CompAddrTableItemAdd(uint32_t csi, uint32_t typeId, const char* ip,
                                                uint32_t processId);
[[nodiscard]] uint32_t DMS_CompAddrTableItemDel(uint32_t csi);

}  // extern "C"
