// Component messages between real processes: the test and one or more dms_peer.
#include "velto/dms.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/owners.h"
#include "support/at_once.h"
#include "support/inbox.h"
#include "support/temp_dir.h"
#include "velto/dms_peer.h"
#include "velto/dms_wire.h"
#include "velto/kel_cfg.h"
#include "velto/kel_mem.h"
#include "velto/kel_support.h"

namespace {

using base::UniqueFd;
using velto::kWireDataMax;
using velto::WireHead;

constexpr uint32_t kMessageMax = 1048576;

struct Received {
  uint32_t id = 0, source = 0, destination = 0, priority = 0;
  std::string head = {}, data = {};
};

// This process's own component, which keeps what the peers answer.
void Keep(void* message) {
  Received received{DMS_MsgRecvIidGet(message), DMS_MsgSendCidGet(message), DMS_MsgRecvCidGet(message)};
  received.head.assign(static_cast<char*>(DMS_MsgReserveHeadGet(message)), kDmsReservedHeadSize);
  received.data.assign(static_cast<char*>(message), DMS_MsgLenGet(message));
  EXPECT_EQ(DMS_MsgQuePrioGet(message, &received.priority), 0u);
  support::TheInbox<Received>().Put(std::move(received));
}

// Brings the runtime of the test process up, once.
class Runtime {
 public:
  static Runtime& Get() {
    static Runtime runtime;
    return runtime;
  }
  // A configuration file with sockets in the directory `dir`.
  [[nodiscard]] std::string Config(const std::string& dir, int answerMs, const std::string& user = "") const {
    return files.Write("feature" + std::to_string(++configs_) + ".cfg",
                       "dms.dir=" + files.File(dir) + "\ndms.answer_ms=" + std::to_string(answerMs) +
                           "\ndms.peer_user=" + user + "\n");
  }
  [[nodiscard]] std::string SocketFile(uint32_t process, const std::string& dir = "dms") const {
    return files.File(dir + "/" + kPeerIp + "_" + std::to_string(process));
  }

  const support::TempDir files;

 private:
  Runtime() {
    // A short time to wait for answers here, so that what never answers is soon known to.
    EXPECT_EQ(KEL_CfgdbInitByFsldr(Config("dms", 10000).c_str()), 0u);
    EXPECT_EQ(KEL_Start(nullptr), 0u);
    EXPECT_EQ(DMS_MeshCamProcAddrItemAdd(kPeerIp, kTestProcess), 0u);
    EXPECT_EQ(BuildComponent(kTestCsi, Keep, 1000), 0u) << "no answer is to be refused here";
    EXPECT_FALSE(std::filesystem::exists(SocketFile(kTestProcess)))
        << "bound before anybody handles a message";
    EXPECT_EQ(RTF_CompInstSchEnable(CpiOf(kTestCsi), 1), 0u);
  }

