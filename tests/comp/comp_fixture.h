/// Components for tests: the real runtime with its sockets in a directory of the test, instances that record
/// or echo what they get, the lines of the component layer, and a look at what messages are still alive.
#pragma once

#include <gmock/gmock.h>
#include <stdarg.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comp/comp_manager.h"
#include "comp/comp_manager_impl.h"
#include "comp/comp_msg.h"
#include "msg/msg_interface_public.h"
#include "velto/kel_mem.h"

namespace comp_test {

inline constexpr char kIp[] = "127.0.0.1";
inline constexpr uint32_t kProcId = 104;

/// What an instance was given.
struct Got {
  uint32_t destination;
  uint32_t source;
  uint32_t id;
  uint16_t seqNo;
  TolaMsgPrio priority;
  std::string data;
};

/// A list that one thread waits on while others fill it.
template <class T>
class Inbox {
 public:
  void Put(T item) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    changed_.notify_all();
  }
  /// The next item; a default one and a failure when none comes.
  T Take() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::seconds(20), [this] { return !items_.empty(); })) {
      ADD_FAILURE() << "nothing arrived";
      return T{};
    }
    T item = std::move(items_.front());
    items_.pop_front();
    return item;
  }
  std::vector<T> TakeAll() {
    const std::lock_guard lock(mutex_);
    std::vector<T> all(items_.begin(), items_.end());
    items_.clear();
    return all;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<T> items_;
};

inline Inbox<Got>& Arrived() {
  static Inbox<Got>& inbox = *new Inbox<Got>;
  return inbox;
}
inline Inbox<std::string>& Logged() {
  static Inbox<std::string>& inbox = *new Inbox<std::string>;
  return inbox;
}

/// Error lines (level 4) and the start of types (level 5), "source: text"; traces are left out.
__attribute__((format(printf, 5, 6))) inline void LogLine(uint16_t moduleId, uint32_t level, const char* file,
                                                          uint32_t, const char* fmt, ...) {
  if (level < 4) return;
  char text[256];
  va_list args;
  va_start(args, fmt);
  (void)vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  Logged().Put((moduleId == kCompLogModule ? "" : "wrong module: ") + std::string(file) + ": " + text);
}

inline void Record(void* msg) {
  Arrived().Put({TolaCompGetDstId(msg), TolaCompGetSrcId(msg), TolaCompGetMsgId(msg),
                 TolaCompMsgGetSeqNo(msg), GetTolaCompMsgPrio(msg),
                 std::string(static_cast<char*>(msg), TolaCompGetMsgLen(msg))});
}

/// Answers with the next message id, the request's sequence number and its data backwards.
inline void Echo(void* msg) {
  const auto length = TolaCompGetMsgLen(msg);
  void* reply =
      TolaCompMsgAlloc(TolaCompGetDstId(msg), static_cast<uint16_t>(TolaCompGetMsgId(msg) + 1), length);
  if (reply == nullptr) return;
  const char* data = static_cast<const char*>(msg);
  std::reverse_copy(data, data + length, static_cast<char*>(reply));
  TolaCompMsgSetSeqNo(reply, TolaCompMsgGetSeqNo(msg));
  (void)TolaCompMsgSend(TolaCompGetSrcId(msg), reply);
}

inline TOLA_COMP_TYPE_S Type(const char* name, uint32_t id, RtfCompMsgProc proc) {
  TOLA_COMP_TYPE_S type{};
  (void)snprintf(type.name, sizeof(type.name), "%s", name);
  (void)snprintf(type.version, sizeof(type.version), "1.0.0");
  type.typeId = id;
  type.priority = 1;
  type.msgProc = proc;
  type.instNum = 1;
  type.inst[0].csi = id;
  return type;
}

inline void* NewMsg(uint32_t source, uint16_t id, uint16_t seqNo, const std::string& data) {
  void* msg = TolaCompMsgAlloc(source, id, static_cast<uint32_t>(data.size()));
  if (msg == nullptr) abort();
  std::copy(data.begin(), data.end(), static_cast<char*>(msg));
  TolaCompMsgSetSeqNo(msg, seqNo);
  return msg;
}

/// Live allocations of a memory handle.
inline uint64_t Live(const char* name) {
  uint32_t handle = 0;
  uint64_t bytes = 0;
  uint64_t count = 0;
  if (KEL_HandleInitialize(name, &handle) != 0 || KEL_HandleUseGet(handle, &bytes, &count) != 0) abort();
  return count;
}

/// The layer is initialised, and at the end no message of either kind is left.
class CompTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TolaCompRegLogFuc(LogLine);
    (void)Logged().TakeAll();
    TOLA_COMP_DST_PROC_S local{};
    (void)snprintf(local.ip, sizeof(local.ip), "%s", kIp);
    local.procId = kProcId;
    ASSERT_EQ(TolaCompInit(&local, 0, nullptr), 0u);
    compMessages_ = Live("dms");
    platformMessages_ = Live("msg manager");
  }
  void TearDown() override {
    EXPECT_EQ(Live("msg manager"), platformMessages_) << "a platform message was lost";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (Live("dms") != compMessages_ && std::chrono::steady_clock::now() < deadline)
      std::this_thread::yield();
    EXPECT_EQ(Live("dms"), compMessages_) << "a component message was lost";
  }

  /// Makes instances known here and starts them.
  void Start(std::vector<TOLA_COMP_TYPE_S> types) {
    TOLA_COMP_DST_PROC_S local{};
    (void)snprintf(local.ip, sizeof(local.ip), "%s", kIp);
    local.procId = kProcId;
    for (const TOLA_COMP_TYPE_S& type : types) {
      for (uint32_t i = 0; i < type.instNum; ++i)
        local.addr[local.addrNum++] = {type.inst[i].csi, type.typeId};
    }
    ASSERT_EQ(TolaCompInit(&local, 0, nullptr), 0u);
    for (const TOLA_COMP_TYPE_S& type : types) ASSERT_EQ(TolaOsKickOffComps(&type), 0u);
  }

 private:
  uint64_t compMessages_ = 0;
  uint64_t platformMessages_ = 0;
};

}  // namespace comp_test
