// The command runners. One core starts a child with vfork and waits for it; around it stand the shell way and
// the argument-vector way, which turn the end of the child into a result and run-log lines.
//
// The child shares its parent's memory until it executes the program: it makes raw system calls only, because
// the C library's setuid and setgid would switch every thread of the parent.
#include <errno.h>
#include <pwd.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <initializer_list>
#include <optional>
#include <string_view>

#include "log/file_public.h"
#include "log/run_log.h"
#include "securec.h"

namespace {

#ifdef SYS_setuid32  // the plain numbers take 16-bit ids where these exist
constexpr long kSetUid = SYS_setuid32;
constexpr long kSetGid = SYS_setgid32;
constexpr long kSetGroups = SYS_setgroups32;
#else
constexpr long kSetUid = SYS_setuid;
constexpr long kSetGid = SYS_setgid;
constexpr long kSetGroups = SYS_setgroups;
#endif

constexpr int kFirstOwnFd = 3;
constexpr int kLastOwnFd = 255;
constexpr int kExitNotStarted = 127;

struct Identity {
  uid_t user;
  gid_t group;
};

/// What the child needs, laid out before it exists.
struct ChildPlan {
  const char* program;
  char* const* arguments;
  const Identity* identity;  ///< null: stays who it is
  bool endsWhenStopped;      ///< a stop ends it and is its status
};

struct ChildEnd {
  bool waited;  ///< false: not started, or not waited for
  int status;   ///< as waitpid gives it
  int error;    ///< errno of the fork or the wait; the child's, when it could not start the program
};

/// Sets the handler of a signal, for the process, while it lives.
class SignalHandling {
 public:
  SignalHandling(int number, void (*handler)(int)) : number_(number) {
    struct sigaction action = {};
    action.sa_handler = handler;
    saved_ = sigaction(number, &action, &old_) == 0;
  }
  ~SignalHandling() {
    if (saved_) (void)sigaction(number_, &old_, nullptr);  // the same signal was settable before
  }
  SignalHandling(const SignalHandling&) = delete;
  SignalHandling& operator=(const SignalHandling&) = delete;

 private:
  int number_;
  bool saved_ = false;
  struct sigaction old_ = {};
};

/// Blocks signals for the calling thread while it lives.
class SignalBlock {
 public:
  SignalBlock(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers) sigaddset(&set, number);
    (void)pthread_sigmask(SIG_BLOCK, &set, &old_);  // fails only for arguments that it does not have here
  }
  ~SignalBlock() { (void)pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;
  const sigset_t& old() const { return old_; }

 private:
  sigset_t old_ = {};
};

/// Gives the child its user. Other groups of the parent are dropped where that is permitted.
__attribute__((no_sanitize("address", "thread", "undefined"))) bool SwitchTo(const Identity& identity) {
  (void)syscall(kSetGroups, 1L, &identity.group);  // only root may, and only root has groups worth dropping
  return syscall(kSetGid, identity.group) == 0 && syscall(kSetUid, identity.user) == 0;
}

/// Closes 3 to 255 at least: all of them where the kernel can at once.
__attribute__((no_sanitize("address", "thread", "undefined"))) void CloseInherited() {
#ifdef SYS_close_range
  if (syscall(SYS_close_range, kFirstOwnFd, ~0U, 0) == 0) return;
#endif
  for (int fd = kFirstOwnFd; fd <= kLastOwnFd; ++fd) (void)syscall(SYS_close, fd);
}

/// Returns in the parent only. execvp works on the stack, so that the shared memory stays as it is, but for
/// errno, which the search of the path leaves behind even when it finds the program.
__attribute__((noinline, no_sanitize("address", "thread", "undefined"))) pid_t StartChild(
    const ChildPlan& plan, const sigset_t& mask, volatile int& startError) {
  const pid_t pid = vfork();
  if (pid != 0) return pid;
  // NOLINTNEXTLINE(clang-analyzer-unix.Vfork): raw system calls touch no memory of the parent
  (void)syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, nullptr, static_cast<size_t>(_NSIG / 8));
  if (plan.identity == nullptr || SwitchTo(*plan.identity)) {
    CloseInherited();
    (void)execvp(plan.program, plan.arguments);  // returns only when it failed
  }
  startError = errno;
  _exit(kExitNotStarted);
}

bool WaitFor(pid_t pid, int& status, int options) {
  return TEMP_FAILURE_RETRY(waitpid(pid, &status, options)) == pid;
}

ChildEnd RunChild(const ChildPlan& plan, const sigset_t& mask) {
  // A child may raise them before they are ignored; from then on a blocked one would be kept, not dropped.
  std::optional<SignalBlock> untilIgnored(std::in_place, {SIGINT, SIGQUIT});
  volatile int startError = 0;  // the child's word
  const pid_t pid = StartChild(plan, mask, startError);
  if (pid < 0) return {false, 0, errno};

  const SignalHandling noInterrupt(SIGINT, SIG_IGN);
  const SignalHandling noQuit(SIGQUIT, SIG_IGN);
  untilIgnored.reset();
  int status = 0;
  if (!WaitFor(pid, status, plan.endsWhenStopped ? WUNTRACED : 0)) return {false, 0, errno};
  if (WIFSTOPPED(status)) {
    (void)kill(pid, SIGKILL);  // a stopped one would be nobody's, and go on with its work when continued
    int ending = 0;
    (void)WaitFor(pid, ending, 0);
  }
  return {true, status, startError};
}

