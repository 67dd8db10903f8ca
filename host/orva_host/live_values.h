#pragma once

#include <cstdint>

#include "host/opcua_variant.h"

namespace orva::host {

// The live values of the installation's variables, which programs and sources share. What add-ins
// see of them are the global parameters (host/global_params.h).
//
// As global parameters, qualifier 0x10000 finds the variables of the configuration by the low 32
// bits of their id (of several alike the one whose id is just these, else the smallest), qualifier
// 0 finds every value that was set under a 32-bit id, signed or not. The kind goes by the type:
// Boolean is boolean, what always fits 32 signed bits is integer, all else is floating point.
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
