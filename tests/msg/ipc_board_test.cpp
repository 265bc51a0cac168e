/// Runs on a board: real queues and semaphores. The test is the main process as well; its
/// frames leave the destination process open, since they come from and go to this very process.

#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "msg/ipc_manager.h"
#include "msg/semap.h"
#include "support/log_capture.h"
#include "support/platform_msg.h"
#include "velto/kel_support.h"

namespace {

using support::MsgPtr;
using support::NewMsg;

constexpr uint16_t kHere = 42;  ///< a module of this process
constexpr uint16_t kNobody = 99;
constexpr uint16_t kMains = 41;  ///< the main process's own

const auto g_pid = static_cast<uint32_t>(getpid());

uint32_t Send(const IpcTarget& target, const tagMsgBuf* msg, uint32_t from = g_pid, long order = 4,
              IpcWait wait = IpcWait::kNever) {
  static uint16_t sequence = 0;
  return IpcSendMessage(target, {order, from, ++sequence, false}, msg, wait);
}

/// A queue that is gone with its object, and what comes out of it.
class Queue {
 public:
  explicit Queue(int32_t id = msgget(IPC_PRIVATE, 0600)) : target{id, kSemapNone, 0}, reader_(id) {}
  ~Queue() { (void)IpcQueueRemove(target.queueId); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  uint32_t Read() { return reader_.Read(&frame, &size_, &sender); }
  /// The next whole message, or null when there is none yet.
  MsgPtr Next() {
    tagMsgBuf* msg = nullptr;
    while (msg == nullptr && Read() == 0) EXPECT_EQ(reassembly_.Take(frame, size_, &msg), 0u);
    return MsgPtr(msg);
  }
  /// The next message of `type`, heart beats and the like passed over.
  MsgPtr Await(uint16_t type) {
    MsgPtr found;
    EXPECT_TRUE(Eventually([&] { return (found = Next()) != nullptr && found->type == type; })) << type;
    return found;
  }

  const IpcTarget target;
  IPC_MSG_S frame = {};
  uint32_t sender = 0;

 private:
  size_t size_ = 0;
  IpcQueueReader reader_;
  IpcReassembly reassembly_;
};

/// Has a process of its own do something that gives 0, and waits for it.
template <class Work>
pid_t InAChild(const Work& work) {
  const pid_t child = fork();
  if (child == 0) _exit(static_cast<int>(work()));
  int status = -1;
  EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
  return child;
}

class IpcChannelTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(TOLA_MsgManagerInit(), 0u); }
  support::LogCapture log_;
};

TEST_F(IpcChannelTest, FullQueueIsTriedForFiveSecondsOrNotAtAll) {
  const Queue queue;
  const MsgPtr msg = NewMsg(kHere, 4064);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(Send(queue.target, msg.get()), 0u);
  const ClockModeScope clock(kKelClockAutoAdvance);
  const uint64_t start = KEL_ClockMonotonicNs();
  EXPECT_EQ(Send(queue.target, msg.get()), kIpcErrSend);
  EXPECT_EQ(KEL_ClockMonotonicNs(), start) << "one try must not wait";
  EXPECT_EQ(Send(queue.target, msg.get(), g_pid, 4, IpcWait::kRetry), kIpcErrSend);
  EXPECT_NEAR(static_cast<double>(KEL_ClockMonotonicNs() - start), 5e9, 0.05e9);
}

TEST_F(IpcChannelTest, LowestClassComesFirstAndALoneSenderIsKnown) {
  Queue queue;
  const MsgPtr msg = NewMsg(kHere, 4);
  for (const long order : {5, 4, 2, 4, 1}) ASSERT_EQ(Send(queue.target, msg.get(), g_pid, order), 0u);
  for (const long order : {1, 2, 4, 4, 5}) {
    ASSERT_EQ(queue.Read(), 0u);
    EXPECT_EQ(queue.frame.type, order);
    EXPECT_EQ(queue.sender, 0u) << "who sent one of several is not known";
  }
  EXPECT_EQ(queue.Read(), kIpcErrEmpty);
  const pid_t child = InAChild([&] { return Send(queue.target, msg.get()); });
  ASSERT_EQ(queue.Read(), 0u);
  EXPECT_EQ(queue.sender, static_cast<uint32_t>(child)) << "it claims to come from its parent";
}

