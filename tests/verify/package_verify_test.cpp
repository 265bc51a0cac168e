// The verifiers on signed updates: what is changed, added or left out must be refused with its code.
#include <filesystem>

#include "verify/signature_verify_public.h"
#include "verify_fixture.h"

namespace verifytest {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class PackageVerifyTest : public VerifyTest {
 protected:
  PackageVerifyTest() {
    WriteList("FileNum=1\n" + Entry("update.tar.gz", package_));
    dir_.Write("update/update.tar.gz", package_);
    dir_.Write("update/list_2.crl", Text(pki_.crl));
    request_.contentPath = listPath_.c_str();
    request_.signaturePath = signaturePath_.c_str();
    request_.crlPath = crlPath_.c_str();
  }
  void WriteList(const std::string& list) {
    list_ = list;
    dir_.Write("update/list.txt", list);
    dir_.Write("update/list.cms", Text(testpki::Sign(list, pki_.signer)));
  }
  uint32_t VerifyDirectory() const { return TolaSignatureVerify(request_, dir_.File("update").c_str()); }
  uint32_t VerifyPackage() const {
    const uint32_t signature = TolaSingleFileSignatureVerify(request_, 0);
    return signature != 0 ? signature
                          : UpgradePackHashVerify(request_.contentPath, UpdateFile("update.tar.gz").c_str());
  }

