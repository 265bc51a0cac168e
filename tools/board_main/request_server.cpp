#include "request_server.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "board_link/board_link.h"
#include "log/run_log.h"
#include "requester_comp.h"
#include "update/exe_script_proxy.h"
#include "velto/kel_task.h"

namespace {

constexpr uint32_t kProxyPriority = 20;
constexpr int kRequestWaitMs = 2000;  ///< a client sends at once; one that does not keeps the others waiting

struct ProxyRun {
  board_link::Request request;
  uint32_t result = 0;
};

void RunProxy(uintptr_t run, uintptr_t, uintptr_t, uintptr_t) {
  auto* job = reinterpret_cast<ProxyRun*>(run);
  job->result =
      ExeScriptProxy(kRequesterCompId, &job->request.record, job->request.needAuth, job->request.cpuLimit);
}

/// Runs the proxy in a task of its own: it waits for messages that the component's task takes.
uint32_t RunRequest(ProxyRun& run) {
  const uintptr_t arguments[4] = {reinterpret_cast<uintptr_t>(&run), 0, 0, 0};
  uint32_t task = 0;
  uint32_t result = KEL_TaskCreate("EXESCRIPTPROXY", &task, RunProxy, kProxyPriority, 0, 0, arguments);
  if (result == 0) result = KEL_TaskWait(task, KEL_WAIT_FOREVER);
  return result != 0 ? result : run.result;
}

void Serve(int client) {
  pollfd waiting = {client, POLLIN, 0};
  if (TEMP_FAILURE_RETRY(poll(&waiting, 1, kRequestWaitMs)) <= 0) return;
  unsigned char packet[board_link::kPacketMax];
  const ssize_t length = recv(client, packet, sizeof(packet), 0);
  ProxyRun run;
  if (length <= 0 ||
      !board_link::DecodeRequest(std::span(packet, static_cast<size_t>(length)), run.request)) {
    LOG_ERR(kRequesterCompId, "request of %zd bytes refused", length);
    return;
  }
  const uint32_t result = RunRequest(run);
  LOG_EVT(kRequesterCompId, "request result %u", result);
  const auto answer = board_link::EncodeAnswer(result);
  // A client that went away does not undo the update: its result stands in the log.
  (void)send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
}

}  // namespace

int ServeRequests(const char* socketPath) {
  const base::UniqueFd listener = board_link::Listen(socketPath);
  if (!listener) {
    (void)fprintf(stderr, "board_main: cannot listen at %s: %s\n", socketPath, strerror(errno));
    return 1;
  }
  for (;;) {
    const base::UniqueFd client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      (void)fprintf(stderr, "board_main: accept: %s\n", strerror(errno));
      return 1;
    }
    if (board_link::PeerIsTrusted(client.get())) {
      Serve(client.get());
    } else {
      LOG_ERR(kRequesterCompId, "request of another user refused");
    }
  }
}
