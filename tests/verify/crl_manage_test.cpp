// The stored revocation lists: which list wins, and that no failure and no power cut loses the stored one.
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>

#include "verify_fixture.h"

namespace verifytest {
namespace {

using ::testing::Contains;
using ::testing::StartsWith;
using testpki::CrlSpec;
using testpki::kDay;
using testpki::MakeCrl;

class CrlManageTest : public VerifyTest {
 protected:
  /// A list of the trusted root whose date lies `days` before now.
  std::string List(int64_t days, int64_t number = 1) const {
    return Text(MakeCrl(pki_.root, {.thisUpdate = testpki::Now() - days * kDay, .number = number}));
  }
  void Store(const std::string& list) { dir_.Write("stored/signature.crl", list); }
  void Supply(const std::string& list) {
    dir_.Write("update/list.crl", list);
    request_.crlPath = crlPath_.c_str();
  }
  std::string Supplied() const { return ReadFile(crlPath_); }

  const std::string crlPath_ = UpdateFile("list.crl");
  SIGNATURE_VERIFY_REQ_S request_;
};

TEST_F(CrlManageTest, TheNewestValidListWinsOnBothSides) {
  const testpki::SmallPki foreignPki;
  const std::string none, older = List(9, 5), newer = List(3, 6), sameDayHigher = List(9, 6),
                          garbage = "garbage", future = List(-400);
  const std::string foreign =
      Text(MakeCrl(foreignPki.root, {.thisUpdate = testpki::Now() - kDay, .number = 9}));
  const std::string expired = Text(
      MakeCrl(pki_.root, {.thisUpdate = testpki::Now() - 20 * kDay, .nextUpdate = testpki::Now() - kDay}));
  std::string forged = newer;
  forged.back() = static_cast<char>(forged.back() ^ 1);
  const struct {
    const char* what;
    const std::string &stored, &supplied;
    uint32_t code;
    const std::string &storedAfter, &suppliedAfter;
  } cases[] = {
      {"neither", none, none, 50996, none, none},
      {"first list", none, older, 0, older, older},
      {"first list is garbage", none, garbage, 50997, none, garbage},
      {"first list is a foreign root's", none, foreign, 50997, none, foreign},
      {"first list is forged", none, forged, 50997, none, forged},
      {"first list is from the future: none of today could follow it", none, future, 50997, none, future},
      {"newer, but from the future", older, future, 50997, older, future},
      {"stored alone", older, none, 0, older, none},
      {"newer", older, newer, 0, newer, newer},
      {"older: the stored one overwrites it", newer, older, 0, newer, newer},
      {"same", older, older, 0, older, older},
      {"same date, higher number", older, sameDayHigher, 0, sameDayHigher, sameDayHigher},
      {"same date, lower number", sameDayHigher, older, 0, sameDayHigher, sameDayHigher},
      {"supplied garbage", older, garbage, 50997, older, garbage},
      {"supplied foreign", older, foreign, 50997, older, foreign},
      {"supplied forged", older, forged, 50997, older, forged},
      {"stored garbage is replaced, even by an old list", garbage, older, 0, older, older},
      {"stored foreign is replaced", foreign, older, 0, older, older},
      {"stored expired is replaced", expired, newer, 0, newer, newer},
      {"both useless", garbage, foreign, 50997, garbage, foreign},
  };
  for (const auto& c : cases) {
    std::filesystem::remove(StoredFile());
    std::filesystem::remove(crlPath_);
    request_.crlPath = nullptr;
    if (&c.stored != &none) Store(c.stored);
    if (&c.supplied != &none) Supply(c.supplied);
    EXPECT_EQ(ProcessCrlInfo(request_), c.code) << c.what;
    EXPECT_EQ(StoredText(), c.storedAfter) << c.what;
    EXPECT_EQ(Supplied(), c.suppliedAfter) << c.what;
    EXPECT_FALSE(Exists(StoredFile("signature.crl.old"))) << c.what;
    struct stat info = {};
    if (c.code == 0 && stat(StoredFile().c_str(), &info) == 0) {
      EXPECT_EQ(info.st_mode & 0777u, 0600u) << c.what;
    }
  }
}

TEST_F(CrlManageTest, AnEmptyNameCountsAsNoList) {
  const std::string directory = dir_.File("update/");
  request_.crlPath = directory.c_str();
  EXPECT_EQ(ProcessCrlInfo(request_), 50996u);
  EXPECT_THAT(log_.Lines(), Contains("no check crl"));
  Store(List(1));
  EXPECT_EQ(ProcessCrlInfo(request_), 0u);
  request_.crlPath = "";
  EXPECT_EQ(ProcessCrlInfo(request_), 0u);
  Supply(List(1));
  std::filesystem::remove(crlPath_);
  EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << "one that is named but missing is not left out";
}

TEST_F(CrlManageTest, EachTypeHasAListOfItsOwn) {
  Supply(List(1));
  request_.caType = 2;
  EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << "there is no root of type 2";
  testpki::InstallRoot(pki_.root, 2);
  EXPECT_EQ(ProcessCrlInfo(request_), 0u);
  EXPECT_EQ(ReadFile(StoredFile("signature_2.crl")), Supplied());
  request_.caType = 1;
  testpki::InstallRoot(pki_.root, 1);
  EXPECT_EQ(ProcessCrlInfo(request_), 0u);
  EXPECT_EQ(ReadFile(StoredFile("inside_signature.crl")), Supplied());
  EXPECT_FALSE(Exists(StoredFile())) << "type 0's list was touched";
}

class RollbackTest : public CrlManageTest {
 protected:
  /// The device knows that the signer is revoked; an older list does not.
  RollbackTest() {
    dir_.Write("update/list.txt", list_);
    dir_.Write("update/list.cms", Text(testpki::Sign(list_, pki_.signer)));
    request_.contentPath = listPath_.c_str();
    request_.signaturePath = signaturePath_.c_str();
    Supply(older_);
    EXPECT_EQ(CMSSignatureVerify(request_), 0u) << "not revoked yet";
    Supply(revoking_);
    EXPECT_EQ(CMSSignatureVerify(request_), 50987u);
  }
  const std::string list_ = "FileNum=0\n";
  const std::string listPath_ = UpdateFile("list.txt"), signaturePath_ = UpdateFile("list.cms");
  const std::string older_ = List(9, 1);
  const std::string revoking_ = Text(MakeCrl(pki_.root, {.number = 2, .revoked = {pki_.signer.Serial()}}));
};

TEST_F(RollbackTest, ByAnOlderListOrNone) {
  Supply(older_);
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u) << "the older list was believed";
  request_.crlPath = nullptr;
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u) << "the stored list was not handed to the check";
}

