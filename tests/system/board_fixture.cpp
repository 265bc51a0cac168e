#include "system/board_fixture.h"

#include <stdlib.h>

namespace system_test {
namespace {

constexpr char kBoard[] = TOLA_SOURCE_DIR "/board/board";
constexpr char kPrograms[] = TOLA_BUILD_DIR "/bin";

/// Number behind "name": in a line of JSON; -1 when it is not there.
int JsonNumber(const std::string& json, const std::string& name) {
  const size_t at = json.find("\"" + name + "\":");
  return at == std::string::npos ? -1 : atoi(json.c_str() + at + name.size() + 3);
}

/// `first` and, behind it, `more`.
support::CommandResult Run(std::vector<std::string> first, const std::vector<std::string>& more) {
  first.insert(first.end(), more.begin(), more.end());
  return support::RunCommand(first);
}

}  // namespace

Board::Board() {
  const auto up = support::RunCommand({kBoard, "up", dir_.path(), "--bare", "--bin", kPrograms});
  EXPECT_EQ(up.status, 0) << up.output;
}

Board::~Board() {
  (void)support::RunCommand({kBoard, "wipe", dir_.path()});
}

support::CommandResult Board::Exec(const std::vector<std::string>& arguments) const {
  return Run({kBoard, "exec", dir_.path()}, arguments);
}

void Board::Put(const std::string& file, const std::string& path) const {
  const auto put = support::RunCommand({kBoard, "put", dir_.path(), file, path});
  EXPECT_EQ(put.status, 0) << put.output;
}

bool Board::Comes(const std::string& condition, const std::string& between) const {
  return Shell("n=0; until " + condition + "; do [ $((n=n+1)) -lt 3000 ] || exit 1; sleep 0.02; " + between +
               "; done")
             .status == 0;
}

void Board::StartDaemon() const {
  const std::string starts =
      "$(cat /mnt/sub_bin/sys_log/update_active_run_log.log 2>/dev/null | grep -c 'AfterComp, ret=0$')";
  const std::string before = Shell("echo " + starts).output;  // of the daemons before this one
  EXPECT_EQ(Exec({"/app_run/app_bin/script/update_common.sh"}).status, 0);
  EXPECT_TRUE(Comes("[ " + starts + " -gt " + before.substr(0, before.find('\n')) + " ]"))
      << "the daemon did not come up:\n"
      << Read("/log/update_active.out");
}

void Board::StartMain() const {
  EXPECT_EQ(Shell("/app_run/app_bin/board_main </dev/null >/log/board_main.log 2>&1 &").status, 0);
  EXPECT_TRUE(Comes("update_request --status >/tmp/status 2>&1")) << Read("/log/board_main.log");
}

void Board::EndMain() const {
  Shell("kill -9 $(pidof board_main); while pidof board_main; do :; done; rm -f /run/board_main.sock");
}

std::string Board::PidOf(const std::string& program) const {
  const std::string pids = "set -- $(pidof " + program + "); [ $# -lt 2 ]";
  const std::string pid = Shell("until " + pids + "; do sleep 0.02; done; echo $1").output;
  return pid.substr(0, pid.find('\n'));
}

std::string Board::RegisteredPid(const std::string& program, const std::string& before) const {
  const std::string registered = "update_request --status --json | sed -n 's/.*\"" + program +
                                 "\",\"version\":[^,]*,\"pid\":\\([0-9]*\\),.*/\\1/p'";
  const std::string other = "p=$(" + registered + ") && [ -n \"$p\" ] && [ \"$p\" != '" + before + "' ]";
  if (!Comes(other + " && echo $p >/tmp/registered")) return "";
  const std::string pid = Read("/tmp/registered");
  return pid.substr(0, pid.find('\n'));
}

Answer Board::Request(const std::vector<std::string>& options) const {
  const auto run = Run({kBoard, "exec", dir_.path(), "update_request", "--json"}, options);
  return {run.status, JsonNumber(run.output, "result"), run.output};
}

}  // namespace system_test
