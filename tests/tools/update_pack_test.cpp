// The package tool as its users run it: every command is the real program on real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using support::CommandResult;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

/// "make" is the usual command; a variable with an option's name replaces that option, an empty one leaves it
/// out.
constexpr char kFunctions[] = R"(
pack() { )" UPDATE_PACK R"( "$@"; }
make() {
  pack make ${script---script run.sh} ${payload---payload image.bin} ${key---key pki/alice.key} \
    ${cert---cert pki/alice.crt} ${crl---crl pki/root.crl} ${out---out out} "$@"
}
inspect() { pack inspect --root pki/root.crt "$@"; }
)";

/// A development CA with the signer "alice" and one list, and the parts of a package.
class UpdatePackTest : public ::testing::Test {
 protected:
  UpdatePackTest() {
    dir_.Write("run.sh", "#!/bin/sh\necho OK\n");
    dir_.Write("image.bin", "payload");
    Must("pack dev-pki init --out pki; pack dev-pki signer alice --pki pki; pack dev-pki crl --pki pki");
  }

  CommandResult Run(const std::string& commands) const {
    return support::RunShell(dir_.path(), kFunctions + commands);
  }
  std::string Must(const std::string& commands) const {
    const CommandResult result = Run(commands);
    EXPECT_EQ(result.status, 0) << commands << ":\n" << result.output;
    return result.output;
  }
  /// What inspect prints of a package that it refuses.
  std::string Refused(const std::string& arguments) const {
    const CommandResult result = Run("inspect " + arguments);
    EXPECT_EQ(result.status, 1) << arguments << ":\n" << result.output;
    return result.output;
  }

  support::TempDir dir_;
};

TEST_F(UpdatePackTest, WhatItMakesTheProductAccepts) {
  Must("make");
  EXPECT_EQ(Must("ls out"), "filelist.cms\nfilelist.crl\nfilelist.txt\nupdate.tar.gz\n");
  const std::string shown = Must("inspect out");
  for (const char* text : {"run.sh", "image.bin", "matches  update.tar.gz", "signer CN=alice (sha256)",
                           "number 1", "ACCEPTED"}) {
    EXPECT_THAT(shown, HasSubstr(text));
  }
  EXPECT_THAT(shown, Not(HasSubstr("trouble")));
  EXPECT_THAT(Must("out='--out a:b&c' make; inspect 'a:b&c'"), HasSubstr("ACCEPTED"))
      << "where it lies here is nothing to the device";
  const CommandResult foreign = Run("pack inspect out");
  EXPECT_EQ(foreign.status, 1) << "this build's own root did not issue the signer";
  EXPECT_THAT(foreign.output, HasSubstr("REFUSED with 50997"));
}

TEST_F(UpdatePackTest, TheSameInputMakesTheSameArchive) {
  Must("make; touch -d '2 days ago' image.bin; chmod 600 run.sh; out='--out two' make");
  Must("cmp out/update.tar.gz two/update.tar.gz; cmp out/filelist.txt two/filelist.txt");
  EXPECT_THAT(Must("tar -tvzf out/update.tar.gz --numeric-owner"),
              AllOf(HasSubstr(" 0/0 "), Not(HasSubstr("./"))));
}

TEST_F(UpdatePackTest, InspectSaysWhyAPackageIsRefusedAndChangesNothing) {
  Must("make; cp -r out good; printf x >>out/update.tar.gz");
  EXPECT_THAT(Refused("out"), AllOf(HasSubstr("differs  update.tar.gz"), HasSubstr("REFUSED with 50994")));
  Must("cp good/* out; echo >>out/filelist.txt");
  EXPECT_THAT(Refused("out"), HasSubstr("REFUSED with 50987"));
  Must("tar --owner=1000 -czf out/update.tar.gz run.sh image.bin");
  EXPECT_THAT(Refused("out"), HasSubstr("does not belong to root"));

  Must("cp good/* out; pack dev-pki revoke alice --pki pki; pack dev-pki crl --pki pki --out newer.crl");
  EXPECT_THAT(Refused("out --stored-crl newer.crl"), HasSubstr("REFUSED with 50987"));
  Must("diff -r good out");  // the stored list was not put in place of the package's
  Must("inspect out");       // a device that stores no newer list accepts it

  Must("rm out/filelist.crl");
  EXPECT_THAT(Refused("out"), HasSubstr("REFUSED with 50996"));
  EXPECT_THAT(Refused("out --json"),
              AllOf(HasSubstr("\"accepted\":false,\"code\":50996"), HasSubstr("\"state\":\"matches\"")));
}

TEST_F(UpdatePackTest, WhatADeviceStumblesOverIsMadeAndNoted) {
  Must("pack dev-pki signer old --pki pki --expired; printf '#!/bin/sh\\n:\\n' >quiet.sh");
  EXPECT_THAT(Must("key='--key pki/old.key' cert='--cert pki/old.crt' make"),
              HasSubstr("note: the signer's certificate expired"));
  EXPECT_THAT(Refused("out"), HasSubstr("REFUSED with 50987"));
  EXPECT_THAT(Must("script='--script quiet.sh' out='--out silent' make"), HasSubstr("never prints OK"));
  EXPECT_THAT(Must("crl= out='--out bare' make"), HasSubstr("note: no revocation list"));
}

