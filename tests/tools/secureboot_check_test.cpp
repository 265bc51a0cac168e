// Lists made by the package tool and checked by the secure-boot tool, both as their users run them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class SecureBootToolTest : public ::testing::Test {
 protected:
  SecureBootToolTest() {
    Must({UPDATE_PACK, "dev-pki", "init", "--out", Pki()});
    Must({UPDATE_PACK, "dev-pki", "signer", "alice", "--pki", Pki()});
    Must({UPDATE_PACK, "dev-pki", "crl", "--pki", Pki()});
    for (const char* name : {"app", "app/lib"}) EXPECT_EQ(mkdir(dir_.File(name).c_str(), 0755), 0);
    dir_.Write("app/run", "program");
    dir_.Write("app/lib/part.so", "library");
    dir_.Write("app/settings", "default");
  }

  static void Must(const std::vector<std::string>& command) {
    const support::CommandResult result = support::RunCommand(command);
    EXPECT_EQ(result.status, 0) << result.output;
  }
  std::string Pki(const std::string& name = "") const {
    return dir_.File("pki" + (name.empty() ? "" : "/" + name));
  }

  support::CommandResult List(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> command = {UPDATE_PACK,      "secure-boot", dir_.File("app"), "--app",
                                        "demo",           "--key",       Pki("alice.key"), "--cert",
                                        Pki("alice.crt"), "--crl",       Pki("root.crl")};
    command.insert(command.end(), more.begin(), more.end());
    return support::RunCommand(command);
  }
  support::CommandResult Check(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> command = {SECUREBOOT_CHECK, dir_.File("app"), "demo", "--root",
                                        Pki("root.crt")};
    command.insert(command.end(), more.begin(), more.end());
    return support::RunCommand(command);
  }

  support::TempDir dir_;
};

TEST_F(SecureBootToolTest, WhatIsListedIsGenuineUntilAFileChanges) {
  ASSERT_EQ(List({"--loose", "settings"}).status, 0);
  ASSERT_EQ(List({"--loose", "settings"}).status, 0) << "the lists are not listed";
  support::CommandResult result = Check();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_THAT(result.output, AllOf(HasSubstr("GENUINE"), HasSubstr("3 of 3 files as listed")));

  dir_.Write("app/settings", "mine");
  result = Check();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr(dir_.File("app/settings") + ": differs, not forced"));
  dir_.Write("app/lib/part.so", "another");
  result = Check();
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output, AllOf(HasSubstr("REFUSED with 50994: a listed file has changed"),
                                   HasSubstr(dir_.File("app/lib/part.so") + ": differs\n"),
                                   HasSubstr("1 of 3 files as listed")));
  EXPECT_EQ(Check({"--file", dir_.File("app/run")}).status, 0) << "another file does not matter";
  EXPECT_THAT(Check({"--file", "run"}).output, HasSubstr("REFUSED with 51000: the file is not listed"));
  ASSERT_EQ(unlink(dir_.File("app/lib/part.so").c_str()), 0);
  result = Check({"--json"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("{\"genuine\":false,\"lists\":[{\"mode\":1,"), HasSubstr("\"code\":50955,"),
                    HasSubstr("part.so\",\"state\":\"unreadable\"")));
}

TEST_F(SecureBootToolTest, EveryFamilyOfAModeIsChecked) {
  ASSERT_EQ(List().status, 0);
  EXPECT_EQ(Check({"--mode", "3"}).status, 1);
  EXPECT_THAT(Check({"--mode", "2"}).output, HasSubstr("gst_demo_filelist.txt: REFUSED with 50985"));
  ASSERT_EQ(List({"--mode", "2"}).status, 0);
  const support::CommandResult both = Check({"--mode", "3"});
  EXPECT_EQ(both.status, 0) << both.output;
  EXPECT_THAT(both.output, AllOf(HasSubstr("mode 1, "), HasSubstr("mode 2, ")));
  const support::CommandResult foreign = support::RunCommand({SECUREBOOT_CHECK, dir_.File("app"), "demo"});
  EXPECT_EQ(foreign.status, 1) << "this build's own root did not issue the signer";
}

TEST_F(SecureBootToolTest, ListsAreMadeForTheDeviceOrNotAtAll) {
  ASSERT_EQ(List({"--installed-at", "/app_run/demo/"}).status, 0);
  EXPECT_THAT(Check().output,
              AllOf(HasSubstr("/app_run/demo/lib/part.so: unreadable"), HasSubstr("REFUSED with 50955")));
  EXPECT_THAT(List({"--loose", "none"}).output, HasSubstr("--loose none is no file below"));
  EXPECT_EQ(List({"--mode", "3"}).status, 2);
  EXPECT_THAT(List({"--installed-at", "/" + std::string(128, 'd')}).output,
              HasSubstr("at most 128 characters"));
  dir_.Write("app/two\nlines", "x");
  const support::CommandResult refused = List();
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.output, HasSubstr("cannot stand in a list"));
  for (const std::vector<std::string>& wrong :
       {std::vector<std::string>{"--mode", "4"}, {"--mode", "0"}, {"more"}, {"--root", "/none"}}) {
    EXPECT_EQ(Check(wrong).status, 2);
  }
}

}  // namespace
