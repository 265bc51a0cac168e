/// The exception box as a process that crashes sees it: box_crasher comes to each end with real faults, and
/// what it leaves is read as text.
#include "fault/box.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fault/box_names.h"
#include "msg/msg_interface_public.h"
#include "support/command.h"
#include "support/temp_dir.h"
#include "velto/kel_task.h"

namespace {

using support::CommandResult;
using support::RunCommand;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kCrasher[] = TOLA_BUILD_DIR "/tests/fault/box_crasher";
constexpr char kReport[] = TOLA_SOURCE_DIR "/tools/box_report";
constexpr char kHead[] = "\n**************** Exception Info Record By sys ****************\n";
#if defined(__arm__) && !defined(TOLA_EMULATED)
constexpr char kTrapped[] = "1 (ILL_ILLOPC)";
#else
constexpr char kTrapped[] = "2 (ILL_ILLOPN)";
#endif
#if defined(__arm__)
constexpr char kDivided[] = "-6 ()";  // raised: the division does not trap
#else
constexpr char kDivided[] = "1 (FPE_INTDIV)";
#endif
#if defined(__SANITIZE_THREAD__)
constexpr bool kFaultsNest = false;  // a fault inside a handler ends the process there, box or not
#else
constexpr bool kFaultsNest = true;
#endif

std::string Read(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Takes what the extended expression matches at the beginning of `text` away and gives its groups; none when
/// it does not match.
std::vector<std::string> Take(std::string& text, const std::string& expression) {
  regex_t compiled;
  regmatch_t matches[8];
  if (regcomp(&compiled, ("^" + expression).c_str(), REG_EXTENDED | REG_NEWLINE) != 0) return {};
  std::vector<std::string> groups;
  if (regexec(&compiled, text.c_str(), std::size(matches), matches, 0) == 0 && matches[0].rm_so == 0) {
    for (size_t i = 0; i <= compiled.re_nsub; ++i) {
      groups.push_back(text.substr(matches[i].rm_so, matches[i].rm_eo - matches[i].rm_so));
    }
    text.erase(0, matches[0].rm_eo);
  }
  regfree(&compiled);
  return groups;
}

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
    std::string body = text.substr(begin, at - begin);
    const std::vector<std::string> fields =
        Take(body,
             "Exception Time        : 2[0-9]{3}-[0-9]{1,2}-[0-9]{1,2} [0-9]{1,2}:[0-9]{2}:[0-9]{2}\n"
             "Exception Task        : (.*)\\(TaskId = [0-9a-f]+\\)\n"
             "Exception Signal      : ([0-9]+)\nException Signal errno: 0\nException Signal code : (.*)\n");
    if (fields.size() == 4) {
      blocks.push_back({fields[1], std::stoi(fields[2]), fields[3], body});
    } else {
      ADD_FAILURE() << "no block: " << body.substr(0, 300);
    }
  }
  return blocks;
}

/// Registers, 65 stack lines and, unless it broke off there, a call stack.
void ExpectWhole(const Block& block, bool hasCalls) {
  SCOPED_TRACE(block.task);
  const std::string word = sizeof(uintptr_t) == 8 ? " 0x[0-9a-f]{16};" : " 0x[0-9a-f]{8};";
  std::string rest = block.text;
  EXPECT_FALSE(Take(rest, "\nRegister Contents:\n").empty());
  for (size_t i = 0; i < kBoxRegisters; ++i) {
    const std::string end = i % 2 == 1 || i + 1 == kBoxRegisters ? "\n" : "";
    EXPECT_FALSE(Take(rest, kBoxRegisterLabels[i] + word + end).empty()) << kBoxRegisterLabels[i];
  }
  EXPECT_FALSE(Take(rest, "\nDump stack when signal occurs,total 1024 Bytes,16Bytes/line.\n").empty());
  int lines = 0;
  while (!Take(rest, "0x[0-9a-f]+: ( 0x[0-9a-f]{8}){4}\n").empty()) ++lines;
  EXPECT_EQ(lines, 65);
  EXPECT_FALSE(Take(rest, "\nShow CallStack\n").empty()) << rest;
  if (hasCalls) {
    EXPECT_FALSE(Take(rest, "(.*\\[0x[0-9a-f]+\\]\n)+").empty()) << rest;
  }
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
  std::string CrashFile() const { return Read(dir_.File("box.tola.tmp")); }

  support::TempDir dir_;
  support::TempDir sudo_;
};