bool HasNothingToRun(const char* command) {
  return command == nullptr || std::string_view(command).find_first_not_of(" \t\n") == std::string_view::npos;
}

/// `logsText` false keeps the command out of the log whatever it holds.
uint32_t RunShell(const char* command, const Identity* identity, bool logsText) {
  if (HasNothingToRun(command)) return 1;
  char* const arguments[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command),
                             nullptr};
  const SignalBlock blocked{SIGCHLD};
  const SignalHandling reapable(SIGCHLD, SIG_DFL);  // an ignored SIGCHLD would take the child's status away
  const ChildEnd end = RunChild({"sh", arguments, identity, false}, blocked.old());
  if (end.waited && end.status == 0) return 0;

  if (end.waited) {
    LOG_ERR(0, "SysErr:%d,%d", WEXITSTATUS(end.status), end.error);
  } else {
    LOG_ERR(0, "SysErr:%d", end.error);
  }
  if (logsText && !HoldsSensitiveWord(command)) LOG_ERR(0, "SysErr:%s", command);
  return 1;
}

/// Whose lines tola_excev writes, and whether at all.
struct Caller {
  const char* file;
  uint32_t line;
  bool logs;
};

#define CALLER_ERR(caller, ...) \
  ((caller).logs ? TOLA_LogPrint(0, kLogErr, (caller).file, (caller).line, __VA_ARGS__) : (void)0)

uint32_t RunProgram(const Caller& caller, char* const* arguments) {
  const char* program = arguments[0];
  const ChildEnd end = [&] {
    const SignalBlock blocked{SIGCHLD};
    return RunChild({program, arguments, nullptr, true}, blocked.old());
  }();
  if (!end.waited) {
    CALLER_ERR(caller, "excev err:%d, %s", end.error, program);
    return 1;
  }
  if (WIFSIGNALED(end.status)) {
    CALLER_ERR(caller, "excev abnormal:%d,%d,%s", WTERMSIG(end.status), end.error, program);
    return 1;
  }
  if (WIFSTOPPED(end.status)) {
    CALLER_ERR(caller, "excev stopped:%d,%d,%s", WSTOPSIG(end.status), end.error, program);
    return 1;
  }
  const int code = WEXITSTATUS(end.status);
  if (code != 0) CALLER_ERR(caller, "excev err:%d,%d,%s", code, end.error, program);
  return static_cast<uint32_t>(code);
}

uint32_t RunArguments(const Caller& caller, const char* command, const char* shownText) {
  if (command == nullptr) {
    CALLER_ERR(caller, "cmd null");
    return 1;
  }
  char buffer[kCmdBufferSize];
  char* arguments[kCmdSlots];
  uint32_t result = ParseCmdArg(command, buffer, sizeof(buffer), arguments);
  if (result == 0) result = arguments[0] == nullptr ? 1 : RunProgram(caller, arguments);
  if (result == 0) return 0;

  const char* text = HoldsSensitiveWord(command) ? shownText : command;
  if (text != nullptr) CALLER_ERR(caller, "excev err:%s", text);
  return result;
}

}  // namespace

uint32_t TOLA_System(const char* command, ...) {
  return RunShell(command, nullptr, true);
}

uint32_t TOLA_SystemByUsername(const char* command, const char* userName) {
  struct passwd entry = {};
  struct passwd* found = nullptr;
  char texts[4096];
  if (userName != nullptr) (void)getpwnam_r(userName, &entry, texts, sizeof(texts), &found);
  if (found == nullptr) {
    LOG_ERR(0, "get user:%s failed", userName == nullptr ? "" : userName);
    return RunShell(command, nullptr, false);  // kept: an unknown user means the current one
  }
  const Identity identity = {entry.pw_uid, entry.pw_gid};
  return RunShell(command, &identity, false);
}

uint32_t TOLA_SystemCheckSpecialChar(const char* command) {
  const uint32_t result = CheckSpecialCharWithExWhiteList(command);
  return result != 0 ? result : TOLA_System(command);
}

uint32_t tola_excev(const char* file, uint32_t line, const char* command, const char* shownText) {
  return RunArguments({file == nullptr ? "" : file, line, true}, command, shownText);
}

uint32_t tola_excev_no_log(const char* file, uint32_t line, const char* command, const char* shownText) {
  return RunArguments({file == nullptr ? "" : file, line, false}, command, shownText);
}

uint32_t TOLA_SystemSudoWithoutParam(const char* scriptName) {
  return TOLA_SystemSudoWithParam(scriptName, "");
}

uint32_t TOLA_SystemSudoWithParam(const char* scriptName, const char* parameter) {
  if (scriptName == nullptr || *scriptName == '\0' || strchr(scriptName, '/') != nullptr) return 1;
  if (CheckSpecialCharWithWhiteList(scriptName, nullptr) != 0 || parameter == nullptr) return 1;
  char command[kCmdBufferSize];
  const char* prefix = geteuid() == 0 ? "" : "sudo ";
  const char* blank = *parameter == '\0' ? "" : " ";
  if (snprintf_s(command, sizeof(command), sizeof(command) - 1, "%s%s%s%s%s", prefix, kScriptFolder,
                 scriptName, blank, parameter) < 0) {
    return 1;
  }
  return TOLA_System(command);
}
