// Commands are real children and files are real files: what a child inherits, how it ends, what the log tells
// of it, and what is left on disk when a service fails half-way.
#include "log/file_public.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "log/log_test_support.h"

namespace logtest {
namespace {

using testing::MatchesRegex;

constexpr char kCaller[] = "caller.cpp";

/// Runs `body` in a process of its own, for what cannot be undone; gives its result, -1 when it crashed.
int InOwnProcess(const std::function<uint32_t()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(static_cast<int>(body()));
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class CommandTest : public testing::Test {
 protected:
  support::TempDir dir_;
  LogCapture log_;
};

TEST(ParseCmdArgTest, SplitsAtBlanksOutsideQuotes) {
  std::string many = "x", separate = "x|";
  for (int i = 1; i < 126; ++i) {
    many += " x";
    separate += "x|";
  }
  const std::tuple<std::string, uint32_t, std::string> rows[] = {
      {many, 0, separate},
      {many + " x", kCmdErrArgCount, ""},
      {" tar  -xf \"a;b.tar\" ", kCmdErrText, ""},
      {" tar  -xf \"a b\"c", 0, "tar|-xf|a b|c|"},
      {"a b\nc", 0, "a|b|"},
      {"   ", 0, ""},
      {"", kCmdErrText, ""},
      {"a\nb;c", kCmdErrText, ""},
      {std::string(512, 'x'), 0, std::string(512, 'x') + '|'},
      {std::string(513, 'x'), kCmdErrText, ""},
  };
  for (const auto& [command, result, expected] : rows) {
    char buffer[kCmdBufferSize];
    char* arguments[kCmdSlots] = {};
    ASSERT_EQ(ParseCmdArg(command.c_str(), buffer, sizeof(buffer), arguments), result) << command;
    std::string got;
    for (char** at = arguments; result == 0 && *at != nullptr; ++at) got += std::string(*at) + '|';
    EXPECT_EQ(got, expected) << command;
  }
}

TEST_F(CommandTest, CharacterChecksKeepCommandsAndNamesToTheirAlphabets) {
  for (const char* name : {"a-b_c.txt", "", "a..b"})
    EXPECT_EQ(TOLA_CheckSpecialChar(name, nullptr), 0u) << name;
  for (const char* name : {"../etc", "./x", "..", "a b", static_cast<const char*>(nullptr)})
    EXPECT_EQ(TOLA_CheckSpecialChar(name, nullptr), 1u);
  EXPECT_EQ(TOLA_CheckSpecialChar("../x", "./x"), 0u) << "a list of the caller's own allows what it lists";
  EXPECT_EQ(CheckSpecialCharWithExWhiteList("./(\"* *\")"), 0u);
  for (const char* text : {"a$b", "a\nb"})
    EXPECT_EQ(CheckSpecialCharWithExWhiteList(text), kCmdErrSpecialChar);

  EXPECT_EQ(CheckCmdSpecialChar("ls"), 0u);
  EXPECT_EQ(CheckCmdSpecialChar("rm key; ls"), 1u);
  EXPECT_THAT(log_.Lines(), ElementsAre("exec str:rm key; ls"));
  const std::string mark = dir_.File("mark");
  EXPECT_EQ(TOLA_SystemCheckSpecialChar(("touch " + mark + ";").c_str()), kCmdErrSpecialChar);
  EXPECT_EQ(CheckFileExist(mark.c_str()), 1u) << "a refused command ran";
  EXPECT_EQ(TOLA_SystemCheckSpecialChar(("touch \"" + mark + "\"").c_str()), 0u);
  EXPECT_EQ(CheckFileExist(mark.c_str()), 0u);
}

TEST_F(CommandTest, ShellResultIsOneForAnythingButExitCodeZero) {
  EXPECT_EQ(TOLA_System("[ '%s' = '%''s' ]"), 0u) << "the command was formatted";
  for (const char* bad : {"exit 3", "kill -9 $$", "exit 3 # openssl -k s3cret", " \t"})
    EXPECT_EQ(TOLA_System(bad), 1u) << bad;
  EXPECT_THAT(log_.Lines(), ElementsAre(StartsWith("SysErr:3,"), "SysErr:exit 3", StartsWith("SysErr:0,"),
                                        "SysErr:kill -9 $$", StartsWith("SysErr:3,")))
      << "a secret went into the log";
}

TEST_F(CommandTest, ByUsernameSwitchesUserAndGroupsOfTheChildAlone) {
  const uid_t own = geteuid();
  const struct passwd* entry = own == 0 ? getpwnam("nobody") : getpwuid(own);
  if (entry == nullptr) GTEST_SKIP() << "no account to switch to";
  const std::string ids = std::to_string(entry->pw_uid) + ":" + std::to_string(entry->pw_gid);
  const std::string groups = own == 0 ? " && [ $(id -G) = $(id -g) ]" : "";
  EXPECT_EQ(InOwnProcess([&] {
              const gid_t other = 4;
              if (own == 0 && setgroups(1, &other) != 0) return 2u;
              const std::string command = "[ $(id -u):$(id -g) = " + ids + " ]" + groups;
              const uint32_t result = TOLA_SystemByUsername(command.c_str(), entry->pw_name);
              return geteuid() == own ? result : 3;  // 3: lost its own user
            }),
            0);
  log_.Clear();
  EXPECT_EQ(TOLA_SystemByUsername("exit 4", "no-such-user"), 1u);
  EXPECT_THAT(log_.Lines(), ElementsAre("get user:no-such-user failed", StartsWith("SysErr:4,")))
      << "an unknown user runs it as the current one, and the text stays out of the log";
}

TEST_F(CommandTest, VectorWayGivesTheExitCodeAndNamesTheCaller) {
  EXPECT_EQ(tola_excev(kCaller, 7, "/bin/sh -c \"exit $#\" x y \"a b\"", nullptr), 2u) << "quotes lost";
  EXPECT_EQ(log_.Records().at(0).file, kCaller) << "the line must lead to the caller";
  EXPECT_EQ(log_.Records().at(0).line, 7u);

  // Without the test's folder, whose random name may hold a sensitive word.
  const std::tuple<const char*, const char*, uint32_t, std::string> rows[] = {
      {"/bin/sh -c \"exit 2\"", nullptr, 2, "excev err:2,[0-9]+,/bin/sh excev err:/bin/sh -c \"exit 2\" "},
      {"/bin/sh -c \"kill -9 $$\"", nullptr, 1, "excev abnormal:9,.* excev err:/bin/sh -c .* "},
      {"/bin/sh -c \"kill -STOP $$\"", nullptr, 1, "excev stopped:19,.* excev err:/bin/sh -c .* "},
      {"/no/such-program", nullptr, 127, "excev err:127,.* excev err:/no/such-program "},
      {"false pass", "login", 1, "excev err:1,0,false excev err:login "},  // not errno as the search left it
      {"false pass", nullptr, 1, "excev err:1,[0-9]+,false "},
      {"  ", nullptr, 1, "excev err:   "},
      {"false; x", nullptr, kCmdErrText, "excev err:false; x "},
  };
  for (const auto& [command, shown, result, expected] : rows) {
    log_.Clear();
    EXPECT_EQ(tola_excev(kCaller, 7, command, shown), result) << command;
    std::string text;
    for (const std::string& line : log_.Lines()) text += line + " ";
    EXPECT_THAT(text, MatchesRegex(expected));
    log_.Clear();
    EXPECT_EQ(tola_excev_no_log(kCaller, 7, command, shown), result) << command;
    EXPECT_THAT(log_.Lines(), IsEmpty()) << "the run log would wait for itself";
  }
}

TEST_F(CommandTest, ChildInheritsThreeDescriptorsAndTheOldSignalState) {
  const int low = open("/dev/null", O_RDONLY), high = dup2(low, 255);
  const std::string command = "[ ! -e /proc/$$/fd/" + std::to_string(low) + " ] && [ ! -e /proc/$$/fd/255 ]";
  EXPECT_EQ(TOLA_System(command.c_str()), 0u) << "a descriptor went to the child";
  EXPECT_EQ(close(low) + close(high), 0) << "the parent lost its own";
  std::ifstream own("/proc/thread-self/status");
  for (std::string line; std::getline(own, line);) {
    if (!line.starts_with("SigBlk") && !line.starts_with("SigIgn")) continue;
    // Not through the shell, which clears its signal mask.
    EXPECT_EQ(tola_excev(kCaller, 1, ("grep -q " + line + " /proc/self/status").c_str(), ""), 0u) << line;
  }
}

volatile sig_atomic_t g_signals = 0;

TEST_F(CommandTest, SignalHandlersStandBackWhileACommandRunsAndComeBack) {
  struct sigaction mine = {}, now = {};
  mine.sa_handler = [](int) { g_signals = g_signals + 1; };  // without SA_RESTART: breaks into the wait
  std::map<int, struct sigaction> old;
  for (const int number : {SIGINT, SIGQUIT, SIGUSR1}) sigaction(number, &mine, &old[number]);
  const auto handler = mine.sa_handler;
  mine.sa_handler = SIG_IGN;
  sigaction(SIGCHLD, &mine, &old[SIGCHLD]);
  EXPECT_EQ(TOLA_System("kill -INT $PPID && kill -QUIT $PPID"), 0u) << "an ignored SIGCHLD loses the status";
  EXPECT_EQ(g_signals, 0) << "an interrupt reached the parent while it waited";
  EXPECT_EQ(TOLA_System("kill -USR1 $PPID"), 0u) << "a wait that was broken into must go on";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left behind";
  for (const auto& [number, action] : old) {
    sigaction(number, &action, &now);
    EXPECT_EQ(now.sa_handler, number == SIGCHLD ? SIG_IGN : handler) << "signal " << number;
  }
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGCHLD), 0) << "SIGCHLD stayed blocked";
}

TEST_F(CommandTest, PlatformScriptRunsByItsBareNameThroughSudo) {
  const std::string longest(kCmdBufferSize, 'x'), out = dir_.File("out");
  for (const char* name : {"", "a/b.sh", "..", "x;y", "x y", longest.c_str()})
    EXPECT_EQ(TOLA_SystemSudoWithoutParam(name), 1u);
  EXPECT_THAT(log_.Lines(), IsEmpty()) << "a refused name was run";
  fs::permissions(dir_.Write("sudo", "#!/bin/sh\necho \"$@\" > " + out + "\n"), fs::perms{0755});
  fs::permissions(dir_.path(), fs::perms{0777});
  const std::string path = dir_.path() + ":" + getenv("PATH");
  EXPECT_EQ(InOwnProcess([&] {
              if (geteuid() == 0 && setuid(65534) != 0) return 2u;
              setenv("PATH", path.c_str(), 1);
              return TOLA_SystemSudoWithoutParam("lo_up.sh");
            }),
            0);
  EXPECT_EQ(ReadAll(out), "/app_run/app_bin/script/lo_up.sh\n") << "who is not root needs sudo";
}

using FileServiceTest = CommandTest;

TEST_F(FileServiceTest, OpenMakesPrivateFilesAndCloseTellsOfLostBytes) {
  const std::string fresh = dir_.File("fresh"), link = dir_.File("link");
  const mode_t mask = umask(0277);
  FILE* file = TOLA_OpenFile(fresh.c_str(), "w+");
  umask(mask);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ModeOf(fresh), 0600u);
  EXPECT_EQ(fcntl(fileno(file), F_GETFD), FD_CLOEXEC) << "scripts would inherit it";
  EXPECT_EQ(TOLA_CloseFile(file), 0u);
  fs::create_symlink(dir_.File("elsewhere"), link);
  EXPECT_EQ(TOLA_OpenFile(link.c_str(), "w"), nullptr) << "made a file through a dangling link";
  EXPECT_EQ(TOLA_OpenFile(dir_.File("absent").c_str(), "r+"), nullptr);
  EXPECT_EQ(TOLA_OpenFile(fresh.c_str(), "x"), nullptr);
  file = TOLA_OpenFile("/dev/full", "w");
  EXPECT_EQ(TOLA_WriteFile(file, "x", 1), 0u);
  EXPECT_EQ(TOLA_CloseFile(file), 1u) << "the last bytes were lost in silence";
}

