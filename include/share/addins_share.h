#pragma once

#include <cstdint>
#include <string>

#include "host/pin.h"
#include "share/json.h"
#include "share/orva_export.h"
#include "share/reply_writer.h"

// How samples look in a JSON reply: [time, value, quality]. For every add-in that returns values.

namespace orva {

// One sample. The pin must not be null. A value that has no JSON form leaves [time, quality].
ORVA_API void WritePinValue(const PinPtr& pin, ReplyWriter& writer);
// The samples of a whole list, as elements of the open array.
ORVA_API void WritePinValues(const PinList& pins, ReplyWriter& writer);

// One value. Nothing is written for an empty type 26, and, with a trace line, for a type that has
// no JSON form (14 to 25, above 26, arrays). NaN, infinities and numbers that are none become null.
// Returns 0.
ORVA_API int WriteVarValue(const OpcUa_VariantHlp& value, ReplyWriter& writer);

// A time as milliseconds since 1970, cut. Time 0 gives 0. A time before 1970 is given as
// milliseconds since 1601, without the shift to 1970: readers of old archives expect it.
// Returns 0.
ORVA_API int WriteDateValue(const long long& time, ReplyWriter& writer);

// The integer member `name`: a number that fits signed 64 bits, or decimal text. `fallback` if it
// is missing or anything else.
ORVA_API long long GetSafeInt64Value(const json::Value& object, const std::string& name,
                                     long long fallback);

}  // namespace orva
