/// Cutting and rebuilding without a queue: what is rebuilt is compared with what was cut, byte for byte.

#include "msg/ipc_frame.h"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <vector>

#include "support/log_capture.h"
#include "support/platform_msg.h"

namespace {

using support::MsgPtr;
using support::Same;
using Frames = std::vector<IPC_MSG_S>;

constexpr uint32_t kSource = 1001;

MsgPtr NewMsg(uint32_t length, uint32_t seed = 1) {
  return support::NewMsg(42, length, seed);
}

Frames Cut(const tagMsgBuf* msg, uint32_t source = kSource, uint16_t sequence = 5) {
  Frames frames(IpcFrameCount(GetTolaMsgLen(msg)));
  for (uint32_t i = 0; i < frames.size(); ++i) {
    frames[i].sourcePid = source;
    frames[i].sequence = sequence;
    IpcCutFrame(msg, i, &frames[i]);
  }
  return frames;
}

class IpcFrameTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(TOLA_MsgManagerInit(), 0u); }
  ~IpcFrameTest() override {
    last_.reset();
    reassembly_.reset();
    EXPECT_EQ(support::Live("IPCMGR"), 0u) << "a node was leaked";
    EXPECT_EQ(support::Live("msg manager"), before_) << "a message was leaked";
  }

  /// Feeds one frame; the result, and the message that came out in last_.
  uint32_t Take(const IPC_MSG_S& frame) { return Take(frame, kIpcFrameHead + frame.length); }
  uint32_t Take(const IPC_MSG_S& frame, size_t size) {
    tagMsgBuf* msg = nullptr;
    const uint32_t ret = reassembly_->Take(frame, size, &msg);
    last_.reset(msg);
    return ret;
  }
  /// Feeds all frames of `msg`, which must come out.
  void ExpectComes(const Frames& frames, const tagMsgBuf* msg) {
    for (const IPC_MSG_S& frame : frames) EXPECT_EQ(Take(frame), 0u);
    EXPECT_TRUE(last_ != nullptr && Same(last_.get(), msg));
  }

  support::LogCapture log_;
  std::unique_ptr<IpcReassembly> reassembly_ = std::make_unique<IpcReassembly>();
  MsgPtr last_;
  const uint64_t before_ = support::Live("msg manager");
};

TEST_F(IpcFrameTest, EveryLengthComesOutAsItWentIn) {
  constexpr std::pair<uint32_t, uint32_t> kCases[] = {
      // length, frames
      {0, 1}, {4064, 1}, {4065, 2}, {8140, 2}, {65538, 17}, {kMsgMaxDataLength, 4117}};
  for (const auto& [length, count] : kCases) {
    SCOPED_TRACE(length);
    const MsgPtr msg = NewMsg(length, length);
    const Frames frames = Cut(msg.get());
    ASSERT_EQ(frames.size(), count);
    for (uint32_t i = 0; i + 1 < count; ++i) EXPECT_EQ(frames[i].number, i);
    EXPECT_EQ(frames.back().number, (count - 1) | kIpcLastFrame);
    EXPECT_EQ(frames.back().length, (length + 12 - 1) % 4076 + 1);
    ExpectComes(frames, msg.get());
  }
}

TEST_F(IpcFrameTest, FrameThatLiesIsRefusedAndTakesItsMessageAlong) {
  const MsgPtr msg = NewMsg(3 * 4076);  // four frames: the last has 12 bytes
  const Frames good = Cut(msg.get());
  const struct {
    const char* what;
    size_t frame;  ///< that is changed
    void (*change)(IPC_MSG_S&);
  } cases[] = {
      {"a first frame that is cut", 0, [](auto& f) { f.length = 4000; }},
      {"a first frame of a message that fits into one", 0,
       [](auto& f) { f.payload[10] = f.payload[11] = 0; }},
      {"a middle frame of 4000 bytes", 1, [](auto& f) { f.length = 4000; }},
      {"a middle frame behind the end", 2, [](auto& f) { f.number = 3; }},
      {"a last frame that is too short", 3, [](auto& f) { f.length = 11; }},
      {"a last frame that is too long", 3, [](auto& f) { f.length = 13; }},
      {"a last frame that comes too early", 1, [](auto& f) { f.number |= kIpcLastFrame; }},
      {"a last frame of nothing", 1, [](auto& f) { f.number = 0x8004, f.length = 0; }},
  };
  for (const auto& [what, changed, change] : cases) {
    SCOPED_TRACE(what);
    IPC_MSG_S frame = good[changed];
    change(frame);
    for (size_t i = 0; i < changed; ++i) EXPECT_EQ(Take(good[i]), 0u);
    EXPECT_EQ(Take(frame), kIpcErrFrame);
    EXPECT_EQ(Take(good.back()), kIpcErrNoNode);
    ExpectComes(good, msg.get());
  }
}

