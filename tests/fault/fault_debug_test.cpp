/// Debug requests as their bytes arrive, and the leak dump.

#include "fault/fault_debug.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <vector>

#include "base/owners.h"
#include "fault/fault_public.h"
#include "support/log_capture.h"
#include "velto/kel_mem.h"

namespace {

using testing::HasSubstr;

uint32_t Request(const std::vector<uint16_t>& words, size_t cut = 0) {
  std::vector<uint8_t> data;
  for (const uint16_t word : words) {
    data.push_back(static_cast<uint8_t>(word >> 8));
    data.push_back(static_cast<uint8_t>(word));
  }
  return FaultDebugRequest(data.data(), static_cast<uint32_t>(data.size() - cut));
}

/// A terminal whose other end the test reads.
class Terminal {
 public:
  Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)) {
    if (grantpt(master_.get()) == 0 && unlockpt(master_.get()) == 0) {
      number_ = static_cast<uint16_t>(atoi(ptsname(master_.get()) + strlen("/dev/pts/")));
    }
    // Held open, so that what was written is there to be read when the writer has gone.
    slave_.reset(open(ptsname(master_.get()), O_RDWR | O_NOCTTY));
  }
  [[nodiscard]] uint16_t number() const { return number_; }
  /// What came out there, once it is as long as `expected`, which takes a moment.
  [[nodiscard]] std::string Read(const std::string& expected) const {
    std::string text;
    char piece[256];
    struct pollfd waited = {master_.get(), POLLIN, 0};
    while (text.size() < expected.size() && poll(&waited, 1, 5000) > 0) {
      const ssize_t length = read(master_.get(), piece, sizeof(piece));
      if (length > 0) text.append(piece, static_cast<size_t>(length));
    }
    return text;
  }

 private:
  base::UniqueFd master_;
  base::UniqueFd slave_;
  uint16_t number_ = 0xFFFF;
};

void Print(const char* text) {
  (void)printf("%s\n", text);
  (void)fflush(stdout);
}

TEST(FaultRedirect, OutputGoesToTheTerminalAndBack) {
  const support::LogCapture log;
  const Terminal first;
  const Terminal second;
  struct stat before = {};
  struct stat after = {};
  ASSERT_EQ(fstat(STDOUT_FILENO, &before), 0);
  EXPECT_EQ(Request({0, first.number(), 1}), 0u);
  Print("for the first");
  EXPECT_EQ(Request({0, second.number(), 1}), 0u)
      << "the first is undone, not kept as the output to return to";
  Print("for the second");
  EXPECT_EQ(Request({0, second.number(), 2}), 1u) << "neither on nor off changes nothing";
  Print("still there");
  EXPECT_EQ(Request({0, 65535, 1}), 1u) << "no such terminal";
  ASSERT_EQ(fstat(STDOUT_FILENO, &after), 0);
  EXPECT_TRUE(before.st_dev == after.st_dev && before.st_ino == after.st_ino) << "not restored";
  for (const auto& [terminal, text] :
       {std::pair(&first, "for the first\r\n"), std::pair(&second, "for the second\r\nstill there\r\n")}) {
    EXPECT_EQ(terminal->Read(text), text);
  }
  EXPECT_EQ(Request({0, 0, 0}), 0u) << "off without a redirection";
  EXPECT_THAT(log.Lines(),
              testing::IsSupersetOf({"CMD:/dev/pts/" + std::to_string(first.number()),
                                     "Err-Num " + std::to_string(second.number()) + " OnOff 2",
                                     std::string("CMD:/dev/pts/65535,Err:2,No such file or directory")}));
}

TEST(FaultRequest, CutShortAtAnyByteDoesNothing) {
  for (const auto& words :
       std::vector<std::vector<uint16_t>>{{0, 0, 1}, {1, 0, 5}, {2, 0, 0}, {3, 2, 0, 0}}) {
    for (size_t cut = 1; cut <= words.size() * 2; ++cut) EXPECT_EQ(Request(words, cut), 1u) << words[0];
  }
}

std::string Content(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(FaultLeakDump, TellsWhatIsOutByPlaceAndFollowsNoLink) {
  const support::TempDir dir;
  dir.Write("victim", "kept");
  ASSERT_EQ(symlink(dir.File("victim").c_str(), dir.File("dump").c_str()), 0);
  uint32_t handle = 0;
  ASSERT_EQ(KEL_HandleInitialize("leaky", &handle), 0u);
  void* blocks[3];
  for (void*& block : blocks) block = KEL_MemAlloc_F(handle, 0, 100, "somewhere.cpp", 42);
  KEL_MemFree_F(blocks[2], "test", 1);

  EXPECT_EQ(TOLA_MemLeakDump(dir.File("dump").c_str()), 0u);

  EXPECT_THAT(Content(dir.File("dump")), HasSubstr("leaky somewhere.cpp:42 blocks:2 bytes:200\n"));
  EXPECT_EQ(Content(dir.File("victim")), "kept");
  struct stat status = {};
  EXPECT_EQ(lstat(dir.File("dump").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0600u);
  for (void* block : {blocks[0], blocks[1]}) KEL_MemFree_F(block, "test", 1);
  EXPECT_EQ(TOLA_MemLeakDump(dir.File("none/dump").c_str()), 1u);
}

}  // namespace
