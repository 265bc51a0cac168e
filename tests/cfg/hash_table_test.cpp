#include "cfg/hash_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <unordered_map>
#include <vector>

#include "cfg/cfg_support.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;

struct Data {
  uint32_t key;
  uint32_t serial;
};
const uint32_t kTwo = 2;
const uint32_t kNine = 9;

/// Few buckets for many keys, so that chains mix keys.
uint16_t HashModSeven(const void* key) {
  return static_cast<uint16_t>(*static_cast<const uint32_t*>(key) % 7);
}
uint16_t SameKey(void* data, void* key) {
  return static_cast<Data*>(data)->key == *static_cast<uint32_t*>(key) ? 1 : 2;  // 2 is no match
}
uint16_t EvenSerial(void* data, void*) {
  return static_cast<Data*>(data)->serial % 2 == 0;
}
uint16_t Collect(void* data, void* out) {
  static_cast<std::multiset<uint32_t>*>(out)->insert(static_cast<Data*>(data)->serial);
  return 0;
}

using Model = std::unordered_multimap<uint32_t, uint32_t>;  // key to serial, the newest last

/// Nodes as the cursor and as the visit find them, compared with the model.
void ExpectSameNodes(CHashTable& table, const Model& model) {
  std::multiset<uint32_t> expected, walked, visited;
  for (const auto& [key, serial] : model) expected.insert(serial);
  CHashCursor cursor;
  EXPECT_EQ(cursor.Init(&table), 0u);
  while (!cursor.IsEnd()) {
    walked.insert(static_cast<Data*>(cursor.GetDataOfCurPositon())->serial);
    const uint32_t moved = cursor.MoveToNext();
    EXPECT_EQ(moved, cursor.IsEnd() ? 0u : 1u);
  }
  EXPECT_EQ(table.TravelAllAppointNode(Collect, &visited), 0);
  EXPECT_EQ(walked, expected) << "the cursor left nodes out or saw some twice";
  EXPECT_EQ(visited, expected);
  EXPECT_EQ(table.GetHashTableNodeNum(), model.size());
}

/// Random additions, look-ups and (`deletes`) removals beside the model.
void RunAgainstModel(CHashTable& table, bool byArena, bool deletes) {
  const uint32_t seed = std::random_device{}();
  printf("seed %u\n", seed);
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  Model model;
  std::unordered_map<uint32_t, uint32_t> newest;
  for (uint32_t serial = 1; serial <= 3000 && !testing::Test::HasFailure(); ++serial) {
    uint32_t key = below(40);
    if (deletes && below(8) == 0) {
      EXPECT_EQ(table.DeleteAllAppointNode(&key, SameKey, &key), model.erase(key));
      newest.erase(key);
    } else {
      void* memory = byArena ? table.AddHashNodeWithDataByMemBlock(&key, sizeof(Data))
                             : table.AddHashNodeWithData(&key, sizeof(Data));
      ASSERT_NE(memory, nullptr);
      auto* data = static_cast<Data*>(memory);
      EXPECT_EQ(data->key + data->serial, 0u) << "a node's data was not zeroed";
      *data = {key, serial};
      model.emplace(key, serial);
      newest[key] = serial;
    }
    key = below(40);
    const auto* found = static_cast<const Data*>(table.GetOneAppointNode(&key, SameKey, &key));
    EXPECT_EQ(found != nullptr ? found->serial : 0, newest.contains(key) ? newest[key] : 0)
        << "key " << key << " did not find its newest node";
    if (serial % 500 == 0) ExpectSameNodes(table, model);
  }
  if (!deletes) return;
  const auto removed = std::erase_if(model, [](const auto& entry) { return entry.second % 2 == 0; });
  EXPECT_EQ(table.TravelDeleteAllAppointNode(EvenSerial, nullptr), removed);
  ExpectSameNodes(table, model);
}

TEST(HashTable, OnTheHeapItHoldsWhatAMultimapHoldsAndLeavesNothingBehind) {
  const auto before = HeapUse();
  {
    CHashTable table(false);
    ASSERT_EQ(table.Init(TestHandle(), 7, HashModSeven), 0u);
    RunAgainstModel(table, false, true);
  }
  EXPECT_EQ(HeapUse(), before) << "nodes or buckets were left behind";
}

TEST(HashTable, OnAnArenaItHoldsWhatAMultimapHoldsAndRefusesRemovals) {
  const auto before = HeapUse();
  {
    CMemBlockManage arena(false);
    CHashTable table(false);
    const MEM_BLOCK_KEY_PARA_INFO_S key{{}, 500};  // blocks that end in the middle of a node
    ASSERT_EQ(table.RegMemBlockManage(&arena, &key), 0u);
    EXPECT_EQ(table.RegMemBlockManage(&arena, &key), 1u) << "a second arena was taken";
    ASSERT_EQ(table.Init(TestHandle(), 7, HashModSeven), 0u);
    RunAgainstModel(table, true, false);

    uint32_t some = 2;
    const uint16_t count = table.GetHashTableNodeNum();
    EXPECT_EQ(table.DeleteAllAppointNode(&some, SameKey, &some), 1u);
    EXPECT_EQ(table.TravelDeleteAllAppointNode(EvenSerial, nullptr), 1);
    EXPECT_NE(table.GetOneAppointNode(&some, SameKey, &some), nullptr) << "a refused removal removed";
    EXPECT_EQ(table.GetHashTableNodeNum(), count);

    table.ClearHashTable();
    EXPECT_EQ(HeapUse(), before) << "the arena kept what the table gave back";
    EXPECT_EQ(table.GetHashTableNodeNum(), count) << "only Init sets the count back";
    EXPECT_EQ(table.ResetMemBlockMaxLen(100), 1u) << "the arena was not forgotten";
    ASSERT_EQ(table.Init(TestHandle(), 3, HashModSeven), 0u) << "a cleared table is as good as new";
    EXPECT_EQ(table.GetHashTableNodeNum(), 0u);
    EXPECT_NE(table.AddHashNodeWithData(&kTwo, 4), nullptr);
  }
  EXPECT_EQ(HeapUse(), before);
}

