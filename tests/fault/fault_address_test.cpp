/// Where a fault was, as a handler of the box learns it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include "fault/box_machine.h"
#include "velto/kel_sigcap.h"

namespace {

#ifdef TOLA_EMULATED
constexpr bool kContextTells = false;  // the emulator leaves trap number and fault address of the context 0
#else
constexpr bool kContextTells = true;
#endif
constexpr uintptr_t kPageFault = 14;  // the trap number on ARM as on x86
constexpr int kOffset = 20;
volatile char* g_page = nullptr;

uint32_t JudgeFault(int, siginfo_t* info, void* context) {
  BoxRegisters registers;
  BoxReadRegisters(context, registers);
  const auto address = reinterpret_cast<uintptr_t>(g_page) + kOffset;
  if (reinterpret_cast<uintptr_t>(info->si_addr) != address) _exit(1);
  const bool told = registers.words[0] == kPageFault && registers.words[kBoxRegisters - 1] == address;
  _exit(told || !kContextTells ? 0 : 2);
}

TEST(FaultAddressTest, SignalAndRegistersTellIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  g_page = static_cast<volatile char*>(page);
  ASSERT_EQ(KEL_SigcapHandleReg(SIGSEGV, JudgeFault), 0u);
  EXPECT_EXIT(
      {
        (void)!KEL_SigcapHandleSwitch(SIGSEGV, 1);
        g_page[kOffset] = 1;
      },
      ::testing::ExitedWithCode(0), "")
      << "1: si_addr is wrong; 2: the registers are";
}

}  // namespace
