// Secure boot: lists beside an installed application, flipped, cut and written wrongly.
#include <sys/stat.h>

#include "verify/secureboot_verify.h"
#include "verify/signature_verify_public.h"
#include "verify_fixture.h"

namespace verifytest {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

class SecureBootTest : public VerifyTest {
 protected:
  SecureBootTest() {
    TOLA_CHECK(mkdir(dir_.File("app").c_str(), 0700) == 0);
    dir_.Write("app/a.bin", "first");
    dir_.Write("app/b.bin", "second");
  }
  ~SecureBootTest() override {
    SetSecureBootVerifyMode(kSecureBootMode1);
    SetSecureBootAdjustPath(nullptr);
    SetSecureBootMultiSign(nullptr);
  }

  /// An entry of a file below app/, with more lines behind it.
  std::string Listed(const std::string& name, const std::string& content,
                     const std::string& more = "") const {
    return Entry(name, content) + "FilePath=" + dir_.File("app/") + "\n" + more;
  }
  /// Puts list, signature and revocation list of "demo" into app/.
  void Install(const std::string& list, const std::string& prefix = "") const {
    const std::string stem = dir_.File("app/" + prefix + "demo_filelist");
    testpki::WriteFile(stem + ".txt", list);
    testpki::WriteFile(stem + ".cms", testpki::Sign(list, pki_.signer));
    testpki::WriteFile(stem + ".crl", pki_.crl);
  }
  uint32_t Check(const char* oneFile = nullptr) const {
    return SecureBootVerifyByPathAndAppName(dir_.File("app").c_str(), "demo", kSecureBootOneFile, oneFile, 0);
  }
  uint32_t CheckList(const std::string& list) const {
    return VerifyFileHashInfFilelist(dir_.Write("list.txt", list).c_str(), 0);
  }
  uint32_t CheckModes(uint32_t mode, const char* oneFile = nullptr) const {
    SIGNATURE_VERIFY_BLOCK_S one;
    SIGNATURE_VERIFY_BLOCK_S two;
    EXPECT_EQ(MakeSecureBootFullFilePath(one, two, dir_.File("app").c_str(), "demo"), 0u);
    SetSecureBootVerifyMode(mode);
    return oneFile != nullptr ? SecureBootVerifyOneFileByMode(one, two, oneFile, 0)
                              : SecureBootVerifyByMode(one, two, 0);
  }

