// Secure boot: lists beside an installed application, flipped, cut and written wrongly.
#include <string_view>

#include "securec.h"
#include "verify/secureboot_verify.h"
#include "verify_fixture.h"

namespace verifytest {
namespace {

class SecureBootTest : public VerifyTest {
 protected:
  SecureBootTest() {
    dir_.Write("app/a", "first");
    dir_.Write("app/b", "second");
  }
  /// Puts list, signature and revocation list of "demo" beside the files.
  void Install(const std::string& list, const std::string& prefix = "") const {
    const std::string stem = "app/" + prefix + "demo_filelist";
    dir_.Write(stem + ".txt", list);
    dir_.Write(stem + ".cms", Text(testpki::Sign(list, pki_.signer)));
    dir_.Write(stem + ".crl", Text(pki_.crl));
  }
  uint32_t Check() const { return CheckOne(nullptr); }
  uint32_t CheckOne(const char* file) const {
    return SecureBootVerifyByPathAndAppName(dir_.File("app").c_str(), "demo", kSecureBootOneFile, file, 0);
  }
  /// Results of modes 0, 2, 3 and 1, as it began.
  std::vector<uint32_t> CheckModes(const char* oneFile) const {
    SIGNATURE_VERIFY_BLOCK_S one, two;
    EXPECT_EQ(MakeSecureBootFullFilePath(one, two, dir_.File("app").c_str(), "demo"), 0u);
    std::vector<uint32_t> codes;
    for (const uint32_t mode : {0u, 2u, 3u, 1u}) {
      SetSecureBootVerifyMode(mode);
      codes.push_back(oneFile != nullptr ? SecureBootVerifyOneFileByMode(one, two, oneFile, 0)
                                         : SecureBootVerifyByMode(one, two, 0));
    }
    return codes;
  }

  const std::string app_ = dir_.File("app/"), fileA_ = app_ + "a";
  const char* const oneA_ = fileA_.c_str();
  const std::string path_ = "FilePath=" + app_ + "\n";
  const std::string a_ = Entry("a", "first") + path_, b_ = Entry("b", "second") + path_;
};

TEST_F(SecureBootTest, AFlippedBitInAnyRegionIsSeen) {
  Install("FileNum=2\n" + a_ + b_);
  ASSERT_EQ(Check(), 0u);
  // With the harmless bytes: a signature's list of algorithms and its version are neither signed nor used.
  const std::pair<const char*, int> files[] = {
      {"app/a", 0}, {"app/demo_filelist.txt", 0}, {"app/demo_filelist.crl", 0}, {"app/demo_filelist.cms", 3}};
  for (const auto& [name, harmless] : files) {
    const std::string good = ReadFile(dir_.File(name));
    int accepted = 0;
    for (size_t at = 0; at < good.size(); at += 1 + good.size() / 61) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ 1 << at % 8);
      dir_.Write(name, bad);
      accepted += Check() == 0 || CheckOne(oneA_) == 0 ? 1 : 0;
    }
    EXPECT_LE(accepted, harmless) << name;
    fs::remove(dir_.File(name));
    EXPECT_TRUE(Check() != 0 && CheckOne(oneA_) != 0) << name << " is missing";
    dir_.Write(name, good);
  }
}

TEST_F(SecureBootTest, KeysOfAListAreTakenFromTheirOwnEntryAlone) {
  const std::string name = "FileName=a\n", full = Entry(fileA_, "first"), wrong = Entry("a", "other");
  const std::string digest = full.substr(full.find('\n') + 1), other = wrong + path_;
  const std::string no = "ForceVerify=0\n", blanks(160, ' '), longPath = std::string(129, 'p') + "\n";
  const std::tuple<const char*, std::string, uint32_t> cases[] = {
      {"any order behind the name", "FileNum=1\n" + name + path_ + digest, 0},
      {"the path of the next entry", "FileNum=2\n" + full + b_, 0},
      {"no count", a_, 50989},
      {"an entry too many on a long line", "FileNum=1\n" + a_ + blanks + b_, 50995},
      {"an entry too few", "FileNum=3\n" + a_ + b_, 50990},
      {"name of 129 characters", "FileNum=1\n" + Entry(std::string(129, 'n'), ""), 50990},
      {"digest before its name", "FileNum=1\n" + digest + name + path_, 50991},
      {"the digest of the next entry", "FileNum=2\n" + name + path_ + full, 50991},
      {"doubled digest, the first is wrong", "FileNum=1\n" + wrong + digest + path_, 50994},
      {"path of 129 characters", "FileNum=1\n" + full + "FilePath=" + longPath, 17673},
      {"path on a line that is too long", "FileNum=1\n" + full + blanks + path_, 17673},
      {"not forced", "FileNum=1\n" + other + no, 0},
      {"forced by the first of two", "FileNum=1\n" + other + "ForceVerify=1\n" + no, 50994},
      {"00 is forced", "FileNum=1\n" + other + "ForceVerify=00\n", 50994},
      {"the next entry's switch", "FileNum=2\n" + other + b_ + no, 50994},
      {"a switch before its entry", "FileNum=1\n" + no + other, 50994},
      {"not forced, but not there", "FileNum=1\n" + Entry("gone", "") + path_ + no, 50955},
      {"not forced, but a directory", "FileNum=1\n" + Entry(".", "") + path_ + no, 50956},
  };
  for (const auto& [what, text, code] : cases)
    EXPECT_EQ(VerifyFileHashInfFilelist(dir_.Write("list", text).c_str(), 0), code) << what;
  EXPECT_EQ(VerifyFileHashInfFilelist(dir_.path().c_str(), 0), 51001u);
}

