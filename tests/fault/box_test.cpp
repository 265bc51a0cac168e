/// The exception box as a process that crashes sees it: box_crasher comes to each end with real faults, and
/// what it leaves is read as text.
#include "fault/box.h"

#include <gmock/gmock.h>
#include <inttypes.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "fault/box_names.h"
#include "msg/msg_interface_public.h"
#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using support::CommandResult;
using support::ReadFile;
using support::RunCommand;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using testing::UnorderedElementsAre;

constexpr char kCrasher[] = TOLA_BUILD_DIR "/tests/fault/box_crasher";
constexpr char kReport[] = TOLA_SOURCE_DIR "/tools/box_report";
constexpr char kHead[] = "\n**************** Exception Info Record By sys ****************\n";
#if defined(__SANITIZE_THREAD__)
constexpr bool kFaultsNest = false;  // a fault inside a handler ends the process there, box or not
#else
constexpr bool kFaultsNest = true;
#endif

struct Block {
  std::string task;
  int signal = 0;
  std::string code;  ///< "1 (SEGV_MAPERR)"
  std::string text;
};

std::vector<Block> Blocks(const std::string& text) {
  std::vector<Block> blocks;
  for (size_t at = text.find(kHead); at != std::string::npos;) {
    const size_t begin = at + sizeof(kHead) - 1;
    at = text.find(kHead, begin);
    Block& block = blocks.emplace_back();
    block.text = text.substr(begin, at - begin);
    char task[64] = {}, code[64] = {};
    (void)sscanf(block.text.c_str(),
                 "Exception Time : %*s %*s Exception Task : %63[^(](TaskId = %*x) Exception Signal : %d "
                 "Exception Signal errno: 0 Exception Signal code : %63[^\n]",
                 task, &block.signal, code);
    block.task = task;
    block.code = code;
  }
  return blocks;
}

/// Head, registers, 65 stack lines and, unless it broke off there, a call stack.
void ExpectWhole(const Block& block, bool hasCalls) {
  const std::string word = sizeof(uintptr_t) == 8 ? " 0x[0-9a-f]{16};" : " 0x[0-9a-f]{8};";
  std::string shape =
      "Exception Time        : 2[0-9]{3}-[0-9]{1,2}-[0-9]{1,2} [0-9]{1,2}:[0-9]{2}:[0-9]{2}\n"
      "Exception Task        : [^\n]*\\(TaskId = [0-9a-f]+\\)\n"
      "Exception Signal      : [0-9]+\nException Signal errno: 0\nException Signal code : [^\n]*\n\n"
      "Register Contents:\n";
  for (size_t i = 0; i < kBoxRegisters; ++i) {
    shape += kBoxRegisterLabels[i] + word + (i % 2 == 1 || i + 1 == kBoxRegisters ? "\n" : "");
  }
  shape +=
      "\nDump stack when signal occurs,total 1024 Bytes,16Bytes/line.\n"
      "(0x[0-9a-f]+: ( 0x[0-9a-f]{8}){4}\n){65}\nShow CallStack\n";
  EXPECT_THAT(block.text, MatchesRegex(shape + (hasCalls ? "([^\n]*\\[0x[0-9a-f]+\\]\n)+.*" : ".*")));
}

class BoxTest : public testing::Test {
 protected:
  /// Who is not root has a script of the platform read the map, through sudo; for both stands this one.
  BoxTest() {
    if (geteuid() == 0) return;
    static const std::string path = getenv("PATH");
    EXPECT_EQ(chmod(sudo_.Write("sudo", "#!/bin/sh\nexec cat \"/proc/$2/maps\"\n").c_str(), 0700), 0);
    setenv("PATH", (sudo_.path() + ":" + path).c_str(), 1);
  }

  CommandResult Crash(const std::string& end) const { return RunCommand({kCrasher, dir_.path(), end}); }
  std::string CrashFile() const { return ReadFile(dir_.File("box.tola.tmp")); }

  support::TempDir dir_;
  support::TempDir sudo_;
};

