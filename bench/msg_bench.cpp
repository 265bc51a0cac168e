/// One platform message of 64 bytes from allocation to free, beside a queue of heap messages under a mutex
/// and condition variables, and one whose messages are handed over by an eventfd: in one thread, and
/// streaming between two. All three hold up to 1000 messages.

#include <benchmark/benchmark.h>
#include <sys/eventfd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "base/owners.h"
#include "log/run_log.h"
#include "msg/msg_interface_public.h"
#include "velto/kel_task.h"

namespace {

constexpr uint32_t kQueueLength = 1000;
constexpr uint32_t kLength = 64;
constexpr uint16_t kTo = 42;
constexpr uint32_t kWake = 1;

// ours

void Post(uint32_t length, uint32_t number) {
  tagMsgBuf* msg = TOLA_MsgAlloc(7, 1, 2, length);
  if (msg == nullptr) abort();
  memcpy(TolaMsgData(msg), &number, sizeof(number));
  while (TOLA_MsgPost(kTo, msg, 1) != 0) std::this_thread::yield();
}

bool TryReceive() {
  tagMsgBuf* msg = nullptr;
  if (TOLA_MsgRecv(kTo, &msg, 0) != 0) return false;
  benchmark::DoNotOptimize(TolaMsgData(msg)[0]);
  TOLA_MsgFree(msg);
  return true;
}

void SetUpModule() {
  uint32_t task = 0;
  if (TOLA_LogControl(0, kLogErr, 2) != 0 || TOLA_MsgManagerInit() != 0) abort();
  StopLogPrint();  // a full queue is one line a refusal
  if (KEL_TaskAdopt("receiver", &task) != 0 || TOLA_MsgModuleUnregister(kTo) != 0) abort();
  if (TOLA_MsgModuleRegister(kTo, task, kWake, kQueueLength) != 0) abort();
}

void OneThread(benchmark::State& state) {
  SetUpModule();
  uint32_t length = kLength;
  benchmark::DoNotOptimize(length);
  uint32_t number = 0;
  for (auto _ : state) {
    Post(length, number++);
    if (!TryReceive()) abort();
  }
}
BENCHMARK(OneThread);

/// Thread 0 receives, thread 1 sends.
void Stream(benchmark::State& state) {
  if (state.thread_index() == 0) SetUpModule();
  uint32_t length = kLength;
  benchmark::DoNotOptimize(length);
  uint32_t number = 0;
  for (auto _ : state) {
    if (state.thread_index() == 1) {
      Post(length, number++);
      continue;
    }
    while (!TryReceive()) {
      uint32_t events = 0;
      if (KEL_EventRead(kWake, &events, kKelEventAny, KEL_WAIT_FOREVER) != 0) abort();
    }
  }
}
BENCHMARK(Stream)->Threads(2)->UseRealTime();

// the peers

/// A process of the board has several tasks: the C library must not take its short ways for one thread alone.
const bool g_hasThreads = (std::thread([] {}).join(), true);

struct Message {
  uint16_t source, destination, type, subType;
  uint32_t length;
  uint8_t* Data() { return reinterpret_cast<uint8_t*>(this + 1); }
};
using MessagePtr = base::UniqueC<Message, free>;

MessagePtr NewMessage(uint32_t length, uint32_t number) {
  auto* msg = static_cast<Message*>(malloc(sizeof(Message) + length));
  if (msg == nullptr) abort();
  memset(msg, 0, sizeof(Message) + length);
  *msg = {7, kTo, 1, 2, length};
  memcpy(msg->Data(), &number, sizeof(number));
  return MessagePtr(msg);
}

class MutexQueue {
 public:
  void Put(MessagePtr msg) {
    {
      std::unique_lock lock(mutex_);
      room_.wait(lock, [&] { return messages_.size() < kQueueLength; });
      messages_.push_back(std::move(msg));
    }
    there_.notify_one();
  }
  MessagePtr Take() {
    std::unique_lock lock(mutex_);
    there_.wait(lock, [&] { return !messages_.empty(); });
    MessagePtr msg = std::move(messages_.front());
    messages_.pop_front();
    lock.unlock();
    room_.notify_one();
    return msg;
  }

 private:
  std::mutex mutex_;
  std::condition_variable there_;
  std::condition_variable room_;
  std::deque<MessagePtr> messages_;
};

class EventfdQueue {
 public:
  void Put(MessagePtr msg) {
    for (std::unique_lock lock(mutex_);; lock.lock()) {
      if (messages_.size() < kQueueLength) {
        messages_.push_back(std::move(msg));
        break;
      }
      lock.unlock();
      std::this_thread::yield();
    }
    const uint64_t one = 1;
    if (write(there_.get(), &one, sizeof(one)) != sizeof(one)) abort();
  }
  MessagePtr Take() {
    uint64_t one = 0;
    if (read(there_.get(), &one, sizeof(one)) != sizeof(one)) abort();
    const std::lock_guard lock(mutex_);
    MessagePtr msg = std::move(messages_.front());
    messages_.pop_front();
    return msg;
  }

 private:
  base::UniqueFd there_{eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC)};
  std::mutex mutex_;
  std::deque<MessagePtr> messages_;
};

template <class Queue>
void OneThreadPeer(benchmark::State& state) {
  Queue queue;
  uint32_t length = kLength;
  benchmark::DoNotOptimize(length);
  uint32_t number = 0;
  for (auto _ : state) {
    queue.Put(NewMessage(length, number++));
    benchmark::DoNotOptimize(queue.Take()->Data()[0]);
  }
}
BENCHMARK(OneThreadPeer<MutexQueue>)->Name("OneThreadMutex");

template <class Queue>
void StreamPeer(benchmark::State& state) {
  static Queue queue;
  uint32_t length = kLength;
  benchmark::DoNotOptimize(length);
  uint32_t number = 0;
  for (auto _ : state) {
    if (state.thread_index() == 1) {
      queue.Put(NewMessage(length, number++));
    } else {
      benchmark::DoNotOptimize(queue.Take()->Data()[0]);
    }
  }
}
BENCHMARK(StreamPeer<MutexQueue>)->Name("StreamMutex")->Threads(2)->UseRealTime();
BENCHMARK(StreamPeer<EventfdQueue>)->Name("StreamEventfd")->Threads(2)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
