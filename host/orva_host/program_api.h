#pragma once

#include <lua.hpp>

namespace orva::host {

// Makes the functions that control programs have of the host:
//
//   Read(variable)          its live value; nil while it has none
//   Write(variable, value)  sets its live value, converted to the variable's type if possible
//   Now()                   the controller's time in whole milliseconds since 1970-01-01 UTC
//   Log(...)                one line in the host's log; print is the same
//
// A variable is named by its path or its id (a number, or decimal text beyond 2^53). Naming one by
// a path that there is not is an error of the program; any id may have a live value.
//
// `program` is what lines of the log begin with; it is copied. May raise a Lua error.
void openProgramApi(lua_State* L, const char* program);

}  // namespace orva::host