TEST_F(SecureBootTest, AFileThatIsNotForcedIsNamedAndTheRestIsChecked) {
  Install("FileNum=2\n" + Entry("a", "changed") + path_ + "ForceVerify=0\n" + b_);
  EXPECT_EQ(Check(), 0u);
  EXPECT_EQ(CheckOne(oneA_), 50994u) << "kept: one file alone is always forced";
  const auto lines = log_.Lines();
  for (const char* end : {"a hash verify err 50994, config to ignore this file", "b hash verify 0"})
    EXPECT_THAT(lines, Contains(app_ + end));
  EXPECT_THAT(lines, Contains("s " + app_ + "a hash verify err 50994"));
}

TEST_F(SecureBootTest, AModeSelectsItsListsAndTheFirstFailureEnds) {
  using Codes = std::vector<uint32_t>;
  Install("FileNum=1\n" + a_);
  Install("FileNum=1\n" + b_, "gst_");
  EXPECT_EQ(CheckModes(nullptr), (Codes{0, 0, 0, 0}));
  EXPECT_EQ(CheckModes(oneA_), (Codes{0, 51000, 51000, 0}));
  dir_.Write("app/b", "changed");
  EXPECT_EQ(CheckModes(nullptr), (Codes{0, 50994, 50994, 0}));
}

TEST_F(SecureBootTest, OneFileIsComparedBeforeTheSignatureIsAsked) {
  Install("FileNum=2\n" + a_ + b_);
  dir_.Write("app/b", "changed");
  EXPECT_EQ(CheckOne(oneA_), 0u) << "another file does not matter";
  dir_.Write("app/demo_filelist.cms", "no signature");
  EXPECT_EQ(CheckOne(oneA_), 50987u);
  EXPECT_EQ(CheckOne("a"), 51000u) << "the list is read first, and a file is named with its path";
  EXPECT_EQ(CheckOne((app_ + "b").c_str()), 50994u);
  EXPECT_EQ(Check(), 50987u) << "the other way round for all files";
}

TEST_F(SecureBootTest, HooksChangeBlockAndPathsForEveryStepOrRefuse) {
  Install("FileNum=1\n" + Entry("a", "other") + path_);
  Install("FileNum=1\n" + Entry("a", "first") + "FilePath=here\n", "gst_");
  SetSecureBootMultiSign([](SIGNATURE_VERIFY_BLOCK_S& block) {
    const std::string list = block.contentPath, directory = list.substr(0, list.rfind('/'));
    return MakeSecureBootFullFilePathByMode(block, directory.c_str(), "demo", kSecureBootMode2);
  });
  SetSecureBootAdjustPath([](const char* list, uint32_t adjust, char* path, size_t size) {
    const std::string_view text = list;
    if (adjust != 0 || std::string_view(path) != "here") return 7u;
    return static_cast<uint32_t>(strncpy_s(path, size, list, text.rfind('/') + 1));
  });
  const auto expectBoth = [&](uint32_t code, const char* why) {
    EXPECT_EQ(Check(), code) << why;
    EXPECT_EQ(CheckOne(oneA_), code) << why;
  };
  expectBoth(0, "the caller's list was looked at");
  EXPECT_EQ(VerifyFileHashInfFilelist((app_ + "gst_demo_filelist.txt").c_str(), 1), 7u);
  dir_.Write("app/gst_demo_filelist.cms", "no signature");
  expectBoth(50987, "the caller's signature was looked at");
  SetSecureBootMultiSign([](SIGNATURE_VERIFY_BLOCK_S&) { return 8u; });
  expectBoth(8, "a refusal was passed over");
  SetSecureBootMultiSign(nullptr);
  SetSecureBootAdjustPath(nullptr);
}

}  // namespace
}  // namespace verifytest
