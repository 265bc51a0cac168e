/// One record of the run log, beside spdlog's rotating file sink with a flush a record: written, dropped by
/// its level, folded as a repeat.

#include <benchmark/benchmark.h>
#include <spdlog/sinks/dup_filter_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <string>

#include "log/run_log.h"
#include "log/run_log_ex.h"
#include "support/temp_dir.h"

namespace {

constexpr uint32_t kFileSize = 102400;
constexpr uint16_t kModule = 7;
constexpr uint32_t kListLength = 30;

const support::TempDir& Dir() {
  static const support::TempDir dir;
  return dir;
}

/// Lines of 100 bytes on both sides: what stands before the text differs in length.
constexpr char kFormat[] = "record %08u with some words behind it";

void SetUpLog(bool fold) {
  static bool started = false;
  const uint8_t enable = fold ? 1 : 0;
  if (TOLA_LogRepeatControl(kLogRepeatEnable, &enable) != 0) abort();
  if (started) return;
  started = true;
  if (TOLA_SetRunLogFileName(Dir().File("run").c_str()) != 0) abort();
  if (TOLA_PrintInitForArm9(kFileSize, nullptr) != 0 || TOLA_LogControl(0, kLogErr, 2) != 0) abort();
}

std::shared_ptr<spdlog::logger> NewPeer(bool fold) {
  static int count = 0;
  auto file = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
      Dir().File("peer" + std::to_string(count++)), kFileSize, 1);
  spdlog::sink_ptr sink = file;
  if (fold) {
    auto filter = std::make_shared<spdlog::sinks::dup_filter_sink_mt>(std::chrono::seconds(300));
    filter->add_sink(file);
    sink = filter;
  }
  auto logger = std::make_shared<spdlog::logger>("M07", sink);
  logger->set_pattern("%Y-%m-%d %H:%M:%S %l %n log_bench.cpp          [40]:%v");
  logger->flush_on(spdlog::level::info);
  logger->set_level(spdlog::level::info);
  return logger;
}

void Write(benchmark::State& state) {
  if (state.thread_index() == 0) SetUpLog(false);
  uint32_t number = 0;
  for (auto _ : state) TOLA_LogPrint(kModule, kLogErr, "log_bench.cpp", 40, kFormat, number++);
}
BENCHMARK(Write);
BENCHMARK(Write)->Threads(2)->UseRealTime();

void WriteSpdlog(benchmark::State& state) {
  static std::shared_ptr<spdlog::logger> logger;
  if (state.thread_index() == 0) logger = NewPeer(false);
  uint32_t number = 0;
  for (auto _ : state) logger->error("record {:08} with some words behind it", number++);
}
BENCHMARK(WriteSpdlog);
BENCHMARK(WriteSpdlog)->Threads(2)->UseRealTime();

void Drop(benchmark::State& state) {
  SetUpLog(false);
  uint32_t number = 0;
  for (auto _ : state) TOLA_LogPrint(kModule, kLogInf, "log_bench.cpp", 40, kFormat, number++);
}
BENCHMARK(Drop);

void DropSpdlog(benchmark::State& state) {
  const auto logger = NewPeer(false);
  uint32_t number = 0;
  for (auto _ : state) logger->debug("record {:08} with some words behind it", number++);
}
BENCHMARK(DropSpdlog);

/// The sink's level filters, as ours does a module at a time.
void DropAtSpdlogsSink(benchmark::State& state) {
  const auto logger = NewPeer(false);
  logger->sinks().front()->set_level(spdlog::level::err);
  uint32_t number = 0;
  for (auto _ : state) logger->info("record {:08} with some words behind it", number++);
}
BENCHMARK(DropAtSpdlogsSink);

void Fold(benchmark::State& state) {
  SetUpLog(true);
  for (uint32_t number = 0; number < kListLength; ++number) {
    TOLA_LogPrint(kModule, kLogErr, "log_bench.cpp", 40, kFormat, number);
  }
  for (auto _ : state) TOLA_LogPrint(kModule, kLogErr, "log_bench.cpp", 40, kFormat, kListLength - 1);
  SetUpLog(false);
}
BENCHMARK(Fold);

void FoldSpdlog(benchmark::State& state) {
  const auto logger = NewPeer(true);
  for (auto _ : state) logger->error("record {:08} with some words behind it", kListLength - 1);
}
BENCHMARK(FoldSpdlog);

}  // namespace

BENCHMARK_MAIN();
