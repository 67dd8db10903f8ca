#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "host/pin.h"

// Samples for the tests of the SQLite provider.

namespace orva::sqlite::test {

// A random number below `limit`; 0 for 0.
std::size_t below(std::mt19937_64& random, std::size_t limit);

OpcUa_VariantHlp realValue(double v);
OpcUa_VariantHlp textValue(const std::string& v);

// Each type that is kept, at its limits: null, 1 to 13 and 26; NaN payloads, infinities, -0.0;
// texts without text, empty, with NULs.
std::vector<OpcUa_VariantHlp> extremeValues();

// Ascending times (some equal), all kinds of series and mixtures of types, changing qualities.
std::vector<PinPtr> randomSamples(std::mt19937_64& random, std::int64_t start, std::size_t count);

// Same time, quality, type and bits; a text that is none differs from an empty one.
bool sameSample(const Pin& a, const Pin& b);
std::string describe(const Pin& pin);

}  // namespace orva::sqlite::test
