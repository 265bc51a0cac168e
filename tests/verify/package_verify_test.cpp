// The verifiers on signed updates: what is changed, added or left out must be refused with its code.
#include "verify/signature_verify_public.h"
#include "verify_fixture.h"

namespace verifytest {
namespace {

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
    const uint32_t result = TolaSingleFileSignatureVerify(request_, 0);
    return result != 0 ? result : UpgradePackHashVerify(request_.contentPath, packagePath_.c_str());
  }

  const std::string package_ = std::string(700, 'p') + "the package" + std::string(300, '\0');
  const std::string packagePath_ = UpdateFile("update.tar.gz"), listPath_ = UpdateFile("list.txt"),
                    signaturePath_ = UpdateFile("list.cms"), crlPath_ = UpdateFile("list_2.crl");
  std::string list_;
  SIGNATURE_VERIFY_REQ_S request_;
};

TEST_F(PackageVerifyTest, AGenuineUpdatePassesAndAChangeAnywhereIsFound) {
  EXPECT_EQ(VerifyPackage(), 0u);
  EXPECT_EQ(VerifyDirectory(), 0u);
  EXPECT_THAT(log_.Lines(), Contains("verify cms signature success"));
  const std::tuple<const char*, std::string, size_t, uint32_t> files[] = {
      {"update/update.tar.gz", package_, 43, 50994}, {"update/list.txt", list_, 1, 50987}};
  for (const auto& [file, good, step, code] : files) {
    for (size_t at = 0; at < good.size(); at += step) {
      std::string changed = good;
      changed[at] = static_cast<char>(changed[at] ^ 1);
      dir_.Write(file, changed);
      EXPECT_EQ(VerifyPackage(), code) << file << " byte " << at;
    }
    for (const std::string& other : {good + "\n", good.substr(1)}) {
      dir_.Write(file, other);
      EXPECT_EQ(VerifyDirectory(), code) << file << " of " << other.size();
    }
    dir_.Write(file, good);
  }
}

TEST_F(PackageVerifyTest, TextsOfARequestReachTheCheckWholeOrAreRefused) {
  const testpki::Identity other = testpki::MakeRoot({.name = "other root"});
  const std::string extra = other.Pem(), longPath(257, 'p'), longCert(2001, 'c');
  dir_.Write("update/list.cms", Text(testpki::Sign(list_, testpki::MakeSigner(other))));
  dir_.Write("update/list_2.crl", testpki::CrlPem(pki_.crl) + testpki::CrlPem(testpki::MakeCrl(other)));
  EXPECT_EQ(VerifyPackage(), 50987u);
  request_.extraCert = extra.c_str();
  EXPECT_EQ(VerifyPackage(), 0u);

  request_.crlPath = nullptr;
  using Request = SIGNATURE_VERIFY_REQ_S;
  const std::pair<const char * Request::*, const char*> changes[] = {
      {&Request::contentPath, longPath.c_str()},
      {&Request::signaturePath, longPath.c_str()},
      {&Request::signaturePath, nullptr},
      {&Request::extraCert, longCert.c_str()},
  };
  for (const auto& [field, text] : changes) {
    Request request = request_;
    request.*field = text;
    EXPECT_EQ(CMSSignatureVerify(request), 17669u);
  }
}

