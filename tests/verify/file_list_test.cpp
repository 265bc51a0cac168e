// The file list's parser, the digests behind it, and the hexadecimal text of a digest.
#include <thread>

#include "base/owners.h"
#include "verify/signature_verify_public.h"
#include "verify_fixture.h"

namespace verifytest {
namespace {

class FileListTest : public VerifyTest {
 protected:
  FileListTest() {
    dir_.Write("update/a.bin", "first");
    dir_.Write("update/b.bin", "second");
  }
  uint32_t CheckHashes(const std::string& list) const {
    const base::FilePtr file(fopen(dir_.Write("list.txt", list).c_str(), "r"));
    return CheckFileListHash(file.get(), dir_.File("update").c_str());
  }
  uint32_t FindDigest(const std::string& list, const std::string& name) const {
    return UpgradePackHashVerify(dir_.Write("list.txt", list).c_str(), UpdateFile(name).c_str());
  }
  const std::string a_ = Entry("a.bin", "first"), b_ = Entry("b.bin", "second"), digestA_ = DigestOf("first");
};

TEST_F(FileListTest, EveryFaultOfAListHasItsCode) {
  std::string upper = digestA_;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  const std::string longLine(160, 'x'), name = "FileName=a.bin\n", digest = "SHA256-Digest=" + digestA_;
  const std::tuple<const char*, std::string, uint32_t> cases[] = {
      {"none", "FileNum=2\n" + a_ + b_, 0},
      {"CR LF line ends, text before the keys, lines between",
       "# list\r\n  FileNum=1\r\n\r\n<FileName=a.bin\r\nx\r\n " + digest + "\r\n", 0},
      {"a long line without a key is no fault", "FileNum=1\n" + longLine + "\n" + a_, 0},
      {"no count", a_, 50989},
      {"count without digits", "FileNum=\n" + a_, 50989},
      {"negative count", "FileNum=-1\n" + a_, 50989},
      {"257 reads as 1, so a second entry is too much", "FileNum=257\n" + a_ + b_, 50995},
      {"256 reads as 0", "FileNum=256\n", 0},
      {"count 0 with an entry", "FileNum=0\n" + a_, 50995},
      {"an entry hidden behind a long line", "FileNum=1\n" + a_ + longLine + "FileName=b.bin\n", 50995},
      {"fewer entries than counted", "FileNum=3\n" + a_ + b_, 50990},
      {"name that does not fit", "FileNum=1\n" + Entry(std::string(129, 'n'), ""), 50990},
      {"name on a line that is too long", "FileNum=1\n" + longLine + a_, 50990},
      {"name with a zero byte", "FileNum=1\n" + Entry(std::string("a.bin\0x", 7), "first"), 50990},
      {"digest before the name", "FileNum=1\n" + digest + "\n" + name, 50991},
      {"digest of 65 characters is not cut to 64", "FileNum=1\n" + name + digest + "0\n", 50991},
      {"upper-case digest", "FileNum=1\n" + name + "SHA256-Digest=" + upper + "\n", 50994},
      {"digests are exchanged", "FileNum=2\n" + Entry("a.bin", "second") + Entry("b.bin", "first"), 50994},
      {"file that is not there", "FileNum=1\n" + Entry("gone.bin", ""), 50992},
      {"directory, never an empty digest", "FileNum=1\n" + Entry(".", ""), 50992},
  };
  for (const auto& [fault, text, code] : cases) EXPECT_EQ(CheckHashes(text), code) << fault;

  const std::string list = "FileNum=2\n" + a_ + b_;
  for (size_t length = 0; length + 1 < list.size(); ++length) {
    EXPECT_NE(CheckHashes(list.substr(0, length)), 0u) << "cut after " << length << " bytes";
    EXPECT_NE(FindDigest(list.substr(0, length), "b.bin"), 0u) << "cut after " << length << " bytes";
  }
  EXPECT_EQ(CheckHashes(list.substr(0, list.size() - 1)), 0u) << "the last line end may be missing";
}

TEST_F(FileListTest, APackageIsFoundByItsDigestAloneWithinTheCount) {
  ASSERT_EQ(mkfifo(dir_.File("fifo").c_str(), 0600), 0);
  const std::string list = "FileNum=2\n" + Entry("other-name", "first") + b_;
  const std::tuple<const char*, std::string, const char*, uint32_t> cases[] = {
      {"the name does not matter", list, "a.bin", 0},
      {"the second", list, "b.bin", 0},
      {"beyond the count", "FileNum=1\n" + a_ + b_, "b.bin", 50994},
      {"no count", a_, "a.bin", 50989},
      {"no package", list, "gone.bin", 50992},
      {"a directory has no digest", list, "", 50992},
  };
  for (const auto& [what, text, name, code] : cases) EXPECT_EQ(FindDigest(text, name), code) << what;
  for (const char* unusable : {"none", "fifo"})  // the pipe would block
    EXPECT_EQ(UpgradePackHashVerify(dir_.File(unusable).c_str(), UpdateFile("a.bin").c_str()), 50988u);
}

TEST_F(FileListTest, AMissingFilePassesOnlyWithoutStrictPartVerify) {
  const std::string list = "FileNum=2\n" + Entry("gone.bin", "x") + a_;
  TOLA_EnableSignatureVerificationLite(0x00010001);
  EXPECT_EQ(CheckHashes(list), 0u);
  EXPECT_THAT(log_.Lines(), Contains(UpdateFile("gone.bin") + " open fail, part file verify"));
  EXPECT_EQ(CheckHashes("FileNum=1\n" + Entry(".", "")), 50992u) << "a directory is there";
  EXPECT_EQ(CheckHashes("FileNum=2\n" + Entry("gone.bin", "x") + Entry("a.bin", "x")), 50994u);
  TOLA_EnableSignatureVerificationLite(0x00020001);
  EXPECT_EQ(CheckHashes(list), 50992u);
}

TEST_F(FileListTest, AFailedSearchLeavesThePositionAndNoValue) {
  const base::FilePtr file(fopen(dir_.Write("list.txt", "one\nKey=12345\ntwo\nKey=6\n").c_str(), "r"));
  char value[5] = "old", room[6];
  for (const auto& [key, result] : {std::pair{"Other=", kKeyMissing}, {"Key=", kKeyUnusable}}) {
    EXPECT_EQ(GetKeyValueFromFile(file.get(), key, value, sizeof(value)), result);
    EXPECT_STREQ(value, "") << "an old or a cut value was handed out";
    EXPECT_EQ(ftell(file.get()), 0);
  }
  for (const char* expected : {"12345", "6"}) {
    EXPECT_EQ(GetKeyValueFromFile(file.get(), "Key=", room, sizeof(room)), kKeyFound);
    EXPECT_STREQ(room, expected);
  }
}

TEST_F(FileListTest, DigestsAreRightAroundTheBufferSizeInAllThreads) {
  std::vector<std::thread> threads;
  for (const size_t size : {0u, 1u, 262143u, 262144u, 262145u, 3000000u, 3000001u, 3000002u}) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 31 + i / 977 + size);
    const std::string path = dir_.Write(std::to_string(size), bytes), digest = DigestOf(bytes);
    threads.emplace_back([path, digest] {
      char text[kDigestText];
      for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(CalcFileHashStr(path.c_str(), text, sizeof(text)), 0u);
        EXPECT_EQ(digest, text) << path;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  uint8_t digest[kDigestBytes];
  ASSERT_EQ(mkfifo(dir_.File("fifo").c_str(), 0600), 0);
  EXPECT_EQ(TolaCalcFileHash(dir_.File("gone").c_str(), digest), 50955u);
  const std::string unreadable = "/proc/self/mem";  // its reading fails at the first byte
  for (const std::string& path : {dir_.path(), dir_.File("fifo"), std::string("/dev/zero"), unreadable})
    EXPECT_EQ(TolaCalcFileHash(path.c_str(), digest), 50956u) << "no regular file, or it blocks: " << path;
}

TEST(DigestTextTest, FitsExactlyOrIsRefused) {
  const uint8_t bytes[] = {0x00, 0x9f, 0xa0};
  char text[8] = "zzzzzzz";
  EXPECT_EQ(TolaChangeU8toAscChar(bytes, 3, text, 5), 50949u);
  EXPECT_EQ(TolaChangeU8toAscChar(bytes, 3, text, 6), 0u);
  EXPECT_STREQ(text, "009fa0z") << "wrote beyond the six characters";
}

}  // namespace
}  // namespace verifytest
