/// What the exception box reads of the machine at a signal: the interrupted registers, and memory that may
/// not be there. All of it is async-signal-safe.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "fault/box_names.h"

/// The interrupted registers in the order of kBoxRegisterLabels. On 32-bit ARM the words of the context as
/// they stand. Elsewhere the same table is filled by this list; a register that the machine lacks is 0, and
/// so are all of them on other machines.
///
///   label             x86-64                                            i386
///   trap_no..oldmask  trapno, err, oldmask                              trapno, err, oldmask
///   r0 .. r10         rax rdi rsi rdx rcx r8 r9 r10 r11 rbx r12         eax edi esi edx ecx - - - - ebx -
///   fp ip sp lr       rbp r13 rsp r14                                   ebp - esp -
///   pc cpsr           rip eflags                                        eip eflags
///   fault_addr        cr2                                               cr2
struct BoxRegisters {
  uintptr_t words[kBoxRegisters];
};

/// `context` is the third argument of a signal handler; null gives zeros.
void BoxReadRegisters(const void* context, BoxRegisters& registers);

/// Opens what BoxMemoryRead needs, once, before any signal.
void BoxMemoryStart();
/// Copies `length` bytes of this process's memory at `address`; what is not mapped gives zeros, not a fault.
void BoxMemoryRead(uintptr_t address, void* bytes, size_t length);
