/// What the main process knows, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "board_main/registry.h"
#include "msg/ipc_channel.h"

namespace board_main {

struct QueueFill {
  bool exists = false;
  IpcQueueState state = {};
};

struct AppStatus {
  RegisteredApp app;
  std::vector<uint16_t> modules;  ///< ascending
  uint64_t beatAgeMs = 0;
  QueueFill queue;
  size_t keptFrames = 0;  ///< that its full queue did not take
};

struct PlatformStatus {
  uint32_t pid = 0;
  QueueFill queue;
  size_t keptUnknown = 0;  ///< frames for modules that nobody has
  uint64_t lostFrames = 0;
  uint32_t heldQuestions = 0;  ///< authorisations that nobody has answered
  std::vector<AppStatus> apps;
};

[[nodiscard]] std::string StatusText(const PlatformStatus& status);
[[nodiscard]] std::string StatusJson(const PlatformStatus& status);  ///< one object

/// Ascending ids with neighbours joined: "5-7 1056".
[[nodiscard]] std::string IdRanges(const std::vector<uint16_t>& ids);

}  // namespace board_main
