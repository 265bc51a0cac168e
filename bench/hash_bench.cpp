/// The hash table and the arena beside std::unordered_map and calloc: a hit in the table of message types, a
/// hit among a thousand nodes, insertion, and one small section.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <random>
#include <unordered_map>
#include <vector>

#include "cfg/hash_table.h"
#include "velto/kel_mem.h"

namespace {

constexpr uint32_t kNodes = 1000;
constexpr uint16_t kBuckets = 65535;
constexpr MEM_BLOCK_KEY_PARA_INFO_S kArenaKey{{}, 8192};

uint32_t Handle() {
  uint32_t handle = 0;
  if (KEL_HandleInitialize("bench", &handle) != 0) abort();
  return handle;
}

struct Node {
  uint32_t key;
  uint32_t value;
};

// As the message routes keep it: a node is the type with its class, four of them in 300 buckets.
struct Route {
  uint16_t type;
  uint16_t priority;
};
constexpr uint16_t kTypes[] = {2572, 41696, 2573, 3585};

uint16_t RouteHash(const void* key) {
  return static_cast<uint16_t>(*static_cast<const uint16_t*>(key) % 300);
}
uint16_t RouteMatch(void* data, void* type) {
  return static_cast<Route*>(data)->type == *static_cast<uint16_t*>(type) ? 1 : 0;
}

void HitLive(benchmark::State& state) {
  CHashTable table(false);
  if (table.Init(Handle(), 300, RouteHash) != 0) abort();
  for (const uint16_t type : kTypes)
    *static_cast<Route*>(table.AddHashNodeWithData(&type, sizeof(Route))) = {type, 2};
  uint32_t turn = 0;
  for (auto _ : state) {
    uint16_t type = kTypes[turn++ % 4];
    const auto* route =
        static_cast<const Route*>(table.GetOneAppointNode(&type, RouteMatch, &type, RouteHash));
    benchmark::DoNotOptimize(route->priority);
  }
}
BENCHMARK(HitLive);

void HitLiveUnorderedMap(benchmark::State& state) {
  std::unordered_map<uint16_t, uint16_t> map;
  for (const uint16_t type : kTypes) map.emplace(type, 2);
  uint32_t turn = 0;
  for (auto _ : state) {
    const uint16_t type = kTypes[turn++ % 4];
    benchmark::DoNotOptimize(map.find(type)->second);
  }
}
BENCHMARK(HitLiveUnorderedMap);

uint16_t SpreadHash(const void* key) {
  const auto spread = static_cast<uint16_t>(*static_cast<const uint32_t*>(key) * 0x9E3779B1U >> 16);
  return spread < kBuckets ? spread : 0;
}
uint16_t NodeMatch(void* data, void* key) {
  return static_cast<Node*>(data)->key == *static_cast<uint32_t*>(key) ? 1 : 0;
}

std::vector<uint32_t> Keys() {
  std::mt19937 random(1);
  std::vector<uint32_t> keys(kNodes);
  std::generate(keys.begin(), keys.end(), random);
  return keys;
}

/// Adds all nodes, from the arena of the table.
void Fill(CHashTable& table, const std::vector<uint32_t>& keys) {
  for (const uint32_t key : keys)
    *static_cast<Node*>(table.AddHashNodeWithDataByMemBlock(&key, sizeof(Node))) = {key, 1};
}

void HitMany(benchmark::State& state) {
  CMemBlockManage arena(false);
  CHashTable table(false);
  if (table.RegMemBlockManage(&arena, &kArenaKey) != 0 || table.Init(Handle(), kBuckets, SpreadHash) != 0)
    abort();
  const std::vector<uint32_t> keys = Keys();
  Fill(table, keys);
  uint32_t turn = 0;
  for (auto _ : state) {
    uint32_t key = keys[turn];
    turn = turn + 1 < kNodes ? turn + 1 : 0;
    benchmark::DoNotOptimize(
        static_cast<const Node*>(table.GetOneAppointNode(&key, NodeMatch, &key, SpreadHash))->value);
  }
}
BENCHMARK(HitMany);

void HitManyUnorderedMap(benchmark::State& state) {
  std::unordered_map<uint32_t, uint32_t> map;
  const std::vector<uint32_t> keys = Keys();
  for (const uint32_t key : keys) map.emplace(key, 1);
  uint32_t turn = 0;
  for (auto _ : state) {
    const uint32_t key = keys[turn];
    turn = turn + 1 < kNodes ? turn + 1 : 0;
    benchmark::DoNotOptimize(map.find(key)->second);
  }
}
BENCHMARK(HitManyUnorderedMap);

/// A thousand insertions a turn into an empty table; making and clearing it is not measured, on either side.
void Insert(benchmark::State& state) {
  const std::vector<uint32_t> keys = Keys();
  while (state.KeepRunningBatch(kNodes)) {
    state.PauseTiming();
    {
      CMemBlockManage arena(false);
      CHashTable table(false);
      if (table.RegMemBlockManage(&arena, &kArenaKey) != 0 || table.Init(Handle(), kBuckets, SpreadHash) != 0)
        abort();
      state.ResumeTiming();
      Fill(table, keys);
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
}
BENCHMARK(Insert);

void InsertUnorderedMap(benchmark::State& state) {
  const std::vector<uint32_t> keys = Keys();
  while (state.KeepRunningBatch(kNodes)) {
    state.PauseTiming();
    {
      std::unordered_map<uint32_t, uint32_t> map(kNodes);  // with room, so that it does not grow
      state.ResumeTiming();
      for (const uint32_t key : keys) map.emplace(key, 1);
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
}
BENCHMARK(InsertUnorderedMap);

/// Blocks are opened on the way, and all of them are given back every thousand sections.
void Section(benchmark::State& state) {
  CMemBlockManage arena(false);
  if (arena.Init(Handle()) != 0) abort();
  const MEM_SECTION_HEAD_INFO_S section{0, 16};
  uint32_t turn = 0;
  for (auto _ : state) {
    void* out = nullptr;
    if (arena.AllocMemInBlockByKeyInfo(&kArenaKey, &section, out) != 0) abort();
    benchmark::DoNotOptimize(out);
    if (++turn % kNodes == 0 && arena.ClearRegMemBlock(&kArenaKey) != 0) abort();
  }
}
BENCHMARK(Section);

void SectionCalloc(benchmark::State& state) {
  for (auto _ : state) {
    void* out = calloc(1, 16);
    benchmark::DoNotOptimize(out);
    free(out);
  }
}
BENCHMARK(SectionCalloc);

}  // namespace

BENCHMARK_MAIN();