  const std::string package_ = std::string(700, 'p') + "the package" + std::string(300, '\0');
  const std::string listPath_ = UpdateFile("list.txt");
  const std::string signaturePath_ = UpdateFile("list.cms");
  const std::string crlPath_ = UpdateFile("list_2.crl");
  std::string list_;
  SIGNATURE_VERIFY_REQ_S request_;
};

TEST_F(PackageVerifyTest, AChangeAnywhereInPackageOrListIsFound) {
  const struct {
    const char* file;
    const std::string& good;
    size_t step;
    uint32_t code;
  } files[] = {{"update/update.tar.gz", package_, 43, 50994}, {"update/list.txt", list_, 1, 50987}};
  for (const auto& [file, good, step, code] : files) {
    for (size_t at = 0; at < good.size(); at += step) {
      std::string changed = good;
      changed[at] = static_cast<char>(changed[at] ^ 1);
      dir_.Write(file, changed);
      EXPECT_EQ(VerifyPackage(), code) << file << " byte " << at;
    }
    dir_.Write(file, good + "\n");
    EXPECT_EQ(VerifyPackage(), code) << file << " longer";
    dir_.Write(file, good.substr(1));
    EXPECT_EQ(VerifyDirectory(), code) << file << " shorter";
    dir_.Write(file, good);
  }
}

TEST_F(PackageVerifyTest, AnExtraCertificateIsTrustedBesideTheRoot) {
  const testpki::Identity other = testpki::MakeRoot({.name = "other root"});
  const std::string extra = other.Pem();
  dir_.Write("update/list.cms", Text(testpki::Sign(list_, testpki::MakeSigner(other))));
  dir_.Write("update/list_2.crl", testpki::CrlPem(pki_.crl) + testpki::CrlPem(testpki::MakeCrl(other)));
  EXPECT_EQ(VerifyPackage(), 50987u);
  request_.extraCert = extra.c_str();
  EXPECT_EQ(VerifyPackage(), 0u);
}

TEST_F(PackageVerifyTest, TextsThatDoNotFitAreRefusedNotCut) {
  dir_.Write("stored/signature.crl", Text(pki_.crl));
  request_.crlPath = nullptr;
  const std::string longPath(257, 'p'), longCert(2001, 'c');
  using Request = SIGNATURE_VERIFY_REQ_S;
  const std::pair<const char * Request::*, const char*> changes[] = {
      {&Request::contentPath, longPath.c_str()},
      {&Request::signaturePath, longPath.c_str()},
      {&Request::extraCert, longCert.c_str()},
      {&Request::signaturePath, nullptr},
  };
  for (const auto& [field, text] : changes) {
    Request request = request_;
    request.*field = text;
    EXPECT_EQ(CMSSignatureVerify(request), 17669u);
  }
  EXPECT_EQ(CMSSignatureVerify(request_), 0u) << "the same request with its own texts is good";
}

TEST_F(PackageVerifyTest, TheEntriesFollowTheRegisteredVerifiers) {
  uint32_t enabled = 9, mode = 9;
  TOLA_EnableSignatureVerificationLite(0x00020001);
  TolaGetSignatureVerificationEnableInfo(enabled, mode);
  EXPECT_EQ(enabled << 16 | mode, 0x10001u);
  TOLA_EnableSignatureVerificationLite(0x00020002);
  TolaGetSignatureVerificationEnableInfo(enabled, mode);
  EXPECT_EQ(enabled << 16 | mode, 0u) << "forced mode 2 reports off";
  EXPECT_TRUE(TolaSignatureVerifierRegistered()) << "reporting off must not switch the verification off";

  static uint16_t seen;
  seen = 0;
  TolaSignatureVerifierRegister(
      [](const SIGNATURE_VERIFY_REQ_S& r) -> uint32_t { return seen = r.caType, 7; }, nullptr);
  EXPECT_FALSE(TolaSignatureVerifierRegistered()) << "half a registration is none";
  EXPECT_EQ(TolaSingleFileSignatureVerify(request_, 2), 7u);
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(request_.caType, 0) << "the caller's request was changed";

  TolaSignatureVerifierRegister(nullptr, nullptr);
  log_.Clear();
  EXPECT_EQ(TolaSingleFileSignatureVerify(request_, 0), 0u);
  EXPECT_EQ(VerifyDirectory(), 0u);
  EXPECT_THAT(log_.Lines(), ElementsAre("disable single file signature", "disable multiple file signature"));
}

TEST_F(PackageVerifyTest, AGenuineUpdatePassesBothWaysButNotUnderTheBuiltInRoots) {
  EXPECT_EQ(VerifyPackage(), 0u);
  EXPECT_EQ(VerifyDirectory(), 0u);
  EXPECT_THAT(log_.Lines(), Contains("verify cms signature success"));
  testpki::ClearRoots();
  ASSERT_EQ(TolaEnableSignatureVerification(0x00020001), 0u);
  EXPECT_TRUE(TolaSignatureVerifierRegistered());
  EXPECT_EQ(VerifyPackage(), 50997u) << "a list of a root that is not built in";
}

TEST_F(PackageVerifyTest, StrayFilesAndOtherTypesAreFound) {
  dir_.Write("update/stray.sh", "echo");
  EXPECT_EQ(VerifyDirectory(), 51000u);
  EXPECT_THAT(log_.Lines(), Contains("unexcept file err:stray.sh"));
  std::filesystem::remove(UpdateFile("stray.sh"));
  std::filesystem::create_directory(UpdateFile("sub"));
  EXPECT_EQ(VerifyDirectory(), 51000u) << "a directory that is not listed";
  std::filesystem::remove(UpdateFile("sub"));
  ASSERT_EQ(symlink("update.tar.gz", UpdateFile("link").c_str()), 0);
  EXPECT_EQ(VerifyDirectory(), 51003u) << "a link";
  std::filesystem::remove(UpdateFile("link"));
  std::filesystem::remove(UpdateFile("update.tar.gz"));
  ASSERT_EQ(symlink("list.txt", UpdateFile("update.tar.gz").c_str()), 0);
  EXPECT_EQ(VerifyDirectory(), 51003u) << "a link under a listed name";

  EXPECT_EQ(CheckAllUpdateFileNeedVerify(request_, dir_.File("none").c_str()), 50999u);
  WriteList("FileNum=0\n");
  EXPECT_EQ(CheckAllUpdateFileNeedVerify(request_, dir_.File("none").c_str()), 0u)
      << "with nothing listed the directory is not opened";
  WriteList("FileNum=1\nFileName=x\n");
  EXPECT_EQ(CheckAllUpdateFileNeedVerify(request_, dir_.File("none").c_str()), 50991u);
}

TEST_F(PackageVerifyTest, SuffixedFilesOfMaskedTypesMayStandBesideIt) {
  dir_.Write("update/list_1.cms", "another family's signature");
  EXPECT_EQ(VerifyDirectory(), 51000u);
  request_.caMask = 1u << 1;
  EXPECT_EQ(VerifyDirectory(), 0u);
  dir_.Write("update/list_3.cms", "a family that there is none of");
  request_.caMask = ~0u;
  EXPECT_EQ(VerifyDirectory(), 51000u) << "type 3 does not exist, whatever the mask says";
}

TEST(NameRuleTest, Table) {
  const struct {
    const char* path;
    const char* name;
    uint32_t mask;
    bool same;
  } cases[] = {
      {"/u/list.cms", "list.cms", 0, true},
      {"/u/list.cms", "list.CMS", 0, false},
      {"list.cms", "list.cms", 0, false},  // no slash
      {"/u/", "anything", 0, true},        // kept
      {"/u/list.cms", "list_1.cms", 2, true},
      {"/u/list.cms", "list_1.cms", 5, false},
      {"/u/list.cms", "list_0.cms", 1, true},
      {"/u/list", "list_2", 4, true},
      {"/u/list_2.cms", "list.cms", 0, true},
      {"/u/list_2.cms", "list_1.cms", 2, true},
      {"/u/list_2.cms", "list_2_1.cms", 2, false},  // the variants are the shortened text's
      {"/u/a_b_2.cms", "a_b.cms", 0, true},
      {"/u/a_b_2.cms", "a.cms", 0, false},
      {"/u/list_2", "list", 0, true},
      {"/u/v1.0_list", "v1.0", 0, true},  // a dot before the underscore is no extension
  };
  for (const auto& c : cases) {
    EXPECT_EQ(CheckFileNameSame(c.path, c.name, c.mask), c.same) << c.path << " " << c.name << " " << c.mask;
  }
  const std::string longName(127, 'n');
  EXPECT_FALSE(CheckFileNameSame(("/u/" + longName).c_str(), (longName + "_1").c_str(), 2))
      << "129 characters";
}

}  // namespace
}  // namespace verifytest