TEST_F(PackageVerifyTest, TheEntriesFollowTheRegisteredVerifiers) {
  const auto enabledAndMode = [](uint32_t info) {
    uint32_t enabled = 9, mode = 9;
    TOLA_EnableSignatureVerificationLite(info);
    TolaGetSignatureVerificationEnableInfo(enabled, mode);
    return std::pair(enabled, mode);
  };
  EXPECT_EQ(enabledAndMode(0x00020001), std::pair(1u, 1u));
  EXPECT_EQ(enabledAndMode(0x00020002), std::pair(0u, 0u)) << "forced mode 2 reports off";
  EXPECT_TRUE(TolaSignatureVerifierRegistered()) << "reporting off must not switch the verification off";

  static uint16_t seen;
  TolaSignatureVerifierRegister(
      [](const SIGNATURE_VERIFY_REQ_S& r) -> uint32_t { return seen = r.caType, 7; }, nullptr);
  EXPECT_FALSE(TolaSignatureVerifierRegistered()) << "half a registration is none";
  EXPECT_EQ(TolaSingleFileSignatureVerify(request_, 2), 7u);
  EXPECT_EQ(seen, 2);

  TolaSignatureVerifierRegister(nullptr, nullptr);
  log_.Clear();
  EXPECT_EQ(TolaSingleFileSignatureVerify(request_, 0) + VerifyDirectory(), 0u);
  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre("disable single file signature", "disable multiple file signature"));

  testpki::ClearRoots();
  ASSERT_EQ(TolaEnableSignatureVerification(0x00020001), 0u);
  EXPECT_TRUE(TolaSignatureVerifierRegistered());
  EXPECT_EQ(VerifyPackage(), 50997u) << "a list of a root that is not built in";
}

TEST_F(PackageVerifyTest, StrayFilesAndOtherTypesAreFound) {
  const auto resultWith = [&](const char* name) {
    const uint32_t result = VerifyDirectory();
    fs::remove(UpdateFile(name));
    return result;
  };
  dir_.Write("update/stray.sh", "echo");
  EXPECT_EQ(resultWith("stray.sh"), 51000u);
  EXPECT_THAT(log_.Lines(), Contains("unexcept file err:stray.sh"));
  fs::create_directory(UpdateFile("sub"));
  EXPECT_EQ(resultWith("sub"), 51000u) << "a directory that is not listed";
  dir_.Write("update/list_1.cms", "another family's signature");
  EXPECT_EQ(VerifyDirectory(), 51000u);
  request_.caMask = 1u << 1;
  EXPECT_EQ(VerifyDirectory(), 0u);
  request_.caMask = ~0u;
  dir_.Write("update/list_3.cms", "a family that there is none of");
  EXPECT_EQ(resultWith("list_3.cms"), 51000u) << "type 3 does not exist, whatever the mask says";
  fs::create_symlink("update.tar.gz", UpdateFile("link"));
  EXPECT_EQ(resultWith("link"), 51003u);
  fs::remove(packagePath_);
  fs::create_symlink("list.txt", packagePath_);
  EXPECT_EQ(VerifyDirectory(), 51003u) << "a link under a listed name";

  const std::string none = dir_.File("none");
  EXPECT_EQ(CheckAllUpdateFileNeedVerify(request_, none.c_str()), 50999u);
  WriteList("FileNum=1\nFileName=x\n");
  EXPECT_EQ(CheckAllUpdateFileNeedVerify(request_, none.c_str()), 50991u);
  WriteList("FileNum=0\n");
  EXPECT_EQ(CheckAllUpdateFileNeedVerify(request_, none.c_str()), 0u) << "opened with nothing listed";
}

TEST(NameRuleTest, Table) {
  const std::string longName(127, 'n'), longPath = "/u/" + longName;
  const std::tuple<const char*, std::string, uint32_t, bool> cases[] = {
      {"/u/list.cms", "list.cms", 0, true},
      {"/u/list.cms", "list.CMS", 0, false},
      {"list.cms", "list.cms", 0, false},  // no slash
      {"/u/", "anything", 0, true},        // kept
      {"/u/list.cms", "list_1.cms", 2, true},
      {"/u/list.cms", "list_1.cms", 5, false},
      {"/u/list", "list_2", 4, true},
      {"/u/list_2.cms", "list.cms", 0, true},
      {"/u/list_2.cms", "list_1.cms", 2, true},
      {"/u/list_2.cms", "list_2_1.cms", 2, false},  // the variants are the shortened text's
      {"/u/a_b_2.cms", "a.cms", 0, false},
      {"/u/v1.0_list", "v1.0", 0, true},              // a dot before the underscore is no extension
      {longPath.c_str(), longName + "_1", 2, false},  // 129 characters
  };
  for (const auto& [path, name, mask, same] : cases)
    EXPECT_EQ(CheckFileNameSame(path, name.c_str(), mask), same) << path << " " << name << " " << mask;
}

}  // namespace
}  // namespace verifytest
