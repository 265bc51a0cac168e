// Lists made by the package tool and checked by the secure-boot tool, both as their users run them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/command.h"
#include "support/temp_dir.h"

namespace {

using support::CommandResult;
using ::testing::AllOf;
using ::testing::HasSubstr;

class SecureBootToolTest : public ::testing::Test {
 protected:
  SecureBootToolTest() {
    const CommandResult made = Run(
        "for make in 'init --out pki' 'signer alice --pki pki' 'crl --pki pki'; do pack dev-pki $make; done;"
        "mkdir -p app/lib; for file in run lib/part.so settings; do printf content >app/$file; done");
    EXPECT_EQ(made.status, 0) << made.output;
  }
  CommandResult Run(const std::string& commands) const {
    return support::RunShell(dir_.path(), "pack() { " UPDATE_PACK " \"$@\"; }; " + commands);
  }
  CommandResult List(const std::string& more = "") const {
    return Run(
        "pack secure-boot app --app demo --key pki/alice.key --cert pki/alice.crt --crl pki/root.crl " +
        more);
  }
  CommandResult Check(const std::string& more = "") const {
    return Run(SECUREBOOT_CHECK " " + dir_.File("app") + " demo --root pki/root.crt " + more);
  }

  support::TempDir dir_;
};

TEST_F(SecureBootToolTest, WhatIsListedIsGenuineUntilAFileChanges) {
  for (int round = 0; round < 2; ++round) ASSERT_EQ(List("--loose settings").status, 0);
  EXPECT_THAT(Check().output, AllOf(HasSubstr("GENUINE"), HasSubstr("3 of 3 files"))) << "a list was listed";
  dir_.Write("app/settings", "mine");
  const CommandResult loose = Check();
  EXPECT_EQ(loose.status, 0);
  EXPECT_THAT(loose.output, HasSubstr(dir_.File("app/settings") + ": differs, not forced"));
  dir_.Write("app/lib/part.so", "another");
  EXPECT_THAT(Check().output, AllOf(HasSubstr("REFUSED with 50994: a listed file has changed"),
                                    HasSubstr(dir_.File("app/lib/part.so") + ": differs\n")));
  EXPECT_EQ(Check("--file " + dir_.File("app/run")).status, 0) << "another file does not matter";
  EXPECT_THAT(Check("--file run").output, HasSubstr("REFUSED with 51000: the file is not listed"));
  const CommandResult json =
      Run("rm app/lib/part.so; " SECUREBOOT_CHECK " app demo --root pki/root.crt --json");
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.output,
              AllOf(HasSubstr("{\"genuine\":false,\"lists\":[{\"mode\":1,"), HasSubstr("\"code\":50955,"),
                    HasSubstr("part.so\",\"state\":\"unreadable\"")));
}

TEST_F(SecureBootToolTest, EveryFamilyOfAModeIsChecked) {
  ASSERT_EQ(List().status, 0);
  EXPECT_EQ(Check("--mode 3").status, 1);
  ASSERT_EQ(List("--mode 2").status, 0);
  const CommandResult both = Check("--mode 3");
  EXPECT_EQ(both.status, 0);
  EXPECT_THAT(both.output, AllOf(HasSubstr("mode 1, "), HasSubstr("/gst_demo_filelist.txt: GENUINE")));
  EXPECT_EQ(Run(SECUREBOOT_CHECK " app demo").status, 1) << "this build's root is another";
  for (const char* wrong : {"--mode 4", "more", "--root /none"}) EXPECT_EQ(Check(wrong).status, 2) << wrong;
}

TEST_F(SecureBootToolTest, ListsAreMadeForTheDeviceOrNotAtAll) {
  ASSERT_EQ(List("--installed-at /app_run/demo/").status, 0);
  EXPECT_THAT(Check().output, HasSubstr("/app_run/demo/lib/part.so: unreadable"));
  EXPECT_THAT(List("--loose none").output, HasSubstr("--loose none is no file below"));
  EXPECT_THAT(List("--installed-at /" + std::string(128, 'd')).output, HasSubstr("at most 128 characters"));
  dir_.Write("app/two\nlines", "x");
  EXPECT_THAT(List().output, HasSubstr("cannot stand in a list"));
}

}  // namespace
