#include "fault/box_machine.h"

#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>

namespace {

constinit std::atomic<int> gMemoryFd = -1;  // this process's memory; lives as long as the process

#if defined(__x86_64__) || defined(__i386__)

#if defined(__x86_64__)
constexpr int kRegisters[kBoxRegisters] = {
    REG_TRAPNO, REG_ERR, REG_OLDMASK, REG_RAX, REG_RDI, REG_RSI, REG_RDX, REG_RCX, REG_R8,  REG_R9, REG_R10,
    REG_R11,    REG_RBX, REG_R12,     REG_RBP, REG_R13, REG_RSP, REG_R14, REG_RIP, REG_EFL, REG_CR2};
#else
constexpr int kNone = -1;  // or no general register; see Fill
constexpr int kRegisters[kBoxRegisters] = {REG_TRAPNO, REG_ERR, kNone,   REG_EAX, REG_EDI, REG_ESI, REG_EDX,
                                           REG_ECX,    kNone,   kNone,   kNone,   kNone,   REG_EBX, kNone,
                                           REG_EBP,    kNone,   REG_ESP, kNone,   REG_EIP, REG_EFL, kNone};
#endif

void Fill(const mcontext_t& machine, BoxRegisters& registers) {
  for (size_t i = 0; i < kBoxRegisters; ++i) {
    if (kRegisters[i] >= 0) registers.words[i] = static_cast<uintptr_t>(machine.gregs[kRegisters[i]]);
  }
#if defined(__i386__)
  registers.words[2] = machine.oldmask;
  registers.words[kBoxRegisters - 1] = machine.cr2;
#endif
}

#elif defined(__arm__)

void Fill(const mcontext_t& machine, BoxRegisters& registers) {
  static_assert(offsetof(mcontext_t, arm_sp) == kBoxStackPointer * sizeof(uintptr_t) &&
                offsetof(mcontext_t, fault_address) == (kBoxRegisters - 1) * sizeof(uintptr_t));
  memcpy(registers.words, &machine, sizeof(registers.words));
}

#else

void Fill(const mcontext_t&, BoxRegisters&) {}

#endif

}  // namespace

void BoxReadRegisters(const void* context, BoxRegisters& registers) {
  registers = {};
  if (context != nullptr) Fill(static_cast<const ucontext_t*>(context)->uc_mcontext, registers);
}

void BoxMemoryStart() {
  if (gMemoryFd.load() < 0) gMemoryFd.store(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
}

void BoxMemoryRead(uintptr_t address, void* bytes, size_t length) {
  memset(bytes, 0, length);
  // The kernel copies up to the first page that is not there and leaves the rest as it was.
  (void)!pread(gMemoryFd.load(), bytes, length, static_cast<off_t>(address));
}