struct EndCase {
  const char* end;
  int signal;
  const char* code;
};

class BoxEndTest : public BoxTest, public testing::WithParamInterface<EndCase> {};

TEST_P(BoxEndTest, LeavesABlockOfEveryTaskAndEndsByItsSignal) {
  const EndCase& expected = GetParam();
  const bool isNested = std::string(expected.end) == "lost" || std::string(expected.end) == "hook";
  if (isNested && !kFaultsNest) GTEST_SKIP();
  const CommandResult crash = Crash(expected.end);
  EXPECT_EQ(crash.status, 128 + expected.signal) << crash.output;
  const std::vector<Block> blocks = Blocks(CrashFile());
  ASSERT_EQ(blocks.size(), 4u) << CrashFile();
  EXPECT_EQ(blocks[0].task, "Crasher");
  EXPECT_EQ(blocks[0].signal, expected.signal);
  EXPECT_EQ(blocks[0].code, expected.code);
  ExpectWhole(blocks[0], std::string(expected.end) != "lost");
  std::vector<std::string> others;
  for (size_t i = 1; i < blocks.size(); ++i) {
    others.push_back(blocks[i].task);
    EXPECT_EQ(blocks[i].signal, 45);
    EXPECT_EQ(blocks[i].code, "-6 (TASK_INFO)");
    ExpectWhole(blocks[i], true);
  }
  EXPECT_THAT(others, testing::UnorderedElementsAre("main", "Waiter", "SecondWaiter"));
  struct stat state = {};
  ASSERT_EQ(stat(dir_.File("box.tola.tmp").c_str(), &state), 0);
  EXPECT_EQ(state.st_mode & 0777, 0600u);
}

INSTANTIATE_TEST_SUITE_P(Ends, BoxEndTest,
                         testing::Values(EndCase{"null", 11, "1 (SEGV_MAPERR)"},
                                         EndCase{"constant", 11, "2 (SEGV_ACCERR)"},
                                         EndCase{"stack", 11, "2 (SEGV_ACCERR)"},
                                         EndCase{"abort", 6, "-6 ()"}, EndCase{"divide", 8, kDivided},
                                         EndCase{"trap", 4, kTrapped}, EndCase{"bus", 7, "2 (BUS_ADRERR)"},
                                         EndCase{"cpu", 24, "-6 ()"}, EndCase{"limit", 25, "0 ()"},
                                         EndCase{"heart", 46, "-6 (HEART_TIMEOUT)"},
                                         EndCase{"lost", 4, kTrapped}, EndCase{"hook", 6, "-6 ()"}),
                         [](const auto& tested) { return tested.param.end; });

TEST_F(BoxTest, SecondFaultMeanwhileWritesItsBlockAloneAndAsksNobodyAgain) {
#ifdef TOLA_EMULATED
  GTEST_SKIP();  // the kernel, which is asked for the tasks' signals, knows the emulator's alone
#endif
  EXPECT_THAT(Crash("twice").status, testing::AnyOf(128 + 8, 128 + 11));
  std::map<int, int> bySignal;
  for (const Block& block : Blocks(CrashFile())) {
    ++bySignal[block.signal];
    ExpectWhole(block, true);
  }
  EXPECT_THAT(bySignal, ElementsAre(std::pair(8, 1), std::pair(11, 1), std::pair(45, 2)));
}

TEST_F(BoxTest, StuckTaskIsRecordedWithAllOthersBeforeTheAgentEndsTheProcess) {
  for (const auto& [end, task] : {std::pair("stuck", "SecondWaiter"), std::pair("unknown", "Crasher")}) {
    EXPECT_EQ(Crash(end).status, 17);
    const std::vector<Block> blocks = Blocks(CrashFile());
    ASSERT_EQ(blocks.size(), 4u) << end;
    EXPECT_EQ(blocks[0].task, task);
    EXPECT_EQ(blocks[0].signal, 46);
    for (const Block& block : blocks) ExpectWhole(block, true);
  }
}

