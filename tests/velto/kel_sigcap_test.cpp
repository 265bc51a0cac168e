#include "velto/kel_sigcap.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int kOffset = 20;
volatile char* g_page = nullptr;

/// An emulator leaves the fault's address out of the saved registers, but not out of the signal.
TEST(KelSigcap, HandlerIsToldWhereTheFaultWas) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  g_page = static_cast<volatile char*>(page);
  ASSERT_EQ(KEL_SigcapHandleReg(SIGSEGV,
                                [](int, siginfo_t* info, void*) -> uint32_t {
                                  _exit(info->si_addr == const_cast<char*>(g_page) + kOffset ? 0 : 1);
                                }),
            0u);
  EXPECT_EXIT(
      {
        (void)!KEL_SigcapHandleSwitch(SIGSEGV, 1);
        g_page[kOffset] = 1;
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
