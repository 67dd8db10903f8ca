#include "bench/targets.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace orva::bench {
namespace {

enum class Kind {
  timesBaseline,  // time, at most `bound` times that of the baseline
  fasterBy,       // speed, at least `bound` times that of the baseline
  counter,        // a counter named `other`, at most `bound`
};

struct Target {
  const char* benchmark;
  Kind kind;
  const char* other;  // the baseline, or the counter
  double bound;
};

constexpr Target kTargets[] = {
    {"BM_AppendSample", Kind::timesBaseline, "BM_Baseline_MakeSharedPush", 3.0},
    {"BM_CachedReadJson/10000", Kind::timesBaseline, "BM_Baseline_RapidJsonEncode/10000", 1.7},
    {"BM_CachedReadJson/100", Kind::timesBaseline, "BM_Baseline_RapidJsonEncode/100", 2.5},
    {"BM_SqliteIngest", Kind::fasterBy, "BM_Baseline_SqliteRows", 3.0},
    {"BM_SqliteColdRead/10000", Kind::timesBaseline, "BM_Baseline_SqliteSelect/10000", 1.0},
    {"BM_SqliteIngest", Kind::counter, "bytes_per_sample", 4.0},
    {"BM_SqliteIngest", Kind::counter, "dropped", 0.0},
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The name without what the library appends, such as "/iterations:1/manual_time".
std::string plainName(const std::string& name) {
  const std::size_t end =
      std::min({name.find("/iterations:"), name.find("/repeats:"), name.find("/min_time:"),
                name.find("/real_time"), name.find("/manual_time")});
  return name.substr(0, end);
}

void printTarget(const Target& target, double figure) {
  const bool atLeast = target.kind == Kind::fasterBy;
  const bool reached = atLeast ? figure >= target.bound : figure <= target.bound;
  std::printf(
      "%-26s %8.2f  %s %5.2f  %-12s %s %s\n", target.benchmark, figure,
      atLeast ? "at least" : "at most ", target.bound, reached ? "reached" : "NOT REACHED",
      target.kind == Kind::counter ? "counter" : (atLeast ? "speed against" : "time against"),
      target.other);
}

}  // namespace

void TargetReporter::ReportRuns(const std::vector<Run>& runs) {
  std::vector<Run> shown;
  std::copy_if(runs.begin(), runs.end(), std::back_inserter(shown), [](const Run& run) {
    return run.error_occurred || run.repetitions <= 1 || run.aggregate_name == "median";
  });
  if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
    const std::string name = plainName(run.run_name.str());
    // Time measured by the benchmark itself, or on the wall, where that is what it is about.
    const bool wall = !run.run_name.time_type.empty();
    seconds_[name].push_back((wall ? run.real_accumulated_time : run.cpu_accumulated_time) /
                             static_cast<double>(run.iterations));
    for (const auto& [counter, value] : run.counters) {
      counters_[name][counter].push_back(value.value);
    }
  }
}

void TargetReporter::Finalize() {
  ConsoleReporter::Finalize();
  std::printf("\ntargets (medians of this run)\n");
  for (const Target& target : kTargets) {
    if (target.kind == Kind::counter) {
      const auto& values = counters_[target.benchmark][target.other];
      if (!values.empty()) printTarget(target, median(values));
      continue;
    }
    const auto& mine = seconds_[target.benchmark];
    const auto& baseline = seconds_[target.other];
    if (mine.empty() || baseline.empty()) continue;
    const double ratio = median(mine) / median(baseline);
    printTarget(target, target.kind == Kind::fasterBy ? 1 / ratio : ratio);
  }
  std::fflush(stdout);
}

}  // namespace orva::bench
