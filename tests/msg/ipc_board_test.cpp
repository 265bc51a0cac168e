/// Runs on a board: real queues and semaphores. The test is the main process and an application in one; its
/// frames leave the destination process open, since they come from and go to this very process.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "msg/ipc_manager.h"
#include "msg/semap.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"
#include "velto/kel_clock.h"
#include "velto/kel_task.h"

namespace {

using support::MsgPtr;
using support::NewMsg;
using support::Same;

constexpr uint16_t kHere = 42;       ///< a module of this process
constexpr uint16_t kElsewhere = 77;  ///< a module of the application that the test plays
constexpr uint16_t kNobody = 99;
constexpr uint16_t kMains = 41;  ///< the main process's own

/// Waits for what another task or process does, 40 s at most.
bool Becomes(const std::function<bool()>& condition) {
  for (int i = 0; i < 8000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

/// A queue without a name that is gone with the test.
class Queue {
 public:
  Queue() : id_(msgget(IPC_PRIVATE, 0600)), reader_(id_) {}
  ~Queue() { (void)IpcQueueRemove(id_); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  [[nodiscard]] int32_t id() const { return id_; }
  [[nodiscard]] IpcTarget target() const { return {id_, kSemapNone, 0}; }
  IpcQueueReader& reader() { return reader_; }

  /// The next whole message, or null when there is none yet.
  MsgPtr Next(IpcReassembly& reassembly) { return Next(reader_, reassembly); }
  static MsgPtr Next(IpcQueueReader& reader, IpcReassembly& reassembly) {
    IPC_MSG_S frame;
    size_t size = 0;
    uint32_t sender = 0;
    tagMsgBuf* msg = nullptr;
    while (msg == nullptr && reader.Read(&frame, &size, &sender) == 0) {
      EXPECT_EQ(reassembly.Take(frame, size, &msg), 0u);
    }
    return MsgPtr(msg);
  }

 private:
  int32_t id_;
  IpcQueueReader reader_;
};

IpcEnvelope Envelope(long priorityClass, uint16_t sequence) {
  return {priorityClass, static_cast<uint32_t>(getpid()), sequence, false};
}

class IpcChannelTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (TOLA_MsgManagerInit() != 0) abort();
  }
  support::LogCapture log_;
};

TEST_F(IpcChannelTest, FullQueueIsTriedForFiveSecondsOrNotAtAll) {
  Queue queue;
  const MsgPtr msg = NewMsg(kHere, 4064);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(IpcSendMessage(queue.target(), Envelope(4, 1), msg.get(), IpcWait::kNever), 0u);
  }
  KEL_ClockModeSet(kKelClockAutoAdvance);
  const uint64_t start = KEL_ClockMonotonicNs();
  EXPECT_EQ(IpcSendMessage(queue.target(), Envelope(4, 1), msg.get(), IpcWait::kNever), kIpcErrSend);
  EXPECT_EQ(KEL_ClockMonotonicNs(), start) << "one try must not wait";
  EXPECT_EQ(IpcSendMessage(queue.target(), Envelope(4, 1), msg.get(), IpcWait::kRetry), kIpcErrSend);
  EXPECT_NEAR(static_cast<double>(KEL_ClockMonotonicNs() - start), 5e9, 0.05e9);
  KEL_ClockModeSet(kKelClockReal);
  EXPECT_EQ(IpcSendMessage({queue.id() + 1, kSemapNone, 0}, Envelope(4, 1), msg.get(), IpcWait::kRetry),
            kIpcErrSend)
      << "a queue that is gone is no full one";
}

TEST_F(IpcChannelTest, LowestClassComesFirstAndALoneSenderIsKnown) {
  Queue queue;
  for (const int order : {5, 4, 2, 4, 1}) {
    const MsgPtr msg = NewMsg(kHere, 4);
    ASSERT_EQ(IpcSendMessage(queue.target(), Envelope(order, 1), msg.get(), IpcWait::kNever), 0u);
  }
  const MsgPtr msg = NewMsg(kHere, 4);
  IPC_MSG_S frame;
  size_t size = 0;
  uint32_t sender = 0;
  for (const long order : {1, 2, 4, 4, 5}) {
    ASSERT_EQ(queue.reader().Read(&frame, &size, &sender), 0u);
    EXPECT_EQ(frame.type, order);
    EXPECT_EQ(sender, 0u) << "who sent one of several is not known";
  }
  EXPECT_EQ(queue.reader().Read(&frame, &size, &sender), kIpcErrEmpty);
  const pid_t child = fork();
  if (child == 0) {
    _exit(static_cast<int>(IpcSendMessage(queue.target(), Envelope(4, 1), msg.get(), IpcWait::kNever)));
  }
  waitpid(child, nullptr, 0);
  ASSERT_EQ(queue.reader().Read(&frame, &size, &sender), 0u);
  EXPECT_EQ(sender, static_cast<uint32_t>(child)) << "it claims to come from its parent";
}

TEST_F(IpcChannelTest, WhatNobodyReadsDoesNotFillTheQueue) {
  Queue queue;
  struct {
    long type;
    char data[5000];
  } tooLong = {4, {}};
  ASSERT_EQ(msgsnd(queue.id(), &tooLong, sizeof(tooLong.data), IPC_NOWAIT), 0);
  tooLong.type = 6;
  for (int i = 0; i < 10; ++i) ASSERT_EQ(msgsnd(queue.id(), &tooLong, 1000, IPC_NOWAIT), 0);
  IPC_MSG_S frame;
  size_t size = 0;
  uint32_t sender = 0;
  int bad = 0;
  for (int i = 0; i < 200; ++i) bad += queue.reader().Read(&frame, &size, &sender) == kIpcErrFrame ? 1 : 0;
  EXPECT_EQ(bad, 11);
  IpcQueueState state = {};
  EXPECT_EQ(IpcQueueStateGet(queue.id(), &state), 0u);
  EXPECT_EQ(state.messages, 0u);
}

TEST_F(IpcChannelTest, ObjectsThatOthersMayTouchAreRefusedAndLeftAlone) {
  constexpr int32_t kKey = 0x1234567;
  const int queueId = msgget(kKey, IPC_CREAT | 0622);
  const int semapId = semget(kKey, 1, IPC_CREAT | 0606);
  int32_t id = 0;
  EXPECT_EQ(IpcQueueOpen(kKey, &id), 1u);
  EXPECT_EQ(id, -1);
  EXPECT_EQ(CreateSemap(kKey, &id), 1u);
  EXPECT_EQ(id, kSemapNone);
  EXPECT_EQ(IpcQueueRemove(queueId), 0u) << "it had been removed";
  EXPECT_EQ(DeleteSemap(semapId), 0u);
  EXPECT_EQ(IpcQueueOpen(kKey, &id), 0u);
  EXPECT_EQ(ChangeQueenOwner(id, "no_such_user"), 1u);
  EXPECT_EQ(ChangeQueenOwner(id, kIpcOwner), 0u);
  struct msqid_ds state = {};
  ASSERT_EQ(msgctl(id, IPC_STAT, &state), 0);
  EXPECT_EQ(state.msg_qbytes, 16384u) << "size and mode are what the queue had";
  EXPECT_EQ(state.msg_perm.mode & 0777, 0600);
  EXPECT_EQ(IpcQueueRemove(id), 0u);
}

/// One manager and one main process for all cases, which build on each other in this order.
class IpcManagerTest : public IpcChannelTest {
 protected:
  static void SetUpTestSuite() {
    IpcChannelTest::SetUpTestSuite();
    if (KEL_TaskAdopt("test", &s_task) != 0) abort();
    if (TOLA_MsgModuleRegister(kHere, s_task, 1, 64) != 0) abort();
    setenv("TOLA_ROOT_DIR", "/tmp/", 1);
    if (IpcQueueOpen(ftok(kIpcMainPath, kIpcProject), &s_mainId) != 0) abort();
    s_main = IpcQueueReader(s_mainId);
    s_app = new Queue;
  }

