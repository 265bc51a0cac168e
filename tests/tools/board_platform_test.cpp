/// What the platform's main process knows and decides, without the process: registry and router against
/// models under random operations, supervision with made-up processes, the map command, real processes.

#include <gmock/gmock.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <set>

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

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kNobody = 0;

unsigned NewSeed() {
  const unsigned seed = std::random_device()();
  printf("seed %u\n", seed);
  return seed;
}

IpcRegisterMsg Record(uint32_t pid, const std::string& name) {
  IpcRegisterMsg record = {};
  record.version = kIpcMainMsgVersion;
  record.pid = pid;
  record.queueId = 10000 + pid;
  record.semaphoreId = kIpcNoApp;
  record.moduleId = static_cast<uint16_t>(1000 + pid);
  record.supervise = 1;
  record.timeoutS = 120;
  snprintf(record.name, sizeof(record.name), "%s", name.c_str());
  return record;
}

void Register(Registry& registry, uint32_t pid, const std::vector<uint16_t>& ids = {}) {
  std::vector<uint16_t> refused;
  EXPECT_EQ(registry.Register(Record(pid, "app" + std::to_string(pid)), ids, 0, refused), kRegistered);
}

uint32_t HolderOf(const Registry& registry, uint16_t id) {
  const RegisteredApp* app = registry.FindByModule(id);
  return app == nullptr ? kNobody : app->queue.pid;
}

/// Frame `index` of a message of `frames` frames for `destination`, all full; pieces tell whose they are.
IPC_MSG_S Frame(uint32_t pid, uint16_t sequence, uint16_t destination, uint32_t index, uint32_t frames) {
  IPC_MSG_S frame = {};
  frame.type = kIpcClassDefault;
  frame.sourcePid = pid;
  frame.sequence = sequence;
  frame.number = static_cast<uint16_t>(index | (index + 1 == frames ? kIpcLastFrame : 0));
  frame.length = frames == 1 ? kMsgHeadSize : kIpcPayloadMax;
  const tagMsgBuf head = {7, destination, 1, sequence, 0, 0};
  if (index == 0) memcpy(frame.payload, &head, sizeof(head));
  return frame;
}

TEST(Registry, AgreesWithAModelWhileProcessesComeGoAndMoveTheirModules) {
  std::mt19937 random(NewSeed());
  const auto below = [&](uint32_t end) { return static_cast<uint32_t>(random() % end); };
  Registry registry;
  std::map<uint16_t, uint32_t> holders;
  std::set<uint32_t> pids;
  const auto forget = [&](uint32_t pid) {
    pids.erase(pid);
    std::erase_if(holders, [&](const auto& each) { return each.second == pid; });
  };
  const auto someIds = [&] {
    std::vector<uint16_t> ids(below(20));
    for (uint16_t& id : ids) id = static_cast<uint16_t>(below(4) == 0 ? 4090 + below(210) : below(1900));
    return ids;
  };
  const auto claim = [&](uint32_t pid, const std::vector<uint16_t>& ids) {
    size_t refused = 0;
    for (const uint16_t id : ids) {
      const bool has = id < 1857 || (id >= 4096 && id < 4288);
      const bool ours = id == 5 || id == 6 || id == 37 || id == 41;
      if (has && !ours && (!holders.contains(id) || holders[id] == pid)) {
        holders[id] = pid;
      } else {
        ++refused;
      }
    }
    return refused;
  };
  for (int step = 0; step < 20000; ++step) {
    const uint32_t pid = 1 + below(90);
    const auto ids = someIds();
    std::vector<uint16_t> refused;
    switch (below(4)) {
      case 0: {
        const bool fits = pids.contains(pid) || pids.size() < kIpcAppMax;
        const auto result = registry.Register(Record(pid, "app" + std::to_string(pid)), ids, 0, refused);
        ASSERT_EQ(result, fits ? kRegistered : kRegisterErrFull) << step;
        if (!fits) break;
        forget(pid);
        pids.insert(pid);
        ASSERT_EQ(refused.size(), claim(pid, ids)) << step;
        break;
      }
      case 1:
        ASSERT_EQ(registry.AddModules(pid, ids, refused), pids.contains(pid));
        ASSERT_EQ(refused.size(), pids.contains(pid) ? claim(pid, ids) : 0) << step;
        break;
      case 2:
        ASSERT_EQ(registry.RemoveModules(pid, ids, refused), pids.contains(pid));
        for (const uint16_t id : ids) {
          if (holders.contains(id) && holders[id] == pid) holders.erase(id);
        }
        break;
      default:
        if (below(20) == 0) registry.Drop(pid), forget(pid);
        break;
    }
    const auto id = static_cast<uint16_t>(below(4400));
    ASSERT_EQ(HolderOf(registry, id), holders.contains(id) ? holders[id] : kNobody) << "module " << id;
  }
  const IpcAcknowledgeMsg tables = registry.Acknowledge(9, kNobody);
  EXPECT_EQ(tables.count, pids.size());
  EXPECT_EQ(tables.ownIndex, kIpcNoApp);
  for (uint32_t id = 0; id < 4400; ++id) {
    const uint32_t place = IpcMapPlace(static_cast<uint16_t>(id));
    if (place == kIpcNoPlace) continue;
    const uint32_t holder = tables.map[place] >= kIpcAppMax ? kNobody : tables.apps[tables.map[place]].pid;
    ASSERT_EQ(holder,
              holders.contains(static_cast<uint16_t>(id)) ? holders[static_cast<uint16_t>(id)] : kNobody);
  }
}

