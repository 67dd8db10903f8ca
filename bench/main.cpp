#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "bench/targets.h"

// Runs every benchmark several times, in random order, so that a busy moment of the machine does
// not fall on one side of a ratio alone. Each of these arguments gives way to the caller's.
int main(int argc, char** argv) {
  std::string defaults[] = {"--benchmark_repetitions=5",
                            "--benchmark_enable_random_interleaving=true"};
  std::vector<char*> arguments(argv, argv + 1);
  for (std::string& argument : defaults) arguments.push_back(argument.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  auto count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  orva::bench::TargetReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