TEST_F(BoxTest, RegistersTellTheFaultAndWhereItWas) {
#ifdef TOLA_EMULATED
  GTEST_SKIP();  // the emulator leaves both of them 0
#endif
  ASSERT_EQ(Crash("null").status, 128 + 11);
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
  std::string lines = crash.output;
  for (const char* way : {"shell", "arguments", "pipe"}) {
    const std::vector<std::string> ignored = Take(lines, "SigIgn:\t([0-9a-f]+)\n");
    ASSERT_EQ(ignored.size(), 2u) << way << crash.output;
    EXPECT_EQ(std::stoull(ignored[1], nullptr, 16) & ((1U << 9) | (1U << 11) | (1U << 12)), 0u) << way;
  }
}

TEST_F(BoxTest, MapIsWrittenAgainAfterThreeAndNineMinutes) {
  EXPECT_THAT(Crash("refresh").output, HasSubstr("refreshed 180\nrefreshed 540\n"));
}

TEST_F(BoxTest, StartMovesTheLastRunAndTheOneBeforeItBack) {
  for (const char* run : {"first", "second", "third"}) {
    const std::string crashFile = dir_.Write("box.tola.tmp", std::string(run) + " crash\n");
    dir_.Write("box.tola.map.tmp", std::string(run) + " map\n");
    EXPECT_EQ(Crash("none").output.find("init"), std::string::npos);
    EXPECT_EQ(Read(crashFile), "");
    EXPECT_THAT(Read(dir_.File("box.tola.map.tmp")), HasSubstr("box_crasher"));
  }
  EXPECT_EQ(Read(dir_.File("box.tola")), "third crash\nthird map\n");
  EXPECT_EQ(Read(dir_.File("box_back.tola")), "second crash\nsecond map\n");
  for (const auto& file : std::filesystem::directory_iterator(dir_.path())) {
    EXPECT_EQ(file.status().permissions(), std::filesystem::perms(0600)) << file.path();
  }
}

TEST_F(BoxTest, LeftoversOfTheLastRun) {
  const std::string crash = "box.tola.tmp";
  const auto link = [](const support::TempDir& dir, const std::string& name) {
    (void)unlink(dir.File(name).c_str());
    EXPECT_EQ(symlink(dir.Write("else", "foreign").c_str(), dir.File(name).c_str()), 0);
  };
  const struct {
    const char* what;
    std::function<void(const support::TempDir&)> make;
    const char* kept = "old";  ///< the exception file's first characters afterwards
    const char* said = "";     ///< by the start
  } leftovers[] = {
      {"nothing", [](auto&) {}},
      {"empty", [&](auto& dir) { dir.Write(crash, ""); }},
      {"one byte", [&](auto& dir) { dir.Write(crash, "1"); }, "1map"},
      {"the most", [&](auto& dir) { dir.Write(crash, std::string(0x100000, 'm')); }, "mmm"},
      {"one more", [&](auto& dir) { dir.Write(crash, std::string(0x100001, 'm')); }},
      {"link", [&](auto& dir) { link(dir, crash); }},
      {"map's link", [&](auto& dir) { dir.Write(crash, "1"), link(dir, "box.tola.map.tmp"); }, "1"},
      {"backup's link to a folder",
       [&](auto& dir) {
         dir.Write(crash, "1");
         std::filesystem::create_directory(dir.File("folder"));
         std::filesystem::create_directory_symlink("folder", dir.File("box_back.tola"));
       },
       "1map"},
      {"folder", [&](auto& dir) { std::filesystem::create_directory(dir.File(crash)); }},
      {"full folder", [&](auto& dir) { dir.Write(crash + "/file", "x"); }, "old", "init 10753"},
  };
  for (const auto& leftover : leftovers) {
    SCOPED_TRACE(leftover.what);
    const support::TempDir dir;
    dir.Write("box.tola", "old");
    dir.Write("box.tola.map.tmp", "map");
    leftover.make(dir);
    EXPECT_THAT(RunCommand({kCrasher, dir.path(), "none"}).output, StartsWith(leftover.said));
    EXPECT_THAT(Read(dir.File("box.tola")), StartsWith(leftover.kept));
    EXPECT_EQ(Read(dir.File("box_back.tola")), leftover.kept == std::string("old") ? "" : "old");
    EXPECT_EQ(std::filesystem::is_regular_file(dir.File(crash)), *leftover.said == '\0');
    EXPECT_THAT(Read(dir.File("else")), testing::AnyOf("", "foreign")) << "written through the link";
  }
}

