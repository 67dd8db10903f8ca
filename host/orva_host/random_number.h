#pragma once

#include <cstdint>

namespace orva::host {

// 64 bits that nobody can foresee, from the system. Never 0.
std::uint64_t randomNumber();

}  // namespace orva::host
