/// Updates as a user asks for them: the real programs on a board, real packages, real certificates.

#include <gmock/gmock.h>

#include <filesystem>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr char kStoredCrl[] = "/home/sys_cfg/signature.crl";
constexpr char kOkScript[] =
    "#!/bin/sh\nFeatureID=3\necho working on $1\ncp \"$1\" /mnt/payload.seen\necho OK done\n";

/// A signed package, its script and "payload.bin" in it. Names of files are those of the maker's directory.
struct Package {
  std::string name;
  std::string text = kOkScript;
  std::string script = "update.sh";
  std::string signer = "pki/signer";
  std::string crl = "pki/root.crl";
  std::string change = {};  ///< shell commands, run in the finished package's directory
};

/// A board, and a certificate authority under this build's development root with one signer and one list.
class UpdateTest : public testing::Test {
 protected:
  UpdateTest() {
    Make("pack dev-pki init --out pki --root-key " TOLA_BUILD_DIR
         "/dev_roots/rsa2048.key --root-cert " TOLA_BUILD_DIR
         "/dev_roots/root_rsa2048.pem; pack dev-pki signer signer --pki pki; pack dev-pki crl --pki pki "
         "--this-update -3d");
  }
  /// Runs shell commands in the maker's directory; "pack" is the package tool.
  void Make(const std::string& commands) const {
    const auto run =
        support::RunShell(dir_.path(), "pack() { " TOLA_BUILD_DIR "/bin/update_pack \"$@\"; }; " + commands);
    EXPECT_EQ(run.status, 0) << commands << ":\n" << run.output;
  }
  /// Makes a package, copies it onto the board as /mnt/update/NAME and returns the options that ask for it.
  std::vector<std::string> Deliver(const Package& package) const {
    const std::string& name = package.name;
    dir_.Write(name + ".in/" + package.script, package.text);
    dir_.Write(name + ".in/payload.bin", "payload of " + name);
    Make("pack make --script " + name + ".in/" + package.script + " --payload " + name +
         ".in/payload.bin --key " + package.signer + ".key --cert " + package.signer + ".crt --crl " +
         package.crl + " --out " + name + "; cd " + name + "; " + package.change);
    const std::string place = "/mnt/update/" + name;
    for (const auto& file : std::filesystem::directory_iterator(dir_.File(name)))
      board_.Put(file.path(), place + "/" + file.path().filename().string());
    return {"--script",        place + "/" + package.script,
            "--package",       place + "/update.tar.gz",
            "--signature-dir", place,
            "--list",          "filelist.txt",
            "--signature",     "filelist.cms",
            "--crl",           "filelist.crl"};
  }
  int Ask(const Package& package) const { return board_.Request(Deliver(package)).result; }
  void StartBoth() const {
    board_.StartDaemon();
    board_.StartMain();
  }

  Board board_;
  support::TempDir dir_;
};

