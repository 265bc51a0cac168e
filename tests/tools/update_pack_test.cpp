// The package tool as its users run it: every command is the real program on real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

namespace fs = std::filesystem;

class UpdatePackTest : public ::testing::Test {
 protected:
  /// A development CA with the signer "alice" and one list, and the parts of a package.
  UpdatePackTest() {
    Must({"dev-pki", "init", "--out", Pki()});
    Must({"dev-pki", "signer", "alice", "--pki", Pki()});
    Must({"dev-pki", "crl", "--pki", Pki()});
    dir_.Write("run.sh", "#!/bin/sh\necho OK\n");
    dir_.Write("image.bin", "payload");
  }

  static support::CommandResult Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), UPDATE_PACK);
    return support::RunCommand(arguments);
  }
  static std::string Must(const std::vector<std::string>& arguments) {
    const support::CommandResult result = Run(arguments);
    EXPECT_EQ(result.status, 0) << result.output;
    return result.output;
  }
  std::string Pki(const std::string& name = "") const {
    return dir_.File("pki" + (name.empty() ? "" : "/" + name));
  }

  /// `make` with the usual arguments; an option in `changes` (name, value) replaces or adds one, an empty
  /// value leaves it out.
  support::CommandResult Make(const std::string& out,
                              const std::vector<std::pair<std::string, std::string>>& changes = {}) const {
    std::vector<std::pair<std::string, std::string>> options = {
        {"--script", dir_.File("run.sh")}, {"--payload", dir_.File("image.bin")},
        {"--key", Pki("alice.key")},       {"--cert", Pki("alice.crt")},
        {"--crl", Pki("root.crl")},        {"--out", dir_.File(out)}};
    for (const auto& change : changes) {
      const auto same = std::find_if(options.begin(), options.end(),
                                     [&](const auto& o) { return o.first == change.first; });
      same == options.end() ? options.push_back(change) : void(same->second = change.second);
    }
    std::vector<std::string> arguments = {"make"};
    for (const auto& [name, value] : options) {
      if (!value.empty()) arguments.insert(arguments.end(), {name, value});
    }
    return Run(arguments);
  }
  support::CommandResult Inspect(const std::string& package,
                                 const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"inspect", dir_.File(package), "--root", Pki("root.crt")};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
  std::string Read(const std::string& name) const {
    std::ifstream file(dir_.File(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::vector<std::string> Names(const std::string& directory) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_.File(directory)))
      names.push_back(entry.path().filename());
    return names;
  }

  support::TempDir dir_;
};

TEST_F(UpdatePackTest, WhatItMakesTheProductAccepts) {
  ASSERT_EQ(Make("out").status, 0);
  EXPECT_THAT(Names("out"),
              UnorderedElementsAre("update.tar.gz", "filelist.txt", "filelist.cms", "filelist.crl"));
  const support::CommandResult shown = Inspect("out");
  EXPECT_EQ(shown.status, 0) << shown.output;
  for (const char* text : {"run.sh", "image.bin", "matches  update.tar.gz", "signer CN=alice (sha256)",
                           "number 1", "ACCEPTED"}) {
    EXPECT_THAT(shown.output, HasSubstr(text));
  }
  const support::CommandResult foreign = Run({"inspect", dir_.File("out")});
  EXPECT_EQ(foreign.status, 1) << "this build's own root did not issue the signer";
  EXPECT_THAT(foreign.output, HasSubstr("REFUSED with 50997"));
}

TEST_F(UpdatePackTest, TheSameInputMakesTheSameArchive) {
  ASSERT_EQ(Make("one").status, 0);
  fs::last_write_time(dir_.File("image.bin"), fs::file_time_type::clock::now() - std::chrono::hours(48));
  ASSERT_EQ(Make("two").status, 0);
  EXPECT_EQ(Read("one/update.tar.gz"), Read("two/update.tar.gz"));
  EXPECT_EQ(Read("one/filelist.txt"), Read("two/filelist.txt"));
  const support::CommandResult members =
      support::RunCommand({"tar", "-tvzf", dir_.File("one/update.tar.gz"), "--numeric-owner"});
  EXPECT_THAT(members.output, HasSubstr(" 0/0 "));
  EXPECT_THAT(members.output, Not(HasSubstr("./")));
}

