/// Components of this test process on the real runtime, and what they received.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "comp/comp_manager.h"
#include "comp/comp_msg.h"
#include "securec.h"
#include "support/inbox.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "velto/kel_cfg.h"

namespace update_test {

struct Received {
  uint32_t id = 0;
  uint32_t source = 0;
  uint16_t seqNo = 0;
  std::vector<unsigned char> data;
};

/// A component that keeps what it receives; use Mailbox<id>::Entry as its message entry.
template <uint32_t kId>
struct Mailbox {
  static void Entry(void* msg) {
    const auto* bytes = static_cast<const unsigned char*>(msg);
    support::TheInbox<Received, kId>().Put({TolaCompGetMsgId(msg),
                                            TolaCompGetSrcId(msg),
                                            TolaCompMsgGetSeqNo(msg),
                                            {bytes, bytes + TolaCompGetMsgLen(msg)}});
  }
  static Received Next() { return support::TheInbox<Received, kId>().Take(); }
  static size_t Waiting() { return support::TheInbox<Received, kId>().Size(); }
};

struct TestComponent {
  uint32_t id;
  RtfCompMsgProc entry;
  RtfCompConstructor constructor = nullptr;
};

inline const support::TempDir& SocketDir() {
  static const support::TempDir dir;
  return dir;
}

/// Starts the runtime and these components, once a process; later calls change nothing.
inline void StartComponents(const std::vector<TestComponent>& components) {
  static bool started = false;
  if (std::exchange(started, true)) return;
  const support::TempDir& sockets = SocketDir();
  ASSERT_EQ(KEL_CfgdbInitByFsldr(sockets.Write("feature.cfg", "dms.dir=" + sockets.path() + "\n").c_str()),
            0u);
  ASSERT_EQ(KEL_Start(nullptr), 0u);
  const auto block = std::make_unique<TOLA_COMP_REG_BLOCK_S>();
  block->product.local = {"127.0.0.1", 104};
  for (const TestComponent& component : components) {
    TOLA_COMP_TYPE_S& type = block->platform.type[block->platform.typeNum++];
    ASSERT_GT(sprintf_s(type.name, sizeof(type.name), "COMP_%u", component.id), 0);
    type.typeId = component.id;
    type.priority = 1;
    type.constructor = component.constructor;
    type.msgProc = component.entry;
    type.instNum = 1;
    type.inst[0].csi = component.id;
  }
  ASSERT_EQ(TolaOsCompFrameInit(block.get()), 0u);
  for (uint32_t i = 0; i < block->platform.typeNum; ++i) {
    ASSERT_EQ(TolaOsKickOffComps(&block->platform.type[i]), 0u) << block->platform.type[i].name;
  }
}

/// Ends the process of a case that runs in one of its own, where no destructor runs.
[[noreturn]] inline void LeaveProcess(const support::TempDir& dir, const support::LogCapture& log) {
  std::error_code ignored;
  const std::filesystem::path logs = std::filesystem::path(log.CurrentFile()).parent_path();
  for (const std::string& left : {dir.path(), logs.string(), SocketDir().path()}) {
    std::filesystem::remove_all(left, ignored);
  }
  _exit(::testing::Test::HasFailure() ? 1 : 0);
}

/// Sends raw bytes as a message between components of this process.
inline void SendBytes(uint32_t source, uint32_t destination, uint16_t id, uint16_t seqNo,
                      const std::vector<unsigned char>& bytes) {
  void* msg = TolaCompMsgAlloc(source, id, static_cast<uint32_t>(bytes.size()));
  ASSERT_NE(msg, nullptr);
  TolaCompMsgSetSeqNo(msg, seqNo);
  ASSERT_EQ(memcpy_s(msg, bytes.size(), bytes.data(), bytes.size()), 0);
  ASSERT_EQ(TolaCompMsgSend(destination, msg), 0u);
}

}  // namespace update_test
