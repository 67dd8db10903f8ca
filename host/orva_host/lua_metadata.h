#pragma once

#include <lua.hpp>

namespace orva::host {

// Makes the globals that the metadata of function blocks uses: TYPES, with one entry per type and
// the table TYPES.StandardFB of all blocks by name, and FBMetadata(description), which checks a
// description of the form
//   { Name = "Block", Hash = 1001, Vars = { Input = { Hash = 0, Type = TYPES.BOOL, Retain = true }
//   } }
// and returns it.
void openMetadata(lua_State* L);

}  // namespace orva::host