TEST_F(FileServiceTest, CopyAppearsWholeOrNotAtAll) {
  std::string content(20'001, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7);
  const std::string source = dir_.Write("source", content), target = dir_.Write("target", "untouched");
  const std::string copy = dir_.File("copy"), pipe = dir_.File("pipe"), folder = dir_.File("folder");
  fs::create_symlink(target, copy);
  EXPECT_EQ(TOLA_CopyFile(9, source.c_str(), copy.c_str()), 0u);
  EXPECT_EQ(ReadAll(target), "untouched") << "the copy went through the link";
  EXPECT_EQ(ModeOf(copy), 0600u);
  EXPECT_EQ(TolaBackupFile(copy.c_str(), copy.c_str()), 0u);
  EXPECT_EQ(ReadAll(copy), content) << "a copy onto itself emptied the file";

  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& bad : {dir_.File("absent"), dir_.path(), pipe}) {
    log_.Clear();
    EXPECT_EQ(TOLA_CopyFile(9, bad.c_str(), copy.c_str()), 1u) << bad;
    EXPECT_EQ(TolaBackupFile(bad.c_str(), copy.c_str()), 1u);
    EXPECT_EQ(log_.Lines().size(), 1u) << "the run log calls the second way";
    EXPECT_EQ(ReadAll(copy), content) << "what stood there was lost";
  }
  fs::create_directory(folder);
  EXPECT_EQ(TOLA_CopyFile(9, source.c_str(), folder.c_str()), 1u);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), {}), 5)
      << "a failed copy left its file behind";
}

