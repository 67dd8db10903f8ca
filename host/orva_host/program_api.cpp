#include "orva_host/program_api.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <string>

#include "host/host_time.h"
#include "host/trace.h"
#include "host/vm_info.h"
#include "orva_host/live_values.h"
#include "orva_host/lua_value.h"
#include "share/json.h"
#include "share/ticks.h"

namespace orva::host {

namespace {

constexpr double kMaxExactId = 9007199254740992.0;  // 2^53

bool isDecimal(const char* text) {
  if (*text == '-') ++text;
  if (*text == '\0') return false;
  for (; *text != '\0'; ++text) {
    if (std::isdigit(static_cast<unsigned char>(*text)) == 0) return false;
  }
  return true;
}

bool idOfPath(const char* path, std::int64_t& id) noexcept {
  try {
    return vm::VMInfo::GetInstance()->GetItemIdByPath(path, id) == 0;
  } catch (...) {
    return false;
  }
}

std::int64_t checkedVariable(lua_State* L) {
  std::int64_t id = 0;
  if (lua_type(L, 1) == LUA_TNUMBER) {
    const double number = lua_tonumber(L, 1);
    if (std::floor(number) != number || !(std::fabs(number) <= kMaxExactId)) {
      luaL_argerror(L, 1, "an id is an integer, beyond 2^53 as text");
    }
    return static_cast<std::int64_t>(number);
  }
  if (lua_type(L, 1) != LUA_TSTRING) luaL_argerror(L, 1, "path or id of a variable expected");
  const char* text = lua_tostring(L, 1);
  if (idOfPath(text, id)) return id;
  if (!isDecimal(text)) luaL_error(L, "no variable \"%s\"", text);
  return json::decimalText(text);
}

enum class Live { kNone, kThere, kNoMemory };

Live readLive(std::int64_t id, OpcUa_VariantHlp& out) noexcept {
  try {
    return getLiveValue(id, out) ? Live::kThere : Live::kNone;
  } catch (...) {
    return Live::kNoMemory;
  }
}

// A live value has no time and no status of its own.
bool writeLive(lua_State* L, int index, std::int64_t id) noexcept {
  try {
    OpcUa_VariantHlp value;
    if (!luaToVariant(L, index, value)) return false;
    if (value.GetType() == OpcUaType_DataValue) value = value.TakeInnerValue();
    setLiveValue(id, value);
    return true;
  } catch (...) {
    return false;
  }
}

int readVariable(lua_State* L) {
  const std::int64_t id = checkedVariable(L);
  OpcUa_VariantHlp* value = pushVariantBox(L);
  if (readLive(id, *value) == Live::kNoMemory) return luaL_error(L, "Read: out of memory");
  pushVariant(L, *value);
  return 1;
}

int writeVariable(lua_State* L) {
  const std::int64_t id = checkedVariable(L);
  lua_settop(L, 2);
  if (!isLuaValue(L, 2)) return luaL_argerror(L, 2, kLuaValueExpected);
  if (!writeLive(L, 2, id)) return luaL_error(L, "Write: out of memory");
  return 0;
}

int now(lua_State* L) {
  const long long ticks = getInt64FileTime() - kUnixEpochTicks;
  lua_pushnumber(L, std::floor(static_cast<double>(ticks) / kTicksPerMillisecond));
  return 1;
}

int logLine(lua_State* L) {
  const int count = lua_gettop(L);
  luaL_Buffer line;
  luaL_buffinit(L, &line);
  for (int i = 1; i <= count; ++i) {
    if (i > 1) luaL_addchar(&line, ' ');
    luaL_tolstring(L, i, nullptr);
    luaL_addvalue(&line);
  }
  luaL_pushresult(&line);
  logMsg("program %s: %s\n", lua_tostring(L, lua_upvalueindex(1)), lua_tostring(L, -1));
  return 0;
}

}  // namespace

void openProgramApi(lua_State* L, const char* program) {
  lua_pushcfunction(L, readVariable);
  lua_setglobal(L, "Read");
  lua_pushcfunction(L, writeVariable);
  lua_setglobal(L, "Write");
  lua_pushcfunction(L, now);
  lua_setglobal(L, "Now");
  lua_pushstring(L, program);
  lua_pushcclosure(L, logLine, 1);
  lua_pushvalue(L, -1);
  lua_setglobal(L, "Log");
  lua_setglobal(L, "print");
}

}  // namespace orva::host
