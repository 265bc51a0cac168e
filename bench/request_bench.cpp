/// The execute request: encoding and parsing, beside the same fields in protobuf-lite.

#include <benchmark/benchmark.h>

#include <string>

#include "request.pb.h"
#include "update/script_exe_messages.h"

namespace {

using Record = TolaCmpMsg::TolaMsgExeUpdateScriptData;

const std::string kScript = "/mnt/update/package_2_0/monitor_update.sh";
const std::string kPackage = "/mnt/update/package_2_0/update.tar.gz";
const std::string kDir = "/mnt/update/package_2_0";
const std::string kList = "filelist.txt";
const std::string kSignature = "filelist.cms";
const std::string kCrl = "filelist.crl";
const std::string kPara = "--bank 1";

void Set(TolaCmpMsg::MsgText& field, const std::string& text) {
  if (field.Set(text.data(), static_cast<uint32_t>(text.size()), 255) != 0) abort();
}

void Fill(Record& record) {
  record.requesterTaskId = 17;
  record.cpuLimit = 50;
  Set(record.scriptFullPath, kScript);
  Set(record.updateFileFullPath, kPackage);
  Set(record.signaturePath, kDir);
  Set(record.fileListFileName, kList);
  Set(record.signatureFileName, kSignature);
  Set(record.signatureCrlFileName, kCrl);
  Set(record.extendScriptPara, kPara);
  record.featureId = 3;
  record.checkFeatureId = 1;
}

void Fill(peer::Request& request) {
  request.set_requester_task_id(17);
  request.set_cpu_limit(50);
  request.set_script_full_path(kScript);
  request.set_update_file_full_path(kPackage);
  request.set_signature_path(kDir);
  request.set_file_list_file_name(kList);
  request.set_signature_file_name(kSignature);
  request.set_signature_crl_file_name(kCrl);
  request.set_extend_script_para(kPara);
  request.set_feature_id(3);
  request.set_check_feature_id(true);
}

void Encode(benchmark::State& state) {
  Record record;
  Fill(record);
  unsigned char buffer[512];
  for (auto _ : state) {
    benchmark::DoNotOptimize(record.SerializeToMsg(buffer, sizeof(buffer)));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(Encode);

void EncodeProtobuf(benchmark::State& state) {
  peer::Request request;
  Fill(request);
  unsigned char buffer[512];
  for (auto _ : state) {
    benchmark::DoNotOptimize(request.SerializeToArray(buffer, sizeof(buffer)));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(EncodeProtobuf);

void Parse(benchmark::State& state, bool copy) {
  Record source;
  Fill(source);
  unsigned char buffer[512];
  const uint32_t length = source.GetMsgLength();
  if (source.SerializeToMsg(buffer, sizeof(buffer)) != 0) abort();
  for (auto _ : state) {
    Record record;
    benchmark::DoNotOptimize(record.ParseFromMsg(buffer, length, copy));
    benchmark::ClobberMemory();
  }
}
BENCHMARK_CAPTURE(Parse, views, false);
BENCHMARK_CAPTURE(Parse, copies, true);

void ParseProtobuf(benchmark::State& state) {
  peer::Request source;
  Fill(source);
  const std::string bytes = source.SerializeAsString();
  for (auto _ : state) {
    peer::Request request;
    benchmark::DoNotOptimize(request.ParseFromString(bytes));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(ParseProtobuf);

}  // namespace

BENCHMARK_MAIN();