TEST_F(FileServiceTest, PropertyIsSetOnRegularFilesOnly) {
  const std::string file = dir_.Write("file", "x"), link = dir_.File("link"),
                    second = dir_.File("second name");
  chmod(file.c_str(), 0);
  fs::create_symlink(file, link);
  fs::create_hard_link(file, second);
  for (const std::string& bad : {link, file, dir_.path(), dir_.File("absent")})
    EXPECT_EQ(ChangeFileProperty(bad.c_str()), 1u) << bad;
  EXPECT_EQ(ModeOf(file), 0u) << "a planted name gave the file of another away";
  fs::remove(second);
  EXPECT_EQ(ChangeFileProperty(link.c_str()), 1u);
  EXPECT_EQ(ChangeFileProperty(file.c_str()), 0u) << "a file that its owner cannot read can still be mended";
  EXPECT_EQ(ModeOf(file), 0600u);
  EXPECT_THAT(log_.Lines(), IsEmpty()) << "the run log calls it";
}

TEST_F(FileServiceTest, RootHandsFilesToTheRunAccount) {
  const std::string passwd = dir_.Write("passwd", "root:x:0:0::/:/bin/sh\nprorunacc:x:4711:1::/:/bin/sh\n");
  const std::string group = dir_.Write("group", "root:x:0:\nquorin:x:4712:\n");
  const std::string file = dir_.Write("file", "x"), made = dir_.File("made"), folder = dir_.File("folder");
  fs::create_directory(folder);
  constexpr int kNoNamespace = 77;
  const auto bind = [](const std::string& from, const char* to) {
    return mount(from.c_str(), to, nullptr, MS_BIND, nullptr) == 0;
  };
  const int result = InOwnProcess([&]() -> uint32_t {
    (void)GiveToPlatform(file.c_str());  // whether there is an account here is asked, and must be asked again
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        !bind(passwd, "/etc/passwd") || !bind(group, "/etc/group")) {
      return kNoNamespace;
    }
    const uint32_t failed = ChangeFileProperty(file.c_str()) + GiveToPlatform(folder.c_str());
    return failed + TOLA_CloseFile(TOLA_OpenFile(made.c_str(), "w"));
  });
  if (result == kNoNamespace) GTEST_SKIP() << "no right to a mount namespace";
  ASSERT_EQ(result, 0);
  const std::string owners =
      "[ \"$(stat -c %u:%g " + file + " " + made + " " + folder + " | sort -u)\" = 4711:4712 ]";
  EXPECT_EQ(TOLA_System(owners.c_str()), 0u);
}

TEST_F(FileServiceTest, LengthsAndDeletionsTellTheTruth) {
  const std::string file = dir_.Write("file", "12345");
  uint32_t length = 9;
  EXPECT_EQ(GetFileLen(file.c_str(), length), 0u);
  EXPECT_EQ(length, 5u);
  ASSERT_EQ(truncate(file.c_str(), off_t{1} << 32), 0);
  EXPECT_EQ(GetFileLen(file.c_str(), length), 1u) << "4 GiB must not read as 0 bytes";
  for (int i = 0; i < 2; ++i) EXPECT_EQ(TOLA_DeleteFile(9, file.c_str()), 0u) << "what is absent is deleted";
  EXPECT_EQ(TOLA_DeleteFile(9, dir_.path().c_str()), 1u);
  EXPECT_EQ(log_.Lines().size(), 1u);
}

}  // namespace
}  // namespace logtest
