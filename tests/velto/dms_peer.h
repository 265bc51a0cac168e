/// What dms_test and the process that it starts, dms_peer, agree on.
#pragma once

#include <stdint.h>

inline constexpr char kPeerIp[] = "127.0.0.1";
inline constexpr uint32_t kTestProcess = 100;  ///< the test's own component process id
inline constexpr uint32_t kTestCsi = 4150;
inline constexpr uint32_t kPeerCsi = 4181;
inline constexpr uint32_t kPeerDisabledCsi = 4182;  ///< built, never enabled
inline constexpr uint32_t kPeerQueueLength = 4;

/// Message ids that the peer's component understands. It answers with the id plus 100.
inline constexpr uint32_t kEcho = 1;   ///< the same data, reserved head and priority
inline constexpr uint32_t kCount = 3;  ///< 8 bytes: messages that are live in the peer, this one included

inline constexpr uint32_t CpiOf(uint32_t csi) {
  return csi | 0x80000000;
}
