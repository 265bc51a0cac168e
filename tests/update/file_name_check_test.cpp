// Packages are real archives, listed by the machine's own tar and unzip; where a listing must be of a kind
// that no archive of a test's size has, a stand-in tool on the path prints it.
#include "update/file_name_check.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "base/result_codes.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

class PackageTest : public testing::Test {
 protected:
  PackageTest() : path_(getenv("PATH")) { setenv("LC_ALL", "C", 1); }
  ~PackageTest() override { setenv("PATH", path_.c_str(), 1); }

  /// A package `name`, a zip where it ends so, of one file called `member`; whatever lies in dir_/in goes
  /// with it.
  std::string Pack(const std::string& name, const std::string& member) {
    dir_.Write("in/" + member, "four");
    const std::string tool = name.ends_with(".zip") ? "zip -qr '" : "tar -czf '";
    const std::string command =
        "cd '" + dir_.File("in") + "' && " + tool + dir_.File(name) + "' -- *; rm -rf *";
    EXPECT_EQ(system(command.c_str()), 0);
    return dir_.File(name);
  }
  /// Puts a tool before the real one that prints `text`, whatever it is asked.
  void StandIn(const std::string& tool, const std::string& text) {
    const std::string file = dir_.Write("bin/" + tool, "#!/bin/sh\ncat <<'.'\n" + text + ".\n");
    chmod(file.c_str(), 0755);
    setenv("PATH", (dir_.File("bin") + ":" + path_).c_str(), 1);
  }
  uint32_t Check(const std::string& package) { return CheckFileNameInCompressedPackage(package.c_str()); }

  std::string path_;
  support::TempDir dir_;
  support::LogCapture log_;
};

TEST(FileNameTest, ForbiddenCharactersAndClimbingAreRefusedWithinTheLength) {
  for (const char letter : std::string("<>;:?*\"'&|%`$\\!\n")) {
    const std::string name = std::string("ab") + letter;
    EXPECT_EQ(CheckFileNameSpecialChar(name.c_str(), 3, nullptr, false), 1u) << name;
    EXPECT_EQ(CheckFileNameSpecialChar(name.c_str(), 2, nullptr, false), 0u) << "read beyond the length";
  }
  EXPECT_EQ(CheckFileNameSpecialChar("/a b/c", 100, nullptr, true), 0u)
      << "the terminator is no forbidden character";
  EXPECT_EQ(CheckFileNameSpecialChar("/a;c", 4, "b", false), 0u) << "another set was asked for";
  EXPECT_EQ(CheckFileNameSpecialChar("a/../b", 6, nullptr, true), 1u);
  EXPECT_EQ(CheckFileNameSpecialChar("a/../b", 6, nullptr, false), 0u);
}

TEST(FileNameTest, OneListedLineIsJudgedByItsBaseName) {
  const auto check = [](std::string line) {
    return CheckOneFileName(line.data(), static_cast<uint32_t>(line.size() + 1));
  };
  for (const char* text : {"./\n", ".\n", "./bin/run.sh\n", "bin/\n", "lib/x.so", "a;b/x.so", "", "d\\x.txt"})
    EXPECT_EQ(check(text), 0u) << text;
  for (const char* text : {"a b.txt\n", "b;n/\n", "../\n", "a./\n", "d/e\\f/", "lib/x$.so", "x/\xC3\xA4"})
    EXPECT_EQ(check(text), 1u) << text;
  EXPECT_STREQ(GetAndCheckFileName("a/b/"), "a/b/") << "a folder is judged and given back whole";
}

TEST_F(PackageTest, MemberNamesOfArchivesDecide) {
  for (const char* package : {"good.tar.gz", "with space.tar.gz", "good.zip"})
    for (const char* member : {"bin/run-1_2.sh", "d r/x.so"})
      EXPECT_EQ(Check(Pack(package, member)), 0u) << package << " with " << member;
  EXPECT_THAT(log_.Lines(), Contains("unzip cmd:unzip -Z1 " + dir_.File("good.zip")));
  // A path that the shell splits gives an empty listing, and so does a tar that is listed as a zip.
  for (const char* package :
       {"bad.tar.gz", "with space.tar.gz", "bad.zip", "with space.zip", "pkg.zip.tar.gz"})
    EXPECT_EQ(Check(Pack(package, "a b.txt")), 1u) << package;
  // tar escapes the first two; of the third only a later piece is bad.
  for (const std::string& member : {std::string("a\nb"), std::string("\xC3\xA4/x.so"),
                                    std::string(200, 'd') + "/" + std::string(80, 'f') + ";"})
    EXPECT_EQ(Check(Pack("bad.tar.gz", member)), 1u) << member;

  struct sigaction endsReads = {};
  endsReads.sa_handler = [](int) {};
  sigaction(SIGUSR1, &endsReads, nullptr);
  const std::string pid = std::to_string(getpid());
  StandIn("tar", "ok\n.\nuntil grep -q State:.S /proc/" + pid + "/status; do :; done\nkill -USR1 " + pid +
                     "\nsleep 0.1\ncat <<'.'\nb;d\n");
  EXPECT_EQ(Check("x.tar.gz"), 1u) << "the rest of an interrupted listing was not looked at";
}

