#pragma once

#include <lua.hpp>

#include "host/opcua_variant.h"

namespace orva::host {

// Values between Lua and variants:
//   nil - null, boolean - Boolean, number - Double, string - String,
//   what DataValue{...} makes - DataValue (or any other variant that the host put into one).
// To Lua, every numeric type becomes a number, an integer beyond 2^53 decimal text, a DateTime its
// milliseconds since 1970, and any other type readable text.

// Whether the value at `index` is one of these. Raises nothing.
bool isLuaValue(lua_State* L, int index);
// The text for a Lua error when it is not.
extern const char* const kLuaValueExpected;

// Takes a value for which isLuaValue() is true. False when memory ran out.
bool luaToVariant(lua_State* L, int index, OpcUa_VariantHlp& out) noexcept;

// May raise a Lua memory error, so `value` must not be owned by the caller's frame.
void pushVariant(lua_State* L, const OpcUa_VariantHlp& value);

// Pushes a box, an object that Lua owns, with a null variant in it. In Lua a box with a DataValue
// is what DataValue{...} makes; one with another type passes that very type on to a block's input.
OpcUa_VariantHlp* pushVariantBox(lua_State* L);

// Makes the global function DataValue{Value = v, SourceTime = ms, Status = code}. All
// fields are optional: SourceTime is in milliseconds since 1970-01-01 UTC, fractions allowed, none
// means that the sample gets the time at which it is written; Status is an OPC UA status code, 0 is
// good. The result can be read by the same names.
void openDataValue(lua_State* L);

}  // namespace orva::host
