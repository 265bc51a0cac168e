/// A process with an exception box that comes to the end that its arguments say: box_crasher DIRECTORY END. A
/// number is a signal that it sends itself.
///
/// Four tasks run: "main", two that wait, and the one that faults. The clock stands until every other task
/// has written its block; then a thread that is no task lets the five seconds pass.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "fault/box.h"
#include "fault/feature_fault_manager.h"
#include "log/file_public.h"
#include "support/temp_dir.h"
#include "velto/kel_cfg.h"
#include "velto/kel_clock.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint32_t kSecondWaiter = 3;  // task ids
constexpr uint32_t kCrasher = 4;
std::string g_directory;
struct sigaction g_taskInfo = {};
std::atomic<uint32_t> g_written = 0;  // blocks of tasks that go on
uint32_t g_saveFile = 0;              // the box's semaphore
volatile int g_zero = 0;

std::string File(const char* name) {
  return g_directory + "/" + name;
}

size_t Count(const std::string& text, const char* part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

void LimitFiles(rlim_t bytes) {
  const struct rlimit limit = {bytes, bytes};
  (void)setrlimit(RLIMIT_FSIZE, &limit);
}
[[gnu::noinline]] void WriteToNull() {  // beside it: the sanitizers would not let null itself pass
  *reinterpret_cast<volatile int*>(static_cast<uintptr_t>(g_zero + 64)) = 1;
}
[[gnu::noinline]] int UseUpStack(int depth) {
  volatile char frame[512] = {};
  frame[depth % 512] = 1;
  return depth < 0 ? 0 : UseUpStack(depth + 1) + frame[0];
}
void FaultWithoutStack() {  // nothing can be read where the stack should be, so walking it faults again
#if defined(__x86_64__)
  __asm__ volatile("mov $64, %rsp\n ud2");
#elif defined(__i386__)
  __asm__ volatile("mov $64, %esp\n ud2");
#else
  __asm__ volatile("mov r0, #64\n mov sp, r0\n udf #0");
#endif
}

/// Says in which seconds the memory map is written anew.
void CountRefreshes() {
  for (int second = 1; second <= 1200; ++second) {
    (void)unlink(File("box.tola.map.tmp").c_str());
    (void)CBoxManager::GetInstance()->RefreshMapOnSecond();
    if (Count(support::ReadFile(File("box.tola.map.tmp")), "box_crasher") > 0)
      printf("refreshed %d\n", second);
  }
}

/// Says which signals a command finds ignored.
void StartCommand() {
  for (const int signal : {SIGUSR1, SIGUSR2, SIGPIPE}) (void)raise(signal);
  (void)!TOLA_System("grep SigIgn /proc/self/status");
}

struct End {
  const char* name;
  void (*run)();
  bool crashes = true;
};
constexpr End kEnds[] = {
    {"null", WriteToNull},
    {"stack", [] { (void)UseUpStack(g_zero); }},
    {"abort", abort},
    {"limit",
     [] {
       LimitFiles(0x100000);
       (void)!pwrite(open(File("long").c_str(), O_RDWR | O_CREAT, 0600), "x", 1, 0x100000);
     }},
    {"full",
     [] {
       LimitFiles(3000);
       WriteToNull();
     }},
    {"twice", WriteToNull},
    {"stuck", [] { FaultRecordStuckTask(kSecondWaiter); }},
    {"unknown", [] { FaultRecordStuckTask(200); }},
    {"lost", FaultWithoutStack},
    {"hook",
     [] {
       TOLA_RegBoxUserInfoRecordHook([](int, const char*) { WriteToNull(); });
       abort();
     }},
    {"refresh", CountRefreshes, false},
    {"commands", StartCommand, false},
    {"none", [] {}, false},
};

/// The box's own handler of signal 45, counted.
void CountTaskInfo(int signal, siginfo_t* info, void* context) {
  g_taskInfo.sa_sigaction(signal, info, context);
  ++g_written;
}

[[gnu::noinline]] void AwaitSignals() {
  for (;;) (void)pause();
}

void Waiter(uintptr_t faults, uintptr_t, uintptr_t, uintptr_t) {
  if (faults != 0) (void)raise(SIGFPE);
  AwaitSignals();
}

void RunEnd(uintptr_t end, uintptr_t signal, uintptr_t, uintptr_t) {
  if (signal != 0) (void)raise(static_cast<int>(signal));
  reinterpret_cast<const End*>(end)->run();
}

/// Whether a task has `signal` among those of a row of its status.
bool Has(uint32_t task, const char* row, int signal) {
  int32_t thread = 0;
  (void)KEL_TaskThreadIdGet(task, &thread);
  const std::string status = support::ReadFile("/proc/self/task/" + std::to_string(thread) + "/status");
  const size_t at = status.find(row);
  return at != std::string::npos &&
         (strtoull(status.c_str() + at + strlen(row), nullptr, 16) >> (signal - 1) & 1) != 0;
}

template <class Condition>
void Await(const Condition& condition) {
  for (int look = 0; look < 40000 && !condition(); ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

/// Two tasks fault while nobody can write, so that the second one is asked for a block in the midst of its
/// own crash, or while it waits for its end.
void AwaitBoth() {
  constexpr const char* kBlocked = "SigBlk:";
  Await([] { return Has(kSecondWaiter, kBlocked, SIGXFSZ) && Has(kCrasher, kBlocked, SIGXFSZ); });
  (void)KEL_SemaV(g_saveFile);
  constexpr const char* kPending = "SigPnd:";
  Await([] {
    return g_written >= 3 || (g_written == 2 && (Has(kSecondWaiter, kPending, kBoxTaskInfoSignal) ||
                                                 Has(kCrasher, kPending, kBoxTaskInfoSignal)));
  });
  Await([] { return Count(support::ReadFile(File("box.tola.tmp")), "Show CallStack\n") >= 4; });
  (void)KEL_SemaP(g_saveFile, KEL_WAIT_FOREVER);  // the last block is whole
}

/// Lets the five seconds pass once all blocks are there; ends the process when they do not come.
void PassTime(bool isTwice) {
  if (isTwice) AwaitBoth();
  Await([isTwice] { return isTwice || g_written >= 3; });
  Await([] {
    KEL_ClockAdvanceMs(1000);
    return false;
  });
  _exit(99);
}

int Run(const End& end) {
  KEL_ClockModeSet(kKelClockManual);
  TOLA_SIGNAL_BOX_S files = {};
  (void)File("box.tola").copy(files.exceptionFile, sizeof(files.exceptionFile) - 1);
  (void)File("box_back.tola").copy(files.backupFile, sizeof(files.backupFile) - 1);
  if (KEL_Start(nullptr) != 0) return 98;
  const uint32_t result = CBoxManager::GetInstance()->Init(files);
  if (result != 0) printf("init %u\n", result);
  if (!end.crashes) {
    end.run();
    return 0;
  }
  (void)sigaction(kBoxTaskInfoSignal, nullptr, &g_taskInfo);
  const bool isTwice = strcmp(end.name, "twice") == 0;
  const uintptr_t second[4] = {isTwice ? 1u : 0u, 0, 0, 0};
  const uintptr_t chosen[4] = {reinterpret_cast<uintptr_t>(&end), strtoul(end.name, nullptr, 10), 0, 0};
  uint32_t id = 0;
  uint32_t failed = InstallSigHandlers(kBoxTaskInfoSignal, CountTaskInfo);
  failed += KEL_SemaCreate("next", 1, 0, &g_saveFile);
  --g_saveFile;  // the box's is the one before
  if (isTwice) failed += KEL_SemaP(g_saveFile, 0);
  failed += KEL_TaskCreate("Waiter", &id, Waiter, 1, 0, 0, nullptr);
  failed += KEL_TaskCreate("SecondWaiter", &id, Waiter, 1, 0, 0, second);
  if (failed != 0 || id != kSecondWaiter) return 98;
  std::thread(PassTime, isTwice).detach();
  if (KEL_TaskCreate("Crasher", &id, RunEnd, 1, 0, 0, chosen) != 0) return 98;
  AwaitSignals();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  g_directory = argv[1];
  for (const End& end : kEnds) {
    if (strcmp(end.name, argv[2]) == 0) return Run(end);
  }
  return Run({argv[2], [] {}});
}
