#include "board_main/request_server.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <atomic>
#include <exception>
#include <mutex>
#include <string>

#include "board_link/board_link.h"
#include "board_main/authorisation.h"
#include "board_main/main_queue.h"
#include "board_main/requester_comp.h"
#include "log/run_log.h"
#include "update/exe_script_proxy.h"
#include "velto/kel_task.h"

namespace board_main {
namespace {

using board_link::Authorisation;
using board_link::Kind;

constexpr uint32_t kTaskPriority = 20;
constexpr int kRequestWaitMs = 2000;  ///< a client sends at once
constexpr uint32_t kClientsMax = 32;
constexpr uint32_t kFullWaitMs = 20;

struct Answer {
  uint32_t result = 0;
  std::string text;
};

std::atomic<uint32_t> g_clients;

/// Runs in a task of its own: it waits for messages that the component's task takes.
uint32_t RunUpdate(board_link::Request& request) {
  uint32_t task = 0;
  if (KEL_TaskCurrentIdGet(&task) != 0) return 1;
  const AuthAnnouncement announcement(task, request.authorisation);
  static std::mutex turn;
  std::unique_lock lock(turn, std::defer_lock);
  if (request.authorisation != Authorisation::kHold) lock.lock();
  // Only a question that the proxy is to grant is announced to it: it would ask again within seconds while
  // nobody answers.
  const bool needAuth = request.authorisation == Authorisation::kGrant;
  const uint32_t result = ExeScriptProxy(kRequesterCompId, &request.record, needAuth, request.cpuLimit);
  LOG_EVT(kRequesterCompId, "request result %u", result);
  return result;
}

Answer DebugAnswer(const board_link::Request& request, MainQueue& mainQueue) {
  uint16_t result = 0;
  if (!mainQueue.Debug(request.app, request.words, result))
    return {board_link::kNoSuchApp, "no such application, or its fault agent does not answer"};
  return {result, "the fault agent's result is " + std::to_string(result)};
}

Answer AnswerTo(board_link::Request& request, MainQueue& mainQueue) {
  const auto named = [](bool done, const char* what) {
    return done ? Answer{0, what} : Answer{board_link::kNoSuchApp, "no such application"};
  };
  switch (request.kind) {
    case Kind::kUpdate:
      return {RunUpdate(request), {}};
    case Kind::kStatus:
      return {0, request.json ? StatusJson(mainQueue.Status()) : StatusText(mainQueue.Status())};
    case Kind::kRelease: {
      const uint32_t count = AuthRelease();
      return {count == 0 ? 1U : 0U, std::to_string(count) + " authorisations granted"};
    }
    case Kind::kRestart:
      return named(mainQueue.RestartApp(request.app), "it is ended and started again");
    case Kind::kRegisterAgain:
      return named(mainQueue.RegisterAgain(request.app), "its fault agent was asked to register again");
    case Kind::kDebug:
      return DebugAnswer(request, mainQueue);
  }
  return {1, "unknown request"};
}

void Serve(int client, MainQueue& mainQueue) {
  pollfd waiting = {client, POLLIN, 0};
  if (TEMP_FAILURE_RETRY(poll(&waiting, 1, kRequestWaitMs)) <= 0) return;
  std::vector<unsigned char> packet(board_link::kPacketMax);
  const ssize_t length = recv(client, packet.data(), packet.size(), 0);
  board_link::Request request;
  if (length <= 0 ||
      !board_link::DecodeRequest(std::span(packet).first(static_cast<size_t>(length)), request)) {
    LOG_ERR(kRequesterCompId, "request of %zd bytes refused", length);
    return;
  }
  const Answer answer = AnswerTo(request, mainQueue);
  packet = board_link::EncodeAnswer(answer.result, answer.text);
  // A client that went away does not undo the update: its result stands in the log.
  (void)send(client, packet.data(), packet.size(), MSG_NOSIGNAL);
}

void ServeTask(uintptr_t client, uintptr_t mainQueue, uintptr_t, uintptr_t) {
  const base::UniqueFd owned(static_cast<int>(client));
  try {
    Serve(owned.get(), *reinterpret_cast<MainQueue*>(mainQueue));
  } catch (const std::exception& error) {
    LOG_ERR(kRequesterCompId, "request failed: %s", error.what());
  }
  --g_clients;
}

/// Hands the client to a task; without one it is closed, and says so to its user.
void StartServing(base::UniqueFd client, MainQueue& mainQueue) {
  while (g_clients >= kClientsMax) KEL_TaskDelay(kFullWaitMs);
  const uintptr_t arguments[4] = {static_cast<uintptr_t>(client.get()),
                                  reinterpret_cast<uintptr_t>(&mainQueue), 0, 0};
  uint32_t task = 0;
  ++g_clients;
  if (KEL_TaskCreate("REQUEST", &task, ServeTask, kTaskPriority, 0, 0, arguments) != 0) {
    --g_clients;
    LOG_ERR(kRequesterCompId, "no task for a request");
    return;
  }
  (void)client.release();  // the task's now
}

}  // namespace

int ServeRequests(const char* socketPath, MainQueue& mainQueue) {
  const base::UniqueFd listener = board_link::Listen(socketPath);
  if (!listener) {
    (void)fprintf(stderr, "board_main: cannot listen at %s: %s\n", socketPath, strerror(errno));
    return 1;
  }
  for (;;) {
    base::UniqueFd client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!client) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      (void)fprintf(stderr, "board_main: accept: %s\n", strerror(errno));
      return 1;
    }
    if (board_link::PeerIsTrusted(client.get())) {
      StartServing(std::move(client), mainQueue);
    } else {
      LOG_ERR(kRequesterCompId, "request of another user refused");
    }
  }
}

}  // namespace board_main