TEST(Registry, NewcomersReplaceTheirPredecessorsAndNonsenseIsRefused) {
  Registry registry;
  std::vector<uint16_t> refused;
  Register(registry, 3, {100});
  EXPECT_EQ(registry.Register(Record(4, "app3"), std::vector<uint16_t>{100}, 0, refused), kRegistered);
  EXPECT_EQ(HolderOf(registry, 100), 4u) << "a process that was started again has its modules";
  EXPECT_EQ(registry.FindByPid(3), nullptr);
  EXPECT_EQ(registry.Acknowledge(9, 4).ownIndex, 0) << "it keeps the place of the process it replaces";
  EXPECT_THAT(refused, IsEmpty());

  IpcRegisterMsg wrong = Record(5, "");
  EXPECT_EQ(registry.Register(wrong, {}, 0, refused), kRegisterErrRecord);
  wrong = Record(5, "two\nlines");
  EXPECT_EQ(registry.Register(wrong, {}, 0, refused), kRegisterErrRecord);
  memset(wrong.name, 'n', sizeof(wrong.name));
  EXPECT_EQ(registry.Register(wrong, {}, 0, refused), kRegisterErrRecord) << "a name without an end";
  wrong = Record(5, "app5");
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
  Verdict Take(const IPC_MSG_S& frame) { return router_.Take(frame, frame.length + kIpcFrameHead, now_); }
  std::vector<int> GotBy(uint32_t pid) {
    std::vector<int> sequences;
    for (const IPC_MSG_S& frame : got_[pid]) sequences.push_back(frame.sequence);
    return sequences;
  }

  Registry registry_;
  std::map<uint32_t, size_t> room_;
  std::map<uint32_t, std::vector<IPC_MSG_S>> got_;
  size_t lost_ = 0;
  uint64_t now_ = 1000;
  FrameRouter router_;
};

TEST_F(RouterTest, FullDestinationHoldsUpNobodyAndLosesNothingWhileItReads) {
  Register(registry_, 1, {100});
  Register(registry_, 2, {200});
  room_[2] = 9;
  for (uint16_t sequence = 1; sequence <= 3; ++sequence) {
    EXPECT_EQ(Take(Frame(7, sequence, 100, 0, 1)), Verdict::kRouted);
    EXPECT_EQ(Take(Frame(8, sequence, 200, 0, 1)), Verdict::kRouted);
  }
  EXPECT_THAT(GotBy(2), ElementsAre(1, 2, 3));
  EXPECT_EQ(router_.KeptFor(1), 3u);
  for (int round = 0; round < 3; ++round) {  // it reads one frame in 20 s
    now_ += 20000;
    room_[1] = 1;
    router_.Retry(now_);
  }
  EXPECT_THAT(GotBy(1), ElementsAre(1, 2, 3));
  EXPECT_EQ(Take(Frame(7, 4, 100, 0, 1)), Verdict::kRouted);
  now_ += 30000;
  router_.Retry(now_);
  EXPECT_EQ(router_.Kept(), 0u) << "a process that does not read at all keeps memory for ever";
  EXPECT_EQ(lost_, 1u);
}

