#pragma once

#include <cstddef>

namespace orva::host {

// The first line of the request that the calling thread serves (see SetFastCGIText), cut to fit
// and terminated; empty when it serves none. Log lines carry it.
void servedRequestText(char* out, std::size_t capacity);

}  // namespace orva::host