TEST_F(IpcFrameTest, SingleFrameMustHoldWhatItsHeaderTells) {
  const IPC_MSG_S good = Cut(NewMsg(100).get()).front();
  EXPECT_EQ(Take(good, kIpcFrameHead + 111), kIpcErrFrame) << "cut by the queue";
  EXPECT_EQ(Take(good, kIpcFrameHead + 113), kIpcErrFrame) << "longer than it says";
  for (const int length : {0, 11, 111, 113}) {
    IPC_MSG_S frame = good;
    frame.length = static_cast<uint16_t>(length);
    EXPECT_EQ(Take(frame), kIpcErrFrame) << length;
  }
  for (const int high : {0, 1, 255}) {  // kept: a full frame is taken whatever its header tells ...
    IPC_MSG_S frame = Cut(NewMsg(4064).get()).front();
    frame.payload[8] = frame.payload[10] = static_cast<uint8_t>(high);
    EXPECT_EQ(Take(frame), 0u);
    EXPECT_EQ(GetTolaMsgLen(last_.get()), 4064u) << "... but nobody may be led behind what came";
  }
}

TEST_F(IpcFrameTest, FirstFramesAloneTakeNoMoreThanTheirShareAndGoAfter1500Ticks) {
  const Frames frames = Cut(NewMsg(5000).get(), kSource, 0);
  IPC_MSG_S first = frames[0];
  for (; first.sequence < 64; ++first.sequence) EXPECT_EQ(Take(first), 0u);
  EXPECT_EQ(Take(first), kIpcErrNode);
  EXPECT_EQ(Take(frames[0]), 0u) << "a message that starts again takes its own place";
  for (int tick = 0; tick < 1500; ++tick) reassembly_->Age();
  EXPECT_EQ(reassembly_->messages(), 64u);
  EXPECT_TRUE(log_.Lines().empty());
  reassembly_->Age();
  EXPECT_EQ(reassembly_->bytes(), 0u);
  const std::vector<std::string> lines = log_.Lines();
  EXPECT_EQ(lines.size(), 64u);
  EXPECT_THAT(lines, testing::Each("FreeNode SrcPid:1001,DstModId:0x2a"));
  EXPECT_EQ(Take(frames[1]), kIpcErrNoNode);

  first = Cut(NewMsg(kMsgMaxDataLength).get(), kSource, 0).front();
  for (; first.sequence < 3; ++first.sequence) EXPECT_EQ(Take(first), 0u);
  EXPECT_EQ(Take(first), kIpcErrNodeMemory) << "four of them are 44 bytes more than 64 MiB";
}

/// Senders whose frames mix in any way, some lost, repeated or out of order: a message comes out exactly once
/// and whole if all its frames came before its last one, and not at all otherwise.
TEST_F(IpcFrameTest, RandomMixtureAgainstAModel) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  struct Sending {
    MsgPtr msg;
    Frames frames;
    size_t next = 0;
    bool whole = true;
  };
  std::map<std::pair<uint32_t, uint16_t>, Sending> sending;  // by process and sequence number
  uint32_t delivered = 0;
  for (int step = 0; step < 20000; ++step) {
    const std::pair key(kSource + below(3), static_cast<uint16_t>(below(5)));
    Sending& each = sending[key];
    if (each.msg == nullptr) {
      each.msg = NewMsg(below(2) == 0 ? below(30000) : 4060 + below(20), below(UINT32_MAX));
      Frames& frames = each.frames = Cut(each.msg.get(), key.first, key.second);
      const uint32_t fate = frames.size() > 3 ? below(6) : 5;
      each.whole = fate > 1;
      if (fate == 0) frames.erase(frames.begin() + 1);
      if (fate == 1) frames[2] = frames[1];
      if (fate == 2) frames.insert(frames.begin() + 2, frames[1]);
      if (fate == 3) std::swap(frames[1], frames[2]);
    }
    const uint32_t ret = Take(each.frames[each.next++]);
    if (each.next < each.frames.size()) {
      ASSERT_TRUE(ret == 0 && last_ == nullptr);
      continue;
    }
    ASSERT_EQ(ret, each.whole ? 0u : kIpcErrFrame);
    ASSERT_EQ(last_ != nullptr, each.whole);
    if (each.whole) {
      ASSERT_TRUE(Same(last_.get(), each.msg.get()));
      ++delivered;
    }
    sending.erase(key);
  }
  EXPECT_GT(delivered, 500u);
}

}  // namespace
