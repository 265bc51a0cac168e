/// What a process and the platform's main process tell each other: platform messages from module 37 to module
/// 37, handled by the IPC managers themselves. Fixed layouts, the machine's order, no padding; docs/ipc.md
/// has them as tables.
#pragma once

#include <stdint.h>

inline constexpr uint16_t kIpcModule = 37;  ///< source and destination of these messages
inline constexpr uint32_t kIpcMainMsgVersion = 1;

/// Message types.
enum IpcMainMsgType : uint16_t {
  kIpcRegister = 1,      ///< process to main: IpcRegisterMsg, then `count` module ids
  kIpcAcknowledge = 2,   ///< main to every registered process, at each change: IpcAcknowledgeMsg
  kIpcModuleChange = 3,  ///< process to main: IpcModuleChangeMsg, then `count` module ids
  kIpcHeartBeat = 4,     ///< process to main: IpcHeartBeatMsg
  kIpcReboot = 5,        ///< process to main: IpcRebootMsg
};

inline constexpr uint32_t kIpcAppMax = 64;
inline constexpr uint32_t kIpcNameSize = 256;         ///< with the terminator
inline constexpr uint32_t kIpcVersionTextSize = 32;   ///< with the terminator
inline constexpr uint32_t kIpcRegisterIdsMax = 1872;  ///< what one frame holds; more follow as changes
inline constexpr uint16_t kIpcIdPlatformEnd = 1857;   ///< module ids 0 .. 1856 ...
inline constexpr uint16_t kIpcIdCompFirst =
    4096;  ///< ... and components 4096 .. 4287 have a place in the map
inline constexpr uint16_t kIpcIdCompEnd = 4288;
inline constexpr uint32_t kIpcMapSize = kIpcIdPlatformEnd + (kIpcIdCompEnd - kIpcIdCompFirst);
inline constexpr uint8_t kIpcNoApp = 0xFF;    ///< in the map; every index above 63 means "not known"
inline constexpr uint8_t kIpcMainApp = 0xFE;  ///< the main process's own: no application gets it
inline constexpr uint32_t kIpcNoPlace = 0xFFFFFFFF;

/// Place of a module id in the map, or kIpcNoPlace.
constexpr uint32_t IpcMapPlace(uint16_t moduleId) {
  if (moduleId < kIpcIdPlatformEnd) return moduleId;
  if (moduleId >= kIpcIdCompFirst && moduleId < kIpcIdCompEnd)
    return static_cast<uint32_t>(kIpcIdPlatformEnd) + (moduleId - kIpcIdCompFirst);
  return kIpcNoPlace;
}

struct IpcRegisterMsg {
  uint32_t version;  ///< kIpcMainMsgVersion
  uint32_t pid;
  uint32_t queueId;     ///< msgget(2)'s, the process's own queue
  int32_t semaphoreId;  ///< semget(2)'s, raised after every frame; -1: none
  uint16_t moduleId;    ///< the process's platform module, which takes the main process's requests
  uint8_t supervise;    ///< not 0: its heart beats are watched
  uint8_t appArmRestart;
  uint32_t intervalMs;  ///< between its heart beats, as it tells them
  uint32_t timeoutS;    ///< without a heart beat for this long it is taken for dead
  char name[kIpcNameSize];
  char versionText[kIpcVersionTextSize];
  uint16_t count;  ///< module ids that follow, each uint16_t
  uint16_t reserved;
};
static_assert(sizeof(IpcRegisterMsg) == 320);

/// One application as every process knows it (queue 0: the place is free).
struct APP_QUEUE_INFO_S {
  uint32_t queueId;
  uint32_t pid;
  uint32_t moduleId;
  int32_t semaphoreId;
};
static_assert(sizeof(APP_QUEUE_INFO_S) == 16);

struct IpcAcknowledgeMsg {
  uint32_t version;
  uint32_t result;  ///< 0: the receiver is registered; else why not, and the rest says nothing
  uint32_t mainPid;
  uint16_t ownIndex;  ///< the receiver's place in `apps`
  uint16_t count;     ///< places of `apps` that are taken
  APP_QUEUE_INFO_S apps[kIpcAppMax];
  uint8_t map[kIpcMapSize];  ///< application index by IpcMapPlace
  uint8_t reserved[3];
};
static_assert(sizeof(IpcAcknowledgeMsg) == 3092);

struct IpcModuleChangeMsg {
  uint32_t pid;
  uint16_t operation;  ///< 0 added, 1 removed
  uint16_t count;      ///< module ids that follow, each uint16_t
};
static_assert(sizeof(IpcModuleChangeMsg) == 8);

struct IpcHeartBeatMsg {
  uint32_t pid;
  uint32_t counter;  ///< grows by one with every beat
};
static_assert(sizeof(IpcHeartBeatMsg) == 8);

enum IpcRebootKind : uint32_t { kIpcRebootByName = 0, kIpcRebootById = 1 };
struct IpcRebootMsg {
  uint32_t pid;  ///< who asks
  uint32_t kind;
  uint32_t appId;  ///< the application's platform module id, by id
  char name[kIpcNameSize];
};
static_assert(sizeof(IpcRebootMsg) == 268);
