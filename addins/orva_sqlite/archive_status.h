#pragma once

#include "share/status_codes.h"

namespace orva::sqlite::status {
// What reads say when there may be less than there should be.
constexpr StatusCode kBadDataLost = 0x809D0000;  // a damaged segment lies in the stretch
using orva::status::kBadDataUnavailable;         // the file cannot be read now
}  // namespace orva::sqlite::status
