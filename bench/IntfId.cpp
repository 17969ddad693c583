// Interface names against the baselines an agent would otherwise reach for: parsing
// against a hash-map lookup of the same names and printing against snprintf of the same
// prefix and parts, each measured side by side; sorting in natural order against a plain
// strcmp sort, whose ratio is printed after the run from the same run's figures.

#include <Korva/IntfId.h>
#include <Korva/IntfIdDesc.h>
#include <Korva/KorvaUtils.h>

#include <benchmark/benchmark.h>

#include "SideBySide.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Korva::IntfId;

// Names as a switch has them: front-panel ports with and without breakouts and
// sub-interfaces, port-channels, VLANs, loopbacks, management ports.
std::vector<IntfId> realisticIds(size_t count, unsigned seed) {
  Korva::IntfIdMgr::ensureInitialized();
  std::mt19937 rng(seed);
  auto n = [&rng](int low, int high) {
    return std::to_string(std::uniform_int_distribution<int>(low, high)(rng));
  };
  std::set<IntfId> ids;
  while (ids.size() < count) {
    std::string name;
    switch (rng() % 8) {
      case 0:
        name = "Ethernet" + n(1, 128);
        break;
      case 1:
        name = "Ethernet" + n(1, 64) + "/" + n(1, 8);
        break;
      case 2:
        name = "Ethernet" + n(1, 16) + "/" + n(1, 64) + "/" + n(1, 8);
        break;
      case 3:
        name = "Ethernet" + n(1, 64) + "/" + n(1, 8) + "." + n(1, 4094);
        break;
      case 4:
        name = "Port-Channel" + n(1, 2000) + (rng() % 2 ? "." + n(1, 4094) : "");
        break;
      case 5:
        name = "Vlan" + n(1, 4094);
        break;
      case 6:
        name = "Management" + n(1, 2) + "/" + n(1, 2);
        break;
      default:
        name = "Loopback" + n(0, 8191);
        break;
    }
    ids.insert(IntfId(name));
  }
  std::vector<IntfId> list(ids.begin(), ids.end());
  std::shuffle(list.begin(), list.end(), rng);
  return list;
}

constexpr size_t kNames = bench::batch;

const std::vector<IntfId>& ids() {
  static const std::vector<IntfId> list = realisticIds(kNames, 1657);
  return list;
}

const std::vector<std::string>& names() {
  static const std::vector<std::string> list = [] {
    std::vector<std::string> out;
    for (IntfId id : ids()) out.push_back(id.stringValue());
    return out;
  }();
  return list;
}

// Side by side (SideBySide.h): ratio = map lookup time / parse time; the target is 0.5 or
// more, parsing costing at most twice the lookup.
void IntfIdParse(benchmark::State& state) {
  const auto& list = names();
  std::unordered_map<std::string, IntfId> map;
  for (size_t k = 0; k < kNames; ++k) map.emplace(list[k], ids()[k]);
  bench::compareSideBySide(
      state, "unordered_map", [&](size_t i) { benchmark::DoNotOptimize(IntfId(list[i])); },
      [&](size_t i) { benchmark::DoNotOptimize(map.find(list[i])->second); });
}
BENCHMARK(IntfIdParse);

// The same text made by snprintf from the prefix and the parts as they are printed.
struct PrintfForm {
  std::string format;
  std::string prefix;
  unsigned parts[4] = {0, 0, 0, 0};
};

PrintfForm printfForm(const std::string& name) {
  PrintfForm form;
  const size_t digits = name.find_first_of("0123456789");
  form.prefix = name.substr(0, digits);
  form.format = "%s";
  unsigned count = 0;
  for (size_t i = digits; i < name.size();) {
    if (name[i] == '/' || name[i] == '.') form.format += name[i++];
    form.format += "%u";
    size_t used = 0;
    form.parts[count++] = static_cast<unsigned>(std::stoul(name.substr(i), &used));
    i += used;
  }
  return form;
}

// Side by side: ratio = snprintf time / stringValue() time; the target is 1.0 or more.
void IntfIdPrint(benchmark::State& state) {
  std::vector<PrintfForm> forms;
  for (const std::string& name : names()) forms.push_back(printfForm(name));
  const auto& list = ids();
  bench::compareSideBySide(
      state, "snprintf", [&](size_t i) { benchmark::DoNotOptimize(list[i].stringValue()); },
      [&](size_t i) {
        const PrintfForm& f = forms[i];
        char text[64];
        const int length = std::snprintf(text, sizeof(text), f.format.c_str(), f.prefix.c_str(),
                                         f.parts[0], f.parts[1], f.parts[2], f.parts[3]);
        benchmark::DoNotOptimize(std::string(text, length));
      });
}
BENCHMARK(IntfIdPrint);

void BM_CompareIntfName(benchmark::State& state) {
  const auto& list = ids();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        Korva::compareIntfName(list[i & (kNames - 1)], list[(i * 7 + 3) & (kNames - 1)]));
    ++i;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CompareIntfName);

constexpr size_t kSortCount = 100000;

const std::vector<IntfId>& sortIds() {
  static const std::vector<IntfId> list = realisticIds(kSortCount, 1808);
  return list;
}

void BM_SortByIntfName(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<IntfId> list = sortIds();
    state.ResumeTiming();
    Korva::sortByIntfName(list);
    benchmark::DoNotOptimize(list.data());
  }
  state.SetItemsProcessed(state.iterations() * kSortCount);
}
BENCHMARK(BM_SortByIntfName)->Unit(benchmark::kMillisecond);

void BM_SortNamesStrcmp(benchmark::State& state) {
  std::vector<std::string> base;
  for (IntfId id : sortIds()) base.push_back(id.stringValue());
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<std::string> list = base;
    state.ResumeTiming();
    std::sort(list.begin(), list.end(), [](const std::string& a, const std::string& b) {
      return std::strcmp(a.c_str(), b.c_str()) < 0;
    });
    benchmark::DoNotOptimize(list.data());
  }
  state.SetItemsProcessed(state.iterations() * kSortCount);
}
BENCHMARK(BM_SortNamesStrcmp)->Unit(benchmark::kMillisecond);

// Collects each benchmark's CPU time per iteration so the ratios come from one run; CPU
// time because the build machines are shared and wall time swings with their load.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration)
        times_[run.run_name.function_name] = run.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    ratio("natural sort / strcmp sort", "BM_SortByIntfName", "BM_SortNamesStrcmp", "<= 5");
  }

 private:
  void ratio(const char* what, const char* ours, const char* baseline, const char* target) {
    if (!times_.count(ours) || !times_.count(baseline)) return;
    std::printf("ratio %-30s %6.2f (target %s)\n", what, times_[ours] / times_[baseline], target);
  }
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
