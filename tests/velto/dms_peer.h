/// What dms_test and the process that it starts, dms_peer, share.
#pragma once

#include <stdint.h>

#include "velto/rtf.h"

inline constexpr char kPeerIp[] = "127.0.0.1";
inline constexpr uint32_t kTestProcess = 100;  ///< the test's own component process id
inline constexpr uint32_t kTestCsi = 4150;
inline constexpr uint32_t kPeerCsi = 4181;
inline constexpr uint32_t kPeerDisabledCsi = 4182;  ///< built, never enabled

/// Message ids that the peer's component understands. It answers with the id plus 100.
inline constexpr uint32_t kEcho = 1;   ///< the same data, reserved head and priority
inline constexpr uint32_t kCount = 3;  ///< 8 bytes: messages that are live in the peer, this one included

inline constexpr uint32_t CpiOf(uint32_t csi) {
  return csi | 0x80000000;
}

/// Builds an instance, and its type of the same number, with room for `length` messages; not enabled yet.
inline uint32_t BuildComponent(uint32_t csi, RtfCompMsgProc entry, uint32_t length) {
  const RtfCompTypeInfo type{"COMPONENT", "1.0.0", 1, nullptr, nullptr, entry};
  const RtfCompInst instance{csi, CpiOf(csi)};
  uint32_t result = RTF_CompTypeRegister(csi, &type);
  for (uint32_t stage = 0; stage < 3 && result == 0; ++stage) {
    result = RTF_CompInstCreate(stage, csi, &instance);
  }
  return result != 0 ? result : RTF_ScmCompStmMaxMsgNumSet(instance.cpi, 0, 0, length);
}
