// Secure boot: lists beside an installed application, flipped, cut and written wrongly.
#include <string_view>

#include "securec.h"
#include "verify/secureboot_verify.h"
#include "verify_fixture.h"

namespace verifytest {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

class SecureBootTest : public VerifyTest {
 protected:
  SecureBootTest() {
    TOLA_CHECK(mkdir(app_.c_str(), 0700) == 0);
    testpki::WriteFile(app_ + "a", "first");
    testpki::WriteFile(app_ + "b", "second");
  }
  /// Puts list, signature and revocation list of "demo" beside the files.
  void Install(const std::string& list, const std::string& prefix = "") const {
    const std::string stem = app_ + prefix + "demo_filelist";
    testpki::WriteFile(stem + ".txt", list);
    testpki::WriteFile(stem + ".cms", testpki::Sign(list, pki_.signer));
    testpki::WriteFile(stem + ".crl", pki_.crl);
  }
  uint32_t Check(const std::string& oneFile = "") const {
    return SecureBootVerifyByPathAndAppName(dir_.File("app").c_str(), "demo", kSecureBootOneFile,
                                            oneFile.empty() ? nullptr : oneFile.c_str(), 0);
  }
  /// Results of modes 0 to 3.
  std::vector<uint32_t> CheckModes(const char* oneFile = nullptr) const {
    SIGNATURE_VERIFY_BLOCK_S one, two;
    EXPECT_EQ(MakeSecureBootFullFilePath(one, two, dir_.File("app").c_str(), "demo"), 0u);
    std::vector<uint32_t> codes;
    for (const uint32_t mode : {0u, 2u, 3u, 1u}) {  // ends as it began
      SetSecureBootVerifyMode(mode);
      codes.push_back(oneFile != nullptr ? SecureBootVerifyOneFileByMode(one, two, oneFile, 0)
                                         : SecureBootVerifyByMode(one, two, 0));
    }
    return codes;
  }

  const std::string app_ = dir_.File("app/");
  const std::string path_ = "FilePath=" + app_ + "\n";
  const std::string a_ = Entry("a", "first") + path_, b_ = Entry("b", "second") + path_;
};

TEST_F(SecureBootTest, AFlippedBitInAnyRegionIsSeen) {
  Install("FileNum=2\n" + a_ + b_);
  ASSERT_EQ(Check(), 0u);
  // With the harmless bytes: a signature's list of algorithms and its version are neither signed nor used.
  const std::pair<std::string, uint32_t> files[] = {
      {"a", 0}, {"demo_filelist.txt", 0}, {"demo_filelist.crl", 0}, {"demo_filelist.cms", 3}};
  for (const auto& [name, harmless] : files) {
    const std::string file = app_ + name, good = ReadFile(file);
    uint32_t accepted = 0;
    for (size_t at = 0; at < good.size(); at += 1 + good.size() / 61) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ 1 << at % 8);
      testpki::WriteFile(file, bad);
      const uint32_t all = Check();
      EXPECT_EQ(Check(app_ + "a") == 0, all == 0) << name << " byte " << at;
      if (all == 0) ++accepted;
    }
    EXPECT_LE(accepted, harmless) << name;
    ASSERT_EQ(unlink(file.c_str()), 0);
    EXPECT_TRUE(Check() != 0 && Check(app_ + "a") != 0) << name << " is missing";
    testpki::WriteFile(file, good);
  }
}

