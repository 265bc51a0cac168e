/// A process with an exception box that comes to the end that its arguments say: box_crasher DIRECTORY END.
///
/// Four tasks run: "main", two that wait, and the one that faults. The clock stands until every other task
/// has written its block; then a thread that is no task lets the five seconds pass.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "base/owners.h"
#include "fault/box.h"
#include "fault/feature_fault_manager.h"
#include "log/file_public.h"
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

std::string Content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

size_t Count(const std::string& text, const char* part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

void Limit(int what, rlim_t bytes) {
  const struct rlimit limit = {bytes, bytes};
  (void)setrlimit(what, &limit);
}
int Made(const char* name) {
  return open(File(name).c_str(), O_RDWR | O_CREAT, 0600);
}
volatile char* Page(int fd, int flags) {
  return static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, flags, fd, 0));
}

[[gnu::noinline]] void WriteToNull() {  // beside it: the sanitizers would not let null itself pass
  *reinterpret_cast<volatile int*>(static_cast<uintptr_t>(g_zero + 64)) = 1;
}
[[gnu::noinline]] int UseUpStack(int depth) {
  volatile char frame[512] = {};
  frame[depth % 512] = 1;
  return depth < 0 ? 0 : UseUpStack(depth + 1) + frame[0];
}
void Divide() {
#if defined(__arm__)
  (void)raise(SIGFPE);  // the division does not trap there
#else
  __asm__ volatile("idivl %2" : : "a"(1), "d"(0), "r"(0));
#endif
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
    if (Count(Content(File("box.tola.map.tmp")), "box_crasher") > 0) printf("refreshed %d\n", second);
  }
}

/// Says which signals commands find ignored, started in each way that there is.
void StartCommands() {
  for (const int signal : {SIGUSR1, SIGUSR2, SIGPIPE}) (void)raise(signal);
  constexpr char kCommand[] = "grep SigIgn /proc/self/status";
  (void)!TOLA_System(kCommand);
  (void)!tola_excev("", 0, kCommand, nullptr);
  const base::PipePtr pipe(popen(kCommand, "r"));
  char line[64] = {};
  if (pipe && fgets(line, sizeof(line), pipe.get()) != nullptr) printf("%s", line);
}

struct End {
  const char* name;
  void (*run)();
  bool crashes = true;
};
constexpr End kEnds[] = {
    {"null", WriteToNull},
    {"constant", [] { *Page(-1, MAP_PRIVATE | MAP_ANONYMOUS) = 1; }},
    {"stack", [] { (void)UseUpStack(g_zero); }},
    {"abort", abort},
    {"divide", Divide},
    {"trap", [] { __builtin_trap(); }},
    {"bus", [] { (void)*Page(Made("empty"), MAP_SHARED); }},
    {"cpu", [] { (void)raise(SIGXCPU); }},
    {"limit",
     [] {
       Limit(RLIMIT_FSIZE, 0x100000);
       (void)!pwrite(Made("long"), "x", 1, 0x100000);
     }},
    {"heart", [] { (void)raise(kBoxHeartTimeoutSignal); }},
    {"full",
     [] {
       Limit(RLIMIT_FSIZE, 3000);
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
    {"commands", StartCommands, false},
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
  if (faults != 0) Divide();
  AwaitSignals();
}

void RunEnd(uintptr_t end, uintptr_t, uintptr_t, uintptr_t) {
  reinterpret_cast<const End*>(end)->run();
}

/// Whether a task has `signal` among those of a row of its status.
bool Has(uint32_t task, const char* row, int signal) {
  int32_t thread = 0;
  (void)KEL_TaskThreadIdGet(task, &thread);
  const std::string status = Content("/proc/self/task/" + std::to_string(thread) + "/status");
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
  Await([] { return Count(Content(File("box.tola.tmp")), "Show CallStack\n") >= 4; });
  (void)KEL_SemaP(g_saveFile, KEL_WAIT_FOREVER);  // the last block is whole
}

/// Lets the five seconds pass once all blocks are there; ends the process when they do not come.
void PassTime(bool isTwice) {
  if (isTwice) {
    AwaitBoth();
  } else {
    Await([] { return g_written >= 3; });
  }
  Await([] {
    KEL_ClockAdvanceMs(1000);
    return false;
  });
  _exit(99);
}

int Run(const End& end) {
  KEL_ClockModeSet(kKelClockManual);
  TOLA_SIGNAL_BOX_S files = {};
  (void)strncpy(files.exceptionFile, File("box.tola").c_str(), sizeof(files.exceptionFile) - 1);
  (void)strncpy(files.backupFile, File("box_back.tola").c_str(), sizeof(files.backupFile) - 1);
  if (KEL_Start(nullptr) != 0) return 98;
  const uint32_t result = CBoxManager::GetInstance()->Init(files);
  if (result != 0) printf("init %u\n", result);
  if (!end.crashes) {
    end.run();
    return 0;
  }
  (void)sigaction(kBoxTaskInfoSignal, nullptr, &g_taskInfo);
  if (InstallSigHandlers(kBoxTaskInfoSignal, CountTaskInfo) != 0) return 98;
  uint32_t id = 0;
  const bool isTwice = strcmp(end.name, "twice") == 0;
  // The box's semaphore is the one before the next that is made.
  if (isTwice && (KEL_SemaCreate("next", 1, 0, &g_saveFile) != 0 || KEL_SemaP(--g_saveFile, 0) != 0))
    return 98;
  const uintptr_t second[4] = {isTwice ? 1u : 0u, 0, 0, 0};
  const uintptr_t chosen[4] = {reinterpret_cast<uintptr_t>(&end), 0, 0, 0};
  if (KEL_TaskCreate("Waiter", &id, Waiter, 1, 0, 0, nullptr) != 0 ||
      KEL_TaskCreate("SecondWaiter", &id, Waiter, 1, 0, 0, second) != 0 || id != kSecondWaiter) {
    return 98;
  }
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
  return 2;
}