TEST_F(RouterTest, UnknownModuleIsWaitedForAndTheMessageStaysWithOneProcess) {
  room_[1] = room_[2] = 9;
  EXPECT_EQ(Take(Frame(7, 1, 100, 0, 3)), Verdict::kRouted);
  EXPECT_EQ(Take(Frame(7, 2, 300, 0, 1)), Verdict::kRouted);
  Register(registry_, 1, {100});
  router_.Retry(now_);
  EXPECT_EQ(Take(Frame(7, 1, 0, 1, 3)), Verdict::kRouted);
  std::vector<uint16_t> refused;
  ASSERT_TRUE(registry_.RemoveModules(1, std::vector<uint16_t>{100}, refused));
  Register(registry_, 2, {100});
  EXPECT_EQ(Take(Frame(7, 1, 0, 2, 3)), Verdict::kRouted);
  EXPECT_THAT(GotBy(1), ElementsAre(1, 1, 1)) << "a message was torn between two processes";
  EXPECT_EQ(Take(Frame(7, 3, 100, 0, 1)), Verdict::kRouted);
  EXPECT_THAT(GotBy(2), ElementsAre(3));
  now_ += 30000;
  router_.Retry(now_);
  EXPECT_EQ(router_.Kept(), 0u) << "module 300 never came";
  EXPECT_EQ(lost_, 1u);
}

TEST_F(RouterTest, LyingFramesAreDroppedAndOwnModulesAreTheCallers) {
  Register(registry_, 7, {100});
  IPC_MSG_S frame = Frame(7, 1, 100, 0, 1);
  EXPECT_EQ(router_.Take(frame, frame.length + kIpcFrameHead - 1, now_), Verdict::kDropped);
  EXPECT_EQ(router_.Take(frame, kIpcFrameHead - 1, now_), Verdict::kDropped);
  EXPECT_EQ(Take(Frame(7, 1, 100, 1, 2)), Verdict::kDropped) << "its first frame did not come";
  EXPECT_EQ(Take(Frame(7, 2, 3000, 0, 1)), Verdict::kDropped) << "no process can have module 3000";
  EXPECT_EQ(Take(Frame(7, 3, 100, 0, 1)), Verdict::kDropped) << "back to its own process";
  frame.length = kMsgHeadSize - 1;
  EXPECT_EQ(Take(frame), Verdict::kDropped) << "a header that is not there";
  for (const uint16_t own : {kAuthModule, kFaultModule, kIpcModule, kCommandModule})
    EXPECT_EQ(Take(Frame(7, 4, own, 0, 1)), Verdict::kLocal) << own;
}

class SmallRouterTest : public RouterTest {
 protected:
  SmallRouterTest() : RouterTest({.laneFrames = 4, .allFrames = 6, .routes = 2, .waitMs = 30000}) {}
};

TEST_F(SmallRouterTest, WhatDoesNotFitIsLostByWholeMessages) {
  Register(registry_, 1, {100});
  EXPECT_EQ(Take(Frame(7, 1, 100, 0, 1)), Verdict::kRouted);
  for (uint32_t index = 0; index < 3; ++index) EXPECT_EQ(Take(Frame(7, 2, 100, index, 9)), Verdict::kRouted);
  EXPECT_EQ(Take(Frame(7, 2, 100, 3, 9)), Verdict::kDropped);
  EXPECT_EQ(lost_, 4u) << "the pieces of a message that is lost took room from others";
  room_[1] = 9;
  EXPECT_EQ(Take(Frame(7, 2, 100, 4, 9)), Verdict::kDropped) << "the rest of it would start with a hole";
  router_.Retry(now_);
  EXPECT_THAT(GotBy(1), ElementsAre(1));

  for (uint16_t sequence = 10; sequence < 12; ++sequence)
    (void)Take(Frame(8, sequence, 100, 0, 2));  // together with the one above they are too many
  EXPECT_EQ(Take(Frame(9, 1, 100, 0, 2)), Verdict::kDropped);
  now_ += 30000;
  router_.Retry(now_);
  EXPECT_EQ(Take(Frame(9, 1, 100, 0, 2)), Verdict::kRouted) << "unfinished messages are forgotten";
}

/// A message on its way through the model: the process that is to get it is settled once.
struct Travelling {
  uint32_t pid;
  uint16_t sequence;
  uint16_t destination;
  uint32_t frames;
  uint32_t sent = 0;
  uint32_t to = kNobody;
};