TEST_F(RollbackTest, BesideAnotherTypesList) {
  const testpki::Identity other = testpki::MakeRoot({.name = "root of type 1"});
  testpki::InstallRoot(other, 1);
  const auto der = [](const std::string& text) { return testpki::Bytes(text.begin(), text.end()); };
  const std::string own = testpki::CrlPem(MakeCrl(other));
  Supply(own + testpki::CrlPem(der(older_)));
  request_.caType = 1;
  EXPECT_EQ(CMSSignatureVerify(request_), 50997u) << "the age of a list of type 0 was compared with nothing";
  EXPECT_FALSE(Exists(StoredFile("inside_signature.crl")));
  Supply(own);
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u) << "no list covers a signer of type 0";
}

TEST_F(RollbackTest, ByAnExtraCertificateOfTheRootsName) {
  const testpki::Identity twin = testpki::MakeRoot({.name = "test root"});
  const std::string extra = twin.Pem();
  request_.extraCert = extra.c_str();
  Supply(Text(MakeCrl(twin, {.number = 9})));
  EXPECT_EQ(ProcessCrlInfo(request_), 50997u);
  EXPECT_EQ(StoredText(), revoking_) << "a list that the root did not sign took the place of the root's";
}

TEST_F(CrlManageTest, ADirectoryInTheListsPlaceBlocksNothing) {
  dir_.Write("stored/note", "");
  for (const int64_t age : {2, 1}) {  // the second would meet what the first left aside
    std::filesystem::remove_all(StoredFile());
    std::filesystem::create_directory(StoredFile());
    std::filesystem::copy(StoredFile("note"), StoredFile());
    Supply(List(age));
    EXPECT_EQ(ProcessCrlInfo(request_), 0u);
    EXPECT_EQ(StoredText(), Supplied());
  }
}

