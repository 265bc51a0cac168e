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
#include "log/file_public.h"
#include "velto/kel_cfg.h"
#include "velto/kel_clock.h"
#include "velto/kel_task.h"

namespace {

constexpr uint32_t kWaiting = 3;  // main and the two that wait
std::string g_directory;
std::atomic<uint32_t> g_written = 0;  // tasks that came back from writing their block
std::atomic<bool> g_secondFaults = false;
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
void FaultTwice() {
  g_secondFaults = true;
  WriteToNull();
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
    {"twice", FaultTwice},
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

/// Signal 45 comes in here alone, so that the count is right.
void AwaitTaskInfo() {
  sigset_t mask;
  (void)pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  sigdelset(&mask, kBoxTaskInfoSignal);
  (void)sigsuspend(&mask);
  ++g_written;
}

void Waiter(uintptr_t isSecond, uintptr_t, uintptr_t, uintptr_t) {
  AwaitTaskInfo();
  if (isSecond != 0 && g_secondFaults) Divide();
  for (;;) (void)pause();
}

void RunEnd(uintptr_t end, uintptr_t, uintptr_t, uintptr_t) {
  reinterpret_cast<const End*>(end)->run();
}

/// Lets the five seconds pass once all blocks are there; ends the process when they do not come.
void PassTime() {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(40);
  const size_t blocks = kWaiting + (g_secondFaults ? 2 : 1);
  const auto complete = [blocks] {
    if (g_written < kWaiting) return false;
    return !g_secondFaults || Count(Content(File("box.tola.tmp")), "Show CallStack\n") >= blocks;
  };
  while (!complete() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  while (std::chrono::steady_clock::now() < end) {
    KEL_ClockAdvanceMs(1000);
    std::this_thread::yield();
  }
  _exit(99);
}

int Run(const End& end) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, kBoxTaskInfoSignal);
  (void)pthread_sigmask(SIG_BLOCK, &mask, nullptr);  // the tasks take it over
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
  uint32_t id = 0;
  const uintptr_t second[4] = {1, 0, 0, 0};
  const uintptr_t chosen[4] = {reinterpret_cast<uintptr_t>(&end), 0, 0, 0};
  g_secondFaults = end.run == FaultTwice;
  if (KEL_TaskCreate("Waiter", &id, Waiter, 1, 0, 0, nullptr) != 0 ||
      KEL_TaskCreate("SecondWaiter", &id, Waiter, 1, 0, 0, second) != 0) {
    return 98;
  }
  std::thread(PassTime).detach();
  if (KEL_TaskCreate("Crasher", &id, RunEnd, 1, 0, 0, chosen) != 0) return 98;
  Waiter(0, 0, 0, 0);
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
