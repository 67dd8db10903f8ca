#pragma once

#include "host/host_export.h"

// The current time in ticks (100 ns since 1601-01-01 00:00 UTC): the one source of time. It is the
// controller's clock, so it may be set back or forward at any moment.
extern "C" ORVA_HOST_API long long getInt64FileTime();
