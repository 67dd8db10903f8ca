#include "orva_host/lua_metadata.h"

#include <cstring>

#include "host/lua_fb.h"

namespace orva::host {

namespace {

constexpr int kTypeCodes[] = {ParamType::kBool,  ParamType::kLReal, ParamType::kTime,
                              ParamType::kUDInt, ParamType::kLInt,  ParamType::kString,
                              ParamType::kAny};
constexpr const char* kTypePrefix = "TYPES.";

// The metatable of the entries of TYPES, by which a description's types are told from other tables.
constexpr const char* kTypeMark = "orva.ParamType";

void requireNumber(lua_State* L, int table, const char* field, const char* owner) {
  lua_getfield(L, table, field);
  if (lua_type(L, -1) != LUA_TNUMBER) {
    luaL_error(L, "FBMetadata: \"%s\" has no number %s", owner, field);
  }
  lua_pop(L, 1);
}

// The variable's name is at -2, its description at -1.
void checkVariable(lua_State* L) {
  if (lua_type(L, -2) != LUA_TSTRING) luaL_error(L, "FBMetadata: variables have names");
  const char* name = lua_tostring(L, -2);
  const int description = lua_gettop(L);
  if (!lua_istable(L, description)) luaL_error(L, "FBMetadata: \"%s\" is no table", name);
  requireNumber(L, description, "Hash", name);
  lua_getfield(L, description, "Type");
  luaL_getmetatable(L, kTypeMark);
  if (!lua_getmetatable(L, -2) || !lua_rawequal(L, -1, -2)) {
    luaL_error(L, "FBMetadata: \"%s\" has no Type of TYPES", name);
  }
  lua_settop(L, description);
}

int checkMetadata(lua_State* L) {
  luaL_checktype(L, 1, LUA_TTABLE);
  lua_settop(L, 1);
  lua_getfield(L, 1, "Name");
  if (lua_type(L, 2) != LUA_TSTRING) return luaL_error(L, "FBMetadata: Name expected");
  requireNumber(L, 1, "Hash", lua_tostring(L, 2));
  lua_getfield(L, 1, "Vars");
  if (!lua_istable(L, 3)) return luaL_error(L, "FBMetadata: Vars expected");
  lua_pushnil(L);
  while (lua_next(L, 3) != 0) {
    checkVariable(L);
    lua_pop(L, 1);
  }
  lua_settop(L, 1);
  return 1;
}

}  // namespace

void openMetadata(lua_State* L) {
  lua_newtable(L);
  for (const int code : kTypeCodes) {
    const char* name = ParamType::GetLuaType(code) + std::strlen(kTypePrefix);
    lua_newtable(L);
    lua_pushstring(L, name);
    lua_setfield(L, -2, "Name");
    lua_pushnumber(L, code);
    lua_setfield(L, -2, "Code");
    luaL_newmetatable(L, kTypeMark);
    lua_setmetatable(L, -2);
    lua_setfield(L, -2, name);
  }
  lua_newtable(L);
  lua_setfield(L, -2, "StandardFB");
  lua_setglobal(L, "TYPES");
  lua_pushcfunction(L, checkMetadata);
  lua_setglobal(L, "FBMetadata");
}

}  // namespace orva::host
