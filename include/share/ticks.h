#pragma once

#include <cstdint>

namespace orva {

// Time is a signed 64-bit count of 100 ns ticks since 1601-01-01 00:00 UTC.
constexpr long long kTicksPerMillisecond = 10'000;
constexpr long long kTicksPerSecond = 10'000'000;
constexpr long long kTicksPerMinute = 60 * kTicksPerSecond;
constexpr long long kTicksPerHour = 60 * kTicksPerMinute;
constexpr long long kMaxTime = INT64_MAX;  // later than anything
// 1970-01-01 00:00 UTC.
constexpr long long kUnixEpochTicks = 116'444'736'000'000'000;
constexpr long long kUnixEpochMilliseconds = kUnixEpochTicks / kTicksPerMillisecond;

}  // namespace orva
