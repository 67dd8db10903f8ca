#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace orva::bench {

// Prints a line for each benchmark, and at the end how the figures stand to the targets: each is a
// ratio of two benchmarks of the same run, or one counter. Of several repetitions the medians
// count.
class TargetReporter : public benchmark::ConsoleReporter {
 public:
  TargetReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  // By the benchmark's name: seconds per iteration, and each counter, of every repetition.
  std::map<std::string, std::vector<double>> seconds_;
  std::map<std::string, std::map<std::string, std::vector<double>>> counters_;
};

}  // namespace orva::bench
