#pragma once

#include <string>
#include <vector>

#include "bench/fleet/fleet_options.h"
#include "bench/fleet/fleet_run.h"

namespace orva::bench {

void printHead(const FleetOptions& options);
void printRun(const FleetFigures& figures);
// False when the file cannot be written.
bool writeJson(const FleetOptions& options, const std::vector<FleetFigures>& runs);

}  // namespace orva::bench