  mutable int configs_ = 0;
};

class Peer {
 public:
  Peer(uint32_t process, const std::string& config) {
    const std::string program = "exec '" TOLA_BUILD_DIR "/tests/velto/dms_peer' '";
    output_ = popen((program + config + "' " + std::to_string(process)).c_str(), "re");
    EXPECT_TRUE(output_ != nullptr && fscanf(output_, "%u %d", &enabled_, &pid_) == 2);
  }
  explicit Peer(uint32_t process) : Peer(process, Runtime::Get().Config("dms", 20000)) {
    EXPECT_EQ(enabled_, 0u);
  }
  ~Peer() { Kill(); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void Kill() {
    if (output_ == nullptr) return;
    if (pid_ > 0) kill(pid_, SIGKILL);
    (void)pclose(std::exchange(output_, nullptr));
  }
  /// The result of enabling its component; one that failed ends.
  [[nodiscard]] uint32_t enabled() const { return enabled_; }

 private:
  FILE* output_ = nullptr;
  pid_t pid_ = -1;
  uint32_t enabled_ = UINT32_MAX;
};

UniqueFd RawSocket(const std::string& file, decltype(&connect) join = connect) {
  UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  EXPECT_LT(file.size(), sizeof(address.sun_path));
  memcpy(address.sun_path, file.c_str(), std::min(file.size() + 1, sizeof(address.sun_path)));
  EXPECT_EQ(join(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << file;
  return fd;
}

WireHead HeadFor(uint32_t total) {
  return {velto::kWireMagic, total, 0, CpiOf(kPeerCsi), kTestCsi, kEcho, 0, 0, {}};
}

void RawSend(const UniqueFd& fd, const WireHead& head, size_t dataSize) {
  std::string packet(sizeof(head) + dataSize, 'x');
  memcpy(packet.data(), &head, sizeof(head));
  (void)!send(fd.get(), packet.data(), packet.size(), MSG_NOSIGNAL);  // the peer may have closed already
}

constexpr uint32_t kClosed = 0xC105ED;

// The peer's answer, or kClosed when it closes the connection instead; waits for one or the other.
uint32_t RawAnswer(const UniqueFd& fd) {
  uint32_t answer = 0;
  const ssize_t size = recv(fd.get(), &answer, sizeof(answer), 0);
  if (size == sizeof(answer)) return answer;
  EXPECT_TRUE(size == 0 || (size < 0 && errno == ECONNRESET)) << size;
  return kClosed;
}

// Sends a message of `total` bytes and gives the peer's answer.
uint32_t RawSendWhole(const UniqueFd& fd, uint32_t total) {
  WireHead head = HeadFor(total);
  do {
    const uint32_t size = std::min(kWireDataMax, total - head.offset);
    RawSend(fd, head, size);
    head.offset += size;
  } while (head.offset < total);
  return RawAnswer(fd);
}

class DmsTest : public testing::Test {
 protected:
  DmsTest() { EXPECT_EQ(KEL_HandleInitialize("dms", &handle_), 0u); }
  ~DmsTest() override {
    EXPECT_TRUE(Eventually([this] {  // the inbox frees its last message after it was taken
      uint64_t bytes = 0, count = 1;
      return KEL_HandleUseGet(handle_, &bytes, &count) == 0 && count == 0;
    })) << "a message was not freed";
  }

  static void Know(uint32_t process, uint32_t csi = kPeerCsi, const char* ip = kPeerIp) {
    ASSERT_EQ(DMS_CamMeshOtherProcAddrItemAdd(ip, process), 0u);
    ASSERT_EQ(DMS_CompAddrTableItemAdd(csi, 1, ip, process), 0u);
  }
  static uint32_t Send(uint32_t id, const std::string& data = "", uint32_t csi = kPeerCsi,
                       const std::string& head = "", uint8_t priority = 0) {
    void* message = DMS_MsgAlloc(kTestCsi, static_cast<uint32_t>(data.size()));
    if (message == nullptr) return UINT32_MAX;
    memcpy(message, data.data(), data.size());
    memcpy(DMS_MsgReserveHeadGet(message), head.data(), head.size());
    DMS_MsgRecvIidSet(message, id);
    EXPECT_EQ(DMS_MsgPrioSet(message, priority), 0u);
    return DMS_MsgSend(CpiOf(csi), message);
  }
  void ExpectServed(const std::string& why) {
    EXPECT_EQ(Send(kEcho, why), 0u) << why;
    EXPECT_EQ(inbox_.Take().data, why);
  }
  // Asks the peer until so many messages are live in it: it sees what happens on other connections in its own
  // time.
  void ExpectLive(uint64_t expected, const char* why) {
    EXPECT_TRUE(Eventually([&] {
      EXPECT_EQ(Send(kCount), 0u);
      return inbox_.Take().data == std::string(reinterpret_cast<char*>(&expected), sizeof(expected));
    })) << why;
  }

  Runtime& runtime_ = Runtime::Get();
  support::Inbox<Received>& inbox_ = support::TheInbox<Received>();
  uint32_t handle_ = 0;
};

TEST_F(DmsTest, MessagesOfEveryLengthArriveWhole) {
  const Peer peer(201);
  Know(201);
  std::mt19937 random(201);
  const std::string head("\x07\0reserved head!", kDmsReservedHeadSize);
  for (const uint32_t length : {0u, 1u, kWireDataMax - 1, kWireDataMax, kWireDataMax + 1, 32767u, 32768u,
                                65535u, 65536u, 65538u, 2 * kWireDataMax, kMessageMax}) {
    std::string data(length, '\0');
    for (char& byte : data) byte = static_cast<char>(random());
    ASSERT_EQ(Send(kEcho, data, kPeerCsi, head, 7), 0u) << length;
    const Received answer = inbox_.Take();
    EXPECT_TRUE(answer.data == data) << length;
    EXPECT_EQ(answer.head, head) << length;
    EXPECT_EQ(answer.id, kEcho + 100);
    EXPECT_EQ(answer.source, kPeerCsi);
    EXPECT_EQ(answer.destination, CpiOf(kTestCsi));
    EXPECT_EQ(answer.priority, 7u);
  }
  EXPECT_EQ(Send(kEcho, std::string(kMessageMax + 1, 'x')), kDmsErrTooLong);
}

TEST_F(DmsTest, ManySendersAtOnceLoseAndMixNothing) {
  const Peer peer(202);
  Know(202);
  support::AtOnce(4, [](uint32_t sender) {
    for (uint32_t j = 0; j < 50; ++j) {
      const std::string data(1 + j * 1500, static_cast<char>('a' + sender));
      uint32_t sent = 0;
      while ((sent = Send(kEcho, data)) == kDmsErrRefused) std::this_thread::yield();  // its queue is short
      EXPECT_EQ(sent, 0u);
    }
  });
  uint32_t counts[4] = {};
  for (int i = 0; i < 200; ++i) {
    const std::string data = inbox_.Take().data;
    ASSERT_FALSE(data.empty());
    EXPECT_EQ(data.find_first_not_of(data[0]), std::string::npos) << "two messages were mixed";
    ++counts[data[0] - 'a'];
  }
  EXPECT_THAT(counts, testing::Each(50u));
}

TEST_F(DmsTest, ASenderLearnsAtOnceThatNobodyTakesTheMessage) {
  Know(203);
  EXPECT_EQ(Send(kEcho), kDmsErrNoPeer) << "no such socket";
  Peer peer(203);
  EXPECT_EQ(Send(kEcho, "", 9999), kDmsErrNoAddr);
  Know(203, 4199);
  EXPECT_EQ(Send(kEcho, "", 4199), kDmsErrRefused) << "no such component there";
  Know(203, kPeerDisabledCsi);
  EXPECT_EQ(Send(kEcho, std::string(100000, 'x'), kPeerDisabledCsi), kDmsErrRefused);
  Know(203, 4198, "10.1.2.3");
  EXPECT_EQ(Send(kEcho, "", 4198), kDmsErrFarHost);
  ExpectServed("after refused ones");
  peer.Kill();
  EXPECT_EQ(Send(kEcho), kDmsErrNoPeer) << "the dead process's socket file is still there";
  EXPECT_EQ(DMS_CamMeshOtherProcAddrItemDel(kPeerIp, 203), 0u);
  EXPECT_EQ(Send(kEcho), kDmsErrNoAddr) << "removal undoes the components' addresses";
}

TEST_F(DmsTest, ARestartedPeerIsReachedByTheNextSendAndALivingOneKeepsItsAddress) {
  Know(204);
  for (int i = 0; i < 2; ++i) {
    const Peer peer(204);
    ExpectServed("over a connection to a process that died, and its stale socket file");
    EXPECT_EQ(Peer(204, runtime_.Config("dms", 1000)).enabled(), kDmsErrSocket);
    ExpectServed("still the first process's");
  }
}

TEST_F(DmsTest, BrokenPacketsCostTheirOwnConnectionOnly) {
  const Peer peer(207);
  Know(207);
  WireHead wrongMagic = HeadFor(1), late = HeadFor(1), priority = HeadFor(1);
  wrongMagic.magic ^= 1;
  late.offset = 1;
  priority.priority = 256;
  WireHead other = HeadFor(kWireDataMax + 1);
  other.offset = kWireDataMax;
  other.messageId = kCount;
  const struct {
    const char* what;
    WireHead head;
    size_t dataSize;
    WireHead rest = {};
  } cases[] = {{"wrong magic", wrongMagic, 1},
               {"begins in the middle", late, 1},
               {"no such priority", priority, 1},
               {"more data than total", HeadFor(1), 2},
               {"less data than total", HeadFor(2), 1},
               {"a short packet in front", HeadFor(kWireDataMax + 1), 10},
               {"an overlong packet", HeadFor(kMessageMax), kWireDataMax + 1},
               {"a packet of another message", HeadFor(kWireDataMax + 1), kWireDataMax, other}};
  for (const auto& [what, head, dataSize, given] : cases) {
    const UniqueFd raw = RawSocket(runtime_.SocketFile(207));
    RawSend(raw, head, dataSize);
    WireHead rest =
        given.total != 0 ? given : head;  // with it a receiver that let the first pass would answer
    rest.offset = static_cast<uint32_t>(dataSize);
    if (rest.offset < rest.total) RawSend(raw, rest, std::min(kWireDataMax, rest.total - rest.offset));
    EXPECT_EQ(RawAnswer(raw), kClosed) << what;
    ExpectServed(what);
  }
  const UniqueFd tiny = RawSocket(runtime_.SocketFile(207));
  EXPECT_EQ(send(tiny.get(), "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_EQ(RawAnswer(tiny), kClosed) << "not even a head";
}

TEST_F(DmsTest, ThePeersOwnBoundsHoldWhateverTheSenderBelieves) {
  const Peer peer(208);
  Know(208);
  const UniqueFd other = RawSocket(runtime_.SocketFile(208));
  EXPECT_EQ(RawSendWhole(other, kMessageMax + 1), kDmsErrTooLong) << "read to its end, kept nowhere";
  std::vector<UniqueFd> raw;
  for (int i = 0; i < 4; ++i) {
    raw.push_back(RawSocket(runtime_.SocketFile(208)));
    RawSend(raw.back(), HeadFor(kMessageMax), kWireDataMax);
  }
  ExpectLive(5, "four halves and the question");
  EXPECT_EQ(RawSendWhole(other, 1), kDmsErrRefused) << "memory for what is put together is not bounded";
  raw.clear();
  ExpectLive(1, "a half message was kept after its connection");
  for (int i = 0; i < 100; ++i) raw.push_back(RawSocket(runtime_.SocketFile(208)));
  EXPECT_EQ(RawAnswer(raw.front()), kClosed) << "connections are not bounded";
  ExpectServed("over a connection that was closed as the oldest one");
}

TEST_F(DmsTest, APeerThatFallsSilentWithinAMessageIsDropped) {
  const Peer peer(215, runtime_.Config("dms", 1000));
  Know(215);
  const UniqueFd idle = RawSocket(runtime_.SocketFile(215));
  const UniqueFd silent = RawSocket(runtime_.SocketFile(215));
  RawSend(silent, HeadFor(kMessageMax), kWireDataMax);
  EXPECT_EQ(RawAnswer(silent), kClosed);
  ExpectLive(1, "the half message was kept");
  EXPECT_EQ(RawSendWhole(idle, 0), 0u) << "silence between messages is no fault";
  EXPECT_EQ(inbox_.Take().id, kEcho + 100);
}

TEST_F(DmsTest, AMessageThatWasTakenIsNeverSentAgain) {
  const UniqueFd listener = RawSocket(runtime_.SocketFile(210), bind);
  EXPECT_EQ(listen(listener.get(), 8), 0);
  Know(210);
  constexpr uint32_t kBadAnswers[] = {0x12345678, kDmsErrLink};
  std::thread peer([&] {
    std::vector<char> packet(velto::kWirePacketMax);
    for (size_t i = 0; i <= std::size(kBadAnswers); ++i) {
      const UniqueFd taken(accept(listener.get(), nullptr, nullptr));
      EXPECT_GT(recv(taken.get(), packet.data(), packet.size(), 0), 0);
      const uint32_t good = 0;
      EXPECT_EQ(send(taken.get(), &good, sizeof(good), 0), 4);
      EXPECT_GT(recv(taken.get(), packet.data(), packet.size(), 0), 0);
      if (i < std::size(kBadAnswers)) {
        EXPECT_EQ(send(taken.get(), &kBadAnswers[i], 4, 0), 4);
      }
    }
  });
  for (size_t i = 0; i <= std::size(kBadAnswers); ++i) {
    EXPECT_EQ(Send(kEcho, "answered"), 0u);
    EXPECT_EQ(Send(kEcho, "taken, then closed or answered with nonsense"), kDmsErrLink);
  }
  peer.join();
  pollfd more{listener.get(), POLLIN, 0};
  EXPECT_EQ(poll(&more, 1, 0), 0) << "connected again after the message had been taken";
}

TEST_F(DmsTest, ADirectoryThatOthersMayWriteIsRefused) {
  const std::string dir = runtime_.files.File("open");
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  std::filesystem::create_directory_symlink(dir, runtime_.files.File("link"));
  EXPECT_EQ(Peer(212, runtime_.Config("link", 1000)).enabled(), kDmsErrSocket);
  for (const mode_t mode : {0720, 0702, 01777, 0700}) {
    ASSERT_EQ(chmod(dir.c_str(), mode), 0);
    EXPECT_EQ(Peer(211, runtime_.Config("open", 1000)).enabled(), mode == 0700 ? 0u : kDmsErrSocket) << mode;
  }
}

// Runs `act` as another user in a thread of its own; false when that user is not mapped here.
bool AsUser(uid_t user, const std::function<void()>& act) {
  bool changed = false;
  std::thread([&] {
    changed = syscall(SYS_setresuid, -1, user, -1) == 0;
    if (changed) act();
  }).join();
  return changed;
}

constexpr uid_t kStranger = 54321;

TEST_F(DmsTest, UsersWhoAreNotAllowedAreTurnedAwayAtBothEndsAndTheNamedOneIsServed) {
  const passwd* user = getpwnam("daemon");
  if (geteuid() != 0 || user == nullptr) GTEST_SKIP() << "needs root and the user daemon";
  const Peer peer(213), given(216, runtime_.Config("given", 1000, "daemon"));
  EXPECT_EQ(given.enabled(), 0u);
  Know(213);
  const UniqueFd listener = RawSocket(runtime_.SocketFile(214), bind);
  const std::string socketFile = runtime_.SocketFile(213), givenFile = runtime_.SocketFile(216, "given");
  for (const std::string& path : {runtime_.files.path(), runtime_.files.File("dms")})
    ASSERT_EQ(chmod(path.c_str(), 0711), 0);
  ASSERT_EQ(chmod(socketFile.c_str(), 0666), 0);
  const bool mapped = AsUser(kStranger,
                             [&] {
                               EXPECT_EQ(RawSendWhole(RawSocket(socketFile), 0), kClosed)
                                   << "a stranger's message was answered";
                               EXPECT_NE(euidaccess(givenFile.c_str(), F_OK), 0) << "the directory is open";
                               EXPECT_EQ(listen(listener.get(), 8), 0);
                             }) &&
                      AsUser(user->pw_uid, [&] {
                        EXPECT_EQ(RawSendWhole(RawSocket(givenFile), kMessageMax + 1), kDmsErrTooLong)
                            << "not served";
                      });
  if (!mapped) GTEST_SKIP() << "no other user is mapped here";
  ExpectServed("after a stranger");
  Know(214, 4214);
  EXPECT_EQ(Send(kEcho, "secret", 4214), kDmsErrPeerUser);
}

}  // namespace
