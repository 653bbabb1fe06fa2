// A console reporter that also keeps each benchmark's time per iteration and, when the run ends,
// prints the ratios a program asked for: each benchmark against a baseline measured in the same
// run, so the numbers mean the same on any machine.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace harkwell::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // After the run, prints "<measured> / <baseline>" for each pair whose two names were run.
  void addRatio(std::string measured, std::string baseline) {
    ratios_.emplace_back(std::move(measured), std::move(baseline));
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        times_[run.benchmark_name()] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    if (ratios_.empty()) return;
    std::printf("\n%-60s %-40s %10s\n", "measured", "baseline", "ratio");
    for (const auto& [measured, baseline] : ratios_) {
      auto m = times_.find(measured);
      auto b = times_.find(baseline);
      if (m == times_.end() || b == times_.end() || b->second <= 0) continue;
      std::printf("%-60s %-40s %10.2f\n", measured.c_str(), baseline.c_str(),
                  m->second / b->second);
    }
  }

 private:
  std::map<std::string, double> times_;
  std::vector<std::pair<std::string, std::string>> ratios_;
};

}  // namespace harkwell::bench