TEST_F(UpdateTest, RequestStartsTheDaemonAndRunsTheScriptOfTheVerifiedPackage) {
  const auto unanswered = board_.Exec({"update_request", "--script", "/x"});
  EXPECT_EQ(unanswered.status, 3);
  EXPECT_THAT(unanswered.output, HasSubstr("is board_main running?"));
  for (const char* wrong : {"--script", "--cpu-limit=fast", "--authorise --signature-dir=/mnt/u"})
    EXPECT_EQ(board_.Shell(std::string("update_request ") + wrong).status, 2) << wrong;
  const std::string listen = "echo kept >/mnt/f; timeout -s KILL 20 board_main --socket /mnt/f; ";
  EXPECT_EQ(board_.Shell(listen + "grep kept /mnt/f").status, 0) << "a file was taken for an old socket";
  board_.StartMain();
  ASSERT_EQ(board_.PidOf("update_active"), "");
  const auto options = Deliver({"good"});
  const Answer answer = board_.Request(options);
  EXPECT_TRUE(answer.status == 0 && answer.result == 0) << answer.text;
  EXPECT_EQ(board_.Read("/mnt/payload.seen"), "payload of good");
  EXPECT_NE(board_.PidOf("update_active"), "") << "the daemon stays for the next request";

  const std::string log = board_.RunLog();
  EXPECT_THAT(log, HasSubstr("development root certificates"));
  EXPECT_THAT(log, HasSubstr("cmd:/mnt/update/good/update.sh /mnt/update/good/payload.bin"));
  EXPECT_THAT(log, HasSubstr("**buffer OK done"));
  EXPECT_EQ(
      board_.Shell("stat -c %a:%u:%g " + std::string(kStoredCrl)).output,
      board_.Shell("echo 600:$(id -u prorunacc):$(id -g prorunacc)").output)  // a board may have one id only
      << "the list of the first update is stored, for the platform's account alone";

  for (const auto& [name, date] : {std::pair{"older", "-9d"}, {"newer", "-1d"}}) {
    Make(std::string("pack dev-pki crl --pki pki --out dated.crl --this-update ") + date);
    EXPECT_EQ(Ask({.name = name, .crl = "dated.crl"}), 0);
    const bool isOlder = name == std::string("older");
    const std::string same = "cmp " + std::string(kStoredCrl) + " /mnt/update/good/filelist.crl";
    EXPECT_EQ(board_.Shell(same).status, isOlder ? 0 : 1)
        << "the " << name << " list is stored by its age alone";
  }

  board_.Shell("rm /mnt/payload.seen");
  EXPECT_EQ(board_.Request(options).result, 50994) << "the script that lies there now is in no signed list";
  EXPECT_FALSE(board_.Exists("/mnt/payload.seen"));
  for (const auto& [id, result] : {std::pair{"4", 37}, {"3", 0}}) {
    auto feature = Deliver({std::string("feature") + id});
    feature.insert(feature.end(), {"--feature-id", id});
    EXPECT_EQ(board_.Request(feature).result, result) << id;
  }
}

TEST_F(UpdateTest, SpoiltMaterialIsRefusedWithItsCodeAndTheNextRequestIsServed) {
  Make(
      "pack dev-pki signer withdrawn --pki pki; pack dev-pki revoke withdrawn --pki pki;"
      "pack dev-pki crl --pki pki; pack dev-pki signer expired --pki pki --expired;"
      "pack dev-pki init --out stranger; pack dev-pki signer signer --pki stranger;"
      "pack dev-pki crl --pki stranger");
  const struct {
    int result;
    Package package;
  } refusals[] = {
      {50987, {.name = "withdrawn", .signer = "pki/withdrawn"}},
      {50987, {.name = "expired", .signer = "pki/expired"}},
      {50987,
       {.name = "foreign",
        .signer = "stranger/signer",
        .crl = "stranger/root.crl",
        .change = "cp ../pki/root.crl filelist.crl"}},
      {50997, {.name = "crl-missing", .change = "rm filelist.crl"}},
      {50997, {.name = "crl-garbage", .change = "echo '-----BEGIN X509 CRL-----' >filelist.crl"}},
      {50994, {.name = "package-longer", .change = "printf x >>update.tar.gz"}},
      {50994, {.name = "package-empty", .change = ": >update.tar.gz"}},
      {50992, {.name = "package-missing", .change = "rm update.tar.gz"}},
      {50987, {.name = "list-changed", .change = "echo >>filelist.txt"}},
      {50987, {.name = "signature-cut", .change = "truncate -s 400 filelist.cms"}},
      {50987, {.name = "signature-too-long", .change = "truncate -s 2000001 filelist.cms"}},
  };
  board_.Shell("echo feature.signature_enable=0x20002 >/mnt/config/feature.cfg");  // no word switches it off
  StartBoth();
  for (const auto& [result, package] : refusals) {
    const Answer answer = board_.Request(Deliver(package));
    EXPECT_TRUE(answer.status == 1 && answer.result == result) << package.name << ": " << answer.text;
    EXPECT_FALSE(board_.Exists("/mnt/update/" + package.name + "/update.sh"))
        << package.name << ": unpacked although it was refused";
  }
  EXPECT_FALSE(board_.Exists("/mnt/payload.seen")) << "a script of a refused package ran";
  EXPECT_EQ(Ask({"good"}), 0);
}

