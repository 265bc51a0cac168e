/// One road to a process: its System V queue and the semaphore that is raised once for every frame.
///
/// Opening with a look at who owns what was opened, sending with the wait for room, reading the lowest class
/// first. Any thread may send; a queue has one reading thread.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/ipc.h>
#include <sys/types.h>

#include "msg/ipc_frame.h"

inline constexpr uint32_t kIpcErrSend = 49410;  ///< 0xC102: no room for 5 s, or the queue is gone
inline constexpr uint32_t kIpcErrEmpty = 1;     ///< nothing to read

inline constexpr int kIpcProject = 65;  ///< of ftok(3), for the main queue and those of the applications
inline constexpr char kIpcMainPath[] = "/tmp";
inline constexpr char kIpcOwner[] = "prorunacc";  ///< has the queues and semaphores of the applications

inline constexpr long kIpcClassUrgent = 1;
inline constexpr long kIpcClassDefault = 4;
inline constexpr long kIpcClassLast = 5;

inline constexpr uint32_t kIpcSendWaitMs = 20;  ///< at a full queue, each time ...
inline constexpr uint32_t kIpcSendWaits = 250;  ///< ... and that often: 5 s

/// User and group id of the account `user`. @retval 1 there is none
[[nodiscard]] uint32_t IpcUserGet(const char* user, uid_t* uid, gid_t* gid);

/// Whether an IPC object is the platform's own: owner and creator are this process's user, the superuser or
/// kIpcOwner, and nobody else may touch it.
[[nodiscard]] bool IpcIsOurs(const struct ipc_perm& perm);

/// Whether the queue is there and the platform's own; errno says why not, EPERM for the latter.
[[nodiscard]] bool IpcQueueIsOurs(int32_t queueId);

/// Opens the queue of `key`, or makes it, mode 0600.
/// @retval 1 it could not be had, or it is not the platform's own (errno EPERM); `*queueId` is -1 then
[[nodiscard]] uint32_t IpcQueueOpen(key_t key, int32_t* queueId);
[[nodiscard]] uint32_t IpcQueueRemove(int32_t queueId);  ///< @retval 1
/// Hands the queue to `user` (and that user's group); mode and size stay. @retval 1 no such user, or refused
[[nodiscard]] uint32_t ChangeQueenOwner(int32_t queueId, const char* user);

/// Messages in the queue and what tells whether its reader still reads.
struct IpcQueueState {
  uint64_t messages;
  uint64_t bytes;
  uint64_t bytesMax;
  int64_t sentAt;  ///< the kernel's second of the last send, 0 for never
  int64_t readAt;
  uint32_t sender;  ///< process of the last send, 0 for none
  uint32_t reader;  ///< ... and of the last read
};
/// @retval 1 the queue is gone or not ours
[[nodiscard]] uint32_t IpcQueueStateGet(int32_t queueId, IpcQueueState* state);

/// A moment's wait for the process at the other end of a queue.
void IpcPause();

/// Where frames go.
struct IpcTarget {
  int32_t queueId;
  int32_t semaphoreId;  ///< kSemapNone: nobody is woken
  uint32_t pid;         ///< 0: not known
};
/// What the frames of a message have in common.
struct IpcEnvelope {
  long priorityClass;
  uint32_t sourcePid;
  uint16_t sequence;
  bool urgent;
};
enum class IpcWait {
  kNever,  ///< one try
  kRetry,  ///< until there is room, 5 s of the runtime's clock for each frame
};

/// Sends one frame as it stands (type word, head, `length` bytes of payload) and raises the semaphore; that
/// it cannot be raised is logged and changes nothing.
/// @retval kIpcErrSend
[[nodiscard]] uint32_t IpcSendFrame(const IpcTarget& target, const IPC_MSG_S& frame, IpcWait wait);

/// Cuts `msg` and sends its frames one by one; the first that fails ends it. The frames' raises are made
/// together, at a full queue and at the end. The message stays the caller's.
/// @retval kIpcErrSend
[[nodiscard]] uint32_t IpcSendMessage(const IpcTarget& target, const IpcEnvelope& envelope,
                                      const tagMsgBuf* msg, IpcWait wait);

/// Reads the frames of one queue.
class IpcQueueReader {
 public:
  /// Every so many reads of an empty queue it is looked at for messages of classes that nobody reads: they
  /// keep senders waiting, so a reader that seldom comes looks more often.
  static constexpr uint32_t kEmptyReadsToLook = 64;

  explicit IpcQueueReader(int32_t queueId = -1, uint32_t emptyReadsToLook = kEmptyReadsToLook)
      : queueId_(queueId), emptyReadsToLook_(emptyReadsToLook) {}

  /// Takes the next frame of the lowest class without waiting. `*size` is what came behind the type word.
  /// `*sender` is the process that sent it, where the queue held nothing else; 0 where that is not known.
  /// A message that is too long for a frame, or of a class that nobody reads, comes as kIpcErrFrame: it is
  /// gone from the queue, and not to be used.
  /// @retval kIpcErrEmpty @retval kIpcErrFrame
  [[nodiscard]] uint32_t Read(IPC_MSG_S* frame, size_t* size, uint32_t* sender);

 private:
  ssize_t Receive(IPC_MSG_S* frame, bool any, uint32_t* ret) const;
  bool LooksEmpty(uint32_t* sender) const;

  int32_t queueId_;
  uint32_t emptyReadsToLook_;
  uint32_t emptyReads_ = 0;
  bool empty_ = false;  ///< the queue was, when it was last looked at
};
