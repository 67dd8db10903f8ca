#pragma once

#include "share/status_codes.h"

namespace orva::sqlite::status {
// What reads say when there may be less than there should be.
constexpr StatusCode kBadDataLost = 0x809D0000;         // a damaged segment lies in the stretch
constexpr StatusCode kBadDataUnavailable = 0x809E0000;  // the file cannot be read now
}  // namespace orva::sqlite::status