TEST_F(UpdatePackTest, FurtherFilesDigestsAndNamesOfAPackage) {
  dir_.Write("notes.txt", "more");
  Must("make --file notes.txt --name fw-1.2 --list fw.txt --digest sha512");
  EXPECT_EQ(Must("ls out"), "fw-1.2.tar.gz\nfw.cms\nfw.crl\nfw.txt\nnotes.txt\n");
  EXPECT_THAT(Must("cat out/fw.txt"), HasSubstr("FileNum=2\n"));
  EXPECT_THAT(Must("inspect out"), AllOf(HasSubstr("matches  notes.txt"), HasSubstr("(sha512)")));
}

TEST_F(UpdatePackTest, BadInputIsRefusedWithAReasonAndLeavesNothing) {
  Must(
      "pack dev-pki init --out other --name 'other root'; pack dev-pki crl --pki other;"
      "pack dev-pki signer bob --pki pki; mkdir sub many;"
      "touch empty.sh; for f in 'a b.bin' ./-x.bin sub/run.sh run.sh.bin; do echo x >\"$f\"; done;"
      "for n in $(seq 255); do echo x >many/$n; done");
  const struct {
    std::string commands;
    int status;
    const char* says;
  } cases[] = {
      {"key= make", 2, "--key is missing"},
      {"payload= make", 1, "name a payload"},
      {"payload='--payload none' make", 1, "there is no file"},
      {"payload='--payload pki' make", 1, "there is no file"},
      {"payload= make --payload 'a b.bin'", 1, "rename it"},
      {"payload='--payload -x.bin' make", 1, "rename it"},
      {"payload='--payload sub/run.sh' make", 1, "two members"},
      {"payload='--payload run.sh.bin' make", 1, "would take it for the script"},
      {"script='--script empty.sh' make", 1, "is empty"},
      {"make --list " + std::string(129, 'n'), 1, "128 characters"},
      {"make --list x.cms", 1, "two files"},
      {"make --name ../x", 1, "rename it"},
      {"key='--key pki/bob.key' make", 1, "does not belong"},
      {"cert='--cert pki/root.crl' make", 1, "no certificate"},
      {"crl='--crl other/root.crl' make", 1, "not from an issuer"},
      {"crl='--crl pki/root.crt' make", 1, "no revocation list"},
      {"make --digest md5", 1, "--digest is"},
      {"make --ca-type 3", 2, "from 0 to 2"},
      {"out='--out pki' make", 1, "not empty"},
      {"make $(printf -- '--file %s ' many/*)", 1,
       "at most 255 entries"},  // 256 would read as 0 on the device
  };
  const std::string before = Must("find");
  for (const auto& [commands, status, says] : cases) {
    SCOPED_TRACE(commands);
    const CommandResult result = Run(commands);
    EXPECT_EQ(result.status, status) << result.output;
    EXPECT_THAT(result.output, HasSubstr(says));
    EXPECT_EQ(Must("find"), before) << "something was left behind";
  }
}

TEST_F(UpdatePackTest, TheDevelopmentAuthorityKeepsItsKeysAndNumbers) {
  EXPECT_EQ(Must("stat -c %a pki/root.key pki/alice.key"), "600\n600\n");
  EXPECT_THAT(Must("pack dev-pki crl --pki pki"), HasSubstr("list 2 of"));
  EXPECT_THAT(Must("pack dev-pki crl --pki pki --number 1 --this-update 2020-01-31 --next-update "
                   "2020-02-29T12:00:00Z --out early.crl"),
              HasSubstr("list 1 of 2020-01-31 00:00:00"));
  EXPECT_THAT(Must("pack dev-pki crl --pki pki"), HasSubstr("list 3 of"))
      << "an early list turned the count back";
  const struct {
    const char* arguments;
    int status;
  } wrong[] = {
      {"signer alice --pki pki", 1},  // a key would be overwritten
      {"init --out pki", 1},          // and here the root
      {"signer ../x --pki pki", 2},
      {"crl --pki pki --this-update 2031-02-30", 2},
      {"init --out x --root-key pki/alice.key --root-cert pki/root.crt", 1},  // a key that is not the root's
  };
  for (const auto& [arguments, status] : wrong)
    EXPECT_EQ(Run(std::string("pack dev-pki ") + arguments).status, status) << arguments;
}

TEST(UpdatePackUsageTest, WrongUseIsToldOnStandardErrorWithStatus2) {
  for (const char* wrong :
       {"", " bake", " make --bogus", " make extra", " inspect", " inspect a b", " dev-pki", " dev-pki x",
        " inspect /nonexistent", " make --key", " inspect x --json=1"}) {
    const CommandResult result = support::RunShell("/", std::string(UPDATE_PACK) + wrong + " >/dev/null");
    EXPECT_EQ(result.status, 2) << wrong;
    EXPECT_THAT(result.output, HasSubstr("update_pack: ")) << wrong;
  }
  for (const char* command : {"make", "inspect", "dev-pki"})
    EXPECT_THAT(support::RunCommand({UPDATE_PACK, command, "--help"}).output, HasSubstr("Usage: "))
        << command;
}

}  // namespace
