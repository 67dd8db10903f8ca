#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench/fleet/fleet_options.h"
#include "bench/fleet/fleet_report.h"
#include "bench/fleet/fleet_run.h"

int main(int count, char** arguments) {
  using namespace orva::bench;
  FleetOptions options;
  if (const auto code = readFleetOptions(count, arguments, options)) return *code;
  printHead(options);
  std::vector<FleetFigures> runs;
  for (const std::uint32_t controllers : options.controllers) {
    FleetRun run(options, controllers);
    runs.push_back(run.run());
    printRun(runs.back());
  }
  if (!options.json.empty() && !writeJson(options, runs)) {
    std::fprintf(stderr, "orva_fleet: cannot write %s\n", options.json.c_str());
    return 1;
  }
  const auto isRight = [](const FleetFigures& figures) { return figures.problem.empty(); };
  return std::all_of(runs.begin(), runs.end(), isRight) ? 0 : 1;
}
