#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orva::host {

// The current time as clients count it: milliseconds since 1970.
std::int64_t unixMilliseconds();

// "2024-05-17T08:09:10.123Z": ticks (100 ns since 1601 UTC), cut to milliseconds.
std::string utcText(std::int64_t ticks);

// The same into a buffer of at least kUtcTextSize bytes, without allocating.
constexpr int kUtcTextSize = 64;
void utcText(std::int64_t ticks, char* out);

// The same without loss: with seven digits of the second where three do not say it all.
std::string exactUtcText(std::int64_t ticks);

// Reads a date, "2024-05-17", or a date and time in UTC, "2024-05-17T08:09Z", with seconds and up
// to seven digits after these where wanted. False for every other text, also for a day or time
// that does not exist; then `ticks` stays as it was.
bool readUtc(std::string_view text, std::int64_t& ticks);

}  // namespace orva::host
