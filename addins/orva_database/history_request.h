#pragma once

#include "share/archive_request.h"
#include "share/json.h"

namespace orva {

// The read that a client asks for, its limits brought down to what a reply may hold. Empty, and
// traced, when "data" is no array.
archive::SharedRequest makeHistoryRequest(const json::Value& body);

}  // namespace orva
