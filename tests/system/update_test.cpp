/// Updates as a user asks for them: the real programs on a board, real packages, real certificates.

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "system/board_fixture.h"

namespace system_test {
namespace {

using testing::HasSubstr;

constexpr char kStoredCrl[] = "/home/sys_cfg/signature.crl";

class UpdateTest : public BoardTest {
 protected:
  std::vector<std::string> WithCrl() const { return {"--crl", material_.Pki() + "/root.crl"}; }

  std::string GoodPackage(const std::string& name) const {
    return material_.MakePackage(name, kOkScript, "signer", WithCrl());
  }

  /// Delivers a signed package made by shell commands: they find the script's file and one "x", and make
  /// ../update.tar.gz.
  std::vector<std::string> DeliverArchive(const std::string& name, const std::string& commands,
                                          const std::string& script = "update.sh",
                                          const std::string& scriptText = kOkScript) const {
    const support::TempDir dir;
    dir.Write("in/" + script, scriptText);
    dir.Write("in/x", "escaped");
    const auto made =
        support::RunCommand({"sh", "-c", "cd " + dir.File("in") + " && " + commands + " && rm -rf ../in"});
    EXPECT_EQ(made.status, 0) << name << ": " << made.output;
    material_.Sign(dir.path());
    auto options = Deliver(dir.path(), name);
    options.insert(options.end(), {"--script", "/mnt/update/" + name + "/" + script});
    return options;
  }
};

void FlipByte(const std::string& file, size_t at) {
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.seekg(static_cast<std::streamoff>(at));
  const int byte = stream.get();
  stream.seekp(static_cast<std::streamoff>(at));
  stream.put(static_cast<char>(byte ^ 1));
}

void Overwrite(const std::string& file, const std::string& content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

TEST_F(UpdateTest, RequestStartsTheDaemonAndRunsTheScriptOfTheVerifiedPackage) {
  board_.StartMain();
  ASSERT_FALSE(board_.DaemonRuns());
  auto options = Deliver(GoodPackage("good"), "good");
  const Answer answer = board_.Request(options);
  EXPECT_EQ(answer.status, 0) << answer.text;
  EXPECT_EQ(answer.result, 0);
  EXPECT_EQ(board_.Read("/mnt/payload.seen"), "payload of good");
  EXPECT_TRUE(board_.DaemonRuns()) << "the daemon stays for the next request";

  const std::string log = board_.RunLog();
  EXPECT_THAT(log, HasSubstr("development root certificates"));
  EXPECT_THAT(log, HasSubstr("cmd:/mnt/update/good/update.sh /mnt/update/good/payload.bin"));
  EXPECT_THAT(log, HasSubstr("**buffer OK done"));
  EXPECT_EQ(
      board_.Shell("stat -c %a:%u:%g " + std::string(kStoredCrl)).output,
      board_.Shell("echo 600:$(id -u prorunacc):$(id -g prorunacc)").output)  // a board may have one id only
      << "the list of the first update is stored, for the platform's account alone";

  board_.Shell("rm /mnt/payload.seen");
  EXPECT_EQ(board_.Request(options).result, 50994) << "the script that lies there now is in no signed list";
  EXPECT_FALSE(board_.Exists("/mnt/payload.seen"));
}

/// What is done to a good package before it is asked for, and what must come of it.
struct Refusal {
  const char* name;
  int result;
  std::function<void(const std::string& dir)> spoil;
};

TEST_F(UpdateTest, SpoiltMaterialIsRefusedWithItsCodeAndTheNextRequestIsServed) {
  const std::string list = "/filelist.txt", signature = "/filelist.cms", crl = "/filelist.crl",
                    package = "/update.tar.gz";
  const Refusal refusals[] = {
      {"crl-missing", 50997, [&](const std::string& dir) { std::filesystem::remove(dir + crl); }},
      {"package-first-byte", 50994, [&](const std::string& dir) { FlipByte(dir + package, 0); }},
      {"package-last-byte", 50994,
       [&](const std::string& dir) {
         FlipByte(dir + package, static_cast<size_t>(std::filesystem::file_size(dir + package)) - 1);
       }},
      {"package-empty", 50994, [&](const std::string& dir) { Overwrite(dir + package, ""); }},
      {"package-missing", 50992, [&](const std::string& dir) { std::filesystem::remove(dir + package); }},
      {"list-changed", 50987, [&](const std::string& dir) { FlipByte(dir + list, 20); }},
      {"list-empty", 50987, [&](const std::string& dir) { Overwrite(dir + list, ""); }},
      {"signature-cut", 50987,
       [&](const std::string& dir) { std::filesystem::resize_file(dir + signature, 400); }},
      {"signature-garbage", 50987,
       [&](const std::string& dir) { Overwrite(dir + signature, std::string(3000, '0')); }},
      {"signature-empty", 50987, [&](const std::string& dir) { Overwrite(dir + signature, ""); }},
      {"signature-too-long", 50987,
       [&](const std::string& dir) { std::filesystem::resize_file(dir + signature, 2000001); }},
      {"crl-garbage", 50997,
       [&](const std::string& dir) { Overwrite(dir + crl, "-----BEGIN X509 CRL-----\nAAAA"); }},
  };
  board_.StartDaemon();
  board_.StartMain();
  auto unlisted = Deliver(GoodPackage("unlisted"), "unlisted");
  unlisted.resize(unlisted.size() - 2);
  EXPECT_EQ(board_.Request(unlisted).result, 50996) << "no revocation list is supplied and none is stored";
  for (const Refusal& refusal : refusals) {
    const std::string dir = GoodPackage(refusal.name);
    refusal.spoil(dir);
    const Answer answer = board_.Request(Deliver(dir, refusal.name));
    EXPECT_EQ(answer.result, refusal.result) << refusal.name << ": " << answer.text;
    EXPECT_EQ(answer.status, 1) << refusal.name;
    EXPECT_FALSE(board_.Exists(std::string("/mnt/update/") + refusal.name + "/update.sh"))
        << refusal.name << ": unpacked although it was refused";
  }
  EXPECT_FALSE(board_.Exists("/mnt/payload.seen")) << "a script of a refused package ran";
  const Answer last = board_.Request(Deliver(GoodPackage("good"), "good"));
  EXPECT_EQ(last.result, 0) << last.text;
}

TEST_F(UpdateTest, SignersAreJudgedByRootRevocationAndExpiry) {
  const std::string pki = material_.Pki();
  material_.Pack({"dev-pki", "signer", "withdrawn", "--pki", pki});
  material_.Pack({"dev-pki", "revoke", "withdrawn", "--pki", pki});
  material_.Pack({"dev-pki", "crl", "--pki", pki});
  material_.Pack({"dev-pki", "signer", "expired", "--pki", pki, "--expired"});
  const Material foreign;
  foreign.Pack({"dev-pki", "init", "--out", foreign.File("stranger")});
  foreign.Pack({"dev-pki", "signer", "signer", "--pki", foreign.File("stranger")});
  for (const char* file : {"/signer.key", "/signer.crt"}) {
    const auto name = std::string("/foreign") + (file + 7);
    std::filesystem::copy_file(foreign.File("stranger") + file, pki + name);
  }
  board_.StartDaemon();
  board_.StartMain();
  for (const char* signer : {"withdrawn", "expired", "foreign"}) {
    const std::string dir = material_.MakePackage(signer, kOkScript, signer);
    std::filesystem::copy_file(pki + "/root.crl", dir + "/filelist.crl");
    const Answer answer = board_.Request(Deliver(dir, signer));
    EXPECT_EQ(answer.result, 50987) << signer << ": " << answer.text;
  }
  EXPECT_FALSE(board_.Exists("/mnt/payload.seen"));
}

TEST_F(UpdateTest, NewerRevocationListIsStoredAndAnOlderOneNeverReplacesIt) {
  const std::string pki = material_.Pki();
  const auto package = [&](const char* name, const char* date) {
    material_.Pack(
        {"dev-pki", "crl", "--pki", pki, "--this-update", date, "--out", material_.File("dated.crl")});
    const std::string dir =
        material_.MakePackage(name, kOkScript, "signer", {"--crl", material_.File("dated.crl")});
    return Deliver(dir, name);
  };
  const auto digest = [&](const std::string& path) { return board_.Shell("sha256sum <" + path).output; };
  board_.StartDaemon();
  board_.StartMain();
  EXPECT_EQ(board_.Request(package("first", "-3d")).result, 0);
  const std::string first = digest(kStoredCrl);
  EXPECT_EQ(board_.Request(package("older", "-9d")).result, 0) << "an older list is no reason to refuse";
  EXPECT_EQ(digest(kStoredCrl), first) << "the stored list was replaced by an older one";
  EXPECT_EQ(digest("/mnt/update/older/filelist.crl"), first) << "the check must run against the stored list";
  EXPECT_EQ(board_.Request(package("newer", "-1d")).result, 0);
  EXPECT_NE(digest(kStoredCrl), first);
  EXPECT_EQ(digest(kStoredCrl), digest("/mnt/update/newer/filelist.crl"));

  auto withoutList = package("without", "-1d");
  withoutList.resize(withoutList.size() - 2);
  EXPECT_EQ(board_.Request(withoutList).result, 0) << "the stored list serves a package without one";
}

TEST_F(UpdateTest, ScriptAndRequestFaultsHaveTheirCodes) {
  board_.StartDaemon();
  board_.StartMain();
  const auto ask = [&](const char* name, const char* script, const std::vector<std::string>& more = {}) {
    auto options = Deliver(material_.MakePackage(name, script, "signer", WithCrl()), name);
    options.insert(options.end(), more.begin(), more.end());
    return board_.Request(options).result;
  };
  EXPECT_EQ(ask("silent", "#!/bin/sh\nexit 0\n"), 1) << "success is a line, not an exit status";
  EXPECT_EQ(ask("feature", kOkScript, {"--feature-id", "4"}), 37);
  EXPECT_EQ(ask("feature3", kOkScript, {"--feature-id", "3"}), 0);
  EXPECT_EQ(ask("nopackage", kOkScript, {"--package", ""}), 9476);
  EXPECT_EQ(ask("nolist", kOkScript, {"--list", ""}), 9476);
}

TEST_F(UpdateTest, OddMembersOfASignedPackageWriteNothingOutsideItsDirectory) {
  struct Row {
    const char* name;
    const char* commands;
  };
  constexpr Row kRows[] = {
      {"climbing", "tar -czPf ../update.tar.gz --transform 's,^x$,../../../mnt/escaped,' update.sh x"},
      {"absolute", "tar -czPf ../update.tar.gz --transform 's,^x$,/mnt/escaped,' update.sh x"},
      {"link",
       "ln -s /mnt l && tar -cPf ../u.tar l && rm l && mkdir l && mv x l/escaped && "
       "tar -rPf ../u.tar l/escaped update.sh && gzip -c ../u.tar >../update.tar.gz && rm ../u.tar"},
      {"shell", "mv x 'a;touch escaped' && tar -czf ../update.tar.gz update.sh 'a;touch escaped'"},
      {"node", "mknod n c 1 3 && tar -czPf ../update.tar.gz --transform 's,^n$,/mnt/escaped,' update.sh n"},
  };
  const support::TempDir scratch;
  const bool makesNodes = support::RunCommand({"mknod", scratch.File("n"), "c", "1", "3"}).status == 0;
  board_.StartDaemon();
  board_.StartMain();
  for (const Row& row : kRows) {
    if (row.name == std::string("node") && !makesNodes) continue;
    const Answer answer = board_.Request(DeliverArchive(row.name, row.commands));
    EXPECT_NE(answer.result, 50994) << row.name << ": the case did not get past the digests";
    EXPECT_FALSE(board_.Exists("/mnt/escaped")) << row.name << ": a member was written outside";
    EXPECT_FALSE(board_.Exists("/tmp/escaped")) << row.name << ": a member's name became a command";
  }
  EXPECT_EQ(board_.Request(Deliver(GoodPackage("good"), "good")).result, 0);
}

TEST_F(UpdateTest, BankScriptGetsThePackageAndTheSwitchOfTheBootBankIsItsResult) {
  board_.StartDaemon();
  board_.StartMain();
  const auto ask = [&](const char* name) {
    return board_
        .Request(DeliverArchive(name, "tar -czf ../update.tar.gz monitor_update.sh x", "monitor_update.sh",
                                "#!/bin/sh\nprintf '%s\\n' \"$*\" >/mnt/called.with\nexit 1\n"))
        .result;
  };
  board_.Shell("printf 'app=/app_run/app_bin0/app\nold /app_bin1\n' >/mnt/log/update/config.kp");
  EXPECT_EQ(ask("bank"), 0) << board_.RunLog();
  EXPECT_EQ(board_.Read("/mnt/called.with"), "/mnt/update/bank/update.tar.gz\n");
  EXPECT_EQ(board_.Read("/mnt/log/update/config.kp"), "app=/app_run/app_bin1/app\nold /app_bin0\n");
  EXPECT_EQ(board_.Shell("ls /mnt/log/update").output, "config.kp\n");
  board_.Shell("rm /mnt/log/update/config.kp");
  EXPECT_EQ(ask("bankless"), 9499) << "no configuration to switch";
}

TEST_F(UpdateTest, ScriptRunsUnderItsCpuLimit) {
  if (board_.Exec({"/etc/init.d/cgrouputil.sh", "UNSET", "1", "1", "200"}).status == 3) {
    GTEST_SKIP() << "no cgroup cpu controller is writable here";
  }
  board_.StartDaemon();
  board_.StartMain();
  std::string request = "update_request --cpu-limit 20";
  for (const std::string& option :
       Deliver(material_.MakePackage("busy", "#!/bin/sh\nwhile [ ! -e /mnt/go ]; do :; done\necho OK\n",
                                     "signer", WithCrl()),
               "busy")) {
    request += " " + option;
  }
  ASSERT_EQ(board_.Shell(request + " >/tmp/answer 2>&1 &").status, 0);
  const std::string group = "$(find /sys/fs/cgroup -type d -path '*/script_limit/p*' | head -n 1)";
  std::string pids;
  for (int tries = 0; tries < 500 && pids.empty(); ++tries) {
    pids = board_.Shell("cat " + group + "/cgroup.procs </dev/null 2>/dev/null").output;
    if (pids.empty()) (void)usleep(10000);
  }
  EXPECT_NE(pids, "") << "the script is in no limited group:\n" << board_.RunLog();
  const auto quota =
      board_.Shell("cat " + group + "/cpu.cfs_quota_us " + group + "/cpu.max 2>/dev/null").output;
  EXPECT_EQ(quota.rfind("40000", 0), 0u) << "20 percent of a period of 200 ms, not " << quota;
  EXPECT_THAT(board_.Shell("cat /proc/" + pids.substr(0, pids.find('\n')) + "/cmdline").output,
              HasSubstr("update.sh"));
  board_.Shell("touch /mnt/go");
  for (int tries = 0; tries < 1000 && board_.Shell("test -s /tmp/answer").status != 0; ++tries)
    (void)usleep(10000);
  EXPECT_EQ(board_.Read("/tmp/answer").rfind("result 0 ", 0), 0u) << board_.Read("/tmp/answer");
}

TEST_F(UpdateTest, DaemonOutlivesWhatNoHonestRequesterSends) {
  board_.StartDaemon();
  board_.Put(TOLA_WIRE_TEST, "/tmp/wire_board_test");
  const auto run = board_.Exec({"/tmp/wire_board_test"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(board_.DaemonRuns());
}

TEST_F(UpdateTest, RequesterSaysHowToUseItAndWhenNobodyAnswers) {
  EXPECT_EQ(board_.Exec({"update_request", "--script"}).status, 2);
  EXPECT_EQ(board_.Exec({"update_request", "--cpu-limit", "fast"}).status, 2);
  EXPECT_EQ(board_.Exec({"update_request", "--list", std::string(129, 'n')}).status, 2);
  const auto unanswered = board_.Exec({"update_request", "--script", "/x"});
  EXPECT_EQ(unanswered.status, 3);
  EXPECT_THAT(unanswered.output, HasSubstr("is board_main running?"));
}

}  // namespace
}  // namespace system_test