TEST_F(RouterTest, EveryFrameOfManySendersReachesItsOneProcessInOrder) {
  std::mt19937 random(NewSeed());
  const auto below = [&](uint32_t end) { return static_cast<uint32_t>(random() % end); };
  std::vector<Travelling> open;
  std::map<std::pair<uint32_t, uint16_t>, Travelling> all;
  const auto settle = [&] {  // messages for modules that somebody has by now
    for (auto& [key, each] : all) {
      if (each.to == kNobody && each.sent != 0) each.to = HolderOf(registry_, each.destination);
    }
  };
  uint16_t sequence = 0;
  for (int step = 0; step < 30000; ++step) {
    const uint32_t choice = below(100);
    if (choice < 2 && registry_.Apps().size() < kIpcAppMax) {
      const uint32_t pid = 1 + below(kIpcAppMax);
      if (registry_.FindByPid(pid) == nullptr)
        Register(registry_, pid, {static_cast<uint16_t>(100 + below(80))});
      router_.Retry(now_);
    } else if (choice < 6 && !registry_.Apps().empty()) {  // a module moves
      const auto apps = registry_.Apps();
      std::vector<uint16_t> refused;
      const std::vector<uint16_t> id = {static_cast<uint16_t>(100 + below(80))};
      (void)registry_.RemoveModules(HolderOf(registry_, id[0]), id, refused);
      ASSERT_TRUE(
          registry_.AddModules(apps[below(static_cast<uint32_t>(apps.size()))].queue.pid, id, refused));
      router_.Retry(now_);
    } else if (choice < 30) {
      Travelling message = {1000 + below(3), ++sequence, static_cast<uint16_t>(100 + below(80)),
                            1 + below(6)};
      if (open.size() < 500) open.push_back(message), all[{message.pid, message.sequence}] = message;
    } else if (choice < 85 && !open.empty()) {
      const uint32_t at = below(static_cast<uint32_t>(open.size()));
      Travelling& message = open[at];
      ASSERT_EQ(Take(Frame(message.pid, message.sequence, message.destination, message.sent, message.frames)),
                Verdict::kRouted);
      ++all[{message.pid, message.sequence}].sent;
      if (++message.sent == message.frames) open.erase(open.begin() + at);
    } else {
      room_[1 + below(kIpcAppMax)] = below(5);
      router_.Retry(now_);
    }
    settle();
  }
  for (uint32_t pid = 1; pid <= kIpcAppMax; ++pid) {
    room_[pid] = 1000000;
    if (registry_.FindByPid(pid) == nullptr) Register(registry_, pid);
  }
  for (uint16_t id = 100; id < 180; ++id) {  // nobody is left waiting for a module
    std::vector<uint16_t> refused;
    ASSERT_TRUE(registry_.AddModules(1 + id % kIpcAppMax, std::vector<uint16_t>{id}, refused));
  }
  router_.Retry(now_);
  settle();
  EXPECT_EQ(router_.Kept(), 0u);
  EXPECT_EQ(lost_, 0u);
  std::map<std::pair<uint32_t, uint16_t>, uint32_t> came;
  for (const auto& [pid, frames] : got_) {
    for (const IPC_MSG_S& frame : frames) {
      const std::pair<uint32_t, uint16_t> key = {frame.sourcePid, frame.sequence};
      ASSERT_EQ(all[key].to, pid) << "message " << frame.sequence << " came to the wrong process";
      ASSERT_EQ(frame.number & kIpcFrameIndex, came[key]++) << "a frame twice, or out of its order";
    }
  }
  for (const auto& [key, message] : all) ASSERT_EQ(came[key], message.sent) << "frames of " << key.second;
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
  bool StepAt(uint64_t nowMs) { return supervisor_.Step(nowMs); }

  Registry registry_;
  std::set<pid_t> alive_;
  bool confirmed_ = true;
  std::vector<std::string> done_;
  Supervisor supervisor_{
      registry_,
      {[this](const ProcessImage& image) { return alive_.contains(image.pid); },
       [this](const RegisteredApp&) { return confirmed_; },
       [this](const ProcessImage& image, int number) {
         done_.push_back("signal " + std::to_string(number) + " to " + std::to_string(image.pid));
       },
       [this](const std::string& name, const ProcessImage&) {
         done_.push_back("start " + name);
         return true;
       },
       [](const std::string&, const char*) {}}};
};