TEST_F(BoxTest, EveryEndLeavesABlockOfEveryTaskAndHasItsStatus) {
  const struct {
    std::string end;
    int status;
    int signal;
    std::string code;
    std::string task = "Crasher";
  } ends[] = {
      {"null", 128 + 11, 11, "1 (SEGV_MAPERR)"},
      {"stack", 128 + 11, 11, "2 (SEGV_ACCERR)"},
      {"abort", 128 + 6, 6, "-6 ()"},
      {"7", 128 + 7, 7, "-6 ()"},
      {"24", 128 + 24, 24, "-6 ()"},
      {"46", 128 + 46, 46, "-6 (HEART_TIMEOUT)"},
      {"limit", 128 + 25, 25, "0 ()"},
      {"lost", 128 + 4, 4, " (ILL_ILLOP"},
      {"hook", 128 + 6, 6, "-6 ()"},
      {"stuck", 17, 46, "-6 (HEART_TIMEOUT)", "SecondWaiter"},
      {"unknown", 17, 46, "-6 (HEART_TIMEOUT)"},
  };
  for (const auto& [end, status, signal, code, task] : ends) {
    SCOPED_TRACE(end);
    if (!kFaultsNest && (end == "lost" || end == "hook")) continue;
    const CommandResult crash = Crash(end);
    EXPECT_EQ(crash.status, status) << crash.output;
    const std::vector<Block> blocks = Blocks(CrashFile());
    ASSERT_EQ(blocks.size(), 4u) << CrashFile();
    EXPECT_EQ(blocks[0].task, task);
    EXPECT_EQ(blocks[0].signal, signal);
    EXPECT_THAT(blocks[0].code, HasSubstr(code));
    ExpectWhole(blocks[0], end != "lost");
    std::vector<std::string> tasks = {task};
    for (size_t i = 1; i < blocks.size(); ++i) {
      tasks.push_back(blocks[i].task);
      EXPECT_EQ(blocks[i].code, "-6 (TASK_INFO)");
      ExpectWhole(blocks[i], true);
    }
    EXPECT_THAT(tasks, UnorderedElementsAre("main", "Waiter", "SecondWaiter", "Crasher"));
  }
}

TEST_F(BoxTest, SecondFaultMeanwhileWritesItsBlockAloneAndAsksNobodyAgain) {
#ifdef TOLA_EMULATED
  GTEST_SKIP() << "the kernel, which is asked for the tasks' signals, knows the emulator's alone";
#endif
  EXPECT_THAT(Crash("twice").status, testing::AnyOf(128 + 8, 128 + 11));
  std::map<int, int> bySignal;
  for (const Block& block : Blocks(CrashFile())) {
    ++bySignal[block.signal];
    ExpectWhole(block, true);
  }
  EXPECT_THAT(bySignal, ElementsAre(std::pair(8, 1), std::pair(11, 1), std::pair(45, 2)));
}

TEST_F(BoxTest, RegistersTellTheFaultAndWhereItWas) {
  ASSERT_EQ(Crash("null").status, 128 + 11);
#ifdef TOLA_EMULATED
  GTEST_SKIP() << "the emulator leaves trap number and fault address 0";
#endif
  EXPECT_THAT(CrashFile(), ContainsRegex("trap_no, Val =  0x0+e;Reg:    err_code"));
  EXPECT_THAT(CrashFile(), ContainsRegex("fault_addr, Val =  0x0+40;\n"));
}

TEST_F(BoxTest, FullDiskCutsTheFileAndNothingElse) {
  EXPECT_EQ(Crash("full").status, 128 + 11);
  EXPECT_EQ(CrashFile().size(), 3000u);
}

TEST_F(BoxTest, CommandsFindNoSignalIgnored) {
  const CommandResult crash = Crash("commands");
  ASSERT_EQ(crash.status, 0) << "the three signals must not end it";
  uint64_t ignored = ~0ULL;
  EXPECT_EQ(sscanf(crash.output.c_str(), "SigIgn: %" SCNx64, &ignored), 1) << crash.output;
  EXPECT_EQ(ignored & ((1U << 9) | (1U << 11) | (1U << 12)), 0u);
}

TEST_F(BoxTest, MapIsWrittenAgainAfterThreeAndNineMinutes) {
  EXPECT_THAT(Crash("refresh").output, HasSubstr("refreshed 180\nrefreshed 540\n"));
}

