#include "system/board_fixture.h"

#include <unistd.h>

#include <filesystem>

namespace system_test {
namespace {

constexpr char kBoard[] = TOLA_SOURCE_DIR "/board/board";
constexpr char kPrograms[] = TOLA_BUILD_DIR "/bin";
constexpr char kRootKey[] = TOLA_BUILD_DIR "/dev_roots/rsa2048.key";
constexpr char kRootCert[] = TOLA_BUILD_DIR "/dev_roots/root_rsa2048.pem";
constexpr int kBoardDown = 3;  // the launcher's own
constexpr int kWaitSteps = 1000;
constexpr useconds_t kWaitStepUs = 10000;

/// Number behind "name": in a line of JSON; -1 when it is not there.
int JsonNumber(const std::string& json, const std::string& name) {
  const size_t at = json.find("\"" + name + "\":");
  return at == std::string::npos ? -1 : std::atoi(json.c_str() + at + name.size() + 3);
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
  std::vector<std::string> command = {kBoard, "exec", dir_.path()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return support::RunCommand(command);
}

void Board::Put(const std::string& file, const std::string& path) const {
  const auto put = support::RunCommand({kBoard, "put", dir_.path(), file, path});
  EXPECT_EQ(put.status, 0) << put.output;
}

bool Board::WaitFor(const std::string& condition) const {
  for (int step = 0; step < kWaitSteps; ++step) {
    const int status = Shell(condition).status;
    if (status == 0) return true;
    if (status == kBoardDown) return false;
    (void)usleep(kWaitStepUs);
  }
  return false;
}

void Board::StartDaemon() const {
  const std::string starts =
      "cat /mnt/sub_bin/sys_log/update_active_run_log.log 2>/dev/null | grep -c 'AfterComp, ret=0$'";
  const std::string before = Shell(starts).output;  // of the daemons before this one
  EXPECT_EQ(Exec({"/app_run/app_bin/script/update_common.sh"}).status, 0);
  EXPECT_TRUE(WaitFor("test $(" + starts + ") -gt " + before)) << "the daemon did not come up:\n"
                                                               << Read("/log/update_active.out");
}

void Board::StartMain() const {
  EXPECT_EQ(Shell("/app_run/app_bin/board_main </dev/null >/log/board_main.log 2>&1 &").status, 0);
  EXPECT_TRUE(WaitFor("test -S /run/board_main.sock")) << "board_main did not come up:\n"
                                                       << Read("/log/board_main.log");
}

Answer Board::Request(const std::vector<std::string>& options) const {
  std::vector<std::string> command = {"update_request", "--json"};
  command.insert(command.end(), options.begin(), options.end());
  const auto run = Exec(command);
  return {run.status, JsonNumber(run.output, "result"), run.output};
}

Material::Material() {
  Pack({"dev-pki", "init", "--out", Pki(), "--root-key", kRootKey, "--root-cert", kRootCert});
  Pack({"dev-pki", "signer", "signer", "--pki", Pki()});
  Pack({"dev-pki", "crl", "--pki", Pki()});
}

std::string Material::Pack(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command = {std::string(kPrograms) + "/update_pack"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto run = support::RunCommand(command);
  EXPECT_EQ(run.status, 0) << run.output;
  return run.output;
}

std::string Material::MakePackage(const std::string& name, const std::string& scriptText,
                                  const std::string& signer, const std::vector<std::string>& extra) const {
  dir_.Write("in/update.sh", scriptText);
  dir_.Write("in/payload.bin", "payload of " + name);
  std::vector<std::string> command = {"make",
                                      "--script",
                                      File("in/update.sh"),
                                      "--payload",
                                      File("in/payload.bin"),
                                      "--key",
                                      Pki() + "/" + signer + ".key",
                                      "--cert",
                                      Pki() + "/" + signer + ".crt",
                                      "--out",
                                      File(name)};
  command.insert(command.end(), extra.begin(), extra.end());
  Pack(command);
  return File(name);
}

void Material::Sign(const std::string& directory) const {
  const auto run = support::RunCommand(
      {"sh", "-c",
       "cd " + directory +
           " && printf 'FileNum=1\\nFileName=update.tar.gz\\nSHA256-Digest=%s\\n' "
           "$(sha256sum <update.tar.gz | cut -c1-64) >filelist.txt && openssl cms -sign -binary -in "
           "filelist.txt -signer " +
           Pki() + "/signer.crt -inkey " + Pki() + "/signer.key -outform DER -out filelist.cms && cp " +
           Pki() + "/root.crl filelist.crl"});
  EXPECT_EQ(run.status, 0) << run.output;
}

std::vector<std::string> BoardTest::Deliver(const std::string& directory, const std::string& name) const {
  const std::string place = "/mnt/update/" + name;
  for (const auto& file : std::filesystem::directory_iterator(directory)) {
    board_.Put(file.path(), place + "/" + file.path().filename().string());
  }
  return {"--script",        place + "/update.sh",
          "--package",       place + "/update.tar.gz",
          "--signature-dir", place,
          "--list",          "filelist.txt",
          "--signature",     "filelist.cms",
          "--crl",           "filelist.crl"};
}

}  // namespace system_test
