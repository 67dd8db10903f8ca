#include "orva_host/lua_state.h"

#include <cstdlib>
#include <new>

#include "orva_host/lua_libraries.h"
#include "orva_host/lua_metadata.h"
#include "orva_host/lua_value.h"

namespace orva::host {

namespace {

// How often a running program is looked at, in Lua instructions.
constexpr int kHookInterval = 1000;

// Of the base library: what loads other code, and what writes to the standard output.
constexpr const char* kRemovedFunctions[] = {"dofile", "loadfile", "load", "loadstring", "print"};
constexpr const char* kOsFunctions[] = {"time", "date", "clock"};

void openRestrictedOs(lua_State* L) {
  luaL_requiref(L, LUA_OSLIBNAME, luaopen_os, 0);
  lua_newtable(L);
  for (const char* name : kOsFunctions) {
    lua_getfield(L, -2, name);
    lua_setfield(L, -2, name);
  }
  lua_setglobal(L, LUA_OSLIBNAME);
  lua_pop(L, 1);
}

int openAll(lua_State* L) {
  luaL_requiref(L, "_G", luaopen_base, 1);
  luaL_requiref(L, LUA_STRLIBNAME, luaopen_string, 1);
  luaL_requiref(L, LUA_TABLIBNAME, luaopen_table, 1);
  luaL_requiref(L, LUA_MATHLIBNAME, luaopen_math, 1);
  luaL_requiref(L, LUA_BITLIBNAME, luaopen_bit32, 1);
  lua_settop(L, 0);
  for (const char* name : kRemovedFunctions) {
    lua_pushnil(L);
    lua_setglobal(L, name);
  }
  openRestrictedOs(L);
  openDataValue(L);
  openMetadata(L);
  openExternalLibraries(L);
  return 0;
}

struct Chunk {
  const std::string& text;
  const std::string name;
};

int runChunk(lua_State* L) {
  const auto* chunk = static_cast<const Chunk*>(lua_touserdata(L, 1));
  // Text only: Lua does not check what compiled chunks do.
  if (luaL_loadbufferx(L, chunk->text.data(), chunk->text.size(), chunk->name.c_str(), "t") !=
      LUA_OK) {
    return lua_error(L);
  }
  lua_call(L, 0, 0);
  return 0;
}

int callGlobal(lua_State* L) {
  const char* name = static_cast<const char*>(lua_touserdata(L, 1));
  lua_getglobal(L, name);
  if (!lua_isfunction(L, -1)) return luaL_error(L, "no function %s()", name);
  lua_call(L, 0, 0);
  return 0;
}

int checkFunction(lua_State* L) {
  lua_getglobal(L, static_cast<const char*>(lua_touserdata(L, 1)));
  if (!lua_isfunction(L, -1)) return luaL_error(L, "no function");
  return 0;
}

}  // namespace

LuaState::LuaState() : L_(lua_newstate(allocate, this)) {
  if (L_ == nullptr) throw std::bad_alloc();
  lua_sethook(L_, onHook, LUA_MASKCOUNT, kHookInterval);
}

LuaState::~LuaState() { lua_close(L_); }

bool LuaState::open(std::string& error) { return protectedCall(openAll, nullptr, error); }

bool LuaState::run(const std::string& text, const std::string& name, std::string& error) {
  Chunk chunk{text, "@" + name};
  return protectedCall(runChunk, &chunk, error);
}

bool LuaState::call(const char* name, std::string& error) {
  return protectedCall(callGlobal, const_cast<char*>(name), error);
}

bool LuaState::hasFunction(const char* name) {
  std::string ignored;
  return protectedCall(checkFunction, const_cast<char*>(name), ignored);
}

bool LuaState::protectedCall(lua_CFunction function, void* argument, std::string& error) {
  lua_settop(L_, 0);
  lua_pushcfunction(L_, function);
  lua_pushlightuserdata(L_, argument);
  if (lua_pcall(L_, 1, 0, 0) == LUA_OK) return true;
  // No conversion here: it could raise an error that nobody catches.
  if (lua_type(L_, -1) == LUA_TSTRING) {
    error = lua_tostring(L_, -1);
  } else {
    error = std::string("error value is a ") + luaL_typename(L_, -1);
  }
  lua_settop(L_, 0);
  return false;
}

void LuaState::resume() {
  interrupted_ = false;
  lua_sethook(L_, onHook, LUA_MASKCOUNT, kHookInterval);
}

void* LuaState::allocate(void* self, void* block, std::size_t oldSize, std::size_t newSize) {
  auto* state = static_cast<LuaState*>(self);
  if (block == nullptr) oldSize = 0;  // then it tells the kind of object
  if (newSize == 0) {
    state->used_ -= oldSize;
    std::free(block);
    return nullptr;
  }
  if (newSize > oldSize && state->used_ + (newSize - oldSize) > kMaxMemory) return nullptr;
  void* moved = std::realloc(block, newSize);
  if (moved != nullptr) state->used_ += newSize - oldSize;
  return moved;
}

void LuaState::onHook(lua_State* L, lua_Debug*) {
  void* self = nullptr;
  lua_getallocf(L, &self);
  if (!static_cast<LuaState*>(self)->interrupted_) return;
  // From now on at every instruction: a program that catches the error meets the next one outside
  // of what caught it.
  lua_sethook(L, onHook, LUA_MASKCOUNT, 1);
  luaL_where(L, 0);
  lua_pushliteral(L, "interrupted");
  lua_concat(L, 2);
  lua_error(L);
}

}  // namespace orva::host
