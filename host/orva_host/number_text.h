#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orva::host {

// Numbers as text, independent of the locale.

// A text that is a decimal integer from its first to its last character, with an optional sign.
// False for every other one, and for one that does not fit.
bool readWholeInt64(std::string_view text, std::int64_t& out);
bool readWholeUInt64(std::string_view text, std::uint64_t& out);
// The same for a decimal number with an optional fraction and exponent. Names such as "nan" and
// "inf" are no numbers.
bool readWholeDouble(std::string_view text, double& out);

// The shortest text that reads back as the same number.
std::string textOf(double number);
std::string textOf(float number);

}  // namespace orva::host