TEST_F(UpdatePackTest, InspectSaysWhyAPackageIsRefusedAndChangesNothing) {
  ASSERT_EQ(Make("out").status, 0);
  const std::string package = Read("out/update.tar.gz"), list = Read("out/filelist.txt"),
                    crl = Read("out/filelist.crl");
  dir_.Write("out/update.tar.gz", package + "x");
  EXPECT_THAT(Inspect("out").output,
              ::testing::AllOf(HasSubstr("differs  update.tar.gz"), HasSubstr("REFUSED with 50994")));
  dir_.Write("out/update.tar.gz", package);
  dir_.Write("out/filelist.txt", list + " ");
  EXPECT_THAT(Inspect("out").output, HasSubstr("REFUSED with 50987"));
  dir_.Write("out/filelist.txt", list);

  Must({"dev-pki", "revoke", "alice", "--pki", Pki()});
  Must({"dev-pki", "crl", "--pki", Pki(), "--out", dir_.File("newer.crl")});
  const support::CommandResult revoked = Inspect("out", {"--stored-crl", dir_.File("newer.crl")});
  EXPECT_EQ(revoked.status, 1);
  EXPECT_THAT(revoked.output, HasSubstr("REFUSED with 50987"));
  EXPECT_EQ(Read("out/filelist.crl"), crl) << "the package's list was overwritten with the stored one";
  EXPECT_EQ(Inspect("out").status, 0) << "a device that stores no newer list accepts it";

  fs::remove(dir_.File("out/filelist.crl"));
  EXPECT_THAT(Inspect("out").output, HasSubstr("REFUSED with 50996"));
  const support::CommandResult json = Inspect("out", {"--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.output, ::testing::AllOf(HasSubstr("\"accepted\":false,\"code\":50996"),
                                            HasSubstr("\"state\":\"matches\"")));
}

TEST_F(UpdatePackTest, ExpiredSignersAndOtherDigests) {
  Must({"dev-pki", "signer", "old", "--pki", Pki(), "--expired"});
  const support::CommandResult made = Make("old", {{"--key", Pki("old.key")}, {"--cert", Pki("old.crt")}});
  EXPECT_EQ(made.status, 0) << "only noted: a package that must be refused has to be makeable";
  EXPECT_THAT(made.output, HasSubstr("note: the signer's certificate expired"));
  EXPECT_THAT(Inspect("old").output, HasSubstr("REFUSED with 50987"));
  for (const char* digest : {"sha384", "sha512"}) {
    ASSERT_EQ(Make(digest, {{"--digest", digest}}).status, 0);
    EXPECT_THAT(Inspect(digest).output,
                ::testing::AllOf(HasSubstr(std::string("(") + digest + ")"), HasSubstr("ACCEPTED")));
  }
}

TEST_F(UpdatePackTest, FurtherFilesAreListedAndStandBesideThePackage) {
  const std::string notes = dir_.Write("notes.txt", "more");
  ASSERT_EQ(Make("out", {{"--file", notes}, {"--name", "fw-1.2"}, {"--list", "fw.txt"}}).status, 0);
  EXPECT_THAT(Names("out"), UnorderedElementsAre("fw-1.2.tar.gz", "fw.txt", "fw.cms", "fw.crl", "notes.txt"));
  EXPECT_THAT(Read("out/fw.txt"), HasSubstr("FileNum=2\n"));
  const support::CommandResult shown = Inspect("out");
  EXPECT_EQ(shown.status, 0) << shown.output;
  EXPECT_THAT(shown.output, HasSubstr("matches  notes.txt"));
}

TEST_F(UpdatePackTest, BadInputIsRefusedWithAReasonAndLeavesNothing) {
  Must({"dev-pki", "init", "--out", dir_.File("other"), "--name", "other root"});
  Must({"dev-pki", "crl", "--pki", dir_.File("other")});
  Must({"dev-pki", "signer", "bob", "--pki", Pki()});
  const std::string longName(129, 'n');
  const struct {
    const char* fault;
    std::vector<std::pair<std::string, std::string>> changes;
    int status;
    const char* says;
  } cases[] = {
      {"no key", {{"--key", ""}}, 2, "--key is missing"},
      {"no payload", {{"--payload", ""}}, 1, "name a payload"},
      {"missing payload", {{"--payload", dir_.File("none")}}, 1, "there is no file"},
      {"payload is a directory", {{"--payload", Pki()}}, 1, "there is no file"},
      {"name with a blank", {{"--payload", dir_.Write("a b.bin", "x")}}, 1, "rename it"},
      {"name like an option", {{"--payload", dir_.Write("-x.bin", "x")}}, 1, "rename it"},
      {"payload called as the script", {{"--payload", dir_.Write("sub/run.sh", "x")}}, 1, "two members"},
      {"payload taken for the script",
       {{"--payload", dir_.Write("run.sh.bin", "x")}},
       1,
       "would take it for the script"},
      {"empty script", {{"--script", dir_.Write("empty.sh", "")}}, 1, "is empty"},
      {"list name too long", {{"--list", longName}}, 1, "128 characters"},
      {"list called as the signature", {{"--list", "x.cms"}}, 1, "two files"},
      {"package name climbs", {{"--name", "../x"}}, 1, "rename it"},
      {"another signer's key", {{"--key", Pki("bob.key")}}, 1, "does not belong"},
      {"certificate is a list", {{"--cert", Pki("root.crl")}}, 1, "no certificate"},
      {"list of another issuer", {{"--crl", dir_.File("other/root.crl")}}, 1, "not from an issuer"},
      {"list is a certificate", {{"--crl", Pki("root.crt")}}, 1, "no revocation list"},
      {"unknown digest", {{"--digest", "md5"}}, 1, "--digest is"},
      {"CA type", {{"--ca-type", "3"}}, 2, "from 0 to 2"},
      {"target in use", {{"--out", Pki()}}, 1, "not empty"},
  };
  const std::vector<std::string> before = Names("");
  for (const auto& c : cases) {
    const support::CommandResult result = Make("out", c.changes);
    EXPECT_EQ(result.status, c.status) << c.fault << ": " << result.output;
    EXPECT_THAT(result.output, HasSubstr(c.says)) << c.fault;
    EXPECT_THAT(Names(""), ::testing::UnorderedElementsAreArray(before))
        << c.fault << ": something was left behind";
  }
  std::vector<std::string> many = {
      "make",           "--script", dir_.File("run.sh"), "--payload", dir_.File("image.bin"), "--key",
      Pki("alice.key"), "--cert",   Pki("alice.crt"),    "--out",     dir_.File("out")};
  for (int i = 0; i < 255; ++i)
    many.insert(many.end(), {"--file", dir_.Write("many/f" + std::to_string(i), "x")});
  EXPECT_THAT(Run(many).output, HasSubstr("at most 255 entries"))
      << "a count of 256 would read as 0 on the device";
}