TEST_F(UpdateTest, OddMembersOfASignedPackageWriteNothingOutsideItsDirectory) {
  const struct {
    const char* name;
    const char* commands;
  } rows[] = {
      {"climbing", "tar -czPf ../update.tar.gz --transform 's,^x$,../../../mnt/escaped,' update.sh x"},
      {"absolute", "tar -czPf ../update.tar.gz --transform 's,^x$,/mnt/escaped,' update.sh x"},
      {"link",
       "ln -s /mnt l; tar -cPf u.tar l; rm l; mkdir l; mv x l/escaped; tar -rPf u.tar l/escaped update.sh;"
       "gzip -c u.tar >../update.tar.gz"},
      {"shell", "mv x 'a;touch escaped'; tar -czf ../update.tar.gz update.sh 'a;touch escaped'"},
  };
  StartBoth();
  for (const auto& [name, commands] : rows) {
    // Made and signed with other tools than the product's, which would refuse to.
    const int result = Ask(
        {.name = name,
         .change = "mkdir in; cd in; cp ../../" + std::string(name) + ".in/update.sh .; echo escaped >x; " +
                   commands +
                   "; cd ..; rm -r in; printf 'FileNum=1\\nFileName=update.tar.gz\\nSHA256-Digest=%s\\n' "
                   "$(sha256sum <update.tar.gz | cut -c1-64) >filelist.txt; openssl cms -sign -binary -in "
                   "filelist.txt -signer ../pki/signer.crt -inkey ../pki/signer.key -outform DER -out "
                   "filelist.cms"});
    EXPECT_NE(result, 50994) << name << ": the case did not get past the digests";
    EXPECT_NE(result, 50987) << name << ": nor past the signature";
    EXPECT_FALSE(board_.Exists("/mnt/escaped")) << name << ": a member was written outside";
    EXPECT_FALSE(board_.Exists("/tmp/escaped")) << name << ": a member's name became a command";
  }
}

TEST_F(UpdateTest, BankScriptGetsThePackageAndTheSwitchOfTheBootBankIsItsResult) {
  StartBoth();
  board_.Shell("printf 'app=/app_run/app_bin0/app\nold /app_bin1\n' >/mnt/log/update/config.kp");
  EXPECT_EQ(Ask({.name = "bank",
                 .text = "#!/bin/sh\nprintf '%s\\n' \"$*\" >/mnt/called.with\nexit 1\n",
                 .script = "monitor_update.sh"}),
            0)
      << board_.RunLog();
  EXPECT_EQ(board_.Read("/mnt/called.with"), "/mnt/update/bank/update.tar.gz\n");
  EXPECT_EQ(board_.Read("/mnt/log/update/config.kp"), "app=/app_run/app_bin1/app\nold /app_bin0\n");
  EXPECT_EQ(board_.Shell("ls /mnt/log/update").output, "config.kp\n");
}

TEST_F(UpdateTest, ScriptRunsUnderItsCpuLimit) {
  if (board_.Exec({"/etc/init.d/cgrouputil.sh", "UNSET", "1", "1", "200"}).status == 3) {
    GTEST_SKIP() << "no cgroup cpu controller is writable here";
  }
  StartBoth();
  std::string request = "update_request --cpu-limit 20";
  for (const std::string& option :
       Deliver({"busy",
                "#!/bin/sh\nfor i in $(seq 40); do sleep 600 & sleep 0.02; done\ntouch /mnt/forked\n"
                "while [ ! -e /mnt/go ]; do :; done\necho OK\n"}))
    request += " " + option;
  ASSERT_EQ(board_.Shell(request + " >/tmp/answer 2>&1 &").status, 0);
  const std::string group = "$(find /sys/fs/cgroup -type d -path '*/script_limit/p*' | head -n 1)";
  EXPECT_TRUE(board_.Comes("grep -q . " + group + "/cgroup.procs 2>/dev/null"))
      << "the script is in no limited group:\n"
      << board_.RunLog();
  EXPECT_THAT(board_.Shell("cat " + group + "/cpu.cfs_quota_us " + group + "/cpu.max 2>/dev/null").output,
              StartsWith("40000"))
      << "20 percent of a period of 200 ms";
  EXPECT_TRUE(board_.Comes("test -e /mnt/forked"));
  EXPECT_TRUE(board_.Comes("[ $(grep -c . " + group + "/cgroup.procs) = 41 ]"))
      << "a child that was forked while the limit was set stayed outside";
  board_.Shell("touch /mnt/go");
  EXPECT_TRUE(board_.Comes("test -s /tmp/answer"));
  EXPECT_THAT(board_.Read("/tmp/answer"), StartsWith("result 0 "));
}

}  // namespace
}  // namespace system_test
