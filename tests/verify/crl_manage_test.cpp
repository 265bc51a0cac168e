// The stored revocation lists: which list wins, and that no failure and no power cut loses the stored one.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <numeric>

#include "verify_fixture.h"

namespace verifytest {
namespace {

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
  std::string Stored() const { return ReadFile(stored_); }
  std::string Supplied() const { return ReadFile(crlPath_); }

  const std::string crlPath_ = UpdateFile("list.crl"), stored_ = StoredFile("signature.crl"),
                    aside_ = StoredFile("signature.crl.old");
  SIGNATURE_VERIFY_REQ_S request_;
};

TEST_F(CrlManageTest, TheNewestValidListWinsOnBothSides) {
  const testpki::SmallPki foreignPki;
  const std::string none, garbage = "garbage", older = List(9, 5), newer = List(3, 6), higher = List(9, 6);
  const std::string future = List(-400), foreign = Text(MakeCrl(foreignPki.root, {.number = 9}));
  const std::string expired = Text(
      MakeCrl(pki_.root, {.thisUpdate = testpki::Now() - 20 * kDay, .nextUpdate = testpki::Now() - kDay}));
  const std::string partial = Text(MakeCrl(pki_.root, {.scope = "critical,onlyuser:TRUE"}));
  std::string forged = newer;
  forged.back() = static_cast<char>(forged.back() ^ 1);
  const std::tuple<const char*, std::string, std::string, uint32_t, std::string> cases[] = {
      {"neither", none, none, 50996, none},
      {"first list", none, older, 0, older},
      {"first list is a foreign root's", none, foreign, 50997, none},
      {"first list is from the future: none of today could follow it", none, future, 50997, none},
      {"newer, but from the future", older, future, 50997, older},
      {"newer, but for a part of the certificates: nothing passes with it", older, partial, 50997, older},
      {"stored alone", older, none, 0, older},
      {"newer", older, newer, 0, newer},
      {"older: the stored one overwrites it", newer, older, 0, newer},
      {"same date, higher number", older, higher, 0, higher},
      {"supplied forged", older, forged, 50997, older},
      {"stored garbage is replaced, even by an old list", garbage, older, 0, older},
      {"stored expired is replaced", expired, newer, 0, newer},
      {"both useless", garbage, foreign, 50997, garbage},
  };
  for (const auto& [what, stored, supplied, code, winner] : cases) {
    SCOPED_TRACE(what);
    for (const std::string& path : {stored_, crlPath_}) fs::remove(path);
    request_.crlPath = nullptr;
    if (stored != none) Store(stored);
    if (supplied != none) Supply(supplied);
    EXPECT_EQ(ProcessCrlInfo(request_), code);
    EXPECT_EQ(Stored(), winner);
    EXPECT_EQ(Supplied(), code != 0 || supplied == none ? supplied : winner);
    EXPECT_FALSE(fs::exists(aside_));
    EXPECT_TRUE(code != 0 || fs::status(stored_).permissions() == fs::perms{0600});
  }
}

TEST_F(CrlManageTest, AListThatMemoryIsTooShortForIsNotDisplaced) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizer ends a process that lacks memory";
#endif
  std::vector<uint64_t> many(45000);
  std::iota(many.begin(), many.end(), 1000000u);
  const std::string large = Text(MakeCrl(pki_.root, {.number = 9, .revoked = many}));
  Store(List(8));
  Supply(List(9));
  EXPECT_EQ(ProcessCrlInfo(request_), 0u);  // libcrypto has what it keeps
  Store(large);
  Supply(List(9));
  const pid_t child = fork();
  if (child == 0) {
    std::ifstream statm("/proc/self/statm");
    rlim_t pages = 0;
    statm >> pages;
    const rlimit limit = {pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + 500000, RLIM_INFINITY};
    _exit(setrlimit(RLIMIT_AS, &limit) == 0 && ProcessCrlInfo(request_) == 50997 ? 0 : 1);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);  // an emulator knows no limit, so how it ended is not asked
  EXPECT_TRUE(Stored() == large) << "the older list took its place, with what it revokes";
}

TEST_F(CrlManageTest, OnlyAnEmptyNameCountsAsNoList) {
  const std::string directory = dir_.File("update/");
  request_.crlPath = directory.c_str();
  EXPECT_EQ(ProcessCrlInfo(request_), 50996u);
  EXPECT_THAT(log_.Lines(), Contains("no check crl"));
  for (const int64_t age : {2, 1}) {  // the second would meet what the first left aside
    fs::remove_all(stored_);
    dir_.Write("stored/signature.crl/note", "a directory in the list's place");
    Supply(List(age));
    EXPECT_EQ(ProcessCrlInfo(request_), 0u);
    EXPECT_EQ(Stored(), Supplied());
  }
  fs::remove(crlPath_);
  for (const char* name : {directory.c_str(), "", crlPath_.c_str()}) {
    request_.crlPath = name;
    EXPECT_EQ(ProcessCrlInfo(request_), name == crlPath_ ? 50997u : 0u) << name;
  }
}

TEST_F(CrlManageTest, EachTypeHasAListOfItsOwn) {
  Supply(List(1));
  for (const uint16_t type : std::initializer_list<uint16_t>{2, 1}) {
    request_.caType = type;
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << "there is no root of type " << type;
    testpki::InstallRoot(pki_.root, type);
    EXPECT_EQ(ProcessCrlInfo(request_), 0u);
    EXPECT_EQ(ReadFile(StoredFile(type == 2 ? "signature_2.crl" : "inside_signature.crl")), Supplied());
  }
  EXPECT_FALSE(fs::exists(stored_)) << "type 0's list was touched";
}

