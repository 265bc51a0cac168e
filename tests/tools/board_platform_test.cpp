/// What the platform's main process knows and decides, without the process: registry, router, supervision
/// with made-up processes, the map command, real processes.

#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <utility>

#include "board_main/frame_router.h"
#include "board_main/map_command.h"
#include "board_main/process_control.h"
#include "board_main/registry.h"
#include "board_main/status_report.h"
#include "board_main/supervisor.h"
#include "msg/msg_interface_public.h"
#include "support/temp_dir.h"

namespace board_main {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

using Ids = std::vector<uint16_t>;

constexpr uint32_t kNobody = 0;

IpcRegisterMsg Record(uint32_t pid, const std::string& name) {
  IpcRegisterMsg record = {};
  record.version = kIpcMainMsgVersion;
  record.pid = pid;
  record.queueId = 10000 + pid;
  record.moduleId = static_cast<uint16_t>(1000 + pid);
  record.supervise = 1;
  record.timeoutS = 120;
  memcpy(record.name, name.data(), std::min(name.size(), sizeof(record.name)));  // one too long has no end
  return record;
}

void Register(Registry& registry, uint32_t pid, const Ids& ids = {}) {
  Ids refused;
  EXPECT_EQ(registry.Register(Record(pid, "app" + std::to_string(pid)), ids, 0, refused), kRegistered);
}

uint32_t HolderOf(const Registry& registry, uint16_t id) {
  const RegisteredApp* app = registry.FindByModule(id);
  return app == nullptr ? kNobody : app->queue.pid;
}

struct Piece {
  uint32_t pid;
  uint16_t sequence;
  uint16_t destination;
  uint32_t index = 0;
  uint32_t frames = 1;
};

/// A piece's frame; all of a message of several are full.
IPC_MSG_S Frame(const Piece& piece) {
  IPC_MSG_S frame = {};
  frame.sourcePid = piece.pid;
  frame.sequence = piece.sequence;
  frame.number = static_cast<uint16_t>(piece.index | (piece.index + 1 == piece.frames ? kIpcLastFrame : 0));
  frame.length = piece.frames == 1 ? kMsgHeadSize : kIpcPayloadMax;
  const tagMsgBuf head = {7, piece.destination, 1, piece.sequence, 0, 0};
  if (piece.index == 0) memcpy(frame.payload, &head, sizeof(head));
  return frame;
}

TEST(Registry, EachModuleIsTheFirstClaimersUntilThatGivesItUpOrGoes) {
  Registry registry;
  Ids refused;
  Register(registry, 1, {100, 1856, 4096, 4287});
  const Ids wanted = {100, 101, 5, 6, 37, 41, 1857, 4095, 4288};
  EXPECT_EQ(registry.Register(Record(2, "app2"), wanted, 0, refused), kRegistered);
  EXPECT_THAT(refused, ElementsAre(100, 5, 6, 37, 41, 1857, 4095, 4288));
  EXPECT_TRUE(registry.RemoveModules(2, Ids{100}, refused));
  for (const uint16_t id : Ids{100, 1856, 4096, 4287}) EXPECT_EQ(HolderOf(registry, id), 1u) << id;
  EXPECT_TRUE(registry.RemoveModules(1, Ids{100}, refused) && registry.AddModules(2, Ids{100}, refused));
  EXPECT_EQ(HolderOf(registry, 100), 2u);

  const IpcAcknowledgeMsg tables = registry.Acknowledge(9, 2);
  EXPECT_EQ(tables.count, 2u);
  EXPECT_EQ(tables.apps[tables.ownIndex].pid, 2u);
  for (const auto& [id, place] : {std::pair{100, 1}, {4287, 0}, {41, +kIpcMainApp}, {102, +kIpcNoApp}})
    EXPECT_EQ(tables.map[IpcMapPlace(static_cast<uint16_t>(id))], place) << id;

  registry.Drop(1);
  EXPECT_EQ(HolderOf(registry, 4287), kNobody);
  for (uint32_t pid = 3; registry.Apps().size() < kIpcAppMax; ++pid) Register(registry, pid);
  EXPECT_EQ(registry.Register(Record(99, "app99"), {}, 0, refused), kRegisterErrFull);
}

TEST(Registry, NewcomersReplaceTheirPredecessorsAndNonsenseIsRefused) {
  Registry registry;
  Ids refused;
  Register(registry, 3, {100});
  EXPECT_EQ(registry.Register(Record(4, "app3"), Ids{100}, 0, refused), kRegistered);
  EXPECT_EQ(HolderOf(registry, 100), 4u) << "a process that was started again has its modules";
  EXPECT_EQ(registry.FindByPid(3), nullptr);
  EXPECT_EQ(registry.Acknowledge(9, 4).ownIndex, 0) << "it keeps the place of the process it replaces";
  EXPECT_THAT(refused, IsEmpty());
  for (const std::string& name : {std::string(), std::string("two\nlines"), std::string(1000, 'n')})
    EXPECT_EQ(registry.Register(Record(5, name), {}, 0, refused), kRegisterErrRecord) << name;
  IpcRegisterMsg wrong = Record(5, "app5");
  wrong.version = 2;
  EXPECT_EQ(registry.Register(wrong, {}, 0, refused), kRegisterErrVersion);
}

/// Receivers with queues of a few frames, and what each got.
class RouterTest : public testing::Test {
 protected:
  explicit RouterTest(const RouterLimits& limits = {})
      : router_(
            registry_, [this](const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame) { return Send(to, frame); },
            [this](const FrameLoss& loss) { lost_ += loss.frames; }, limits) {}