  static uint32_t Init() {
    const TOLA_APP_MODULE_INFO_S module = {1056};
    TOLA_APP_REG_INFO_S info = {"program", "1.0.0", &module, 10000, 120, 1, 1};
    return TolaFeatureIpcMgrInit(&info);
  }

  /// The next message of `type` that the main process finds, heart beats and the like passed over.
  static MsgPtr AtMain(uint16_t type) {
    MsgPtr found;
    Becomes([&] {
      while ((found = Queue::Next(s_main, s_reassembly)) != nullptr) {
        if (found->type == type) return true;
      }
      return false;
    });
    return found;
  }

  /// What the main process tells: this process's modules and those of the application.
  static MsgPtr Acknowledge(uint32_t mainPid) {
    MsgPtr msg(TOLA_MsgAlloc(kIpcModule, kIpcAcknowledge, 0, sizeof(IpcAcknowledgeMsg)));
    msg->destination = kIpcModule;
    IpcAcknowledgeMsg table = {};
    table.version = kIpcMainMsgVersion;
    table.mainPid = mainPid;
    table.ownIndex = 3;
    table.count = 2;
    table.apps[3] = {s_registered.queueId, s_registered.pid, 1056, s_registered.semaphoreId};
    table.apps[5] = {static_cast<uint32_t>(s_app->id()), 1, 0, kSemapNone};
    memset(table.map, kIpcNoApp, sizeof(table.map));
    table.map[kHere] = 3;
    table.map[kElsewhere] = 5;
    table.map[kMains] = kIpcMainApp;
    memcpy(TolaMsgData(msg.get()), &table, sizeof(table));
    return msg;
  }

