#pragma once

#include <cstdint>
#include <string>

#include "bench/fleet/fleet_plant.h"

namespace orva::bench {

// What is wrong with the history that the manager gives of an item, which is to have the first
// `records` records of the plant. Empty when it is right.
std::string historyProblem(const FleetPlant& plant, std::uint32_t number, std::uint64_t records);

// Whether a simulated controller replies to ReadNewRecords as the history service does, to the
// character: controller 0 is asked for its items, and the service for the copies of them here.
// Empty when it does.
std::string replyProblem(const FleetPlant& plant);

}  // namespace orva::bench
