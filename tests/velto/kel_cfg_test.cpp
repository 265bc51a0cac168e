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

using testing::HasSubstr;
using testing::StartsWith;

/// Every value as the runtime gives it, by key.
std::map<std::string, std::string> AllValues() {
  std::map<std::string, std::string> values;
  for (const velto::CfgKey& key : velto::CfgKeys()) {
    uint64_t number = 0;
    char text[velto::kCfgTextSize];
    if (key.kind == velto::CfgKind::kNumber) {
      EXPECT_EQ(KEL_CfgNumberGet(key.name, &number), 0u) << key.name;
      values[key.name] = std::to_string(number);
    } else {
      EXPECT_EQ(KEL_CfgTextGet(key.name, text, sizeof(text)), 0u) << key.name;
      values[key.name] = text;
    }
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
  struct Row {
    std::string line;
    const char* reason;
  };
  const std::vector<Row> rows = {
      {"dms.answer_ms", "key=value"},
      {"=5", "unknown key \"\""},
      {"dms.answer=5", "unknown key \"dms.answer\""},
      {"DMS.DIR=/a", "unknown key"},
      {"dms.answer_ms=", "100 to 60000"},
      {"dms.answer_ms=99", "100 to 60000"},
      {"dms.answer_ms=60001", "100 to 60000"},
      {"dms.answer_ms=500x", "100 to 60000"},
      {"dms.answer_ms=5 00", "100 to 60000"},
      {"dms.answer_ms=-500", "100 to 60000"},
      {"dms.answer_ms=0x", "hexadecimal"},
      {"dms.answer_ms=1F4", "100 to 60000"},
      {"dms.answer_ms=18446744073709552116", "100 to 60000"},  // 2^64 + 500
      {"feature.signature_enable=0x100000000", "4294967295"},
      {"mem.budget_bytes=4096", "65536"},  // given before: the second one must not hide it
      {"dms.dir=run/velto", "begins with /"},
      {"dms.dir=/" + std::string(64, 'd'), "1 to 64 characters"},
      {"dms.dir=/a\001b", "control character"},
      {std::string("dms.dir=/a\0b", 12), "control character"},
      {"dms.peer_user=" + std::string(33, 'u'), "0 to 32 characters"},
      {"feature.expired_crl=Refuse", "refuse|enforce"},
      {"feature.expired_crl=refuse|enforce", "refuse|enforce"},
      {"feature.expired_crl=", "refuse|enforce"},
      {"#" + std::string(510, 'x'), "longer than 510"},
      {"dms.message_bytes=2048", "given in line 2 already"},
  };
  const auto defaults = AllValues();
  for (const Row& row : rows) {
    testing::internal::CaptureStdout();
    const uint32_t result =
        Load("# first\ndms.message_bytes=1024\n" + row.line + "\nmem.budget_bytes=65536\n");
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, kKelErrCfgValue) << row.line;
    EXPECT_THAT(printed, StartsWith(dir_.File("cfg") + ":3: ")) << row.line;
    EXPECT_THAT(printed, HasSubstr(row.reason)) << row.line;
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
    EXPECT_EQ(AllValues(), defaults) << "a refused file changed values: " << row.line;
  }
}

TEST_F(KelCfgTest, BoundsAndTheLongestLineAreStillTaken) {
  EXPECT_EQ(Load("dms.answer_ms=100\ndms.message_bytes=16777216\ndms.dir=/" + std::string(63, 'd') + "\n"),
            0u);
  EXPECT_EQ(Load("#" + std::string(509, 'x') + "\r\n"), 0u);
}

TEST_F(KelCfgTest, AMissingFileAndADirectoryCannotBeRead) {
  EXPECT_EQ(KEL_CfgdbInitByFsldr(dir_.File("none").c_str()), kKelErrCfgOpen);
  EXPECT_EQ(KEL_CfgdbInitByFsldr(dir_.path().c_str()), kKelErrCfgOpen);
  EXPECT_EQ(KEL_CfgdbInitByFsldr(nullptr), kKelErrCfgOpen);
}

TEST_F(KelCfgTest, AKeyIsFoundUnderItsOwnKindOnlyAndNeverCut) {
  uint64_t number = 7;
  char text[4] = "abc";
  EXPECT_EQ(KEL_CfgNumberGet("dms.dir", &number), kKelErrCfgKey);
  EXPECT_EQ(KEL_CfgNumberGet("none", &number), kKelErrCfgKey);
  EXPECT_EQ(number, 7u);
  EXPECT_EQ(KEL_CfgTextGet("dms.answer_ms", text, sizeof(text)), kKelErrCfgKey);
  EXPECT_EQ(KEL_CfgTextGet("dms.dir", text, sizeof(text)), kKelErrCfgKey);
  EXPECT_STREQ(text, "abc");
}

// The sample that users copy: every key once, in the table's order, with its default, under its own meaning.
TEST_F(KelCfgTest, TheSampleFileHoldsExactlyTheKeysWithTheirDefaultsAndMeanings) {
  std::ifstream sample(TOLA_SOURCE_DIR "/docs/feature.cfg");
  ASSERT_TRUE(sample.is_open());
  std::vector<std::string> keys;
  std::string remark;
  std::map<std::string, std::string> remarks;
  for (std::string line; std::getline(sample, line);) {
    if (line.empty()) {
      remark.clear();
    } else if (line[0] == '#') {
      remark += line.substr(1);
    } else {
      keys.push_back(line.substr(0, line.find('=')));
      remarks[keys.back()] = remark;
    }
  }
  std::vector<std::string> expected;
  for (const velto::CfgKey& key : velto::CfgKeys()) {
    expected.emplace_back(key.name);
    EXPECT_THAT(remarks[key.name], HasSubstr(key.meaning)) << key.name;
  }
  EXPECT_EQ(keys, expected);
  const auto defaults = AllValues();
  ASSERT_EQ(KEL_CfgdbInitByFsldr(TOLA_SOURCE_DIR "/docs/feature.cfg"), 0u);
  EXPECT_EQ(AllValues(), defaults) << "the sample promises another default than the runtime has";
}

}  // namespace