  static IpcTarget Own() { return {static_cast<int32_t>(s_registered.queueId), s_registered.semaphoreId, 0}; }
  static uint32_t SendHere(const tagMsgBuf* msg) {
    return IpcSendMessage(Own(), Envelope(4, s_sequence++), msg, IpcWait::kRetry);
  }
  static MsgPtr ReceiveHere() {
    tagMsgBuf* msg = nullptr;
    Becomes([&] { return TOLA_MsgRecv(kHere, &msg, 0) == 0; });
    return MsgPtr(msg);
  }
  bool Logged(const std::string& line) {
    return Becomes([&] {
      const std::vector<std::string> lines = log_.Lines();
      return std::find(lines.begin(), lines.end(), line) != lines.end();
    });
  }

  static inline uint32_t s_task = 0;
  static inline int32_t s_mainId = -1;
  static inline IpcQueueReader s_main{-1};
  static inline IpcReassembly s_reassembly{0};
  static inline Queue* s_app = nullptr;
  static inline IpcRegisterMsg s_registered = {};
  static inline uint16_t s_sequence = 1000;
};

TEST_F(IpcManagerTest, A_MainProcessThatNeverReadsHoldsUpNobody) {
  const int32_t key = ftok("/tmp/program", kIpcProject);
  int32_t stale = -1;
  ASSERT_EQ(IpcQueueOpen(key, &stale), 0u);
  ASSERT_EQ(IpcSendMessage({stale, kSemapNone, 0}, Envelope(4, 1), NewMsg(kHere, 4).get(), IpcWait::kNever),
            0u);
  ASSERT_EQ(Init(), 0u);
  IpcQueueState state = {};
  EXPECT_EQ(IpcQueueStateGet(stale, &state), 1u) << "frames for an earlier process would be read";
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // 25 ticks go by
  ASSERT_EQ(IpcQueueStateGet(s_mainId, &state), 0u);
  EXPECT_LE(state.messages, 2u) << "heart beats pile up in everybody's queue";
}

TEST_F(IpcManagerTest, B_RegistrationIsRepeatedUntilItIsAcknowledged) {
  for (int i = 0; i < 2; ++i) {
    const MsgPtr msg = AtMain(kIpcRegister);
    ASSERT_NE(msg, nullptr);
    memcpy(&s_registered, TolaMsgData(msg.get()), sizeof(s_registered));
    ASSERT_EQ(GetTolaMsgLen(msg.get()), sizeof(s_registered) + 2);
    EXPECT_EQ(TolaMsgData(msg.get())[sizeof(s_registered)], kHere);
  }
  EXPECT_STREQ(s_registered.name, "program");
  EXPECT_STREQ(s_registered.versionText, "1.0.0");
  EXPECT_EQ(s_registered.pid, static_cast<uint32_t>(getpid()));
  EXPECT_EQ(s_registered.moduleId, 1056);
  EXPECT_EQ(s_registered.intervalMs, 10000u);
  EXPECT_EQ(s_registered.timeoutS, 120u);
  EXPECT_EQ(s_registered.supervise, 1);

  EXPECT_EQ(SendHere(Acknowledge(1).get()), 0u);
  EXPECT_TRUE(Logged("Inter Msgtype:0x2 Err:0x1")) << "taken from a process that is not the main process";
  const auto own = Own();
  const pid_t child = fork();
  if (child == 0) {  // not even from one that says it were
    const auto self = static_cast<uint32_t>(getpid());
    _exit(
        static_cast<int>(IpcSendMessage(own, {4, self, 1, false}, Acknowledge(self).get(), IpcWait::kNever)));
  }
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(Becomes([&] {
    const auto lines = log_.Lines();
    return std::count(lines.begin(), lines.end(), "Inter Msgtype:0x2 Err:0x1") == 2;
  }));
  EXPECT_EQ(SendHere(Acknowledge(static_cast<uint32_t>(getpid())).get()), 0u);
  uint32_t registrations = 0;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  while (std::chrono::steady_clock::now() < end) {
    const MsgPtr msg = Queue::Next(s_main, s_reassembly);
    if (msg == nullptr) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (msg != nullptr && msg->type == kIpcRegister) ++registrations;
  }
  EXPECT_LE(registrations, 1u) << "only one that was under way";
  EXPECT_NE(AtMain(kIpcHeartBeat), nullptr);
}

TEST_F(IpcManagerTest, C_MessagesOfEveryLengthComeAndGo) {
  IpcReassembly reassembly;
  for (const uint32_t length : {0u, 4064u, 4065u, 65538u, kMsgMaxDataLength}) {
    const MsgPtr in = NewMsg(kHere, length);
    ASSERT_EQ(SendHere(in.get()), 0u) << length;
    const MsgPtr received = ReceiveHere();
    ASSERT_TRUE(received != nullptr && Same(received.get(), in.get())) << length;

    MsgPtr out = NewMsg(kElsewhere, length);
    uint32_t ret = 1;
    std::thread sender([&] { ret = TOLA_MsgPost(kElsewhere, out.release(), 1); });
    MsgPtr arrived;
    EXPECT_TRUE(Becomes([&] { return (arrived = s_app->Next(reassembly)) != nullptr; })) << length;
    sender.join();
    EXPECT_EQ(ret, 0u);
    out = NewMsg(kElsewhere, length);
    EXPECT_TRUE(arrived != nullptr && Same(arrived.get(), out.get())) << length;
  }
}

TEST_F(IpcManagerTest, D_MessagesGoWhereTheMapSays) {
  MsgPtr unknown = NewMsg(kNobody, 4);
  ASSERT_EQ(TOLA_MsgPost(kNobody, unknown.release(), 1), 0u);
  EXPECT_EQ(AtMain(0x111)->destination, kNobody) << "the main process knows more";

  ASSERT_EQ(SendHere(NewMsg(kNobody, 4).get()), 0u);
  EXPECT_TRUE(Logged("Src:0x7 > Dst:0x63 Msgtype:0x111 Err:0x4909"));
  for (MsgPtr msg; (msg = Queue::Next(s_main, s_reassembly)) != nullptr;) {
    EXPECT_EQ(msg->source, kIpcModule) << "a message that nobody has here went back to the main process";
  }

  ASSERT_EQ(TOLA_MsgModuleRegister(kMains, s_task, 1, 64), 0u);
  ASSERT_NE(AtMain(kIpcModuleChange), nullptr);
  ASSERT_EQ(TOLA_MsgModuleUnregister(kHere), 0u);
  const MsgPtr here = NewMsg(kHere, 4);
  EXPECT_EQ(TOLA_MsgPost(kHere, here.get(), 1), kIpcErrLocal) << "the map still has it in this process";
  EXPECT_TRUE(Logged("DstModId:42 is in My process"));
  const MsgPtr change = AtMain(kIpcModuleChange);
  ASSERT_NE(change, nullptr);
  EXPECT_EQ(TolaMsgData(change.get())[4], kIpcModuleRemoved);
  const MsgPtr again = AtMain(kIpcModuleChange);
  ASSERT_NE(again, nullptr) << "what the map does not show is told again";
  EXPECT_EQ(TolaMsgData(again.get())[4], kIpcModuleRemoved) << "the main process's own is claimed for ever";
  ASSERT_EQ(TOLA_MsgModuleRegister(kHere, s_task, 1, 64), 0u);
}

TEST_F(IpcManagerTest, E_ForgedSourcesAndRestartRequests) {
  IpcEnvelope envelope = Envelope(4, s_sequence++);
  envelope.sourcePid = 1;
  const MsgPtr forged = NewMsg(kHere, 4);
  const pid_t child = fork();
  if (child == 0) {
    _exit(static_cast<int>(IpcSendMessage(Own(), envelope, forged.get(), IpcWait::kNever)));
  }
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(Logged("Recv App:1  Msg Err:0xa130")) << "a source that did not send it was believed";
  tagMsgBuf* msg = nullptr;
  EXPECT_NE(TOLA_MsgRecv(kHere, &msg, 0), 0u);

  ASSERT_EQ(TolaRebootAppByAppName("other_app"), 0u);
  MsgPtr reboot = AtMain(kIpcReboot);
  EXPECT_STREQ(reinterpret_cast<char*>(TolaMsgData(reboot.get())) + offsetof(IpcRebootMsg, name),
               "other_app");
  TolaFeatureAppArmRestart();
  reboot = AtMain(kIpcReboot);
  EXPECT_STREQ(reinterpret_cast<char*>(TolaMsgData(reboot.get())) + offsetof(IpcRebootMsg, name), "program");
  EXPECT_TRUE(Logged("app arm restart result:0"));
}

TEST_F(IpcManagerTest, F_RegistersAgainWithAMainProcessThatTookOver) {
  while (Queue::Next(s_main, s_reassembly) != nullptr) {
  }
  const pid_t child = fork();
  if (child == 0) {  // the new main process reads once, and ends
    IPC_MSG_S frame;
    while (msgrcv(s_mainId, &frame, kIpcFrameMax, -5, 0) < 0) {
    }
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // unread: the test is the old main process
  EXPECT_NE(AtMain(kIpcRegister), nullptr) << "a restarted main process knows nobody";
  ASSERT_EQ(IpcSendMessage(Own(), {4, 1, 1, false}, NewMsg(kHere, 4).get(), IpcWait::kNever), 0u);
  EXPECT_NE(ReceiveHere(), nullptr) << "what the former main process passed on last is lost";
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
