/// Capture of fatal signals on sigaction(2).
#include "velto/kel_sigcap.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace velto {
namespace {

constexpr int kSignalEnd = 65;  // Linux counts from 1 to 64
constexpr int kExitBySignal = 128;

constinit std::atomic<KelSigcapHandler> gHandlers[kSignalEnd]{};

bool IsSignal(int signal) {
  return signal > 0 && signal < kSignalEnd;
}

void OnCaptured(int signal, siginfo_t* info, void* context) {
  const KelSigcapHandler handler = gHandlers[signal].load();
  if (handler == nullptr || handler(signal, info, context) != 0) KEL_SigcapDefault(signal);
}

/// NODEFER: a fault in the handler is a blocked signal otherwise, which the kernel answers by ending the
/// process before the handler could do the rest of its work.
uint32_t Capture(int signal) {
  struct sigaction action = {};
  action.sa_sigaction = OnCaptured;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  return sigaction(signal, &action, nullptr) == 0 ? 0 : kKelErrSigcapSystem;
}

}  // namespace
}  // namespace velto

uint32_t KEL_SigcapHandleReg(int signal, KelSigcapHandler handler) {
  if (!velto::IsSignal(signal) || handler == nullptr) return kKelErrSigcapPara;
  velto::gHandlers[signal].store(handler);
  return 0;
}

uint32_t KEL_SigcapHandleSwitch(int signal, uint32_t on) {
  if (!velto::IsSignal(signal) || on > 1) return kKelErrSigcapPara;
  if (on == 0) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    return sigaction(signal, &action, nullptr) == 0 ? 0 : kKelErrSigcapSystem;
  }
  return velto::gHandlers[signal].load() != nullptr ? velto::Capture(signal) : kKelErrSigcapNone;
}

void KEL_SigcapDefault(int signal) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  (void)sigaction(signal, &action, nullptr);  // fails for no fatal signal but those that need no action
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  (void)syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signal);
  (void)pthread_sigmask(SIG_UNBLOCK, &only, nullptr);  // it is delivered here if it was blocked
  _exit(velto::kExitBySignal + signal);
}