TEST_F(BoxTest, LeftoversOfTheLastRun) {
  constexpr struct {
    const char* make;
    const char* kept = "old";  ///< the exception file's first characters afterwards
    const char* said = "";     ///< by the start
  } kLeftovers[] = {
      {": >box.tola.tmp"},
      {"printf 1 >box.tola.tmp", "1map"},
      {"head -c 1048576 /dev/zero | tr '\\0' m >box.tola.tmp", "mmm"},
      {"head -c 1048577 /dev/zero | tr '\\0' m >box.tola.tmp"},
      {"ln -s foreign box.tola.tmp"},
      {"ln foreign box.tola.tmp"},
      {"printf 1 >box.tola.tmp; ln -sf foreign box.tola.map.tmp", "1"},
      {"printf 1 >box.tola.tmp; mkdir folder; ln -s folder box_back.tola", "1map"},
      {"mkdir box.tola.tmp; : >box.tola.tmp/file", "old", "init 10753"},
  };
  for (const auto& [make, kept, said] : kLeftovers) {
    SCOPED_TRACE(make);
    const support::TempDir dir;
    const std::string foreign = dir.Write("foreign", "kept");
    dir.Write("box.tola", "old");
    dir.Write("box.tola.map.tmp", "map");
    EXPECT_EQ(RunCommand({"sh", "-c", "cd " + dir.path() + "; " + make}).status, 0);
    EXPECT_THAT(RunCommand({kCrasher, dir.path(), "none"}).output, StartsWith(said));
    EXPECT_THAT(ReadFile(dir.File("box.tola")), StartsWith(kept));
    EXPECT_EQ(ReadFile(dir.File("box_back.tola")), kept == std::string("old") ? "" : "old");
    EXPECT_EQ(std::filesystem::is_regular_file(dir.File("box.tola.tmp")), *said == '\0');
    EXPECT_EQ(ReadFile(foreign), "kept") << "written through the link";
  }
}

TEST_F(BoxTest, ReportResolvesAFaultInAProgramThatMovedInMemory) {
  ASSERT_EQ(Crash("null").status, 128 + 11);
  ASSERT_EQ(Crash("none").status, 0) << "the next start puts the map behind the blocks";
  const CommandResult text = RunCommand({kReport, dir_.File("box.tola")});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.output,
              ContainsRegex("^Crasher \\(task 4\\), .*: signal 11, code 1 SEGV_MAPERR\n  #[0-9]+ +0x"));
#ifndef TOLA_EMULATED  // there the map has the emulator's addresses, not the program's
  EXPECT_THAT(
      text.output,
      ContainsRegex("SEGV_MAPERR\n  #[0-9]+ +0x[0-9a-f]+ .*WriteToNull.* at .*box_crasher.cpp:[0-9]+\n"));
  EXPECT_THAT(text.output, ContainsRegex("AwaitSignals.* at .*box_crasher.cpp:[0-9]+\n"));
#endif
  const CommandResult json = RunCommand({kReport, "--json", dir_.File("box.tola")});
  EXPECT_THAT(json.output, HasSubstr("\"code_name\": \"SEGV_MAPERR\""));
  EXPECT_EQ(RunCommand({kReport, dir_.Write("none", "no block\n")}).status, 1);
}

TEST(BoxNamesTest, UnknownCodesGiveTheFirstName) {
  EXPECT_STREQ(BoxSignalCodeName(8, 8), "FLTSUB");
  for (const int code : {9, 3, 0, INT32_MIN}) EXPECT_STREQ(BoxSignalCodeName(11, code), "") << code;
  for (const int signal : {-1, 47}) EXPECT_STREQ(BoxSignalCodeName(signal, 1), "") << signal;
}

TEST(BoxNamesTest, NamesThatDoNotFitACommandLineAreRefused) {
  const auto form = [](const std::string& name) {
    BoxNames names = {};
    TOLA_SIGNAL_BOX_S files = {};
    name.copy(files.exceptionFile, sizeof(files.exceptionFile));
    return BoxFormNames(files, names);
  };
  for (const char* name : {"", "relative.tola", "/tmp/$(x)"}) EXPECT_EQ(form(name), 17667u) << name;
  EXPECT_EQ(form(std::string(247, '/')), 0u);
  EXPECT_EQ(form(std::string(248, '/')), 17667u) << "no place for the map's ending";
  EXPECT_EQ(form(std::string(256, '/')), 17667u) << "no terminator";
}

TEST(BoxCommandTest, ReachesTheCommandModuleAsCountedText) {
  ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  ASSERT_EQ(TOLA_MsgModuleRegister(41, kMsgNoTask, 1, 4), 0u);
  EXPECT_EQ(SendSystemCmdExecMsg("ls", 2, 0), 1u) << "the terminator is part of it";
  ASSERT_EQ(SendSystemCmdExecMsg("ls", 3, 0x1234), 0u);
  tagMsgBuf* msg = nullptr;
  ASSERT_EQ(TOLA_MsgRecv(41, &msg, 0), 0u);
  EXPECT_EQ(msg->type, 0xE01);
  const std::string data(reinterpret_cast<const char*>(TolaMsgData(msg)), GetTolaMsgLen(msg));
  EXPECT_EQ(data, std::string("\1\0\x34\x12\3\0ls\0\0\0", 11));
  TOLA_MsgFree(msg);
}

}  // namespace