/// The device knows that the signer is revoked; an older list does not.
TEST_F(CrlManageTest, ARevocationIsNotUndone) {
  const std::string list = "FileNum=0\n", older = List(9, 1);
  const std::string revoking = Text(MakeCrl(pki_.root, {.number = 2, .revoked = {pki_.signer.Serial()}}));
  const std::string content = dir_.Write("update/list.txt", list);
  const std::string signature = dir_.Write("update/list.cms", Text(testpki::Sign(list, pki_.signer)));
  request_.contentPath = content.c_str();
  request_.signaturePath = signature.c_str();
  Supply(older);
  EXPECT_EQ(CMSSignatureVerify(request_), 0u) << "not revoked yet";
  Supply(revoking);
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u);
  Supply(older);
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u) << "the older list was believed";
  request_.crlPath = nullptr;
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u) << "the stored list was not handed to the check";

  const testpki::Identity twin = testpki::MakeRoot({.name = "test root"});
  const std::string extra = twin.Pem();
  SIGNATURE_VERIFY_REQ_S byTwin = request_;
  byTwin.extraCert = extra.c_str();
  byTwin.crlPath = crlPath_.c_str();
  Supply(Text(MakeCrl(twin, {.number = 9})));
  EXPECT_EQ(ProcessCrlInfo(byTwin), 50997u);
  EXPECT_EQ(Stored(), revoking) << "a list that the root did not sign took the place of the root's";

  const testpki::Identity other = testpki::MakeRoot({.name = "root of type 1"});
  testpki::InstallRoot(other, 1);
  const std::string own = testpki::CrlPem(MakeCrl(other));
  request_.caType = 1;
  Supply(own + testpki::CrlPem({older.begin(), older.end()}));
  EXPECT_EQ(CMSSignatureVerify(request_), 50997u) << "the age of a list of type 0 was compared with nothing";
  EXPECT_FALSE(fs::exists(StoredFile("inside_signature.crl")));
  Supply(own);
  EXPECT_EQ(CMSSignatureVerify(request_), 50987u) << "no list covers a signer of type 0";
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
  const std::string path_ = getenv("PATH"), older_ = List(9, 1), newer_ = List(1, 2);
};

TEST_F(FailingCopyTest, TheStoredListSurvivesEveryFailure) {
  Supply(newer_);
  for (const char* fault : {"exit 1", "head -c 40 \"$2\" >\"$3\"; exit 1", "head -c 40 \"$2\" >\"$3\"",
                            "exit 0", ": >\"$3\"", "ln -s \"$2\" \"$3\"", "mkdir \"$3\""}) {
    SCOPED_TRACE(fault);
    Store(older_);
    ReplaceCp(fault);
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u);
    EXPECT_EQ(Stored(), older_);
    EXPECT_FALSE(fs::exists(aside_));
    fs::remove_all(stored_);
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << "first list";
    EXPECT_FALSE(fs::exists(stored_)) << "half a first list stayed";
  }
}

TEST_F(FailingCopyTest, ACutInTheMiddleIsUndoneAtTheNextStart) {
  Store(older_);
  Supply(newer_);
  ReplaceCp("head -c 40 \"$2\" >\"$3\"; kill -9 $PPID");
  const pid_t child = fork();
  if (child == 0) _exit(ProcessCrlInfo(request_) == 0 ? 0 : 1);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status)) << "the process was to die while the list was being replaced";
  const std::string cutShort = Stored();
  ASSERT_NE(cutShort, older_);

  setenv("PATH", path_.c_str(), 1);
  Supply(List(20));
  EXPECT_EQ(ProcessCrlInfo(request_), 0u) << "a request before the start's restoring";
  EXPECT_EQ(Stored(), older_) << "an older list came in as if it were the first";
  fs::rename(stored_, aside_);
  Store(cutShort);
  RestoreStoredCrlAtStart();
  EXPECT_EQ(Stored(), older_);
  EXPECT_FALSE(fs::exists(aside_));
  Supply(newer_);
  EXPECT_EQ(ProcessCrlInfo(request_), 0u) << "the same update again";
  EXPECT_EQ(Stored(), newer_);
}

TEST_F(CrlManageTest, NamesThatNoCommandMayHoldAreRefusedBeforeAnythingMoves) {
  const std::string older = List(9, 1), newer = List(1, 2);
  Store(older);
  for (const char* name : {"a b.crl", "a;b.crl", "a$b.crl", "x./b.crl"}) {
    const std::string path = dir_.Write(std::string("update/") + name, newer);
    request_.crlPath = path.c_str();
    EXPECT_EQ(ProcessCrlInfo(request_), 50997u) << name;
  }
  EXPECT_EQ(UpdateCrlFileToDevice("-rf", 0), 1u) << "an option";
  EXPECT_EQ(UpdateCrlFileToDevice(std::string(401, 'x').c_str(), 0), 17673u);
  EXPECT_THAT(log_.Lines(), Contains(testing::StartsWith("update crl err: ")));
  EXPECT_EQ(Stored(), older);
}

}  // namespace
}  // namespace verifytest
