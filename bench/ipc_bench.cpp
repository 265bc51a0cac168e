/// Platform messages streaming from one process to another, from TOLA_MsgPost to TOLA_MsgRecv, beside ZeroMQ
/// over ipc:// and a SOCK_SEQPACKET pair, and beside what no message can beat: its frames through the bare
/// queue, from a sender that never waits to a reader that never sleeps. Runs on a board: it needs a name
/// space of queues of its own.
///
/// Every road has its own two processes, which stay for all rounds. A round sends so and so many messages and
/// ends when the receiver has told that it has them all; rounds of the roads alternate, medians are compared.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "msg/ipc_main_msg.h"
#include "msg/ipc_manager.h"
#include "msg/msg_interface_public.h"
#include "msg/semap.h"
#include "velto/kel_cfg.h"
#include "velto/kel_task.h"

namespace {

constexpr uint16_t kTo = 42;
constexpr uint32_t kWake = 1;
constexpr uint32_t kQueueLength = 32768;
constexpr int kRounds = 61;  // of a few milliseconds: most of them end before others want the processors
constexpr char kZmqEnd[] = "ipc:///tmp/ipc_bench.zmq";

struct Round {
  uint32_t size;
  uint32_t count;
};

[[noreturn]] void Fail(const char* what) {
  perror(what);
  exit(1);
}
void Check(bool good, const char* what) {
  if (!good) Fail(what);
}

void WriteAll(int fd, const void* data, size_t size) {
  Check(write(fd, data, size) == static_cast<ssize_t>(size), "write");
}
/// False at the end of the run.
bool ReadAll(int fd, void* data, size_t size) {
  return read(fd, data, size) == static_cast<ssize_t>(size);
}

/// One road: a sending and a receiving process that do rounds when they are told to.
class Road {
 public:
  using Send = std::function<void(const Round&)>;
  using Receive = std::function<void(const Round&)>;

  Road(const char* name, const std::function<Send()>& sender, const std::function<Receive()>& receiver)
      : name_(name) {
    receiver_ = Start(receiver);
    sender_ = Start(sender);
  }
  ~Road() {
    for (const Process& process : {receiver_, sender_}) kill(process.id, SIGKILL);
  }
  Road(const Road&) = delete;
  Road& operator=(const Road&) = delete;

  double Run(const Round& round) {
    WriteAll(receiver_.to, &round, sizeof(round));
    WriteAll(sender_.to, &round, sizeof(round));
    const auto start = std::chrono::steady_clock::now();
    char done = 0;
    Check(ReadAll(receiver_.from, &done, 1), name_);
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
    Check(ReadAll(sender_.from, &done, 1), name_);
    return time.count() / round.count;
  }
  [[nodiscard]] const char* name() const { return name_; }

 private:
  struct Process {
    int to;
    int from;
    pid_t id;
  };

  static Process Start(const std::function<std::function<void(const Round&)>()>& prepare) {
    int to[2];
    int from[2];
    Check(pipe2(to, O_CLOEXEC) == 0 && pipe2(from, O_CLOEXEC) == 0, "pipe");
    const pid_t id = fork();
    if (id == 0) {
      close(to[1]);
      close(from[0]);
      const auto step = prepare();
      WriteAll(from[1], "", 1);
      Round round = {};
      while (ReadAll(to[0], &round, sizeof(round))) {
        step(round);
        WriteAll(from[1], "", 1);
      }
      _exit(0);
    }
    close(to[0]);
    close(from[1]);
    char ready = 0;
    Check(ReadAll(from[0], &ready, 1), "start");
    return {to[1], from[0], id};
  }