TEST_F(SupervisorTest, ProcessThatHasGoneIsStartedAfterItsTimeOutUntilItRegisters) {
  Start(1);
  alive_.clear();
  EXPECT_TRUE(StepAt(50000));
  EXPECT_EQ(registry_.FindByPid(1), nullptr) << "messages would go into a dead process's queue";
  EXPECT_FALSE(StepAt(119999));
  EXPECT_THAT(done_, IsEmpty());
  (void)StepAt(120000);
  (void)StepAt(239999);
  EXPECT_THAT(done_, ElementsAre("start app1"));
  (void)StepAt(240000);
  EXPECT_THAT(done_, ElementsAre("start app1", "start app1")) << "the first start came to nothing";
  Start(1);
  (void)StepAt(900000 - 1);
  (void)registry_.Beat(1, 1, 900000);
  EXPECT_THAT(done_, ElementsAre("start app1", "start app1")) << "it runs";
}

TEST_F(SupervisorTest, SilentProcessIsEndedAtTheSecondLookAndStartedOnceItHasEnded) {
  const ProcessImage image = Start(1);
  EXPECT_FALSE(StepAt(120000)) << "a main process that was asleep itself may not blame the others";
  ASSERT_TRUE(registry_.Beat(1, 1, 120500));
  EXPECT_FALSE(StepAt(121000));
  EXPECT_FALSE(StepAt(240500));
  EXPECT_TRUE(StepAt(241500));
  EXPECT_THAT(done_, ElementsAre("signal 15 to 1"));
  EXPECT_TRUE(supervisor_.IsEnding(image));
  (void)StepAt(242500);
  (void)StepAt(243500);
  EXPECT_THAT(done_, ElementsAre("signal 15 to 1", "signal 9 to 1"));
  alive_.clear();
  (void)StepAt(244500);
  EXPECT_EQ(done_.back(), "start app1");
  EXPECT_FALSE(supervisor_.IsEnding(image));
}

TEST_F(SupervisorTest, ProcessThatAnotherRegisteredIsNeverSignalled) {
  Start(1);
  confirmed_ = false;
  EXPECT_FALSE(supervisor_.Restart(1, 0));
  EXPECT_NE(registry_.FindByPid(1), nullptr);
  EXPECT_FALSE(supervisor_.Restart(2, 0)) << "not registered at all";
  (void)StepAt(130000);
  EXPECT_TRUE(StepAt(131000));
  EXPECT_EQ(registry_.FindByPid(1), nullptr);
  Start(1);
  alive_.clear();
  EXPECT_TRUE(StepAt(140000));
  (void)StepAt(300000);
  EXPECT_THAT(done_, IsEmpty()) << "a program was started in another's name";
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
  confirmed_ = false;
  EXPECT_FALSE(supervisor_.IsHeld(record)) << "its queue was made anew by the process that took over";
  confirmed_ = true;
  alive_.erase(2);
  EXPECT_FALSE(supervisor_.IsHeld(record));
}

