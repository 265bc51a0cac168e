#include "fault/box_record.h"

#include <errno.h>
#include <execinfo.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "fault/box_line.h"
#include "fault/box_machine.h"
#include "fault/box_names.h"
#include "velto/kel_clock.h"
#include "velto/kel_sigcap.h"
#include "velto/kel_sync.h"
#include "velto/kel_task.h"

namespace {

constexpr uint32_t kOthersMs = 5000;               // for the other tasks to write, then the process ends
constexpr uint32_t kLaterCrashMs = 2 * kOthersMs;  // the first crash ends the process before that
constexpr uint32_t kSaveMs = 3000;                 // a writer that takes longer hangs
constexpr unsigned kHangS = 20;                    // then the process ends, wherever its handlers hang
constexpr uint32_t kMostCrashes = 4;               // of one thread: then it cannot do the least any more
constexpr int kFrames = 20;
constexpr size_t kStackBytes = 1040;  // kept: a line more than the title says
constexpr size_t kLineBytes = 16;
constexpr unsigned kWordDigits = 2 * sizeof(uintptr_t);

struct Process {
  BoxRecordSetup setup{-1, 0, nullptr};
  pid_t pid = 0;
  int64_t utcOffsetS = 0;
};
constinit Process gBox;
constinit std::atomic<BoxUserInfoHook> gHook = nullptr;
constinit std::atomic<uint32_t> gFilterTask = 0;
constinit std::atomic<bool> gSenderEnds = false;  // the process, after signal 46

constinit std::atomic<int32_t> gFirstThread = 0;  // whose crash it is; 0: none so far
constinit std::atomic<int> gFirstSignal = 0;
constinit std::atomic<int64_t> gCrashTimeS = 0;  // 0: no crash so far
constinit std::atomic<int32_t> gSaving = 0;      // the thread that holds "BoxSaveFile"
static_assert(std::atomic<int64_t>::is_always_lock_free);

constinit thread_local volatile uint32_t tCrashes = 0;  // how often the crash handler was entered
constinit thread_local volatile bool tAsked = false;    // the other tasks were asked for their blocks

int32_t ThreadId() {
  return static_cast<int32_t>(syscall(SYS_gettid));
}

int64_t NowS() {
  return static_cast<int64_t>(KEL_ClockWallNs() / 1'000'000'000U);
}

/// What is written may pass the limit of a file's size; the signal of that must not come on top of the crash.
/// Nor may the request of another thread's crash for a block come into the midst of this thread's.
void HoldOtherSignalsBack() {
  sigset_t others;
  sigemptyset(&others);
  for (const int signal : {SIGXCPU, SIGXFSZ, kBoxTaskInfoSignal}) sigaddset(&others, signal);
  (void)pthread_sigmask(SIG_BLOCK, &others, nullptr);
}

/// A task that goes on must not meet the signal of what was written here.
void DropOwnLimitSignal() {
  sigset_t limit;
  sigemptyset(&limit);
  sigaddset(&limit, SIGXFSZ);
  const struct timespec now = {0, 0};
  (void)sigtimedwait(&limit, nullptr, &now);
}

/// "BoxSaveFile". Its owner has it already: a fault while he writes starts him again.
bool TakeSaveFile() {
  if (gSaving.load() == ThreadId()) return true;
  if (KEL_SemaP(gBox.setup.saveSemaId, kSaveMs) != 0) {
    BoxLine().Text("KEL_SemaP fail\n").WriteTo(STDOUT_FILENO);
    return false;
  }
  gSaving.store(ThreadId());
  return true;
}

void GiveSaveFileBack() {
  if (gSaving.load() != ThreadId()) return;
  gSaving.store(0);
  (void)KEL_SemaV(gBox.setup.saveSemaId);  // the count was taken before
}

void WriteTime(BoxLine& line, int fd) {
  using namespace std::chrono;
  const int64_t crashS = gCrashTimeS.load();
  const sys_seconds local{seconds((crashS != 0 ? crashS : NowS()) + gBox.utcOffsetS)};
  const auto day = floor<days>(local);
  const year_month_day date(day);
  const hh_mm_ss time(local - day);
  line.Text("Exception Time        : ").Number(static_cast<int>(date.year())).Text("-");
  line.Number(static_cast<unsigned>(date.month())).Text("-").Number(static_cast<unsigned>(date.day()));
  line.Text(" ").Number(time.hours().count()).Text(":").Number(time.minutes().count(), 2).Text(":");
  line.Number(time.seconds().count(), 2).Text("\n").WriteTo(fd);
}

void WriteTask(BoxLine& line, int fd) {
  uint32_t id = 0;
  char name[kKelTaskNameSize] = {};
  if (KEL_TaskCurrentIdGet(&id) != 0 || KEL_TaskNameGet(id, name, sizeof(name)) != 0) {
    (void)prctl(PR_GET_NAME, name);  // a thread that is no task: the kernel's name for it, and id 0
  }
  line.Text("Exception Task        : ").Text(name).Text("(TaskId = ").Hex(id).Text(")\n").WriteTo(fd);
}

void WriteSignal(BoxLine& line, int fd, int signal, const siginfo_t* info) {
  const int code = info != nullptr ? info->si_code : 0;
  line.Text("Exception Signal      : ").Number(signal).Text("\n").WriteTo(fd);
  line.Text("Exception Signal errno: ").Number(info != nullptr ? info->si_errno : 0).Text("\n").WriteTo(fd);
  line.Text("Exception Signal code : ").Number(code).Text(" (").Text(BoxSignalCodeName(signal, code));
  line.Text(")\n").WriteTo(fd);
}

void WriteRegisters(BoxLine& line, int fd, const BoxRegisters& registers) {
  line.Text("\nRegister Contents:\n").WriteTo(fd);
  for (size_t i = 0; i < kBoxRegisters; ++i) {
    line.Text(kBoxRegisterLabels[i]).Text(" 0x").Hex(registers.words[i], kWordDigits).Text(";");
    if (i % 2 == 1) line.Text("\n");
    line.WriteTo(fd);
  }
  line.Text("\n").WriteTo(fd);
}

void WriteStack(BoxLine& line, int fd, uintptr_t from) {
  line.Text("\nDump stack when signal occurs,total 1024 Bytes,16Bytes/line.\n").WriteTo(fd);
  for (size_t offset = 0; offset < kStackBytes; offset += kLineBytes) {
    const uintptr_t address =
        from + offset;  // wraps at the end of the address space, where nothing is mapped
    uint32_t words[kLineBytes / sizeof(uint32_t)];
    BoxMemoryRead(address, words, sizeof(words));
    if (address != 0) {
      line.Text("0x").Hex(address);
    } else {
      line.Text("(nil)");
    }
    line.Text(": ");
    for (const uint32_t word : words) line.Text(" 0x").Hex(word, 8);
    line.Text("\n").WriteTo(fd);
  }
}

void WriteCallStack(BoxLine& line, int fd) {
  line.Text("\nShow CallStack\n").WriteTo(fd);
  void* frames[kFrames];
  backtrace_symbols_fd(frames, backtrace(frames, kFrames), fd);
}

/// One task's block. The call stack comes last: walking a broken stack may fault.
void SaveSignalTaskInfo(int signal, const siginfo_t* info, const void* context) {
  if (!TakeSaveFile()) return;
  const int fd = gBox.setup.fd;
  BoxRegisters registers;
  BoxReadRegisters(context, registers);
  BoxLine line;
  line.Text("\n**************** Exception Info Record By sys ****************\n").WriteTo(fd);
  WriteTime(line, fd);
  WriteTask(line, fd);
  WriteSignal(line, fd, signal, info);
  WriteRegisters(line, fd, registers);
  WriteStack(line, fd, registers.words[kBoxStackPointer]);
  WriteCallStack(line, fd);
  GiveSaveFileBack();
}

/// Sends `signal` to every task, but task information not to the one that asks. By the kernel's id: a thread
/// that has just ended is an error then, and no undefined behaviour as with its pthread_t.
void SignalTasks(int signal) {
  uint32_t own = 0;
  (void)KEL_TaskCurrentIdGet(&own);  // 0 when the caller is no task: then there is nobody to leave out
  const uint32_t filter = gFilterTask.load();
  for (uint32_t id = KEL_TaskMaxIdGet(); id > filter; --id) {
    int32_t thread = 0;
    if (KEL_TaskIsValid(id) == 0 || (id == own && signal == kBoxTaskInfoSignal)) continue;
    if (KEL_TaskThreadIdGet(id, &thread) != 0) continue;
    if (syscall(SYS_tgkill, gBox.pid, thread, signal) == 0) continue;
    const auto error = static_cast<uint64_t>(errno);
    BoxLine().Text("pthread_kill i32Ret:0x").Hex(error).Text("\n").WriteTo(STDOUT_FILENO);
  }
}

void OnHang(int) {
  KEL_SigcapDefault(gFirstSignal.load());
}

/// Makes this crash the process's, or says that another thread's is already.
bool IsFirst(int signal) {
  int32_t none = 0;
  if (!gFirstThread.compare_exchange_strong(none, ThreadId())) return none == ThreadId();
  gFirstSignal.store(signal);
  gCrashTimeS.store(NowS());
  struct sigaction action = {};
  action.sa_handler = OnHang;
  action.sa_flags = SA_ONSTACK;
  (void)sigaction(SIGALRM, &action, nullptr);  // without it the alarm's own default ends the process
  (void)alarm(kHangS);
  return true;
}

void AskOthers(int signal) {
  if (tAsked) return;
  tAsked = true;
  SignalTasks(kBoxTaskInfoSignal);
  const BoxUserInfoHook hook = gHook.load();
  if (hook != nullptr) hook(signal, gBox.setup.fileName);
}

}  // namespace

void BoxRecordStart(const BoxRecordSetup& setup) {
  void* frame = nullptr;
  (void)backtrace(&frame, 1);  // loads its library now
  const time_t now = static_cast<time_t>(NowS());
  struct tm local = {};
  gBox.utcOffsetS = localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0;
  gBox.setup = setup;
  gBox.pid = getpid();
  BoxMemoryStart();
}

void BoxRecordHook(BoxUserInfoHook hook) {
  gHook.store(hook);
}

void BoxRecordFilter(uint32_t taskId) {
  gFilterTask.store(taskId);
}

void BoxLeaveEndToSender() {
  gSenderEnds.store(true);
}

uint32_t BoxCrashHandler(int signal, siginfo_t* info, void* context) {
  if (getpid() != gBox.pid) return 1;
  // A signal that somebody sends again while this thread is at it must not cut its work short. An abort that
  // came back would end the process at once.
  if (tCrashes > 0 && signal != SIGABRT && info != nullptr && info->si_code <= 0) return 0;
  HoldOtherSignalsBack();
  const bool first = IsFirst(signal);
  tCrashes = tCrashes + 1;
  if (tCrashes == 1) {
    SaveSignalTaskInfo(signal, info, context);
  } else if (tCrashes > kMostCrashes) {
    KEL_SigcapDefault(gFirstSignal.load());
  } else {
    GiveSaveFileBack();  // the block that this fault broke off stays as it is
  }
  if (first) AskOthers(signal);
  KEL_TaskDelay(first ? kOthersMs : kLaterCrashMs);
  if (signal != gFirstSignal.load()) KEL_SigcapDefault(gFirstSignal.load());
  return 1;
}

void BoxHeartTimeoutHandler(int signal, siginfo_t* info, void* context) {
  if (BoxCrashHandler(signal, info, context) != 0 && !gSenderEnds.load()) KEL_SigcapDefault(signal);
}

void BoxTaskInfoHandler(int signal, siginfo_t* info, void* context) {
  if (getpid() != gBox.pid) return;
  const int kept = errno;
  HoldOtherSignalsBack();  // until the interrupted mask comes back with the return
  SaveSignalTaskInfo(signal, info, context);
  DropOwnLimitSignal();
  errno = kept;
}