TEST_F(BoxTest, ReportResolvesAFaultInAProgramThatMovedInMemory) {
#ifdef TOLA_EMULATED
  GTEST_SKIP();  // the map has the emulator's addresses, not the program's
#endif
  ASSERT_EQ(Crash("null").status, 128 + 11);
  ASSERT_EQ(Crash("none").status, 0) << "the next start puts the map behind the blocks";
  const CommandResult text = RunCommand({kReport, dir_.File("box.tola")});
  EXPECT_EQ(text.status, 0);
  EXPECT_THAT(text.output,
              ContainsRegex("^Crasher \\(task 4\\), .*: signal 11, code 1 SEGV_MAPERR\n"
                            "  #[0-9]+ +0x[0-9a-f]+ .*WriteToNull.* at .*box_crasher.cpp:[0-9]+\n"));
  EXPECT_THAT(text.output, ContainsRegex("AwaitSignals.* at .*box_crasher.cpp:[0-9]+\n"));
  const CommandResult json = RunCommand({kReport, "--json", dir_.File("box.tola")});
  EXPECT_THAT(json.output, HasSubstr("\"code_name\": \"SEGV_MAPERR\""));
  EXPECT_EQ(RunCommand({kReport, dir_.Write("none", "no block\n")}).status, 1);
}

TEST(BoxNamesTest, UnknownCodesGiveTheFirstName) {
  EXPECT_STREQ(BoxSignalCodeName(11, 2), "SEGV_ACCERR");
  for (const int code : {9, 3, 0, -6, INT32_MIN}) EXPECT_STREQ(BoxSignalCodeName(11, code), "") << code;
  EXPECT_STREQ(BoxSignalCodeName(8, 8), "FLTSUB");
  EXPECT_STREQ(BoxSignalCodeName(46, -6), "HEART_TIMEOUT");
  for (const int signal : {-1, 3, 24, 47}) EXPECT_STREQ(BoxSignalCodeName(signal, 1), "") << signal;
}

TEST(BoxNamesTest, NamesThatDoNotFitACommandLineAreRefused) {
  BoxNames names = {};
  const auto form = [&names](const std::string& name) {
    TOLA_SIGNAL_BOX_S files = {};
    name.copy(files.exceptionFile, sizeof(files.exceptionFile));
    return BoxFormNames(files, names);
  };
  for (const std::string name : {"", "relative.tola", "/tmp/a b", "/tmp/$(x)", "/tmp/../x"}) {
    EXPECT_EQ(form(name), 17667u) << name;
  }
  EXPECT_EQ(form(std::string(247, '/')), 0u);
  EXPECT_EQ(form(std::string(248, '/')), 17667u) << "no place for the map's ending";
  EXPECT_EQ(form(std::string(256, '/')), 17667u) << "no terminator";
}

TEST(BoxCommandTest, ReachesTheCommandModuleAsCountedText) {
  uint32_t task = 0;
  ASSERT_EQ(KEL_TaskAdopt("test", &task), 0u);
  ASSERT_EQ(TOLA_MsgManagerInit(), 0u);
  ASSERT_EQ(TOLA_MsgModuleRegister(41, task, 1, 4), 0u);
  EXPECT_EQ(SendSystemCmdExecMsg("ls", 2, 0), 1u) << "the terminator is part of it";
  ASSERT_EQ(SendSystemCmdExecMsg("ls", 3, 0x1234), 0u);
  tagMsgBuf* msg = nullptr;
  ASSERT_EQ(TOLA_MsgRecv(41, &msg, 0), 0u);
  EXPECT_EQ(msg->source, 203);
  EXPECT_EQ(msg->type, 0xE01);
  const std::string data(reinterpret_cast<const char*>(TolaMsgData(msg)), GetTolaMsgLen(msg));
  EXPECT_EQ(data, std::string("\1\0\x34\x12\3\0ls\0\0\0", 11));
  TOLA_MsgFree(msg);
}

}  // namespace
