#include "cfg/hash_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "cfg/cfg_support.h"
#include "support/log_capture.h"
#include "support/random.h"

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

using Model = std::map<uint32_t, std::vector<uint32_t>>;  // serials by key, the newest last

/// Nodes as the cursor and as the visit find them, compared with the model.
void ExpectSameNodes(CHashTable& table, const Model& model) {
  std::multiset<uint32_t> expected, walked, visited;
  for (const auto& [key, serials] : model) expected.insert(serials.begin(), serials.end());
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
  EXPECT_EQ(table.GetHashTableNodeNum(), expected.size());
}

/// Random additions, look-ups and, on the heap, removals beside the model.
void RunAgainstModel(CHashTable& table, bool byArena) {
  std::mt19937 random = support::NewRandom();
  Model model;
  for (uint32_t serial = 1; serial <= 3000 && !testing::Test::HasFailure(); ++serial) {
    uint32_t key = support::Below(random, 40);
    if (!byArena && support::Below(random, 8) == 0) {
      EXPECT_EQ(table.DeleteAllAppointNode(&key, SameKey, &key), model[key].size());
      model.erase(key);
    } else {
      auto* data = static_cast<Data*>(byArena ? table.AddHashNodeWithDataByMemBlock(&key, sizeof(Data))
                                              : table.AddHashNodeWithData(&key, sizeof(Data)));
      ASSERT_NE(data, nullptr);
      EXPECT_EQ(data->key + data->serial, 0u) << "a node's data was not zeroed";
      *data = {key, serial};
      model[key].push_back(serial);
    }
    key = support::Below(random, 40);
    const auto* found = static_cast<const Data*>(table.GetOneAppointNode(&key, SameKey, &key));
    EXPECT_EQ(found != nullptr ? found->serial : 0, model[key].empty() ? 0 : model[key].back())
        << "key " << key << " did not find its newest node";
    if (serial % 500 == 0) ExpectSameNodes(table, model);
  }
  if (byArena) return;
  size_t removed = 0;
  for (auto& [key, serials] : model)
    removed += std::erase_if(serials, [](uint32_t serial) { return serial % 2 == 0; });
  EXPECT_EQ(table.TravelDeleteAllAppointNode(EvenSerial, nullptr), removed);
  ExpectSameNodes(table, model);
}

TEST(HashTable, OnTheHeapItHoldsWhatAMultimapHoldsAndLeavesNothingBehind) {
  const auto before = HeapUse();
  {
    CHashTable table(false);
    ASSERT_EQ(table.Init(TestHandle(), 7, HashModSeven), 0u);
    ASSERT_NE(table.AddHashNodeWithData(&kTwo, 4), nullptr);
    EXPECT_EQ(HeapUse().first - before.first, 8 * sizeof(void*) + 4) << "a node is a link and its data";
    EXPECT_EQ(table.TravelDeleteAllAppointNode([](void*, void*) -> uint16_t { return 1; }, nullptr), 1);
    RunAgainstModel(table, false);
    const uint16_t count = table.GetHashTableNodeNum();
    void* first = table.GetHashNodeByIndex(3);
    EXPECT_EQ(table.Init(TestHandle(), 1, HashModSeven), 0u);
    EXPECT_EQ(table.GetHashNodeByIndex(3), first) << "a second Init made the buckets anew";
    EXPECT_EQ(table.GetHashTableNodeNum(), 0u) << "it counts from zero, with " << count << " nodes kept";
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
    RunAgainstModel(table, true);

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

    const MEM_BLOCK_KEY_PARA_INFO_S small{{}, 24};  // no room for the buckets: the heap has it
    ASSERT_EQ(table.RegMemBlockManage(&arena, &small), 0u);
    ASSERT_EQ(table.Init(TestHandle(), 7, HashModSeven), 0u) << "a cleared table is as good as new";
    EXPECT_EQ(table.GetHashTableNodeNum(), 0u);
    EXPECT_NE(table.AddHashNodeWithDataByMemBlock(&kTwo, 4), nullptr);
    table.ClearHashTable();
    EXPECT_EQ(HeapUse(), before) << "the heap's buckets were left behind";
  }
  EXPECT_EQ(HeapUse(), before);
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
  ExpectSameNodes(table, {});
}

TEST(RapidIndex, HashesAreTheLowBitsOfTheIndexCutTo16) {
  const META_DATA_RAPID_INDEX_KEY_S key{0xABCD1234, 1024}, wide{0xABCD1234, 0x100000};
  EXPECT_EQ(MetaDataRapidIndexKeyHashFunc(&key), 0x234);
  EXPECT_EQ(MetaDataMainTypeRapidIndexKeyHashFunc(&key), 0x234);
  EXPECT_EQ(MetaDataRapidIndexKeyHashFunc(&wide), 0x1234);
}

}  // namespace