  SendOutcome Send(const APP_QUEUE_INFO_S& to, const IPC_MSG_S& frame) {
    if (room_[to.pid] == 0) return SendOutcome::kFull;
    --room_[to.pid];
    got_[to.pid].push_back(frame);
    return SendOutcome::kSent;
  }
  Verdict Take(const Piece& piece) {
    const IPC_MSG_S frame = Frame(piece);
    return router_.Take(frame, frame.length + kIpcFrameHead, now_);
  }
  void ExpectRouted(const std::vector<Piece>& pieces) {
    for (const Piece& piece : pieces) EXPECT_EQ(Take(piece), Verdict::kRouted) << piece.sequence;
  }
  void PassMs(uint64_t ms) {
    now_ += ms;
    router_.Retry(now_);
  }
  /// Ten times a frame's sequence number, and its index.
  std::vector<int> GotBy(uint32_t pid) {
    std::vector<int> frames;
    for (const IPC_MSG_S& frame : got_[pid])
      frames.push_back(frame.sequence * 10 + (frame.number & kIpcFrameIndex));
    return frames;
  }

  Registry registry_;
  std::map<uint32_t, size_t> room_;
  std::map<uint32_t, std::vector<IPC_MSG_S>> got_;
  size_t lost_ = 0;
  uint64_t now_ = 1000;
  FrameRouter router_;
};

TEST_F(RouterTest, FramesWaitAsLongAsTheirProcessReadsAndThirtySecondsForOneThatDoesNot) {
  Register(registry_, 1, {100});
  Register(registry_, 2, {200});
  room_[2] = 9;
  ExpectRouted({{7, 9, 300}});  // the module may still come
  ExpectRouted({{7, 1, 100}, {8, 1, 200}, {7, 2, 100}, {8, 2, 200}, {7, 3, 100}, {8, 3, 200}});
  EXPECT_THAT(GotBy(2), ElementsAre(10, 20, 30)) << "a full destination held up another";
  for (size_t left = 3; left-- > 0;) {  // it reads one frame in 20 s
    room_[1] = 1;
    PassMs(20000);
    EXPECT_EQ(router_.KeptFor(1), left);
    EXPECT_EQ(lost_, 2 - left) << "module 300 never came, and the second message for it is 20 s younger";
    if (left == 2) ExpectRouted({{7, 10, 300}});
  }
  EXPECT_THAT(GotBy(1), ElementsAre(10, 20, 30));
  ExpectRouted({{7, 4, 100}});
  PassMs(30000);
  EXPECT_EQ(router_.Kept(), 0u) << "a process that does not read at all keeps memory for ever";
  EXPECT_EQ(lost_, 3u);
}

TEST_F(RouterTest, LyingFramesAreDroppedAndOwnModulesAreTheCallers) {
  Register(registry_, 7, {100});
  IPC_MSG_S frame = Frame({7, 1, 100});
  EXPECT_EQ(router_.Take(frame, frame.length + kIpcFrameHead - 1, now_), Verdict::kDropped);
  EXPECT_EQ(router_.Take(frame, kIpcFrameHead - 1, now_), Verdict::kDropped);
  frame.length = kMsgHeadSize - 1;
  EXPECT_EQ(router_.Take(frame, frame.length + kIpcFrameHead, now_), Verdict::kDropped) << "no whole header";
  EXPECT_EQ(Take({7, 1, 100, 1, 2}), Verdict::kDropped) << "its first frame did not come";
  EXPECT_EQ(Take({7, 2, 3000}), Verdict::kDropped) << "no process can have module 3000";
  EXPECT_EQ(Take({7, 3, 100}), Verdict::kDropped) << "back to its own process";
  ExpectRouted({{8, 5, 200}});
  Register(registry_, 8, {200});
  room_[8] = 9;
  const size_t before = lost_;
  PassMs(0);
  EXPECT_EQ(lost_, before + 1) << "it would skip what comes from itself, and nobody would know";
  for (const uint16_t own : kMainModules) EXPECT_EQ(Take({7, 4, own}), Verdict::kLocal) << own;
}

class SmallRouterTest : public RouterTest {
 protected:
  SmallRouterTest() : RouterTest({.laneFrames = 4, .allFrames = 6, .routes = 2, .waitMs = 30000}) {}
};

TEST_F(SmallRouterTest, WhatDoesNotFitIsLostByWholeMessages) {
  Register(registry_, 1, {100});
  ExpectRouted({{7, 1, 100}, {7, 2, 100, 0, 9}, {7, 2, 100, 1, 9}, {7, 2, 100, 2, 9}});
  EXPECT_EQ(Take({7, 2, 100, 3, 9}), Verdict::kDropped);
  EXPECT_EQ(lost_, 4u) << "the pieces of a message that is lost took room from others";
  room_[1] = 9;
  EXPECT_EQ(Take({7, 2, 100, 4, 9}), Verdict::kDropped) << "the rest of it would start with a hole";
  PassMs(0);
  EXPECT_THAT(GotBy(1), ElementsAre(10));
  ExpectRouted({{8, 10, 100, 0, 2}});
  EXPECT_EQ(Take({9, 1, 100, 0, 2}), Verdict::kDropped) << "the third unfinished message";
  PassMs(30000);
  ExpectRouted({{9, 1, 100, 0, 2}});  // unfinished ones are forgotten
}

TEST_F(RouterTest, MessagesStayWholeInOrderAndWithOneProcessWhileTheirModulesMove) {
  Ids refused;
  room_[2] = 9;
  ExpectRouted({{7, 1, 100, 0, 3}});
  Register(registry_, 1, {200});
  ExpectRouted({{7, 2, 200}});
  ASSERT_TRUE(registry_.AddModules(1, Ids{100}, refused));
  PassMs(0);
  ExpectRouted({{7, 1, 0, 1, 3}});
  ASSERT_TRUE(registry_.RemoveModules(1, Ids{100}, refused));
  Register(registry_, 2, {100});
  ExpectRouted({{7, 3, 100}, {7, 1, 0, 2, 3}});
  EXPECT_THAT(GotBy(2), ElementsAre(30)) << "a message was torn between two processes";
  for (const uint16_t sequence : Ids{4, 5}) {
    room_[1] = 9;  // it has read; what waits still comes first
    ExpectRouted({{7, sequence, 200}});
  }
  PassMs(0);
  EXPECT_THAT(GotBy(1), ElementsAre(20, 10, 11, 12, 40, 50)) << "frames overtook those that wait";
  EXPECT_EQ(router_.Kept() + lost_, 0u);
}

class SupervisorTest : public testing::Test {
 protected:
  ProcessImage Start(uint32_t pid) {
    Register(registry_, pid);
    ProcessImage image;
    image.pid = static_cast<pid_t>(pid);
    supervisor_.Registered("app" + std::to_string(pid), image);
    alive_.insert(image.pid);
    return image;
  }
  /// What is done at this look.
  std::vector<std::string> StepAt(uint64_t nowMs) {
    isChanged_ = supervisor_.Step(nowMs);
    return std::exchange(done_, {});
  }

