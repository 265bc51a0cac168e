/// Cutting and rebuilding without a queue: what is rebuilt is compared with what was cut, byte for byte.

#include "msg/ipc_frame.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <vector>

#include "support/log_capture.h"
#include "support/platform_msg.h"

namespace {

using support::MsgPtr;

constexpr uint32_t kSource = 1001;

using support::Same;

MsgPtr NewMsg(uint32_t length, uint32_t seed) {
  return support::NewMsg(42, length, seed);
}

std::deque<IPC_MSG_S> Cut(const tagMsgBuf* msg, uint32_t source, uint16_t sequence) {
  std::deque<IPC_MSG_S> frames(IpcFrameCount(GetTolaMsgLen(msg)));
  for (uint32_t i = 0; i < frames.size(); ++i) {
    frames[i].sourcePid = source;
    frames[i].sequence = sequence;
    IpcCutFrame(msg, i, &frames[i]);
  }
  return frames;
}

class IpcFrameTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (TOLA_MsgManagerInit() != 0) abort();
  }
  IpcFrameTest() {
    if (KEL_HandleInitialize("IPCMGR", &handle_) != 0) abort();
    reassembly_ = std::make_unique<IpcReassembly>(handle_);
  }
  ~IpcFrameTest() override {
    last_.reset();
    reassembly_.reset();
    EXPECT_EQ(support::Live("IPCMGR"), 0u) << "a node was leaked";
    EXPECT_EQ(support::Live("msg manager"), before_) << "a message was leaked";
  }

  /// Feeds one frame; the result, and the message that came out in last_.
  uint32_t Take(const IPC_MSG_S& frame) {
    tagMsgBuf* msg = nullptr;
    const uint32_t ret = reassembly_->Take(frame, kIpcFrameHead + frame.length, &msg);
    last_.reset(msg);
    return ret;
  }
  uint32_t TakeAll(const std::deque<IPC_MSG_S>& frames) {
    uint32_t ret = 0;
    for (const IPC_MSG_S& frame : frames) ret = Take(frame);
    return ret;
  }

  support::LogCapture log_;
  uint32_t handle_ = 0;
  std::unique_ptr<IpcReassembly> reassembly_;
  MsgPtr last_;
  const uint64_t before_ = support::Live("msg manager");
};

TEST_F(IpcFrameTest, EveryLengthComesOutAsItWentIn) {
  struct Case {
    uint32_t length;
    std::vector<uint16_t> numbers;  ///< of the first frames
    uint32_t frames;
  };
  const Case cases[] = {{0, {0x8000}, 1},       {4064, {0x8000}, 1},    {4065, {0, 0x8001}, 2},
                        {8140, {0, 0x8001}, 2}, {65538, {0, 1, 2}, 17}, {kMsgMaxDataLength, {0, 1, 2}, 4117}};
  for (const Case& one : cases) {
    const MsgPtr msg = NewMsg(one.length, one.length);
    const std::deque<IPC_MSG_S> frames = Cut(msg.get(), kSource, 5);
    ASSERT_EQ(frames.size(), one.frames) << one.length;
    for (size_t i = 0; i < one.numbers.size(); ++i) EXPECT_EQ(frames[i].number, one.numbers[i]);
    EXPECT_EQ(frames.back().number, (one.frames - 1) | kIpcLastFrame);
    EXPECT_EQ(frames.back().length, (one.length + 12 - 1) % 4076 + 1);
    EXPECT_EQ(TakeAll(frames), 0u) << one.length;
    ASSERT_NE(last_, nullptr) << one.length;
    EXPECT_TRUE(Same(last_.get(), msg.get())) << one.length;
  }
}