TEST(HashTable, NodesTakeALinkAndTheirDataAndBucketsThatTheArenaRefusesComeFromTheHeap) {
  CHashTable table(false);
  const auto before = HeapUse();
  ASSERT_EQ(table.Init(TestHandle(), 300, HashModSeven), 0u);
  ASSERT_NE(table.AddHashNodeWithData(&kTwo, 4), nullptr);
  EXPECT_EQ(HeapUse().first - before.first, 301 * sizeof(void*) + 4);

  CMemBlockManage arena(false);
  CHashTable large(false);
  const MEM_BLOCK_KEY_PARA_INFO_S key{{}, 64};
  ASSERT_EQ(large.RegMemBlockManage(&arena, &key), 0u);
  ASSERT_EQ(large.Init(TestHandle(), 300, HashModSeven), 0u);
  EXPECT_NE(large.AddHashNodeWithDataByMemBlock(&kTwo, 4), nullptr);
  large.ClearHashTable();
  EXPECT_EQ(HeapUse().first - before.first, 301 * sizeof(void*) + 4) << "the heap's buckets were left behind";
}

TEST(HashTable, WhatCannotBeDoneIsLoggedAndLeavesTheTableAsItWas) {
  support::LogCapture log;
  CHashTable table(false);
  HASH_TABLE_NODE** slot = nullptr;
  EXPECT_EQ(table.Init(TestHandle(), 0, HashModSeven), 1u);
  EXPECT_EQ(table.Init(0, 7, HashModSeven), 1u) << "no memory under that handle";
  EXPECT_EQ(table.GetHashNodeByKeyInfo(&kTwo, slot), 1u);
  EXPECT_EQ(table.GetHashNodeByIndex(0), nullptr);
  EXPECT_EQ(table.TravelDeleteAllAppointNode(EvenSerial, nullptr), 0);
  EXPECT_THAT(log.Lines(), ElementsAre("hash head num0", "malloc hash err", "err:hash not init"));
  EXPECT_EQ(log.Records().back().level, "INF");
  EXPECT_EQ(log.Records().front().level, "ERR");

  log.Clear();
  ASSERT_EQ(table.Init(TestHandle(), 2, HashModSeven), 0u);
  EXPECT_EQ(table.AddHashNodeWithData(&kTwo, 4), nullptr) << "bucket 2 of 0 and 1";
  EXPECT_EQ(table.AddHashNodeWithData(nullptr, 4), nullptr);
  EXPECT_EQ(table.AddHashNodeWithData(&kNine, 0), nullptr);
  EXPECT_EQ(table.AddHashNodeWithDataByMemBlock(&kNine, 4), nullptr);
  const uint32_t one = 1;
  EXPECT_EQ(table.AddHashNodeWithDataByMemBlock(&one, 4), nullptr);
  EXPECT_THAT(log.Lines(),
              ElementsAre("err slot 2 vs 2", "malloc hash err", "malloc hash err", "malloc hash err",
                          "err slot 2 vs 2", "malloc hash err", "alloc err 0x1"));
  EXPECT_EQ(table.GetHashTableNodeNum(), 0u);
  CHashCursor cursor;
  EXPECT_EQ(cursor.Init(&table), 0u);
  EXPECT_TRUE(cursor.IsEnd());
  EXPECT_EQ(cursor.MoveToNext(), 0u);
}

TEST(HashTable, ASecondInitKeepsTheNodesAndCountsFromZero) {
  CHashTable table(false);
  ASSERT_EQ(table.Init(TestHandle(), 7, HashModSeven), 0u);
  auto* data = static_cast<Data*>(table.AddHashNodeWithData(&kNine, sizeof(Data)));
  ASSERT_NE(data, nullptr);
  data->key = kNine;
  EXPECT_EQ(table.Init(TestHandle(), 1, HashModSeven), 0u);
  uint32_t key = kNine;
  EXPECT_EQ(table.GetOneAppointNode(&key, SameKey, &key), data) << "the buckets were made anew";
  EXPECT_EQ(table.GetHashTableNodeNum(), 0u);
}

TEST(RapidIndex, HashesAreTheLowBitsOfTheIndex) {
  const META_DATA_RAPID_INDEX_KEY_S key{0xABCD1234, 1024};
  EXPECT_EQ(MetaDataRapidIndexKeyHashFunc(&key), 0x234);
  EXPECT_EQ(MetaDataMainTypeRapidIndexKeyHashFunc(&key), 0x234);
  const META_DATA_RAPID_INDEX_KEY_S wide{0xABCD1234, 0x100000};
  EXPECT_EQ(MetaDataRapidIndexKeyHashFunc(&wide), 0x1234) << "not cut to 16 bits";
}

}  // namespace