TEST_F(IpcChannelTest, WhatNobodyReadsDoesNotFillTheQueue) {
  Queue queue;
  const int id = queue.target.queueId;
  struct {
    long type;
    char data[5000];
  } tooLong = {4, {}};
  ASSERT_EQ(msgsnd(id, &tooLong, sizeof(tooLong.data), IPC_NOWAIT), 0);
  tooLong.type = 6;
  for (int i = 0; i < 10; ++i) ASSERT_EQ(msgsnd(id, &tooLong, 1000, IPC_NOWAIT), 0);
  int bad = 0;
  for (int i = 0; i < 200; ++i) bad += queue.Read() == kIpcErrFrame ? 1 : 0;
  EXPECT_EQ(bad, 11);
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
    ASSERT_EQ(KEL_TaskAdopt("test", &s_task), 0u);
    ASSERT_EQ(TOLA_MsgModuleRegister(kHere, s_task, 1, 64), 0u);
    setenv("TOLA_ROOT_DIR", "/tmp/", 1);
    int32_t mainId = -1;
    ASSERT_EQ(IpcQueueOpen(ftok(kIpcMainPath, kIpcProject), &mainId), 0u);
    s_main = new Queue(mainId);
  }

  /// What the main process tells: this process's modules and its own.
  static MsgPtr Acknowledge(uint32_t mainPid) {
    IpcAcknowledgeMsg table = {};
    table.version = kIpcMainMsgVersion;
    table.mainPid = mainPid;
    table.ownIndex = 3;
    table.count = 1;
    table.apps[3] = {s_registered.queueId, s_registered.pid, 1056, s_registered.semaphoreId};
    memset(table.map, kIpcNoApp, sizeof(table.map));
    table.map[kHere] = 3;
    table.map[kMains] = kIpcMainApp;
    MsgPtr msg(TOLA_MsgAlloc(kIpcModule, kIpcAcknowledge, 0, sizeof(table)));
    msg->destination = kIpcModule;
    memcpy(TolaMsgData(msg.get()), &table, sizeof(table));
    return msg;
  }

  static uint32_t SendHere(const MsgPtr& msg, uint32_t from = g_pid) {
    return Send({static_cast<int32_t>(s_registered.queueId), s_registered.semaphoreId, 0}, msg.get(), from, 4,
                IpcWait::kRetry);
  }
  bool Logged(const std::string& line, int times = 1) {
    return Eventually([&] {
      const std::vector<std::string> lines = log_.Lines();
      return std::count(lines.begin(), lines.end(), line) == times;
    });
  }
  static void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

  static inline uint32_t s_task = 0;
  static inline Queue* s_main = nullptr;
  static inline IpcRegisterMsg s_registered = {};
};

TEST_F(IpcManagerTest, A_MainProcessThatNeverReadsHoldsUpNobody) {
  int32_t stale = -1;
  ASSERT_EQ(IpcQueueOpen(ftok("/tmp/program", kIpcProject), &stale), 0u);
  const TOLA_APP_MODULE_INFO_S module = {1056};
  const TOLA_APP_REG_INFO_S info = {"program", "1.0.0", &module, 10000, 120, 1, 1};
  ASSERT_EQ(TolaFeatureIpcMgrInit(&info), 0u);
  IpcQueueState state = {};
  EXPECT_EQ(IpcQueueStateGet(stale, &state), 1u) << "frames for an earlier process would be read";
  Sleep(500);  // 25 ticks go by
  ASSERT_EQ(IpcQueueStateGet(s_main->target.queueId, &state), 0u);
  EXPECT_LE(state.messages, 2u) << "heart beats pile up in everybody's queue";
}

TEST_F(IpcManagerTest, B_RegistrationIsRepeatedUntilTheMainProcessAcknowledgesIt) {
  for (int i = 0; i < 2; ++i) {
    const MsgPtr msg = s_main->Await(kIpcRegister);
    ASSERT_EQ(GetTolaMsgLen(msg.get()), sizeof(s_registered) + 2);
    memcpy(&s_registered, TolaMsgData(msg.get()), sizeof(s_registered));
    EXPECT_EQ(TolaMsgData(msg.get())[sizeof(s_registered)], kHere);
  }
  EXPECT_STREQ(s_registered.name, "program");

  EXPECT_EQ(SendHere(Acknowledge(1)), 0u);
  InAChild([] { return SendHere(Acknowledge(getpid()), getpid()); });  // not even from one that says it were
  EXPECT_TRUE(Logged("Inter Msgtype:0x2 Err:0x1", 2)) << "taken from a process that is not the main process";
  EXPECT_EQ(SendHere(Acknowledge(g_pid)), 0u);
  int registrations = 0;
  int beats = 0;
  for (int look = 0; look < 250; ++look, Sleep(10)) {
    const MsgPtr msg = s_main->Next();
    if (msg != nullptr) ++(msg->type == kIpcRegister ? registrations : beats);
  }
  EXPECT_LE(registrations, 1) << "only one that was under way";
  EXPECT_GT(beats, 0);
}