TEST_F(IpcFrameTest, FrameThatLiesIsRefusedAndTakesItsMessageAlong) {
  const MsgPtr msg = NewMsg(3 * 4076, 1);  // four frames: the last has 12 bytes
  const std::deque<IPC_MSG_S> good = Cut(msg.get(), kSource, 5);
  struct Case {
    const char* what;
    size_t frame;  ///< that is changed
    void (*change)(IPC_MSG_S&);
  };
  const Case cases[] = {
      {"a first frame that is cut", 0, [](IPC_MSG_S& f) { f.length = 4000; }},
      {"a first frame of a message that fits into one", 0,
       [](IPC_MSG_S& f) { f.payload[10] = f.payload[11] = 0; }},
      {"a middle frame of 4000 bytes", 1, [](IPC_MSG_S& f) { f.length = 4000; }},
      {"a middle frame behind the end", 2, [](IPC_MSG_S& f) { f.number = 3; }},
      {"a middle frame far behind the end", 2, [](IPC_MSG_S& f) { f.number = 0x7FFF; }},
      {"a last frame that is too short", 3, [](IPC_MSG_S& f) { f.length = 11; }},
      {"a last frame that is too long", 3, [](IPC_MSG_S& f) { f.length = 13; }},
      {"a last frame that comes too early", 1, [](IPC_MSG_S& f) { f.number |= kIpcLastFrame; }},
      {"a last frame of nothing", 1, [](IPC_MSG_S& f) { f.number = 0x8004, f.length = 0; }},
      {"a payload above the largest", 2, [](IPC_MSG_S& f) { f.length = 4077; }},
  };
  for (const Case& one : cases) {
    std::deque<IPC_MSG_S> frames = good;
    one.change(frames[one.frame]);
    for (size_t i = 0; i < one.frame; ++i) EXPECT_EQ(Take(frames[i]), 0u) << one.what;
    EXPECT_EQ(Take(frames[one.frame]), kIpcErrFrame) << one.what;
    if (frames[one.frame].length <= kIpcPayloadMax) {
      EXPECT_EQ(reassembly_->messages(), 0u) << one.what;
      EXPECT_EQ(Take(good.back()), kIpcErrNoNode) << one.what;
    }
    EXPECT_EQ(TakeAll(good), 0u) << "a good message after " << one.what;
    EXPECT_TRUE(last_ != nullptr && Same(last_.get(), msg.get())) << one.what;
  }
}

TEST_F(IpcFrameTest, SingleFrameMustHoldWhatItsHeaderTells) {
  const MsgPtr msg = NewMsg(100, 1);
  const IPC_MSG_S good = Cut(msg.get(), kSource, 5).front();
  tagMsgBuf* out = nullptr;
  EXPECT_EQ(reassembly_->Take(good, kIpcFrameHead + 111, &out), kIpcErrFrame) << "cut by the queue";
  EXPECT_EQ(reassembly_->Take(good, kIpcFrameHead + 113, &out), kIpcErrFrame) << "longer than it says";
  for (const int length : {0, 11, 111, 113}) {
    IPC_MSG_S frame = good;
    frame.length = static_cast<uint16_t>(length);
    EXPECT_EQ(Take(frame), kIpcErrFrame) << length;
  }
  for (const int high : {0, 1, 255}) {  // kept: a full frame is taken whatever its header tells ...
    IPC_MSG_S frame = Cut(NewMsg(4064, 2).get(), kSource, 6).front();
    frame.payload[8] = frame.payload[10] = static_cast<uint8_t>(high);
    EXPECT_EQ(Take(frame), 0u);
    EXPECT_EQ(GetTolaMsgLen(last_.get()), 4064u) << "... but nobody may be led behind what came";
  }
}

TEST_F(IpcFrameTest, OneSequenceNumberOfTwoProcessesIsTwoMessages) {
  const MsgPtr one = NewMsg(9000, 1);
  const MsgPtr other = NewMsg(9000, 2);
  const std::deque<IPC_MSG_S> ones = Cut(one.get(), kSource, 5);
  const std::deque<IPC_MSG_S> others = Cut(other.get(), kSource + 1, 5);
  for (size_t i = 0; i + 1 < ones.size(); ++i) {
    EXPECT_EQ(Take(ones[i]), 0u);
    EXPECT_EQ(Take(others[i]), 0u);
  }
  EXPECT_EQ(Take(others.back()), 0u);
  EXPECT_TRUE(last_ != nullptr && Same(last_.get(), other.get()));
  EXPECT_EQ(Take(ones.back()), 0u);
  EXPECT_TRUE(last_ != nullptr && Same(last_.get(), one.get()));
}

