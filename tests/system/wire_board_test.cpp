/// Runs on a board beside the daemon, in the requester's place: messages as no honest requester sends them.
/// The daemon takes one message after the other, so the reply to a good one proves that those before it are
/// done with.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>
#include <mutex>
#include <random>
#include <vector>

#include "base/owners.h"
#include "comp/comp_manager.h"
#include "comp/comp_msg.h"
#include "securec.h"
#include "update/script_exe_ids.h"
#include "update/script_exe_messages.h"
#include "velto/kel_cfg.h"
#include "velto/kel_task.h"

namespace {

constexpr uint32_t kRequester = 4150;
constexpr uint16_t kMissingField = 9476;

struct Reply {
  uint16_t seqNo;
  uint32_t taskId;
  uint16_t result;
};

std::mutex g_lock;  // guards g_replies
std::vector<Reply> g_replies;

void TakeReply(void* msg) {
  TolaCmpMsg::TolaMsgExeUpdateScriptAckData record;
  if (TolaCompGetMsgId(msg) != kMsgExeUpdateScriptAck) return;
  if (record.ParseFromMsg(static_cast<unsigned char*>(msg), TolaCompGetMsgLen(msg)) != 0) return;
  const std::lock_guard lock(g_lock);
  g_replies.push_back({TolaCompMsgGetSeqNo(msg), record.requesterTaskId, record.result});
}

TOLA_COMP_DST_PROC_S Process(uint32_t procId, uint32_t compId) {
  TOLA_COMP_DST_PROC_S process = {};
  (void)strcpy_s(process.ip, sizeof(process.ip), "127.0.0.1");
  process.procId = procId;
  process.addrNum = 1;
  process.addr[0] = {compId, compId};
  return process;
}

class WireTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(KEL_CfgdbInitByFsldr("/mnt/config/feature.cfg"), 0u);
    ASSERT_EQ(KEL_Start(nullptr), 0u);
    const TOLA_COMP_DST_PROC_S local = Process(100, kRequester);
    const TOLA_COMP_DST_PROC_S daemon = Process(104, kScriptExeCompId);
    ASSERT_EQ(TolaCompInit(&local, 1, &daemon), 0u);
    TOLA_COMP_TYPE_S type = {};
    (void)strcpy_s(type.name, sizeof(type.name), "WIRE");
    type.typeId = kRequester;
    type.msgProc = TakeReply;
    type.instNum = 1;
    type.inst[0].csi = kRequester;
    ASSERT_EQ(TolaOsKickOffComps(&type), 0u);
  }

  void SetUp() override {
    const std::lock_guard lock(g_lock);
    g_replies.clear();
  }

  static uint32_t Send(uint16_t messageId, uint16_t seqNo, const std::vector<unsigned char>& body) {
    void* msg = TolaCompMsgAlloc(kRequester, messageId, static_cast<uint32_t>(body.size()));
    if (!body.empty()) (void)memcpy_s(msg, body.size(), body.data(), body.size());
    TolaCompMsgSetSeqNo(msg, seqNo);
    return TolaCompMsgSend(kScriptExeCompId, msg);
  }

  /// A whole request that is refused for its missing package.
  static std::vector<unsigned char> RefusedRequest() {
    TolaCmpMsg::TolaMsgExeUpdateScriptData record;
    record.requesterTaskId = 0x01020304;
    EXPECT_EQ(record.SetScriptFullPath("/mnt/script.sh", 14), 0u);
    EXPECT_EQ(record.SetSignaturePath("/mnt", 4), 0u);
    std::vector<unsigned char> body(record.GetMsgLength());
    EXPECT_EQ(record.SerializeToMsg(body.data(), static_cast<uint32_t>(body.size())), 0u);
    return body;
  }

  /// Sends a good request and waits for its reply; the replies until then, this one last.
  static std::vector<Reply> RepliesUpTo(uint16_t seqNo) {
    EXPECT_EQ(Send(kMsgExeUpdateScript, seqNo, RefusedRequest()), 0u);
    for (int tries = 0; tries < 2000; ++tries) {
      {
        const std::lock_guard lock(g_lock);
        if (!g_replies.empty() && g_replies.back().seqNo == seqNo) return g_replies;
      }
      KEL_TaskDelay(5);
    }
    return {};
  }
};

TEST_F(WireTest, RequestCutAtAnyByteGetsNoReplyAndTheWholeOneDoes) {
  const std::vector<unsigned char> whole = RefusedRequest();
  for (size_t length = 0; length < whole.size(); ++length) {
    const std::vector<unsigned char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    uint32_t sent = 0;  // the daemon's queue may be full for a moment: it is told at once, and tries again
    for (int tries = 0; tries < 500; ++tries) {
      sent = Send(kMsgExeUpdateScript, static_cast<uint16_t>(100 + length), cut);
      if (sent == 0) break;
      KEL_TaskDelay(5);
    }
    ASSERT_EQ(sent, 0u) << "cut to " << length;
  }
  const std::vector<Reply> replies = RepliesUpTo(9);
  ASSERT_EQ(replies.size(), 1u) << "a cut request was answered";
  EXPECT_EQ(replies[0].result, kMissingField);
  EXPECT_EQ(replies[0].taskId, 0x01020304u);
}

TEST_F(WireTest, UnknownUnaskedAndRandomMessagesAreDropped) {
  const auto seed = std::random_device()();
  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  EXPECT_EQ(Send(1, 1, {}), 0u);
  EXPECT_EQ(Send(kMsgUpdateAuthAck, 2, {0, 0, 0, 0, 0, 0}), 0u) << "a grant that nobody asked for";
  EXPECT_EQ(Send(kMsgExeUpdateScriptAck, 3, {1, 2, 3, 4, 5, 6}), 0u);
  EXPECT_EQ(Send(kMsgExeUpdateScript, 4, std::vector<unsigned char>(65536, 0xFF)), 0u);
  for (uint16_t i = 0; i < 20; ++i) {
    std::vector<unsigned char> body(random() % 60);
    for (unsigned char& byte : body) byte = static_cast<unsigned char>(random());
    if (body.size() > 8) body[7] = 255;  // the script path's length: more than there is
    EXPECT_EQ(Send(kMsgExeUpdateScript, static_cast<uint16_t>(10 + i), body), 0u);
  }
  EXPECT_EQ(RepliesUpTo(9).size(), 1u);
}

TEST_F(WireTest, StrangersAtTheSocketDisturbNobody) {
  std::string socketPath;
  for (const auto& entry : std::filesystem::directory_iterator("/run/velto")) {
    if (entry.path().string().find("104") != std::string::npos) socketPath = entry.path();
  }
  ASSERT_NE(socketPath, "");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_EQ(strcpy_s(address.sun_path, sizeof(address.sun_path), socketPath.c_str()), EOK);
  std::vector<base::UniqueFd> silent;
  for (int i = 0; i < 20; ++i) {
    base::UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const std::vector<char> garbage(static_cast<size_t>(i) * 50, static_cast<char>(0xA5));
    if (i % 2 == 0) (void)send(fd.get(), garbage.data(), garbage.size(), MSG_NOSIGNAL);
    silent.push_back(std::move(fd));
  }
  EXPECT_EQ(RepliesUpTo(9).size(), 1u);
}

}  // namespace
