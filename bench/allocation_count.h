#pragma once

#include <cstdint>

namespace orva::bench {

// Calls of operator new in this program so far, by all threads. What libraries written in C take
// with malloc() does not count.
std::uint64_t allocationCount();

}  // namespace orva::bench
