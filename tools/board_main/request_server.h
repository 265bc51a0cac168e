/// Takes update requests from `update_request` over the board's Unix socket, one after the other: the proxy
/// behind it serves one request at a time. Whoever asks meanwhile waits in the listen queue.
#pragma once

/// Serves until the socket fails. @return the process's exit status
[[nodiscard]] int ServeRequests(const char* socketPath);
