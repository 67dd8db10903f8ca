#pragma once

#include <cstdint>

#include "host/opcua_variant.h"

namespace orva::host {

// The live values of the installation's variables, which programs and sources share. What add-ins
// see of them are the global parameters (host/global_params.h).
//
// All functions are thread-safe.

// Sets the value of a variable, converted to the variable's type where that is known and the
// conversion is possible, as it is otherwise. Ids that no variable has are kept too.
void setLiveValue(std::int64_t id, const OpcUa_VariantHlp& value);
// False, with `out` left alone, when the id never had a value.
bool getLiveValue(std::int64_t id, OpcUa_VariantHlp& out);
// Forgets all values; the indices of global parameters stay.
void clearLiveValues();

}  // namespace orva::host
