#include "fault/box_names.h"

#include <span>

namespace {

// The index is the code; the first text stands for every code that is not in the list.
constexpr const char* kIllegal[] = {"",           "ILL_ILLOPC", "ILL_ILLOPN", "ILL_ILLADR", "ILL_ILLTRP",
                                    "ILL_PRVOPC", "ILL_PRVREG", "ILL_COPROC", "ILL_BADSTK"};
constexpr const char* kBus[] = {"", "BUS_ADRALN", "BUS_ADRERR", "BUS_OBJERR"};
constexpr const char* kFloat[] = {
    "",           "FPE_INTDIV", "FPE_INTOVF", "FPE_FLTDIV", "FPE_FLTOVF",
    "FPE_FLTUND", "FPE_FLTRES", "FPE_FLTINV", "FLTSUB"};  // kept: the last one without the prefix
constexpr const char* kSegment[] = {"", "SEGV_MAPERR", "SEGV_ACCERR"};
constexpr const char* kTaskInfo[] = {"TASK_INFO"};
constexpr const char* kHeartTimeout[] = {"HEART_TIMEOUT"};

struct CodeNames {
  int signal;
  std::span<const char* const> names;
};
constexpr CodeNames kCodeNames[] = {{4, kIllegal},  {7, kBus},       {8, kFloat},
                                    {11, kSegment}, {45, kTaskInfo}, {46, kHeartTimeout}};

}  // namespace

// kept: the uneven blanks
constinit const char* const kBoxRegisterLabels[kBoxRegisters] = {
    "Reg:    trap_no, Val = ",  "Reg:    err_code, Val = ", "Reg:    oldmask, Val = ",
    "Reg:          r0, Val = ", "Reg:         r1, Val = ",  "Reg:          r2, Val = ",
    "Reg:         r3, Val = ",  "Reg:          r4, Val = ", "Reg:         r5, Val = ",
    "Reg:          r6, Val = ", "Reg:         r7, Val = ",  "Reg:          r8, Val = ",
    "Reg:         r9, Val = ",  "Reg:         r10, Val = ", "Reg:         fp, Val = ",
    "Reg:          ip, Val = ", "Reg:         sp, Val = ",  "Reg:          lr, Val = ",
    "Reg:         pc, Val = ",  "Reg:        cpsr, Val = ", "Reg: fault_addr, Val = "};

const char* BoxSignalCodeName(int signal, int code) {
  for (const CodeNames& row : kCodeNames) {
    if (row.signal != signal) continue;
    return row
        .names[code > 0 && static_cast<size_t>(code) < row.names.size() ? static_cast<size_t>(code) : 0];
  }
  return "";
}
