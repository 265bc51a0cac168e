#include "velto/kel_cfg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "velto/kel_cfg_table.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// Every value as the runtime gives it, by key.
std::map<std::string, std::string> AllValues() {
  std::map<std::string, std::string> values;
  for (const velto::CfgKey& key : velto::CfgKeys()) {
    uint64_t number = 0;
    char text[velto::kCfgTextSize] = "";
    const bool isNumber = key.kind == velto::CfgKind::kNumber;
    EXPECT_EQ(isNumber ? KEL_CfgNumberGet(key.name, &number) : KEL_CfgTextGet(key.name, text, sizeof(text)),
              0u);
    values[key.name] = isNumber ? std::to_string(number) : text;
  }
  return values;
}

class KelCfgTest : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(Load(""), 0u); }  // defaults for the next case

  uint32_t Load(const std::string& content) {
    return KEL_CfgdbInitByFsldr(dir_.Write("cfg", content).c_str());
  }

  support::TempDir dir_;
};

TEST_F(KelCfgTest, GivenKeysReplaceTheirDefaultsAndTheOthersKeepThem) {
  const auto defaults = AllValues();
  ASSERT_EQ(Load("# remark\r\n\r\n \t dms.dir \t=  /tmp/a=b # c \r\nmem.budget_bytes=0x10000\n"
                 "feature.expired_crl=enforce\ndms.peer_user=\nfeature.signature_enable=0xFFffFFFF"),
            0u);
  auto expected = defaults;
  expected["dms.dir"] = "/tmp/a=b # c";
  expected["mem.budget_bytes"] = "65536";
  expected["feature.expired_crl"] = "enforce";
  expected["dms.peer_user"] = "";
  expected["feature.signature_enable"] = "4294967295";
  EXPECT_EQ(AllValues(), expected);
  ASSERT_EQ(Load(""), 0u);
  EXPECT_EQ(AllValues(), defaults) << "a value outlived the file that gave it";
}

TEST_F(KelCfgTest, AWrongLineIsNamedWithItsReasonAndChangesNothing) {
  const std::pair<std::string, const char*> rows[] = {
      {"dms.answer_ms", "key=value"},
      {"DMS.DIR=/a", "unknown key \"DMS.DIR\""},
      {"dms.answer_ms=99", "100 to 60000"},
      {"dms.answer_ms=60001", "100 to 60000"},
      {"dms.answer_ms=500x", "100 to 60000"},
      {"dms.answer_ms=-500", "100 to 60000"},
      {"dms.answer_ms=0x", "hexadecimal"},
      {"dms.answer_ms=18446744073709552116", "100 to 60000"},  // 2^64 + 500
      {"feature.signature_enable=0x100000000", "4294967295"},
      {"dms.dir=run/velto", "begins with /"},
      {"dms.dir=/" + std::string(64, 'd'), "1 to 64 characters"},
      {std::string("dms.dir=/a\0b", 12), "control character"},
      {"feature.expired_crl=refuse|enforce", "refuse|enforce"},
      {"#" + std::string(510, 'x'), "longer than 510"},
      {"dms.message_bytes=2048", "given in line 2 already"},
  };
  const auto defaults = AllValues();
  for (const auto& [line, reason] : rows) {
    SCOPED_TRACE(line);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Load("# first\ndms.message_bytes=1024\n" + line + "\nmem.budget_bytes=65536\n"),
              kKelErrCfgValue);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_THAT(printed, AllOf(StartsWith(dir_.File("cfg") + ":3: "), HasSubstr(reason)));
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
    EXPECT_EQ(AllValues(), defaults) << "a refused file changed values";
  }
}

TEST_F(KelCfgTest, BoundsAndTheLongestLineAreStillTakenAndWhatIsNoFileIsNot) {
  EXPECT_EQ(KEL_CfgdbInitByFsldr(dir_.File("none").c_str()), kKelErrCfgOpen);
  EXPECT_EQ(KEL_CfgdbInitByFsldr(dir_.path().c_str()), kKelErrCfgOpen);
  EXPECT_EQ(Load("dms.answer_ms=100\ndms.message_bytes=16777216\ndms.dir=/" + std::string(63, 'd') + "\n#" +
                 std::string(509, 'x') + "\r\n"),
            0u);
  char text[4] = "abc";
  EXPECT_EQ(KEL_CfgTextGet("dms.dir", text, sizeof(text)), kKelErrCfgKey);
  EXPECT_STREQ(text, "abc") << "a directory name was cut";
}

// The sample that users copy: every key once, in the table's order, with its default, under a remark.
TEST_F(KelCfgTest, TheSampleFileHoldsExactlyTheKeysWithTheirDefaults) {
  const auto defaults = AllValues();
  ASSERT_EQ(KEL_CfgdbInitByFsldr(TOLA_SOURCE_DIR "/docs/feature.cfg"), 0u);
  EXPECT_EQ(AllValues(), defaults) << "the sample promises another default than the runtime has";
  std::ifstream sample(TOLA_SOURCE_DIR "/docs/feature.cfg");
  std::vector<std::string> keys, expected;
  std::string before;
  for (std::string line; std::getline(sample, line); before = line) {
    if (line.empty() || line[0] == '#') continue;
    keys.push_back(line.substr(0, line.find('=')));
    EXPECT_THAT(before, StartsWith("# ")) << "no meaning of " << keys.back();
  }
  for (const velto::CfgKey& key : velto::CfgKeys()) expected.emplace_back(key.name);
  EXPECT_EQ(keys, expected);
}

}  // namespace
