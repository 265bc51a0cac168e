#include <unistd.h>

#include "update/script_exe_common.h"
#include "update/script_run.h"
#include "update_fixture.h"

namespace {

using update_test::ReadFile;
using update_test::Shell;

/// Packages lie in dir_/pkg, their material in dir_/material.
class InnerScriptTest : public update_test::UpdateTest {
 protected:
  InnerScriptTest() { std::filesystem::create_directories(dir_.File("pkg")); }

  /// Makes pkg/`package` of the named files of dir_/material.
  void Pack(const std::string& package, const std::string& names) const {
    Shell("tar -C " + dir_.File("material") + " -czf " + dir_.File("pkg/" + package) + " " + names);
  }
  uint32_t Extract(const std::string& package, const std::string& script) {
    inner_[0] = '\0';
    return GetInnerScript(dir_.File("pkg/" + script).c_str(), dir_.File("pkg/" + package).c_str(), inner_,
                          sizeof(inner_));
  }

  char inner_[256] = {};
};

TEST_F(InnerScriptTest, TheOtherEntryIsTheArgumentAndItsLineEndDropsTheThirdWord) {
  Script("material/run.sh", "echo \"$# $1\" > \"$0.args\"; echo OK");
  dir_.Write("material/payload.bin", "new");
  Pack("p.tar.gz", "payload.bin run.sh");
  ASSERT_EQ(Extract("p.tar.gz", "run.sh"), 0u);
  EXPECT_EQ(inner_, dir_.File("pkg/payload.bin\n"));
  EXPECT_EQ(ReadFile(dir_.File("pkg/payload.bin")), "new");
  EXPECT_EQ(ExeScriptFileCommon(dir_.File("pkg/run.sh").c_str(), inner_, "dropped", 0), 0u);
  EXPECT_EQ(ReadFile(dir_.File("pkg/run.sh.args")), "1 " + dir_.File("pkg/payload.bin\n"));
}

TEST_F(InnerScriptTest, APackageWithoutTheScriptIsNotUnpacked) {
  dir_.Write("material/payload.bin", "new");
  Pack("p.tar.gz", "payload.bin");
  EXPECT_EQ(Extract("p.tar.gz", "run.sh"), 1u);
  EXPECT_FALSE(Exists("pkg/payload.bin"));
  EXPECT_EQ(Logged("script file not exist, 1"), 1u);
}

TEST_F(InnerScriptTest, EveryLineThatHoldsTheScriptsNameUnpacksAgain) {
  Script("material/run.sh", "echo OK");
  dir_.Write("material/run.sh.cfg", "x");
  Pack("p.tar.gz", "run.sh run.sh.cfg");
  EXPECT_EQ(Extract("p.tar.gz", "run.sh"), 0u);
  EXPECT_EQ(Logged("exec tar -zxf"), 2u);
  EXPECT_STREQ(inner_, "") << "an entry whose name holds the script's is no other entry";
}

TEST_F(InnerScriptTest, AnEntryWhosePathDoesNotFitIsCutAndNoOtherEntryTakesItsPlace) {
  Script("material/run.sh", "echo OK");
  dir_.Write("material/a.bin", "x");
  const std::string name(240, 'z');
  dir_.Write("material/" + name, "x");
  Pack("p.tar.gz", "a.bin " + name + " run.sh");
  EXPECT_EQ(Extract("p.tar.gz", "run.sh"), 0u);
  EXPECT_EQ(inner_, dir_.File("pkg/" + name).substr(0, sizeof(inner_) - 1));
  EXPECT_EQ(Logged("sprint bsp err zzz"), 1u);
}

TEST_F(InnerScriptTest, PackagesThatTarOrAShellWouldMisreadAreRefused) {
  Script("material/run.sh", "echo OK");
  Pack("p.tar.gz", "run.sh");
  for (const char* name : {"p;touch x.tar.gz", "$(id).tar.gz", "p\".tar.gz", "../pkg/p.tar.gz"}) {
    EXPECT_NE(Extract(name, "run.sh"), 0u) << name;
  }
  dir_.Write("material/a b.txt", "x");
  Pack("blank.tar.gz", "run.sh 'a b.txt'");
  EXPECT_EQ(Extract("blank.tar.gz", "run.sh"), 1u);
  EXPECT_EQ(Logged("exec "), 0u);
  char inner[256] = {};
  EXPECT_EQ(GetInnerShFile(dir_.path().c_str(), "-", "run.sh", inner, sizeof(inner)), 1u)
      << "tar reads its standard input";
}

}  // namespace