TEST_F(UpdatePackTest, NotesWhatADeviceWouldStumbleOver) {
  const support::CommandResult silent =
      Make("silent", {{"--script", dir_.Write("quiet.sh", "#!/bin/sh\n:\n")}});
  EXPECT_EQ(silent.status, 0);
  EXPECT_THAT(silent.output, HasSubstr("never prints OK"));
  EXPECT_THAT(Make("bare", {{"--crl", ""}}).output, HasSubstr("note: no revocation list"));
}

TEST_F(UpdatePackTest, TheDevelopmentAuthorityKeepsItsKeysAndNumbers) {
  for (const char* key : {"root.key", "alice.key"}) {
    struct stat info = {};
    ASSERT_EQ(stat(Pki(key).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777u, 0600u) << key;
  }
  EXPECT_THAT(Must({"dev-pki", "crl", "--pki", Pki()}), HasSubstr("list 2 of"));
  EXPECT_THAT(Must({"dev-pki", "crl", "--pki", Pki(), "--number", "1", "--this-update", "2020-01-31",
                    "--next-update", "2020-02-29T12:00:00Z", "--out", dir_.File("early.crl")}),
              HasSubstr("list 1 of 2020-01-31 00:00:00"));
  EXPECT_THAT(Must({"dev-pki", "crl", "--pki", Pki()}), HasSubstr("list 3 of"))
      << "an early list turned the count back";
  EXPECT_EQ(Run({"dev-pki", "signer", "alice", "--pki", Pki()}).status, 1)
      << "a key would have been overwritten";
  EXPECT_EQ(Run({"dev-pki", "init", "--out", Pki()}).status, 1) << "the root would have been overwritten";
  EXPECT_EQ(Run({"dev-pki", "signer", "../x", "--pki", Pki()}).status, 2);
  EXPECT_EQ(Run({"dev-pki", "crl", "--pki", Pki(), "--this-update", "soon"}).status, 2);
  EXPECT_EQ(Run({"dev-pki", "init", "--out", dir_.File("x"), "--root-key", Pki("alice.key"), "--root-cert",
                 Pki("root.crt")})
                .status,
            1)
      << "a key that is not the root's";
}

TEST(UpdatePackUsageTest, WrongUseIsToldOnStandardErrorWithStatus2) {
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"bake"},
                                                       {"make", "--bogus"},
                                                       {"make", "extra"},
                                                       {"inspect"},
                                                       {"inspect", "a", "b"},
                                                       {"dev-pki"},
                                                       {"dev-pki", "x"},
                                                       {"inspect", "/nonexistent"},
                                                       {"make", "--key"},
                                                       {"inspect", "x", "--json=1"}};
  for (std::vector<std::string> arguments : wrong) {
    arguments.insert(arguments.begin(), UPDATE_PACK);
    const support::CommandResult result = support::RunCommand(arguments);
    EXPECT_EQ(result.status, 2) << ::testing::PrintToString(arguments);
    EXPECT_THAT(result.output, HasSubstr("update_pack: "));
  }
  for (const char* command : {"make", "inspect", "dev-pki"}) {
    const support::CommandResult help = support::RunCommand({UPDATE_PACK, command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_THAT(help.output, HasSubstr("Usage: ")) << command;
  }
}

}  // namespace
