#pragma once

#include <cstdint>
#include <string>

namespace orva::host {

// "2024-05-17T08:09:10.123Z": ticks (100 ns since 1601 UTC), cut to milliseconds.
std::string utcText(std::int64_t ticks);

// The same into a buffer of at least kUtcTextSize bytes, without allocating.
constexpr int kUtcTextSize = 64;
void utcText(std::int64_t ticks, char* out);

}  // namespace orva::host