  const std::string a_ = Listed("a.bin", "first");
  const std::string b_ = Listed("b.bin", "second");
};

TEST_F(SecureBootTest, ANamedFileOrAllOfThemAreChecked) {
  Install("FileNum=2\n" + a_ + b_);
  const std::string b = dir_.File("app/b.bin");
  EXPECT_EQ(Check(), 0u);
  EXPECT_EQ(Check(b.c_str()), 0u);
  EXPECT_EQ(Check("b.bin"), 51000u) << "a file is named with its path";
  dir_.Write("app/a.bin", "FIRST");
  EXPECT_EQ(Check(b.c_str()), 0u) << "another file does not matter";
  EXPECT_EQ(Check(), 50994u);
  EXPECT_THAT(log_.Lines(), Contains(dir_.File("app/a.bin") + " check hash err"));
  EXPECT_EQ(SecureBootVerifyByPathAndAppName(dir_.File("app").c_str(), "demo", 0, b.c_str(), 0), 50994u)
      << "without the flag all files count";
  Install("FileNum=0\n");
  EXPECT_EQ(Check(), 0u);
  EXPECT_EQ(Check(b.c_str()), 51000u);
}

TEST_F(SecureBootTest, AFlippedBitInAnyRegionIsSeen) {
  Install("FileNum=2\n" + a_ + b_);
  const std::string oneFile = dir_.File("app/a.bin");
  const struct {
    const char* name;
    uint32_t harmless;  ///< a signature's list of algorithms and its version are neither signed nor used
  } files[] = {{"a.bin", 0}, {"demo_filelist.txt", 0}, {"demo_filelist.crl", 0}, {"demo_filelist.cms", 3}};
  for (const auto& file : files) {
    const std::string path = dir_.File(std::string("app/") + file.name);
    const std::string good = ReadFile(path);
    const size_t step = std::max<size_t>(1, good.size() / 61);
    uint32_t accepted = 0;
    for (size_t at = 0; at < good.size(); at += step) {
      std::string bad = good;
      bad[at] = static_cast<char>(bad[at] ^ 1 << at % 8);
      testpki::WriteFile(path, bad);
      const uint32_t all = Check();
      EXPECT_EQ(Check(oneFile.c_str()) == 0, all == 0) << file.name << " byte " << at;
      if (all == 0) ++accepted;
    }
    EXPECT_LE(accepted, file.harmless) << file.name;
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_NE(Check(), 0u) << file.name << " is missing";
    EXPECT_NE(Check(oneFile.c_str()), 0u) << file.name << " is missing";
    testpki::WriteFile(path, good);
    ASSERT_EQ(Check(), 0u);
  }
}

TEST_F(SecureBootTest, KeysOfAListAreTakenFromTheirOwnEntryAlone) {
  const std::string name = "FileName=a.bin\n", path = "FilePath=" + dir_.File("app/") + "\n";
  const std::string digest = "SHA256-Digest=" + DigestOf("first") + "\n";
  const std::string other = "SHA256-Digest=" + DigestOf("other") + "\n";
  const std::string full = "FileName=" + dir_.File("app/a.bin") + "\n" + digest;
  const std::string no = "ForceVerify=0\n";
  const struct {
    const char* what;
    std::string list;
    uint32_t code;
  } cases[] = {
      {"in order", "FileNum=1\n" + name + digest + path, 0},
      {"any order behind the name", "FileNum=1\n" + name + path + digest, 0},
      {"without a path the name is all", "FileNum=1\n" + full, 0},
      {"the path of the next entry", "FileNum=2\n" + full + b_, 0},
      {"no count", name + digest + path, 50989},
      {"257 reads as 1", "FileNum=257\n" + a_ + b_, 50995},
      {"no name", "FileNum=1\n" + digest + path, 50990},
      {"name of 129 characters", "FileNum=1\nFileName=" + std::string(129, 'n') + "\n" + digest, 50990},
      {"digest before its name", "FileNum=1\n" + digest + name + path, 50991},
      {"the digest of the next entry", "FileNum=2\n" + name + path + full, 50991},
      {"digest of 65 characters", "FileNum=1\n" + name + "SHA256-Digest=" + DigestOf("first") + "0\n" + path,
       50991},
      {"path of 129 characters", "FileNum=1\n" + full + "FilePath=" + std::string(129, 'p') + "\n", 17673},
      {"path on a line that is too long", "FileNum=1\n" + full + std::string(160, ' ') + path, 17673},
      {"path without its slash", "FileNum=1\n" + name + digest + "FilePath=" + dir_.File("app") + "\n",
       50955},
      {"doubled name", "FileNum=1\n" + name + full, 50991},
      {"doubled digest, the first counts", "FileNum=1\n" + name + digest + other + path, 0},
      {"doubled digest, the first is wrong", "FileNum=1\n" + name + other + digest + path, 50994},
      {"an entry too many", "FileNum=1\n" + a_ + b_, 50995},
      {"an entry too many on a long line", "FileNum=1\n" + a_ + std::string(160, ' ') + b_, 50995},
      {"an entry too few", "FileNum=3\n" + a_ + b_, 50990},
      {"not forced", "FileNum=1\n" + name + other + path + no, 0},
      {"forced by the first of two", "FileNum=1\n" + name + other + path + "ForceVerify=1\n" + no, 50994},
      {"00 is forced", "FileNum=1\n" + name + other + path + "ForceVerify=00\n", 50994},
      {"empty is forced", "FileNum=1\n" + name + other + path + "ForceVerify=\n", 50994},
      {"the next entry's switch", "FileNum=2\n" + name + other + path + b_ + no, 50994},
      {"a switch before its entry", "FileNum=1\n" + no + name + other + path, 50994},
      {"not forced, but not there", "FileNum=1\nFileName=gone\n" + digest + path + no, 50955},
      {"not forced, but a directory", "FileNum=1\nFileName=.\n" + digest + path + no, 50956},
  };
  for (const auto& c : cases) EXPECT_EQ(CheckList(c.list), c.code) << c.what;
  EXPECT_EQ(VerifyFileHashInfFilelist(dir_.File("none").c_str(), 0), 51001u);
  EXPECT_EQ(VerifyFileHashInfFilelist(dir_.path().c_str(), 0), 51001u);
  for (size_t length = 0; length < a_.size() - 1; ++length) {
    EXPECT_NE(CheckList("FileNum=1\n" + a_.substr(0, length)), 0u) << "cut after " << length;
  }
}

TEST_F(SecureBootTest, AFileThatIsNotForcedIsNamedAndTheRestIsChecked) {
  const std::string loose = Listed("a.bin", "changed", "ForceVerify=0\n");
  Install("FileNum=2\n" + loose + b_);
  EXPECT_EQ(Check(), 0u);
  EXPECT_THAT(log_.Lines(),
              Contains(dir_.File("app/a.bin") + " hash verify err 50994, config to ignore this file"));
  EXPECT_THAT(log_.Lines(), Contains(dir_.File("app/b.bin") + " hash verify 0"));
  EXPECT_EQ(Check(dir_.File("app/a.bin").c_str()), 50994u) << "kept: one file alone is always forced";
  EXPECT_THAT(log_.Lines(), Contains("s " + dir_.File("app/a.bin") + " hash verify err 50994"));
  dir_.Write("app/b.bin", "changed");
  EXPECT_EQ(Check(), 50994u);
}

TEST_F(SecureBootTest, AModeSelectsItsListsAndTheFirstFailureEnds) {
  const std::string a = dir_.File("app/a.bin"), b = dir_.File("app/b.bin");
  Install("FileNum=1\n" + a_);
  Install("FileNum=1\n" + b_, "gst_");
  const auto states = [&](const char* oneFile) {
    std::vector<uint32_t> codes;
    for (uint32_t mode = 0; mode <= 3; ++mode) codes.push_back(CheckModes(mode, oneFile));
    return codes;
  };
  using Codes = std::vector<uint32_t>;
  EXPECT_EQ(states(nullptr), (Codes{0, 0, 0, 0}));
  EXPECT_EQ(states(a.c_str()), (Codes{0, 0, 51000, 51000}));
  dir_.Write("app/b.bin", "changed");
  EXPECT_EQ(states(nullptr), (Codes{0, 0, 50994, 50994}));
  dir_.Write("app/a.bin", "changed");
  log_.Clear();
  EXPECT_EQ(CheckModes(3), 50994u);
  EXPECT_THAT(log_.Lines(), Not(Contains(HasSubstr("gst_demo"))));
}

TEST_F(SecureBootTest, OneFileIsComparedBeforeTheSignatureIsAsked) {
  Install("FileNum=1\n" + a_);
  testpki::WriteFile(dir_.File("app/demo_filelist.cms"), "no signature");
  EXPECT_EQ(Check(dir_.File("app/a.bin").c_str()), 50987u);
  EXPECT_EQ(Check("/none"), 51000u) << "the list is read first";
  dir_.Write("app/a.bin", "changed");
  EXPECT_EQ(Check(dir_.File("app/a.bin").c_str()), 50994u);
  EXPECT_EQ(Check(), 50987u) << "the other way round for all files";
  ASSERT_EQ(unlink(dir_.File("app/demo_filelist.txt").c_str()), 0);
  EXPECT_EQ(Check("/none"), 51001u);
  EXPECT_THAT(log_.Lines(), Contains("get real path fail:" + dir_.File("app/demo_filelist.txt")));
}

TEST_F(SecureBootTest, NamesMustFitAndHooksChangeWhatIsLookedAt) {
  SIGNATURE_VERIFY_BLOCK_S block;
  const std::string directory(256 - strlen("/demo_filelist.txt"), 'd');
  EXPECT_EQ(MakeSecureBootFullFilePathByMode(block, directory.c_str(), "demo", 1), 0u);
  EXPECT_EQ(block.crlPath, directory + "/demo_filelist.crl");
  EXPECT_EQ(MakeSecureBootFullFilePathByMode(block, directory.c_str(), "demo", 2), 1u) << "gst_ is too much";
  EXPECT_THAT(log_.Lines(), Contains(HasSubstr(") Error,Errno:")));
  EXPECT_EQ(MakeSecureBootFullFilePathByMode(block, "d", "demo", 3), 1u) << "two families fill no one block";

  Install("FileNum=1\n" + Entry("a.bin", "first") + "FilePath=/elsewhere/\n");
  EXPECT_EQ(Check(), 50955u);
  SetSecureBootAdjustPath([](const char* listPath, uint32_t, char* path, size_t size) -> uint32_t {
    const std::string list(listPath);  // the directory of the list
    return list.copy(path, std::min(size - 1, list.rfind('/') + 1)), path[list.rfind('/') + 1] = '\0', 0;
  });
  EXPECT_EQ(Check(), 0u);
  SetSecureBootMultiSign(
      [](SIGNATURE_VERIFY_BLOCK_S& copy) -> uint32_t { return copy.signaturePath[0] = '\0', 0; });
  EXPECT_NE(Check(), 0u) << "the rebuilt block was not used";
}

}  // namespace
}  // namespace verifytest
