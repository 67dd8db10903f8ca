#pragma once

#include <cstdint>

#include "host/opcua_variant.h"
#include "share/json.h"

// The way back from what replies carry (share/addins_share.h) to samples.

namespace orva::archive {

// The value that was written as `written`, as a variable of `type` keeps it; type null: in the form
// that the text has. A value that does not convert keeps that form. False for arrays and objects,
// unless they are for a variable that keeps JSON text.
bool readRemoteValue(const json::Value& written, OpcUa_Byte type, OpcUa_VariantHlp& out);

// The time that was written as `written`, cut to milliseconds. False when no time is written so. Of
// times before 1970 the text does not tell which they were.
bool readRemoteTime(const json::Value& written, std::int64_t& out);

}  // namespace orva::archive