  const char* name_;
  Process receiver_;
  Process sender_;
};

// ours

/// Answers registrations, as the platform's main process does.
[[noreturn]] void MainProcess() {
  int32_t queueId = -1;
  int32_t semapId = -1;
  Check(IpcQueueOpen(ftok(kIpcMainPath, kIpcProject), &queueId) == 0, "main queue");
  Check(CreateSemap(kSemapPublicKey, &semapId) == 0, "public semaphore");
  Check(TOLA_MsgManagerInit() == 0, "message manager");
  IpcQueueReader reader(queueId);
  IpcReassembly reassembly;
  IpcAcknowledgeMsg table = {};
  table.version = kIpcMainMsgVersion;
  table.mainPid = static_cast<uint32_t>(getpid());
  memset(table.map, kIpcNoApp, sizeof(table.map));
  for (;;) {
    (void)OperSemap(semapId, -1, 1000);
    IPC_MSG_S frame;
    size_t size = 0;
    uint32_t sender = 0;
    tagMsgBuf* msg = nullptr;
    while (reader.Read(&frame, &size, &sender) == 0 && reassembly.Take(frame, size, &msg) == 0) {
      IpcRegisterMsg request;
      if (msg->type == kIpcRegister) {
        memcpy(&request, TolaMsgData(msg), sizeof(request));
        table.apps[table.count] = {request.queueId, request.pid, request.moduleId, request.semaphoreId};
        if (request.count != 0) table.map[kTo] = static_cast<uint8_t>(table.count);
        table.ownIndex = table.count++;
        tagMsgBuf* answer = TOLA_MsgAlloc(kIpcModule, kIpcAcknowledge, 0, sizeof(table));
        memcpy(TolaMsgData(answer), &table, sizeof(table));
        const IpcTarget target = {static_cast<int32_t>(request.queueId), request.semaphoreId, request.pid};
        const IpcEnvelope envelope = {kIpcClassDefault, table.mainPid, 0, false};
        Check(IpcSendMessage(target, envelope, answer, IpcWait::kRetry) == 0, "acknowledge");
        TOLA_MsgFree(answer);
      }
      TOLA_MsgFree(msg);
    }
  }
}

void StartManager(const char* name, bool receives) {
  uint32_t task = 0;
  Check(setenv("TOLA_ROOT_DIR", "/tmp/", 1) == 0, "environment");
  Check(KEL_Start(nullptr) == 0 && KEL_TaskCurrentIdGet(&task) == 0 && TOLA_MsgManagerInit() == 0,
        "message manager");
  if (receives) Check(TOLA_MsgModuleRegister(kTo, task, kWake, kQueueLength) == 0, "module");
  TOLA_APP_REG_INFO_S info = {};
  strcpy(info.name, name);
  close(open((std::string("/tmp/") + name).c_str(), O_CREAT | O_CLOEXEC, 0600));
  const uint32_t ret = TolaFeatureIpcMgrInit(&info);
  if (ret != 0) fprintf(stderr, "IPC manager: %u\n", ret);
  Check(ret == 0, "IPC manager");
  if (!receives) usleep(300'000);  // until the main process has told where the receiver is
}

void ReceiveOurs(const Round& round) {
  for (uint32_t got = 0; got < round.count;) {
    tagMsgBuf* msg = nullptr;
    if (TOLA_MsgRecv(kTo, &msg, 0) != 0) {
      uint32_t events = 0;
      Check(KEL_EventRead(kWake, &events, kKelEventAny, KEL_WAIT_FOREVER) == 0, "event");
      continue;
    }
    Check(GetTolaMsgLen(msg) == round.size, "length");
    TOLA_MsgFree(msg);
    ++got;
  }
}

void SendOurs(const Round& round) {
  for (uint32_t i = 0; i < round.count; ++i) {
    tagMsgBuf* msg = TOLA_MsgAlloc(7, 1, 2, round.size);
    memset(TolaMsgData(msg), 'x', round.size);
    Check(TOLA_MsgPost(kTo, msg, 1) == 0, "post");
  }
}

// the floor

int g_bareQueue = -1;

void SendBare(const Round& round) {
  IPC_MSG_S frame = {};
  frame.type = kIpcClassDefault;
  for (uint32_t i = 0; i < round.count; ++i) {
    for (uint32_t rest = round.size + kMsgHeadSize; rest != 0;) {
      const uint32_t length = std::min(rest, kIpcPayloadMax);
      while (msgsnd(g_bareQueue, &frame, kIpcFrameHead + length, IPC_NOWAIT) != 0) IpcPause();
      rest -= length;
    }
  }
}

void ReceiveBare(const Round& round) {
  IPC_MSG_S frame;
  for (uint32_t left = round.count * IpcFrameCount(round.size); left != 0;) {
    msgrcv(g_bareQueue, &frame, kIpcFrameMax, -kIpcClassLast, IPC_NOWAIT) < 0 ? IpcPause() : void(--left);
  }
}

// the peers

Road::Receive ReceiveZmq() {
  void* socket = zmq_socket(zmq_ctx_new(), ZMQ_PULL);
  Check(zmq_bind(socket, kZmqEnd) == 0, "zmq_bind");
  return [socket](const Round& round) {
    for (uint32_t got = 0; got < round.count; ++got) {
      zmq_msg_t msg;
      zmq_msg_init(&msg);
      Check(zmq_msg_recv(&msg, socket, 0) == static_cast<int>(round.size), "zmq_msg_recv");
      zmq_msg_close(&msg);
    }
  };
}

Road::Send SendZmq() {
  void* socket = zmq_socket(zmq_ctx_new(), ZMQ_PUSH);
  Check(zmq_connect(socket, kZmqEnd) == 0, "zmq_connect");
  return [socket](const Round& round) {
    for (uint32_t i = 0; i < round.count; ++i) {
      zmq_msg_t msg;
      zmq_msg_init_size(&msg, round.size);
      memset(zmq_msg_data(&msg), 'x', round.size);
      Check(zmq_msg_send(&msg, socket, 0) == static_cast<int>(round.size), "zmq_msg_send");
    }
  };
}

int g_pair[2];

void SendPacket(const Round& round) {
  const std::string data(round.size, 'x');
  for (uint32_t i = 0; i < round.count; ++i) {
    Check(send(g_pair[0], data.data(), data.size(), 0) == static_cast<ssize_t>(round.size), "send");
  }
}

void ReceivePacket(const Round& round) {
  std::string data(round.size, '\0');
  for (uint32_t got = 0; got < round.count; ++got) {
    Check(recv(g_pair[1], data.data(), data.size(), 0) == static_cast<ssize_t>(round.size), "recv");
  }
}

void Compare(const std::vector<Road*>& roads, const char* what, const Round& round, double goal) {
  std::vector<std::vector<double>> times(roads.size());
  for (int i = 0; i < kRounds; ++i) {
    for (size_t road = 0; road < roads.size(); ++road) times[road].push_back(roads[road]->Run(round));
  }
  std::vector<double> medians;
  for (auto& list : times) {
    std::nth_element(list.begin(), list.begin() + kRounds / 2, list.end());
    medians.push_back(list[kRounds / 2]);
  }
  printf("  %-34s %9.2f us  %-18s %9.2f us  ratio %5.2f  goal %.2f  %s %9.2f us  ratio %5.2f\n", what,
         medians[0], roads[1]->name(), medians[1], medians[0] / medians[1], goal, roads[2]->name(),
         medians[2], medians[0] / medians[2]);
}

}  // namespace

int main() {
  signal(SIGPIPE, SIG_IGN);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const pid_t mainProcess = fork();
  if (mainProcess == 0) MainProcess();
  g_bareQueue = msgget(IPC_PRIVATE, 0600);
  Check(g_bareQueue >= 0, "bare queue");
  Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, g_pair) == 0, "socketpair");
  {
    Road ours(
        "ours", [] { return StartManager("bench_send", false), Road::Send(SendOurs); },
        [] { return StartManager("bench_recv", true), Road::Receive(ReceiveOurs); });
    Road zmq("ZeroMQ ipc://", SendZmq, ReceiveZmq);
    Road packet(
        "SOCK_SEQPACKET", [] { return SendPacket; }, [] { return ReceivePacket; });
    Road bare(
        "bare queue", [] { return SendBare; }, [] { return ReceiveBare; });
    Compare({&ours, &packet, &bare}, "100 B between processes", {100, 4000}, 1.60);
    Compare({&ours, &zmq, &bare}, "4 KiB with its header, one frame", {4064, 1000}, 0.75);
    Compare({&ours, &zmq, &bare}, "4 KiB of data, two frames", {4096, 1000}, 0.75);
    Compare({&ours, &zmq, &bare}, "64 KiB", {65536, 100}, 0.65);
    Compare({&ours, &zmq, &bare}, "1 MiB", {1u << 20, 8}, 1.30);
  }
  kill(mainProcess, SIGKILL);
  while (wait(nullptr) > 0 || errno == EINTR) {
  }
  return 0;
}