std::string Content(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<uint8_t> CommandData(const std::string& command, uint16_t first = 1, uint16_t last = 0) {
  const uint16_t head[3] = {first, 0, static_cast<uint16_t>(command.size() + 1)};
  std::vector<uint8_t> data(sizeof(head));
  memcpy(data.data(), head, sizeof(head));
  data.insert(data.end(), command.c_str(), command.c_str() + command.size() + 1);
  const auto* bytes = reinterpret_cast<const uint8_t*>(&last);
  data.insert(data.end(), bytes, bytes + sizeof(last));
  return data;
}

TEST(MapCommand, OnlyTheSendersOwnMapGoesIntoAMapFileOfTheLogs) {
  const std::vector<std::string> directories = {"/mnt/log/"};
  const auto taken = [&](const std::vector<uint8_t>& data) {
    return ParseMapCommand(data, 42, directories).has_value();
  };
  EXPECT_TRUE(taken(CommandData("cat /proc/42/maps >> /mnt/log/x.tola.map.tmp")));
  EXPECT_TRUE(taken(CommandData("cat_proc_maps.sh 42 >> /mnt/log/deep/x.map.tmp")));
  for (const char* command :
       {"cat /proc/43/maps >> /mnt/log/x.map.tmp", "cat /proc/42/mem >> /mnt/log/x.map.tmp",
        "cat /proc/42/maps > /mnt/log/x.map.tmp", "cat /proc/42/maps >> /mnt/log/x.map.tmp; reboot",
        "cat /proc/42/maps >> /mnt/log/x.map.tmp.sh", "cat /proc/42/maps >> /etc/x.map.tmp",
        "cat /proc/42/maps >> /mnt/log/../etc/x.map.tmp", "cat /proc/42/maps >> /mnt/log/$(id).map.tmp",
        "cat /proc/42/maps >>  /mnt/log/x.map.tmp", "cat /proc/42/maps >> /mnt/log/.map.tmp",
        "cat /proc/42/maps >> /mnt/log/a b.map.tmp", "reboot", ""}) {
    EXPECT_FALSE(taken(CommandData(command))) << command;
  }
  const auto good = CommandData("cat /proc/42/maps >> /mnt/log/x.map.tmp");
  for (size_t length = 0; length < good.size(); ++length)
    EXPECT_FALSE(taken({good.begin(), good.begin() + static_cast<ptrdiff_t>(length)})) << length;
  EXPECT_FALSE(taken(CommandData("cat /proc/42/maps >> /mnt/log/x.map.tmp", 2)));
  EXPECT_FALSE(taken(CommandData("cat /proc/42/maps >> /mnt/log/x.map.tmp", 1, 7)));
}

TEST(MapCommand, AppendsTheMapAndFollowsNoLink) {
  const support::TempDir dir;
  const std::string file = dir.Write("x.map.tmp", "first\n");
  const auto pid = static_cast<uint32_t>(getpid());
  EXPECT_EQ(RunMapCommand({pid, file}), 0u);
  const std::string content = Content(file);
  EXPECT_EQ(content.rfind("first\n", 0), 0u);
  EXPECT_NE(content.find("[stack]"), std::string::npos);
  const std::string target = dir.Write("secret", "kept");
  ASSERT_EQ(symlink(target.c_str(), dir.File("l.map.tmp").c_str()), 0);
  ASSERT_EQ(symlink(dir.path().c_str(), dir.File("d").c_str()), 0);
  EXPECT_EQ(RunMapCommand({pid, dir.File("l.map.tmp")}), 1u);
  EXPECT_EQ(RunMapCommand({pid, dir.File("d/new.map.tmp")}), 1u) << "a directory that leads elsewhere";
  EXPECT_EQ(Content(target), "kept");
}

TEST(ProcessControl, ProcessIsKnownEndedAndStartedAgainWithItsArguments) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir("/usr") == 0) execl("/bin/sleep", "sleep", "1000.5", nullptr);
    _exit(1);
  }
  ProcessImage image;
  while (!ReadProcessImage(pid, image) || image.arguments[0] != "sleep") (void)usleep(1000);
  EXPECT_TRUE(ProcessIsAlive(image));
  SignalProcess(image, SIGKILL);
  while (ProcessIsAlive(image)) (void)usleep(1000);  // it waits for its parent, and counts as gone
  ASSERT_EQ(waitpid(pid, nullptr, 0), pid);

  const pid_t again = StartProcess(image);
  ASSERT_GT(again, 0);
  ProcessImage second;
  while (!ReadProcessImage(again, second) || second.arguments[0] != "sleep") (void)usleep(1000);
  EXPECT_THAT(second.arguments, ElementsAre("sleep", "1000.5"));
  EXPECT_EQ(second.directory, "/usr");
  EXPECT_EQ(second.program, image.program);
  EXPECT_NE(getsid(again), getsid(0)) << "it would end with the main process's terminal";
  ProcessImage stranger = second;
  ++stranger.startTicks;
  SignalProcess(stranger, SIGKILL);
  EXPECT_TRUE(ProcessIsAlive(second)) << "a later process of the same id was taken for the one that is meant";
  SignalProcess(second, SIGKILL);
  EXPECT_EQ(waitpid(again, nullptr, 0), again);
}

TEST(ProcessControl, ProgramOfTheSuperusersIsStartedAsWhoeverRanIt) {
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser can act as two users";
  constexpr uid_t kOther = 4711;
  const pid_t pid = fork();
  if (pid == 0) {
    if (setresuid(kOther, 0, 0) == 0) execl("/bin/sleep", "sleep", "1000.5", nullptr);
    _exit(1);
  }
  ProcessImage image;
  while (!ReadProcessImage(pid, image) || image.arguments[0] != "sleep") (void)usleep(1000);
  EXPECT_EQ(image.user, kOther);
  SignalProcess(image, SIGKILL);
  EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
}

TEST(StatusReport, IdsStandInRangesAndNamesCannotBreakTheObject) {
  EXPECT_EQ(IdRanges({5, 6, 7, 9, 1056}), "5-7 9 1056");
  PlatformStatus status;
  status.apps.resize(1);
  status.apps[0].app.name = "a\"b\\";
  EXPECT_NE(StatusJson(status).find("\"name\":\"a\\\"b\\\\\","), std::string::npos) << StatusJson(status);
}

}  // namespace
}  // namespace board_main