TEST_F(IpcFrameTest, WhatNeverEndsIsDroppedAfter1500Ticks) {
  const std::deque<IPC_MSG_S> frames = Cut(NewMsg(9000, 1).get(), kSource, 5);
  EXPECT_EQ(Take(frames[0]), 0u);
  for (int tick = 0; tick < 1499; ++tick) reassembly_->Age();
  EXPECT_EQ(reassembly_->messages(), 1u);
  EXPECT_TRUE(log_.Lines().empty());
  reassembly_->Age();
  EXPECT_EQ(reassembly_->bytes(), 0u);
  EXPECT_EQ(log_.Lines(), std::vector<std::string>{"FreeNode SrcPid:1001,DstModId:0x2a"});
  EXPECT_EQ(Take(frames[1]), kIpcErrNoNode);
}

TEST_F(IpcFrameTest, FirstFramesAloneTakeNoMoreThanTheirShare) {
  const IPC_MSG_S small = Cut(NewMsg(5000, 1).get(), kSource, 0).front();
  IPC_MSG_S frame = small;
  for (; frame.sequence < 64; ++frame.sequence) EXPECT_EQ(Take(frame), 0u);
  EXPECT_EQ(Take(frame), kIpcErrNode);
  EXPECT_EQ(Take(small), 0u) << "a message that starts again takes its own place";
  EXPECT_EQ(reassembly_->messages(), 64u);
  for (int tick = 0; tick < 1500; ++tick) reassembly_->Age();

  frame = Cut(NewMsg(kMsgMaxDataLength, 1).get(), kSource, 0).front();
  for (; frame.sequence < 3; ++frame.sequence) EXPECT_EQ(Take(frame), 0u);
  EXPECT_EQ(Take(frame), kIpcErrNodeMemory) << "four of them are 44 bytes more than 64 MiB";
}

/// Senders whose frames mix in any way, some lost, repeated or out of order: a message comes out exactly once
/// and whole if all its frames came before its last one, and not at all otherwise.
TEST_F(IpcFrameTest, RandomMixtureAgainstAModel) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  struct Under {
    MsgPtr msg;
    std::deque<IPC_MSG_S> frames;
    bool whole = true;
  };
  std::map<std::pair<uint32_t, uint16_t>, Under> sending;
  uint16_t sequence = 0;
  uint32_t delivered = 0;
  for (int step = 0; step < 20000; ++step) {
    if (sending.size() < 12 && below(4) == 0) {
      Under next;
      next.msg = NewMsg(below(2) == 0 ? below(30000) : 4060 + below(20), below(UINT32_MAX));
      next.frames = Cut(next.msg.get(), kSource + below(3), sequence);
      std::deque<IPC_MSG_S>& frames = next.frames;
      if (frames.size() > 3 && below(4) == 0) std::swap(frames[1], frames[2]);
      if (frames.size() > 2 && below(4) == 0) frames.insert(frames.begin() + 2, frames[1]);
      if (frames.size() > 2 && below(4) == 0) {
        const IPC_MSG_S lost = frames[1];
        frames.erase(frames.begin() + 1);
        next.whole = frames[1].number == lost.number;  // it had been repeated
        for (const IPC_MSG_S& frame : frames) next.whole |= frame.number == lost.number;
      }
      sending.emplace(std::pair(frames[0].sourcePid, sequence++), std::move(next));
    }
    if (sending.empty()) continue;
    const auto at = std::next(sending.begin(), below(static_cast<uint32_t>(sending.size())));
    Under& under = at->second;
    const uint32_t ret = Take(under.frames.front());
    under.frames.pop_front();
    if (!under.frames.empty()) {
      ASSERT_EQ(ret, 0u);
      ASSERT_EQ(last_, nullptr);
      continue;
    }
    ASSERT_EQ(ret, under.whole ? 0u : kIpcErrFrame);
    ASSERT_EQ(last_ != nullptr, under.whole);
    if (under.whole) {
      ASSERT_TRUE(Same(last_.get(), under.msg.get()));
      ++delivered;
    }
    sending.erase(at);
  }
  EXPECT_GT(delivered, 500u);
}

}  // namespace