TEST_F(IpcManagerTest, C_MessagesGoWhereTheMapSays) {
  ASSERT_EQ(TOLA_MsgPost(kNobody, NewMsg(kNobody, 4).release(), 1), 0u);
  EXPECT_EQ(s_main->Await(0x111)->destination, kNobody) << "the main process knows more";
  ASSERT_EQ(SendHere(NewMsg(kNobody, 4)), 0u);
  EXPECT_TRUE(Logged("Src:0x7 > Dst:0x63 Msgtype:0x111 Err:0x4909"));
  for (MsgPtr msg; (msg = s_main->Next()) != nullptr;) {
    EXPECT_EQ(msg->source, kIpcModule) << "a message that nobody has here went back to the main process";
  }

  ASSERT_EQ(TOLA_MsgModuleRegister(kMains, s_task, 1, 64), 0u);
  (void)s_main->Await(kIpcModuleChange);
  ASSERT_EQ(TOLA_MsgModuleUnregister(kHere), 0u);
  const MsgPtr here = NewMsg(kHere, 4);
  EXPECT_EQ(TOLA_MsgPost(kHere, here.get(), 1), kIpcErrLocal) << "the map still has it in this process";
  EXPECT_TRUE(Logged("DstModId:42 is in My process"));
  for (int i = 0; i < 2; ++i) {  // what the map does not show is told again
    EXPECT_EQ(TolaMsgData(s_main->Await(kIpcModuleChange).get())[4], kIpcModuleRemoved)
        << "the main process's own is claimed for ever";
  }
  ASSERT_EQ(TOLA_MsgModuleRegister(kHere, s_task, 1, 64), 0u);
}

TEST_F(IpcManagerTest, D_ForgedSourcesAndRestartRequests) {
  InAChild([] { return SendHere(NewMsg(kHere, 4), 1); });
  EXPECT_TRUE(Logged("Recv App:1  Msg Err:0xa130")) << "a source that did not send it was believed";
  tagMsgBuf* msg = nullptr;
  EXPECT_NE(TOLA_MsgRecv(kHere, &msg, 0), 0u);

  const auto asked = [] {
    const MsgPtr reboot = s_main->Await(kIpcReboot);
    return std::string(reinterpret_cast<char*>(TolaMsgData(reboot.get())) + offsetof(IpcRebootMsg, name));
  };
  ASSERT_EQ(TolaRebootAppByAppName("other_app"), 0u);
  EXPECT_EQ(asked(), "other_app");
  TolaFeatureAppArmRestart();
  EXPECT_EQ(asked(), "program");
}

TEST_F(IpcManagerTest, D_WhatSomebodyRemovedIsMadeAgain) {
  int32_t id = kSemapNone;
  ASSERT_EQ(CreateSemap(kSemapPublicKey, &id), 0u);
  ASSERT_EQ(DeleteSemap(id), 0u);
  EXPECT_TRUE(Eventually([&id] {
    (void)s_main->Next();  // room for the next heart beat
    return CreateSemap(kSemapPublicKey, &id) == 0 && GetSemapVal(id) > 0;
  }));
  ASSERT_EQ(IpcQueueRemove(static_cast<int32_t>(s_registered.queueId)), 0u);
  memcpy(&s_registered, TolaMsgData(s_main->Await(kIpcRegister).get()), sizeof(s_registered));
  EXPECT_EQ(SendHere(Acknowledge(g_pid)), 0u) << "the process is deaf until it is started again";
}

TEST_F(IpcManagerTest, E_RegistersAgainWithAMainProcessThatTookOver) {
  while (s_main->Next() != nullptr) continue;
  InAChild([] {  // the new main process reads once, and ends
    while (msgrcv(s_main->target.queueId, &s_main->frame, kIpcFrameMax, -5, 0) < 0) continue;
    return 0;
  });
  Sleep(1500);  // unread: the test is the old main process
  EXPECT_NE(s_main->Await(kIpcRegister), nullptr) << "a restarted main process knows nobody";
  ASSERT_EQ(SendHere(NewMsg(kHere, 4), 1), 0u);
  tagMsgBuf* msg = nullptr;
  EXPECT_TRUE(Eventually([&] { return TOLA_MsgRecv(kHere, &msg, 0) == 0; }))
      << "what the former main process passed on last is lost";
  TOLA_MsgFree(msg);
}

}  // namespace
