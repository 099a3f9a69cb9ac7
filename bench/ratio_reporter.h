// Collects Google Benchmark results so a program can print ratios of two
// benchmarks measured side by side in the same run.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace palvin::bench {

// Keeps each benchmark's real and CPU time per iteration, in seconds, for the
// ratios. Both are shown: the machine may be shared, which stretches real time.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  RecordingReporter() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& reports) override {
    for (const Run& run : reports) {
      if (run.error_occurred) continue;
      // With --benchmark_report_aggregates_only only the aggregates arrive;
      // their mean then stands for the runs.
      const bool mean = run.run_type == Run::RT_Aggregate && run.aggregate_name == "mean";
      if (run.run_type != Run::RT_Iteration && !mean) continue;
      Sum& sum = (mean ? means_ : seconds_)[run.run_name.function_name];
      const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
      sum.real += run.GetAdjustedRealTime() / unit;
      sum.cpu += run.GetAdjustedCPUTime() / unit;
      sum.count += 1;
    }
    ConsoleReporter::ReportRuns(reports);
  }

  struct Sum {
    double real = 0;
    double cpu = 0;
    int count = 0;
  };

  // Sums over repetitions; nothing when the benchmark did not run.
  const Sum* find(const std::string& name) const {
    for (const auto* sums : {&seconds_, &means_}) {
      const auto found = sums->find(name);
      if (found != sums->end()) return &found->second;
    }
    return nullptr;
  }

 private:
  std::map<std::string, Sum> seconds_;
  std::map<std::string, Sum> means_;
};

inline void printRatio(const RecordingReporter& reporter, const char* name, const char* reference) {
  const RecordingReporter::Sum* time = reporter.find(name);
  const RecordingReporter::Sum* base = reporter.find(reference);
  if (time == nullptr || base == nullptr || base->real <= 0 || base->cpu <= 0) return;
  const double real = time->real / time->count, baseReal = base->real / base->count;
  const double cpu = time->cpu / time->count, baseCpu = base->cpu / base->count;
  std::printf("%-20s / %s: real %.3f (%.2f us / %.2f us), cpu %.3f (%.2f us / %.2f us)\n", name, reference,
              real / baseReal, real * 1e6, baseReal * 1e6, cpu / baseCpu, cpu * 1e6, baseCpu * 1e6);
}

}  // namespace palvin::bench
