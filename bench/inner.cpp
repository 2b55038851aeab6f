// What single operations cost inside the program. Runs in the lab; --benchmark_... options as ever.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "account/account_data.h"
#include "account/account_files.h"
#include "account/record_change.h"
#include "account/user.h"
#include "base/atomic_replace.h"
#include "deviceapi/zomi_token_generation.h"
#include "klibc/keyvalue.h"
#include "pkce/file_lock.h"

namespace {

using nodelink::User;
namespace record = nodelink::record;

constexpr char kOwnKeys[] =
    "zomiIDSerial=\"ed4e311eac45e628c4ae18c4fe133e89\"\n"
    "hs_auth_key=\"TCedp-uQCdjk89dkQ0yvHbzEMOH9lErMDlxy0R9UkE4\"\n"
    "zomiID=\"anna@example.org\"\nfull_name=\"Anna Example\"\ncountry=\"CH\"\n"
    "timezone=\"Europe/Zurich\"\nnotify_language=\"ger\"\nactivated=\"yes\"\ndisabled=\"no\"\n"
    "enews=\"no\"\nenews_local_promotion=\"no\"\ncritical_release=\"no\"\n"
    "critical_version_list=\"7.1\"\ncritical_version_domain=\"7.1,7.2\"\n"
    "realname_validation_pass=\"no\"\nlast_query_time=\"1795276991\"\n";

// A record whose own keys stand behind so many of others.
void MakeRecord(std::int64_t foreign_keys) {
  std::ofstream file(nodelink::account_files::kRecord, std::ios::trunc);
  for (std::int64_t i = 0; i < foreign_keys; ++i) {
    file << "foreign_key_" << i << "=\"a value of the usual length\"\n";
  }
  file << kOwnKeys;
}

void ReadOneKey(benchmark::State& state) {
  MakeRecord(state.range(0));
  const User user;
  while (state.KeepRunning()) benchmark::DoNotOptimize(user.Get(record::kLastQueryTime));
}

void ReadWholeRecord(benchmark::State& state) {
  MakeRecord(state.range(0));
  while (state.KeepRunning()) {
    nodelink::AccountData data;
    benchmark::DoNotOptimize(nodelink::ReadAccountData(data));
  }
}

void ReadMissingKey(benchmark::State& state) {
  MakeRecord(state.range(0));
  std::array<char, 2048> value{};
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(KLIBCFileGetKeyValue(nodelink::account_files::kRecord, "no_such_key",
                                                  value.data(), static_cast<int>(value.size()), 0));
  }
}

BENCHMARK(ReadOneKey)->Arg(0)->Arg(20)->Arg(200)->Arg(2000);
BENCHMARK(ReadWholeRecord)->Arg(0)->Arg(20)->Arg(200)->Arg(2000);
BENCHMARK(ReadMissingKey)->Arg(0)->Arg(20)->Arg(200)->Arg(2000);

void LockAndUnlock(benchmark::State& state) {
  while (state.KeepRunning()) {
    nodelink::FileLock lock(nodelink::account_files::LockFile("bench"), 0);
    benchmark::DoNotOptimize(lock.Lock(30));
  }
}
BENCHMARK(LockAndUnlock);

void GenerateToken(benchmark::State& state) {
  while (state.KeepRunning()) {
    std::array<char, 64> serial = {"NL00000001A"};
    std::array<char, nodelink::kDeviceTokenSize> token{};
    benchmark::DoNotOptimize(nodelink::DeviceTokenGenerate("", "", serial.data(), serial.size(),
                                                           token.data(), token.size()));
  }
}
BENCHMARK(GenerateToken);

// The 14 keys that an answer to the query changes, as the query writes them.
void WriteAnswer() {
  const nodelink::LinkLock lock;
  nodelink::RecordChange change;
  const std::string text = "a text of the server's";
  for (const auto* key : {&record::kZomiId, &record::kFullName, &record::kCountry,
                          &record::kTimezone, &record::kNotifyLanguage}) {
    change.Set(lock, *key, text);
  }
  for (const auto* key : {&record::kActivated, &record::kDisabled, &record::kEnews,
                          &record::kEnewsLocalPromotion, &record::kCriticalRelease}) {
    change.Set(lock, *key, true);
  }
  change.Set(lock, record::kCriticalVersionList, text);
  change.Set(lock, record::kCriticalVersionDomain, text);
  change.Set(lock, record::kRealnameValidationPass, false);
  change.Set(lock, record::kLastQueryTime, std::int64_t{1795276991});
}

void WriteBack(benchmark::State& state) {
  MakeRecord(0);
  while (state.KeepRunning()) WriteAnswer();
}
BENCHMARK(WriteBack)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Fourteen of them, beside the record, of the record's size.
void ReplaceSmallFile(benchmark::State& state) {
  const std::string path = std::string(nodelink::account_files::kRecord) + ".small";
  while (state.KeepRunning()) {
    for (int i = 0; i < 14; ++i) {
      benchmark::DoNotOptimize(base::AtomicReplace(path, kOwnKeys, 0600));
    }
  }
  std::remove(path.c_str());
}
BENCHMARK(ReplaceSmallFile)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("LAB_INSIDE") == nullptr) {
    std::fputs("bench-inner writes to the appliance's paths: run it with lab/run\n", stderr);
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
