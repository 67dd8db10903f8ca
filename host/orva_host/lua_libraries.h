#pragma once

#include <lua.hpp>

namespace orva::host {

// Runs every opener that RegisterExternalSTLib() was given, in the order of registration. Raises a
// Lua error that names the library whose opener fails.
void openExternalLibraries(lua_State* L);

}  // namespace orva::host
