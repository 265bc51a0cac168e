// Lists made by the package tool and checked by the secure-boot tool, both as their users run them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using Words = std::vector<std::string>;

class SecureBootToolTest : public ::testing::Test {
 protected:
  SecureBootToolTest() {
    const std::string pki = dir_.File("pki");
    for (const Words& make :
         {Words{"init", "--out", pki}, {"signer", "alice", "--pki", pki}, {"crl", "--pki", pki}}) {
      EXPECT_EQ(Run({UPDATE_PACK, "dev-pki"}, make).status, 0);
    }
    for (const char* name : {"app", "app/lib"}) EXPECT_EQ(mkdir(dir_.File(name).c_str(), 0755), 0);
    for (const char* name : {"app/run", "app/lib/part.so", "app/settings"}) dir_.Write(name, "content");
  }
  static support::CommandResult Run(Words command, const Words& more) {
    command.insert(command.end(), more.begin(), more.end());
    return support::RunCommand(command);
  }
  support::CommandResult List(const Words& more = {}) const {
    const std::string pki = dir_.File("pki/");
    return Run({UPDATE_PACK, "secure-boot", dir_.File("app"), "--app", "demo", "--key", pki + "alice.key",
                "--cert", pki + "alice.crt", "--crl", pki + "root.crl"},
               more);
  }
  support::CommandResult Check(const Words& more = {}) const {
    return Run({SECUREBOOT_CHECK, dir_.File("app"), "demo", "--root", dir_.File("pki/root.crt")}, more);
  }

  support::TempDir dir_;
};

TEST_F(SecureBootToolTest, WhatIsListedIsGenuineUntilAFileChanges) {
  for (int round = 0; round < 2; ++round) ASSERT_EQ(List({"--loose", "settings"}).status, 0);
  EXPECT_THAT(Check().output, AllOf(HasSubstr("GENUINE"), HasSubstr("3 of 3 files"))) << "a list was listed";
  dir_.Write("app/settings", "mine");
  const support::CommandResult loose = Check();
  EXPECT_EQ(loose.status, 0);
  EXPECT_THAT(loose.output, HasSubstr(dir_.File("app/settings") + ": differs, not forced"));
  dir_.Write("app/lib/part.so", "another");
  EXPECT_THAT(Check().output, AllOf(HasSubstr("REFUSED with 50994: a listed file has changed"),
                                    HasSubstr(dir_.File("app/lib/part.so") + ": differs\n")));
  EXPECT_EQ(Check({"--file", dir_.File("app/run")}).status, 0) << "another file does not matter";
  EXPECT_THAT(Check({"--file", "run"}).output, HasSubstr("REFUSED with 51000: the file is not listed"));
  ASSERT_EQ(unlink(dir_.File("app/lib/part.so").c_str()), 0);
  const support::CommandResult json = Check({"--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.output,
              AllOf(HasSubstr("{\"genuine\":false,\"lists\":[{\"mode\":1,"), HasSubstr("\"code\":50955,"),
                    HasSubstr("part.so\",\"state\":\"unreadable\"")));
}

TEST_F(SecureBootToolTest, EveryFamilyOfAModeIsChecked) {
  ASSERT_EQ(List().status, 0);
  EXPECT_EQ(Check({"--mode", "3"}).status, 1);
  ASSERT_EQ(List({"--mode", "2"}).status, 0);
  const support::CommandResult both = Check({"--mode", "3"});
  EXPECT_EQ(both.status, 0);
  EXPECT_THAT(both.output, AllOf(HasSubstr("mode 1, "), HasSubstr("/gst_demo_filelist.txt: GENUINE")));
  EXPECT_EQ(Run({SECUREBOOT_CHECK, dir_.File("app"), "demo"}, {}).status, 1)
      << "this build's root is another";
}

TEST_F(SecureBootToolTest, ListsAreMadeForTheDeviceOrNotAtAll) {
  ASSERT_EQ(List({"--installed-at", "/app_run/demo/"}).status, 0);
  EXPECT_THAT(Check().output, HasSubstr("/app_run/demo/lib/part.so: unreadable"));
  EXPECT_THAT(List({"--loose", "none"}).output, HasSubstr("--loose none is no file below"));
  EXPECT_THAT(List({"--installed-at", "/" + std::string(128, 'd')}).output,
              HasSubstr("at most 128 characters"));
  dir_.Write("app/two\nlines", "x");
  EXPECT_THAT(List().output, HasSubstr("cannot stand in a list"));
  for (const Words& wrong : {Words{"--mode", "4"}, {"more"}, {"--root", "/none"}})
    EXPECT_EQ(Check(wrong).status, 2);
}

}  // namespace