  Registry registry_;
  std::set<pid_t> alive_;
  bool isConfirmed_ = true;
  bool isChanged_ = false;  ///< the registry, by the last step
  std::vector<std::string> done_;
  Supervisor supervisor_{
      registry_,
      {[this](const ProcessImage& image) { return alive_.contains(image.pid); },
       [this](const RegisteredApp&) { return isConfirmed_; },
       [this](const ProcessImage& image, int number) {
         done_.push_back("signal " + std::to_string(number) + " to " + std::to_string(image.pid));
       },
       [this](const std::string& name, const ProcessImage&) {
         done_.push_back("start " + name);
         return true;
       },
       [](const std::string&, const char*) {}}};
};

TEST_F(SupervisorTest, SilentProcessIsEndedAtTheSecondLookAndStartedUntilItRegisters) {
  const ProcessImage image = Start(1);
  EXPECT_THAT(StepAt(120000), IsEmpty()) << "a main process that was asleep itself may not blame the others";
  ASSERT_TRUE(registry_.Beat(1, 1, 120500));
  EXPECT_THAT(StepAt(121000), IsEmpty());
  EXPECT_THAT(StepAt(240500), IsEmpty());
  EXPECT_THAT(StepAt(241500), ElementsAre("signal 15 to 1"));
  EXPECT_TRUE(isChanged_ && supervisor_.IsEnding(image));
  EXPECT_THAT(StepAt(242500), IsEmpty());
  EXPECT_THAT(StepAt(243500), ElementsAre("signal 9 to 1"));
  alive_.clear();
  EXPECT_THAT(StepAt(244500), ElementsAre("start app1"));
  EXPECT_FALSE(supervisor_.IsEnding(image));
  EXPECT_THAT(StepAt(364499), IsEmpty());
  EXPECT_THAT(StepAt(364500), ElementsAre("start app1")) << "the first start came to nothing";
  Start(1);
  ASSERT_TRUE(registry_.Beat(1, 1, 900000));
  EXPECT_THAT(StepAt(900000), IsEmpty()) << "it runs";
}

TEST_F(SupervisorTest, ProcessThatAnotherRegisteredIsNeverSignalledNorStarted) {
  Start(1);
  isConfirmed_ = false;
  EXPECT_FALSE(supervisor_.Restart(1, 0));
  EXPECT_NE(registry_.FindByPid(1), nullptr);
  EXPECT_THAT(StepAt(130000), IsEmpty());
  EXPECT_THAT(StepAt(131000), IsEmpty());
  EXPECT_EQ(registry_.FindByPid(1), nullptr);
  Start(1);
  alive_.clear();
  EXPECT_THAT(StepAt(140000), IsEmpty());
  EXPECT_THAT(StepAt(300000), IsEmpty()) << "a program was started in another's name";
}

TEST_F(SupervisorTest, RunningProcessKeepsItsPlace) {
  Start(1);
  Start(2);
  IpcRegisterMsg record = Record(1, "app1");
  EXPECT_FALSE(supervisor_.IsHeld(record)) << "it may register again";
  record.queueId = 1;
  EXPECT_TRUE(supervisor_.IsHeld(record));
  record = Record(3, "app2");
  EXPECT_TRUE(supervisor_.IsHeld(record));
  isConfirmed_ = false;
  EXPECT_FALSE(supervisor_.IsHeld(record)) << "its queue was made anew by the process that took over";
  isConfirmed_ = true;
  alive_.erase(2);
  EXPECT_FALSE(supervisor_.IsHeld(record));
}

std::vector<uint8_t> CommandData(const std::string& command, uint16_t first = 1, uint16_t last = 0) {
  const uint16_t head[3] = {first, 0, static_cast<uint16_t>(command.size() + 1)};
  std::vector<uint8_t> data(sizeof(head) + command.size() + 1 + sizeof(last));
  memcpy(data.data(), head, sizeof(head));
  memcpy(data.data() + sizeof(head), command.c_str(), command.size() + 1);
  memcpy(data.data() + data.size() - sizeof(last), &last, sizeof(last));
  return data;
}

TEST(MapCommand, OnlyTheSendersOwnMapGoesIntoAMapFileOfTheLogs) {
  const std::vector<std::string> directories = {"/mnt/log/"};
  const auto taken = [&](const std::vector<uint8_t>& data) {
    return ParseMapCommand(data, 42, directories).has_value();
  };
  const std::string good = "cat /proc/42/maps >> /mnt/log/x.map.tmp";
  const auto data = CommandData(good);
  EXPECT_TRUE(taken(data));
  EXPECT_TRUE(taken(CommandData("cat_proc_maps.sh 42 >> /mnt/log/deep/x.map.tmp")));
  for (const char* command :
       {"cat /proc/43/maps >> /mnt/log/x.map.tmp", "cat /proc/42/mem >> /mnt/log/x.map.tmp",
        "cat /proc/42/maps > /mnt/log/x.map.tmp", "cat /proc/42/maps >> /mnt/log/x.map.tmp; reboot",
        "cat /proc/42/maps >> /mnt/log/x.map.tmp.sh", "cat /proc/42/maps >> /etc/x.map.tmp",
        "cat /proc/42/maps >> /mnt/log/../etc/x.map.tmp", "cat /proc/42/maps >> /mnt/log/$(id).map.tmp",
        "cat /proc/42/maps >> /mnt/log/a b.map.tmp", "reboot", ""}) {
    EXPECT_FALSE(taken(CommandData(command))) << command;
  }
  for (size_t length = 0; length < data.size(); ++length)
    EXPECT_FALSE(taken({data.begin(), data.begin() + static_cast<ptrdiff_t>(length)})) << length;
  EXPECT_FALSE(taken(CommandData(good, 2)) || taken(CommandData(good, 1, 7)));
}

TEST(MapCommand, AppendsTheMapAndFollowsNoLink) {
  const auto content = [](const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
  };
  const support::TempDir dir;
  const auto pid = static_cast<uint32_t>(getpid());
  const std::string file = dir.Write("x.map.tmp", "first\n"), target = dir.Write("secret", "kept");
  EXPECT_EQ(RunMapCommand({pid, file}), 0u);
  EXPECT_THAT(content(file), AllOf(StartsWith("first\n"), HasSubstr("[stack]")));
  ASSERT_EQ(symlink(target.c_str(), dir.File("l.map.tmp").c_str()), 0);
  ASSERT_EQ(symlink(dir.path().c_str(), dir.File("d").c_str()), 0);
  EXPECT_EQ(RunMapCommand({pid, dir.File("l.map.tmp")}), 1u);
  EXPECT_EQ(RunMapCommand({pid, dir.File("d/new.map.tmp")}), 1u) << "a directory that leads elsewhere";
  EXPECT_EQ(content(target), "kept");
}

/// The image of a child once it is the program "sleep".
ProcessImage Asleep(pid_t pid) {
  ProcessImage image;
  while (!ReadProcessImage(pid, image) || image.arguments[0] != "sleep") (void)usleep(1000);
  EXPECT_TRUE(ReadProcessImage(pid, image));  // again: the first one may be half of before it
  return image;
}

TEST(ProcessControl, ProcessIsKnownEndedAndStartedAgainAsWhoeverRanItWithItsArguments) {
  const bool isSuperuser = geteuid() == 0;
  const uid_t user = isSuperuser ? 4711 : getuid();
  const pid_t pid = fork();
  if (pid == 0) {  // a program that has the superuser's rights is still the user's who started it
    if (chdir("/usr") == 0 && (!isSuperuser || setresuid(user, 0, 0) == 0))
      execl("/bin/sleep", "sleep", "1000.5", nullptr);
    _exit(1);
  }
  const ProcessImage image = Asleep(pid);
  EXPECT_EQ(image.user, user);
  EXPECT_TRUE(ProcessIsAlive(image));
  ProcessImage stranger = image;
  ++stranger.startTicks;
  SignalProcess(stranger, SIGKILL);
  rlimit files = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  const rlimit none = {0, files.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_TRUE(ProcessIsAlive(image)) << "without a descriptor it would be started a second time";
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  SignalProcess(image, SIGTERM);
  while (ProcessIsAlive(image)) (void)usleep(1000);  // it waits for its parent, and counts as gone
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(WTERMSIG(status), SIGTERM)
      << "a later process of the same id was taken for the one that is meant";

  const pid_t again = StartProcess(image);
  const ProcessImage second = Asleep(again);
  EXPECT_THAT(second.arguments, ElementsAre("sleep", "1000.5"));
  EXPECT_EQ(second.directory, "/usr");
  EXPECT_EQ(second.user, user);
  EXPECT_NE(getsid(again), getsid(0)) << "it would end with the main process's terminal";
  SignalProcess(second, SIGKILL);
  EXPECT_EQ(waitpid(again, nullptr, 0), again);
}

TEST(StatusReport, IdsStandInRangesAndNamesCannotBreakTheObject) {
  EXPECT_EQ(IdRanges({5, 6, 7, 9, 1056}), "5-7 9 1056");
  PlatformStatus status;
  status.apps.resize(1);
  status.apps[0].app.name = "a\"b\\";
  EXPECT_THAT(StatusJson(status), HasSubstr("\"name\":\"a\\\"b\\\\\","));
}

}  // namespace
}  // namespace board_main
