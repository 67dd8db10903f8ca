#pragma once

#include <cstdint>

#include "host/host_export.h"

// Levels of the host's trace. Each is a bit; the host's configuration says which are shown.
constexpr std::uint32_t kTraceError = 0x10;
constexpr std::uint32_t kTraceWarning = 0x20;
constexpr std::uint32_t kTraceDetail = 0x40;  // what is done, for those who look for a cause

extern "C" {
// One diagnostic, with the place in the source that speaks. Thread-safe, never throws.
ORVA_HOST_API void OpcUa_Trace_Imp(std::uint32_t level, const char* format, const char* file,
                                   int line, ...) __attribute__((format(printf, 2, 5)));
// One line for the host's log, printf style. Returns a non-negative number when it was written.
ORVA_HOST_API int logMsg(const char* format, ...) __attribute__((format(printf, 1, 2)));
}
