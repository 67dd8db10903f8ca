#pragma once

#include <cstdint>
#include <string>

namespace orva::store {

std::string fixedText(double number, int digits);
// "1.2 MB".
std::string bytesText(std::int64_t bytes);
// "12 s", "5 min", "1.5 h", "3.0 days".
std::string durationText(double seconds);

}  // namespace orva::store