TEST_F(SecureBootTest, KeysOfAListAreTakenFromTheirOwnEntryAlone) {
  const std::string name = "FileName=a\n", full = Entry(app_ + "a", "first"), wrong = Entry("a", "other");
  const std::string digest = full.substr(full.find('\n') + 1), other = wrong.substr(wrong.find('\n') + 1);
  const std::string no = "ForceVerify=0\n", blanks(160, ' ');
  const std::tuple<const char*, std::string, uint32_t> cases[] = {
      {"any order behind the name", "FileNum=1\n" + name + path_ + digest, 0},
      {"the path of the next entry", "FileNum=2\n" + full + b_, 0},
      {"no count", a_, 50989},
      {"257 reads as 1", "FileNum=257\n" + a_ + b_, 50995},
      {"an entry too many on a long line", "FileNum=1\n" + a_ + blanks + b_, 50995},
      {"an entry too few", "FileNum=3\n" + a_ + b_, 50990},
      {"name of 129 characters", "FileNum=1\n" + Entry(std::string(129, 'n'), ""), 50990},
      {"digest before its name", "FileNum=1\n" + digest + name + path_, 50991},
      {"the digest of the next entry", "FileNum=2\n" + name + path_ + full, 50991},
      {"doubled name", "FileNum=1\n" + name + full, 50991},
      {"doubled digest, the first is wrong", "FileNum=1\n" + wrong + digest + path_, 50994},
      {"path of 129 characters", "FileNum=1\n" + full + "FilePath=" + std::string(129, 'p') + "\n", 17673},
      {"path on a line that is too long", "FileNum=1\n" + full + blanks + path_, 17673},
      {"not forced", "FileNum=1\n" + wrong + path_ + no, 0},
      {"forced by the first of two", "FileNum=1\n" + wrong + path_ + "ForceVerify=1\n" + no, 50994},
      {"00 is forced", "FileNum=1\n" + wrong + path_ + "ForceVerify=00\n", 50994},
      {"the next entry's switch", "FileNum=2\n" + wrong + path_ + b_ + no, 50994},
      {"a switch before its entry", "FileNum=1\n" + no + wrong + path_, 50994},
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
  EXPECT_THAT(log_.Lines(), Contains(app_ + "a hash verify err 50994, config to ignore this file"));
  EXPECT_THAT(log_.Lines(), Contains(app_ + "b hash verify 0"));
  EXPECT_EQ(Check(app_ + "a"), 50994u) << "kept: one file alone is always forced";
  EXPECT_THAT(log_.Lines(), Contains("s " + app_ + "a hash verify err 50994"));
  testpki::WriteFile(app_ + "b", "changed");
  EXPECT_EQ(Check(), 50994u);
}

TEST_F(SecureBootTest, AModeSelectsItsListsAndTheFirstFailureEnds) {
  using Codes = std::vector<uint32_t>;
  Install("FileNum=1\n" + a_);
  Install("FileNum=1\n" + b_, "gst_");
  EXPECT_EQ(CheckModes(), (Codes{0, 0, 0, 0}));
  EXPECT_EQ(CheckModes((app_ + "a").c_str()), (Codes{0, 51000, 51000, 0}));
  testpki::WriteFile(app_ + "b", "changed");
  EXPECT_EQ(CheckModes(), (Codes{0, 50994, 50994, 0}));
}

TEST_F(SecureBootTest, OneFileIsComparedBeforeTheSignatureIsAsked) {
  Install("FileNum=2\n" + a_ + b_);
  testpki::WriteFile(app_ + "b", "changed");
  EXPECT_EQ(Check(app_ + "a"), 0u) << "another file does not matter";
  testpki::WriteFile(app_ + "demo_filelist.cms", "no signature");
  EXPECT_EQ(Check(app_ + "a"), 50987u);
  EXPECT_EQ(Check("a"), 51000u) << "the list is read first, and a file is named with its path";
  EXPECT_EQ(Check(app_ + "b"), 50994u);
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
  EXPECT_EQ(Check(), 0u) << "the caller's list was looked at";
  EXPECT_EQ(Check(app_ + "a"), 0u);
  EXPECT_EQ(VerifyFileHashInfFilelist((app_ + "gst_demo_filelist.txt").c_str(), 1), 7u);
  testpki::WriteFile(app_ + "gst_demo_filelist.cms", "no signature");
  EXPECT_EQ(Check(), 50987u) << "the caller's signature was looked at";
  EXPECT_EQ(Check(app_ + "a"), 50987u);
  SetSecureBootMultiSign([](SIGNATURE_VERIFY_BLOCK_S&) { return 8u; });
  EXPECT_EQ(Check(), 8u);
  EXPECT_EQ(Check(app_ + "a"), 8u);
  SetSecureBootMultiSign(nullptr);
  SetSecureBootAdjustPath(nullptr);
}

}  // namespace
}  // namespace verifytest
