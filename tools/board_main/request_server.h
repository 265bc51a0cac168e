/// Takes requests from `update_request` over the board's Unix socket, each in a task of its own.
///
/// Updates run one after the other, as their executor takes them; one whose authorisation is held does not
/// keep the others waiting.
#pragma once

namespace board_main {

class MainQueue;

/// Serves until the socket fails. @return the process's exit status
[[nodiscard]] int ServeRequests(const char* socketPath, MainQueue& mainQueue);

}  // namespace board_main
