#include "update/script_exe_common.h"
#include "update/script_run.h"
#include "update_fixture.h"

namespace {

/// Packages lie in dir_/pkg, their material in dir_/material.
class InnerScriptTest : public update_test::UpdateTest {
 protected:
  InnerScriptTest() {
    std::filesystem::create_directories(dir_.File("pkg"));
    Script("material/run.sh", "echo \"$# $1\" > \"$0.args\"; echo OK");
  }

  /// Makes pkg/`package` of the named files of dir_/material.
  void Pack(const std::string& package, const std::string& names) const {
    update_test::Shell("tar -C " + dir_.File("material") + " -czf " + dir_.File("pkg/" + package) + " " +
                       names);
  }
  uint32_t Extract(const std::string& package) {
    inner_[0] = '\0';
    return GetInnerScript(dir_.File("pkg/run.sh").c_str(), dir_.File("pkg/" + package).c_str(), inner_,
                          sizeof(inner_));
  }

  char inner_[256] = {};
};

TEST_F(InnerScriptTest, TheOtherEntryIsTheArgumentAndItsLineEndDropsTheThirdWord) {
  dir_.Write("material/payload.bin", "new");
  Pack("p.tar.gz", "payload.bin run.sh");
  ASSERT_EQ(Extract("p.tar.gz"), 0u);
  EXPECT_EQ(inner_, dir_.File("pkg/payload.bin\n"));
  EXPECT_EQ(Read("pkg/payload.bin"), "new");
  EXPECT_EQ(ExeScriptFileCommon(dir_.File("pkg/run.sh").c_str(), inner_, "dropped", 0), 0u);
  EXPECT_EQ(Read("pkg/run.sh.args"), "1 " + dir_.File("pkg/payload.bin\n"));
}

TEST_F(InnerScriptTest, EveryLineThatHoldsTheScriptsNameUnpacksAgainAndNoOtherDoes) {
  dir_.Write("material/run.sh.cfg", "x");
  dir_.Write("material/payload.bin", "x");
  Pack("without.tar.gz", "payload.bin");
  EXPECT_EQ(Extract("without.tar.gz"), 1u);
  EXPECT_FALSE(Exists("pkg/payload.bin"));
  Pack("p.tar.gz", "run.sh run.sh.cfg");
  EXPECT_EQ(Extract("p.tar.gz"), 0u);
  EXPECT_EQ(Logged("exec tar -zxf"), 2);
  EXPECT_STREQ(inner_, "") << "an entry whose name holds the script's is no other entry";
}

TEST_F(InnerScriptTest, AnEntryWhosePathDoesNotFitIsCutAndNoOtherEntryTakesItsPlace) {
  dir_.Write("material/a.bin", "x");
  const std::string name(240, 'z');
  dir_.Write("material/" + name, "x");
  Pack("p.tar.gz", "a.bin " + name + " run.sh");
  EXPECT_EQ(Extract("p.tar.gz"), 0u);
  EXPECT_EQ(inner_, dir_.File("pkg/" + name).substr(0, sizeof(inner_) - 1));
}

TEST_F(InnerScriptTest, PackagesThatTarOrAShellWouldMisreadAreRefused) {
  dir_.Write("material/a b.txt", "x");
  Pack("p.tar.gz", "run.sh");
  Pack("blank.tar.gz", "run.sh 'a b.txt'");
  for (const char* name :
       {"p;touch x.tar.gz", "$(id).tar.gz", "p\".tar.gz", "../pkg/p.tar.gz", "blank.tar.gz"}) {
    EXPECT_EQ(Extract(name), 1u) << name;
  }
  EXPECT_EQ(Logged("exec "), 0);
  EXPECT_EQ(GetInnerShFile(dir_.path().c_str(), "-", "run.sh", inner_, sizeof(inner_)), 1u)
      << "tar reads its standard input";
}

}  // namespace
