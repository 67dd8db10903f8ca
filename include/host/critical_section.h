#pragma once

#include "host/host_export.h"

// The host's named critical sections. Recursive on one thread.
struct RCriticalSection;

extern "C" {
ORVA_HOST_API RCriticalSection* RInitCriticalSection(const char* name);
ORVA_HOST_API void RDoneCriticalSection(RCriticalSection* section);
ORVA_HOST_API void REnterCriticalSection(RCriticalSection* section);
ORVA_HOST_API void RLeaveCriticalSection(RCriticalSection* section);
}
