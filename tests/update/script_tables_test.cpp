#include <deque>
#include <random>

#include "base/owners.h"
#include "update/script_exe_ids.h"
#include "update/script_feature_id.h"
#include "update/script_record.h"
#include "update_fixture.h"

namespace {

class FeatureIdTest : public update_test::UpdateTest {};

TEST_F(FeatureIdTest, IsReadInEveryBaseFromTheFirstLineThatDeclaresIt) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"# FeatureID=12\n", 12},
      {"#!/bin/sh\nFeatureID=0x1F\r\nFeatureID=99\n", 31},
      {"FeatureID=010", 8},
      {"FeatureID=4294967294\n", 4294967294},
      {"FeatureID=4294967296\n", 4294967295},  // not 0 with the upper bits lost
      {"FeatureID=seven\n", 0},
      {"featureid=5\n", 0},
      {"", 0},
  };
  for (const auto& [text, id] : cases) {
    const std::string path = dir_.Write("script.sh", text);
    EXPECT_EQ(CheckFeatureIdFromFile(path.c_str(), id), 0u) << text;
    if (id == UINT32_MAX) continue;
    EXPECT_EQ(CheckFeatureIdFromFile(path.c_str(), id + 1), kExeErrFeatureId) << text;
  }
  EXPECT_EQ(CheckFeatureIdFromFile(dir_.File("absent").c_str(), 1), kExeErrFeatureId);
}

TEST_F(FeatureIdTest, ASearchGoesOnBehindTheLineThatWasFound) {
  const std::string path = dir_.Write("keys", std::string(130, 'x') + "\nKey=one\r\nother\n  Key=two");
  const base::FilePtr file(fopen(path.c_str(), "r"));
  int64_t offset = 0;
  char value[129];
  for (const char* expected : {"one", "two"}) {
    int64_t small = offset;
    EXPECT_EQ(GetKeyValue(file.get(), small, "Key=", value, 3), 1u) << "a value was cut";
    ASSERT_EQ(GetKeyValue(file.get(), offset, "Key=", value, sizeof(value)), 0u);
    EXPECT_STREQ(value, expected);
  }
  EXPECT_EQ(GetKeyValue(file.get(), offset, "Key=", value, sizeof(value)), 1u);
}

/// The table against a plain history: it remembers the last six saves.
TEST(ScriptRecordsTest, RemembersTheLastSixResultsLikeAHistoryDoes) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 200; ++round) {
    ScriptExeRecords records;
    std::deque<std::pair<uint16_t, uint16_t>> history;
    for (int step = 0; step < 40; ++step) {
      const auto seqNo = static_cast<uint16_t>(random() % 12 + 1);
      uint16_t result = 0;
      ASSERT_EQ(records.Find(0, result), history.size() < 6) << "request 0, free slots";
      const auto known =
          std::find_if(history.begin(), history.end(), [&](auto& entry) { return entry.first == seqNo; });
      ASSERT_EQ(records.Find(seqNo, result), known != history.end()) << seqNo;
      if (known != history.end()) {
        ASSERT_EQ(result, known->second) << "of " << seqNo;
        continue;  // the executor answers a known request and saves nothing
      }
      history.emplace_back(seqNo, static_cast<uint16_t>(random()));
      records.Save(seqNo, history.back().second);
      if (history.size() > 6) history.pop_front();
    }
  }
}

}  // namespace