/// Puts a program called cp in front of the machine's own.
class FailingCopyTest : public CrlManageTest {
 protected:
  void ReplaceCp(const std::string& script) {
    const std::string cp = dir_.Write("bin/cp", "#!/bin/sh\n" + script + "\n");
    ASSERT_EQ(chmod(cp.c_str(), 0700), 0);
    setenv("PATH", (dir_.File("bin") + ":" + path_).c_str(), 1);
  }
  ~FailingCopyTest() override { setenv("PATH", path_.c_str(), 1); }
  const std::string path_ = getenv("PATH");
};

TEST_F(FailingCopyTest, TheStoredListSurvivesEveryFailure) {
  const std::string older = List(9, 1);
  Supply(List(1, 2));
  for (const char* fault : {"exit 1", "head -c 40 \"$2\" >\"$3\"; exit 1", "head -c 40 \"$2\" >\"$3\"",
                            "exit 0", ": >\"$3\"", "ln -s \"$2\" \"$3\"", "mkdir \"$3\""}) {
    SCOPED_TRACE(fault);
    Store(older);
    ReplaceCp(fault);
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u);
    EXPECT_EQ(StoredText(), older);
    EXPECT_FALSE(Exists(StoredFile("signature.crl.old")));

    std::filesystem::remove_all(StoredFile());
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << "first list";
    EXPECT_FALSE(Exists(StoredFile())) << "half a first list stayed";
  }
}

TEST_F(FailingCopyTest, ACutInTheMiddleIsUndoneAtTheNextStart) {
  const std::string older = List(9, 1);
  Store(older);
  Supply(List(1, 2));
  ReplaceCp("head -c 40 \"$2\" >\"$3\"; kill -9 $PPID");
  const pid_t child = fork();
  if (child == 0) _exit(ProcessCrlInfo(request_) == 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the process was to die while the list was being replaced";
  ASSERT_NE(StoredText(), older);

  setenv("PATH", path_.c_str(), 1);
  const std::string cutShort = StoredText();
  Supply(List(20));
  EXPECT_EQ(ProcessCrlInfo(request_), 0u) << "a request before the start's restoring";
  EXPECT_EQ(StoredText(), older) << "an older list came in as if it were the first";

  std::filesystem::rename(StoredFile(), StoredFile("signature.crl.old"));
  Store(cutShort);
  RestoreStoredCrlAtStart();
  EXPECT_EQ(StoredText(), older);
  EXPECT_FALSE(Exists(StoredFile("signature.crl.old")));
  Supply(List(1, 2));
  EXPECT_EQ(ProcessCrlInfo(request_), 0u) << "the same update again";
  EXPECT_EQ(StoredText(), Supplied());
}

TEST_F(CrlManageTest, NamesThatNoCommandMayHoldAreRefusedBeforeAnythingMoves) {
  const std::string older = List(9, 1);
  for (const char* name : {"a b.crl", "a;b.crl", "a$b.crl", "x./b.crl"}) {
    Store(older);
    const std::string path = dir_.Write(std::string("update/") + name, List(1, 2));
    request_.crlPath = path.c_str();
    EXPECT_EQ(UpdateCrlFileToDevice(path.c_str(), 0), 1u) << name;
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << name;
    EXPECT_EQ(StoredText(), older) << name;
  }
  EXPECT_EQ(UpdateCrlFileToDevice("-rf", 0), 1u) << "an option";
  EXPECT_EQ(UpdateCrlFileToDevice(std::string(401, 'x').c_str(), 0), 17673u);
  EXPECT_THAT(log_.Lines(), Contains(StartsWith("update crl err: ")));
  EXPECT_EQ(StoredText(), older);
}

}  // namespace
}  // namespace verifytest