TEST_F(PackageTest, PathsDecideBeforeAnythingIsListed) {
  EXPECT_EQ(Check(dir_.File("x.rpm")), 0u) << "kept: an unknown kind is not examined";
  EXPECT_EQ(Check("--use-compress-program=x.tar.gz"), 1u) << "the path would be an option";
  const std::string suffix = ".tar.gz";
  const size_t fits = 256 - strlen("tar -ztf \"\"") - suffix.size();
  EXPECT_EQ(Check(std::string(fits, 'x') + suffix), 0u);
  EXPECT_EQ(Check(std::string(fits + 1, 'x') + suffix), kErrFormat);

  StandIn("unzip", "usage: unzip without bare names\n");
  EXPECT_EQ(Check(Pack("good.zip", "run.sh")), 1u) << "kept: a long listing is refused";
  EXPECT_THAT(log_.Lines(), ElementsAre("unzip cmd:unzip -lq " + dir_.File("good.zip")));
}

TEST_F(PackageTest, TarSizeIsTheSumOfWhatIsListed) {
  uint32_t size = 7;
  dir_.Write("in/second", std::string(96, 'x'));
  const std::string package = Pack("two.tar.gz", "first");
  EXPECT_EQ(GetTarPackFileSize(package.c_str(), size), 0u);
  EXPECT_EQ(size, 100u);
  EXPECT_THAT(log_.Lines(), ElementsAre("cmd:tar -ztvf \"" + package + "\"|awk '{print $3}'"));

  std::string many;
  for (int i = 0; i < 42; ++i) many += "m o 99999999 n\n";
  StandIn("tar", many);
  EXPECT_EQ(GetTarPackFileSize("x.tar.gz", size), 0u);
  EXPECT_EQ(size, 4'199'999'958u);
  const std::string abnormal[] = {many + "m o 99999999 n\n",  // the sum leaves 32 bits
                                  "m o 100000000 n\n",
                                  "m o 5 n\nm o -5 n\n",
                                  "m o 0 n\nm o 0 n\n",
                                  "c o 1,3 n\nm o 5 n\n",  // a device
                                  ""};
  for (const std::string& listing : abnormal) {
    StandIn("tar", listing);
    EXPECT_EQ(GetTarPackFileSize("x.tar.gz", size), 1u) << listing;
    EXPECT_EQ(log_.Lines().back(), "file abnormal") << listing;
  }
  EXPECT_EQ(GetTarPackFileSize("x\"; touch y.tar.gz", size), 1u) << "the path reached the shell as a command";
}

TEST_F(PackageTest, ZipSizeIsTheLastLineOfTheListing) {
  uint32_t size = 0;
  dir_.Write("in/second", "four");
  EXPECT_EQ(GetZipPackFileSize(Pack("two.zip", "first").c_str(), size), 0u);
  EXPECT_EQ(size, 8u);
  for (const char* total : {"0 files\n", "-1 files\n", "123456789 files\n", "Archive: x\n", ""}) {
    StandIn("unzip", std::string("5 first\n") + total);
    EXPECT_EQ(GetZipPackFileSize("x.zip", size), *total == '\0' ? 0u : 1u) << total;
  }
}

TEST_F(PackageTest, UnpackingMustLeaveATenthOfTheMemory) {
  EXPECT_EQ(IsMemFreeSpaceEnough(100'000, 50'000, 40'000, 10), 1u);
  EXPECT_EQ(IsMemFreeSpaceEnough(100'000, 50'000, 39'999, 10), 0u);
  EXPECT_EQ(IsMemFreeSpaceEnough(100'000, 5, 6, 0), 1u) << "what would stay free must not wrap";
  EXPECT_EQ(IsMemFreeSpaceEnough(4'000'000'000u, 300'000'000, 0, 10), 1u) << "the percentage must not wrap";
  EXPECT_EQ(IsMemFreeSpaceEnough(0, 5, 6, 10), 0u) << "kept: unknown figures are enough";
  EXPECT_EQ(log_.Lines()[0], "flash:100000,50000,40000,10");

  EXPECT_FALSE(TOLA_IsEnoughRamToDecompressPackage("x.rpm"))
      << "kept: refused here, accepted by the name check";
  log_.Clear();
  EXPECT_FALSE(TOLA_IsEnoughRamToDecompressPackage(dir_.Write("not.tar.gz", "no archive").c_str()));
  EXPECT_THAT(log_.Lines(),
              ElementsAre(StartsWith("cmd:"), "file abnormal", "file len:0 B", "release pack unsafe"));
}

}  // namespace
