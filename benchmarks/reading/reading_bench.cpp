// One reading and its stages, by the module and by the plain one. 50 accounts are a plain host, 1,000 a
// shared one, 100,000 a university's shell server; a million is beyond what anybody has, to see how it grows.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "benchmarks/reading/accounts.h"
#include "benchmarks/reading/plain_module.h"
#include "benchmarks/reading/quiet_host.h"
#include "collector/passwd_info.h"
#include "collector/user_info_collector.h"
#include "detect/unauthorized_root_user.h"
#include "host/string_process.h"
#include "module/detect_user.h"

namespace {

using Snapshot = std::vector<PasswdInfo>;

const plain::Services plainServices = {plain::StrSplit, plain::ConvertStrToNum};
const plain::Services agentServices = {Utils::StringProcess::StrSplit, ConvertStrToNum};

UserInfoCollector& TheCollector() {
  static UserInfoCollector collector;
  return collector;
}

Snapshot SnapshotOf(std::size_t accounts, Order order) {
  WriteAccountFile(AccountFile(accounts, order));
  Snapshot snapshot;
  TheCollector().ReadPasswd(snapshot);
  return snapshot;
}

void Count(benchmark::State& state, std::size_t accounts) {
  state.counters["ns/account"] =
      benchmark::Counter(static_cast<double>(accounts),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// --- the stages ---

void ReadOurs(benchmark::State& state, std::size_t accounts, Order order) {
  WriteAccountFile(AccountFile(accounts, order));
  for (auto _ : state) {
    Snapshot snapshot;
    TheCollector().ReadPasswd(snapshot);
    benchmark::DoNotOptimize(snapshot.data());
  }
}

void ReadPlain(benchmark::State& state, std::size_t accounts, Order order) {
  WriteAccountFile(AccountFile(accounts, order));
  for (auto _ : state) {
    Snapshot snapshot;
    plain::ReadPasswd(snapshot, plainServices);
    benchmark::DoNotOptimize(snapshot.data());
  }
}

// Records that are there before the reading take part in the search for repeated names.
void RepeatedNamesOurs(benchmark::State& state, std::size_t accounts, Order order) {
  Snapshot snapshot = SnapshotOf(accounts, order);
  WriteAccountFile("");
  for (auto _ : state) {
    TheCollector().ReadPasswd(snapshot);
    benchmark::DoNotOptimize(snapshot.data());
  }
}

void RepeatedNamesPlain(benchmark::State& state, std::size_t accounts, Order order) {
  Snapshot snapshot = SnapshotOf(accounts, order);
  WriteAccountFile("");
  for (auto _ : state) {
    plain::ReadPasswd(snapshot, plainServices);
    benchmark::DoNotOptimize(snapshot.data());
  }
}

// From the snapshot to the new baseline: two sets and their comparison.
void DetectOurs(benchmark::State& state, std::size_t accounts, Order order) {
  const Snapshot snapshot = SnapshotOf(accounts, order);
  for (auto _ : state) {
    UnauthorizedRootUser::DetectUnauthorizedRootUser(snapshot);
  }
  UnauthorizedRootUser::DetectUnauthorizedRootUser({});
}

void DetectPlain(benchmark::State& state, std::size_t accounts, Order order) {
  const Snapshot snapshot = SnapshotOf(accounts, order);
  plain::Detector detector;
  for (auto _ : state) {
    detector.Detect(snapshot);
  }
}

// The comparison with its private copy, without the set that it is given.
void CompareOurs(benchmark::State& state, std::size_t accounts, Order order) {
  const Snapshot snapshot = SnapshotOf(accounts, order);
  const std::set<PasswdInfo> users(snapshot.begin(), snapshot.end());
  for (auto _ : state) {
    UnauthorizedRootUser::GetInstance().CmpUserInfo(users);
  }
  UnauthorizedRootUser::DetectUnauthorizedRootUser({});
}

void ComparePlain(benchmark::State& state, std::size_t accounts, Order order) {
  const Snapshot snapshot = SnapshotOf(accounts, order);
  const std::set<PasswdInfo> users(snapshot.begin(), snapshot.end());
  plain::Detector detector;
  for (auto _ : state) {
    detector.CmpUserInfo(users);
  }
}

// --- the whole ---

void WholeOurs(benchmark::State& state, const std::string& file) {
  WriteAccountFile(file);
  RunTask();  // the baseline is then what the file holds
  for (auto _ : state) {
    RunTask();
  }
  UnauthorizedRootUser::DetectUnauthorizedRootUser({});
}

void WholePlain(benchmark::State& state, const std::string& file, const plain::Services& services) {
  WriteAccountFile(file);
  plain::Detector detector;
  plain::Read(detector, services);
  for (auto _ : state) {
    plain::Read(detector, services);
  }
}

// --- all of them ---

constexpr std::size_t sizes[] = {50, 1000, 10000, 100000, 1000000};
constexpr std::size_t largestSize = 1000000;
constexpr std::size_t stormSize = 100000;

using Stage = void (*)(benchmark::State& state, std::size_t accounts, Order order);

void AddAll() {
  struct Row {
    const char* stage;
    const char* who;
    Stage run;
  };
  const Row rows[] = {
      {"read", "plain", ReadPlain},
      {"read", "velta", ReadOurs},
      {"repeated-names", "plain", RepeatedNamesPlain},
      {"repeated-names", "velta", RepeatedNamesOurs},
      {"detect", "plain", DetectPlain},
      {"detect", "velta", DetectOurs},
      {"compare", "plain", ComparePlain},
      {"compare", "velta", CompareOurs},
      {"whole", "plain",
       [](benchmark::State& state, std::size_t accounts, Order order) {
         WholePlain(state, AccountFile(accounts, order), plainServices);
       }},
      {"whole", "plain-with-our-services",
       [](benchmark::State& state, std::size_t accounts, Order order) {
         WholePlain(state, AccountFile(accounts, order), agentServices);
       }},
      {"whole", "velta",
       [](benchmark::State& state, std::size_t accounts, Order order) {
         WholeOurs(state, AccountFile(accounts, order));
       }},
      {"storm", "velta",
       [](benchmark::State& state, std::size_t accounts, Order) {
         WholeOurs(state, RepeatedAccountFile(accounts));
       }},
  };
  for (const std::size_t accounts : sizes) {
    for (const Order order : {Order::Sorted, Order::Shuffled}) {
      for (const Row& row : rows) {
        const bool storm = row.stage == std::string("storm");
        if (storm && (accounts != stormSize || order != Order::Sorted)) {
          continue;
        }
        const std::string name = std::string(row.stage) + "/" + row.who + "/" +
                                 (order == Order::Sorted ? "sorted/" : "shuffled/") +
                                 std::to_string(accounts);
        const Stage run = row.run;
        const auto added =
            benchmark::RegisterBenchmark(name.c_str(), [run, accounts, order](benchmark::State& state) {
              run(state, accounts, order);
              Count(state, accounts);
            });
        added->Unit(benchmark::kMicrosecond);
        if (accounts == largestSize) {
          added->Iterations(1);  // seconds each
        }
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  AddAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  if (StartModule(R"({"unauthorized-root-user": {}})") != 1) {
    std::fputs("the module did not start\n", stderr);
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  StopModule();
  return 0;
}
