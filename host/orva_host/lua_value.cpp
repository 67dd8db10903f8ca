#include "orva_host/lua_value.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "share/ticks.h"

namespace orva::host {

const char* const kLuaValueExpected = "nil, boolean, number, string or DataValue expected";

namespace {

constexpr const char* kBoxName = "DataValue";
// Integers up to here are exact as Lua numbers.
constexpr std::int64_t kMaxExactInteger = std::int64_t{1} << 53;
// Keeps milliseconds times 10000 far inside signed 64 bits; some 28000 years.
constexpr double kMaxMilliseconds = 9e14;

static_assert(alignof(OpcUa_VariantHlp) <= alignof(double), "Lua aligns userdata for a double");

OpcUa_VariantHlp* boxAt(lua_State* L, int index) {
  return static_cast<OpcUa_VariantHlp*>(luaL_testudata(L, index, kBoxName));
}

bool numberToTicks(double since1970Ms, std::int64_t& ticks) {
  if (!(std::fabs(since1970Ms) <= kMaxMilliseconds)) return false;
  const double whole = std::floor(since1970Ms);
  const double fraction = since1970Ms - whole;
  ticks = kUnixEpochTicks + static_cast<std::int64_t>(whole) * kTicksPerMillisecond +
          std::llround(fraction * static_cast<double>(kTicksPerMillisecond));
  return true;
}

void pushMilliseconds(lua_State* L, std::int64_t ticks) {
  // The epoch is subtracted last: 64 bits hold the difference of any ticks and it in milliseconds.
  const std::int64_t whole = ticks / kTicksPerMillisecond - kUnixEpochMilliseconds;
  const std::int64_t rest = ticks % kTicksPerMillisecond;
  lua_pushnumber(L, static_cast<double>(whole) +
                        static_cast<double>(rest) / static_cast<double>(kTicksPerMillisecond));
}

void pushInteger(lua_State* L, const OpcUa_Variant& value) {
  char text[32];
  if (value.Datatype == OpcUaType_UInt64) {
    const std::uint64_t number = value.Value.UInt64;
    if (number <= static_cast<std::uint64_t>(kMaxExactInteger)) {
      lua_pushnumber(L, static_cast<double>(number));
      return;
    }
    std::snprintf(text, sizeof text, "%" PRIu64, number);
  } else {
    const std::int64_t number = value.Value.Int64;
    if (number >= -kMaxExactInteger && number <= kMaxExactInteger) {
      lua_pushnumber(L, static_cast<double>(number));
      return;
    }
    std::snprintf(text, sizeof text, "%" PRId64, number);
  }
  lua_pushstring(L, text);
}

// Lives as long as the thread, since a Lua error that is raised while it is pushed destroys
// nothing.
const std::string& readableText(const OpcUa_VariantHlp& value) noexcept {
  static thread_local std::string text;
  try {
    text = value.ToText();
  } catch (...) {
    text.clear();
  }
  return text;
}

bool copyVariant(const OpcUa_VariantHlp& from, OpcUa_VariantHlp& to) noexcept {
  try {
    to = from;
    return true;
  } catch (...) {
    return false;
  }
}

bool copyInner(const OpcUa_VariantHlp& from, OpcUa_VariantHlp& to) noexcept {
  try {
    OpcUa_VariantHlp copy = from;
    to = copy.TakeInnerValue();
    return true;
  } catch (...) {
    return false;
  }
}

// What the fields of a DataValue{...} say besides the value.
struct DataValueFields {
  std::int64_t sourceTicks = 0;
  OpcUa_StatusCode status = 0;
};

bool buildDataValue(lua_State* L, int valueIndex, const DataValueFields& fields,
                    OpcUa_VariantHlp& out) noexcept {
  try {
    OpcUa_VariantHlp inner;
    if (!luaToVariant(L, valueIndex, inner)) return false;
    out.SetDataValue(std::move(inner), fields.status, fields.sourceTicks);
    return true;
  } catch (...) {
    return false;
  }
}

void refuseUnknownFields(lua_State* L) {
  lua_pushnil(L);
  while (lua_next(L, 1) != 0) {
    lua_pop(L, 1);
    static const char* const kKnown[] = {"Value", "SourceTime", "Status"};
    bool known = false;
    if (lua_type(L, -1) == LUA_TSTRING) {
      for (const char* name : kKnown) known = known || std::strcmp(lua_tostring(L, -1), name) == 0;
    }
    if (!known) {
      lua_pushvalue(L, -1);  // luaL_tolstring leaves the key of lua_next alone
      luaL_error(L, "DataValue: unknown field \"%s\"", luaL_tolstring(L, -1, nullptr));
    }
  }
}

void readFields(lua_State* L, DataValueFields& fields) {
  lua_getfield(L, 1, "SourceTime");
  if (!lua_isnil(L, -1)) {
    if (lua_type(L, -1) != LUA_TNUMBER || !numberToTicks(lua_tonumber(L, -1), fields.sourceTicks)) {
      luaL_error(L, "DataValue: SourceTime must be milliseconds since 1970");
    }
  }
  lua_getfield(L, 1, "Status");
  if (!lua_isnil(L, -1)) {
    const double status = lua_type(L, -1) == LUA_TNUMBER ? lua_tonumber(L, -1) : -1;
    if (!(status >= 0 && status <= 4294967295.0 && status == std::floor(status))) {
      luaL_error(L, "DataValue: Status must be an integer from 0 to 4294967295");
    }
    fields.status = static_cast<OpcUa_StatusCode>(status);
  }
  lua_pop(L, 2);
}

int makeDataValue(lua_State* L) {
  luaL_checktype(L, 1, LUA_TTABLE);
  lua_settop(L, 1);
  refuseUnknownFields(L);
  DataValueFields fields;
  readFields(L, fields);
  lua_getfield(L, 1, "Value");
  const OpcUa_VariantHlp* inner = boxAt(L, 2);
  if (!isLuaValue(L, 2) || (inner != nullptr && inner->GetType() == OpcUaType_DataValue)) {
    return luaL_error(L, "DataValue: Value must be nil, boolean, number or string");
  }
  OpcUa_VariantHlp* box = pushVariantBox(L);
  if (!buildDataValue(L, 2, fields, *box)) return luaL_error(L, "DataValue: out of memory");
  return 1;
}

const OpcUa_VariantHlp* checkedBox(lua_State* L) {
  const OpcUa_VariantHlp* box = boxAt(L, 1);
  if (box == nullptr) luaL_argerror(L, 1, "DataValue expected");
  return box;
}

int indexDataValue(lua_State* L) {
  const OpcUa_VariantHlp* box = checkedBox(L);
  if (box == nullptr) return 0;  // never: the check above raised
  const OpcUa_DataValue* data = box->GetDataValue();
  const char* name = lua_type(L, 2) == LUA_TSTRING ? lua_tostring(L, 2) : "";
  if (data == nullptr) {
    if (std::strcmp(name, "Value") != 0) return 0;
    pushVariant(L, *box);
    return 1;
  }
  if (std::strcmp(name, "Value") == 0) {
    OpcUa_VariantHlp* inner = pushVariantBox(L);  // so that a Lua error leaks nothing
    if (!copyInner(*box, *inner)) return luaL_error(L, "DataValue: out of memory");
    pushVariant(L, *inner);
    return 1;
  }
  if (std::strcmp(name, "Status") == 0) {
    lua_pushnumber(L, data->StatusCode);
    return 1;
  }
  const std::int64_t ticks = OpcUa_DateTime_ToInt64(&data->SourceTimestamp);
  if (std::strcmp(name, "SourceTime") != 0 || ticks == 0) return 0;
  pushMilliseconds(L, ticks);
  return 1;
}

int dataValueToText(lua_State* L) {
  const OpcUa_VariantHlp* box = checkedBox(L);
  if (box == nullptr) return 0;
  const std::string& text = readableText(*box);
  lua_pushlstring(L, text.data(), text.size());
  return 1;
}

// Leaves a null variant behind, so a second call has nothing to release.
int collectDataValue(lua_State* L) {
  OpcUa_VariantHlp* box = boxAt(L, 1);
  if (box != nullptr) box->SetNull();
  return 0;
}

}  // namespace

bool isLuaValue(lua_State* L, int index) {
  switch (lua_type(L, index)) {
    case LUA_TNIL:
    case LUA_TBOOLEAN:
    case LUA_TNUMBER:
    case LUA_TSTRING:
      return true;
    default:
      return boxAt(L, index) != nullptr;
  }
}

bool luaToVariant(lua_State* L, int index, OpcUa_VariantHlp& out) noexcept {
  try {
    switch (lua_type(L, index)) {
      case LUA_TBOOLEAN:
        out.SetBool(lua_toboolean(L, index) != 0);
        return true;
      case LUA_TNUMBER:
        out.SetDouble(lua_tonumber(L, index));
        return true;
      case LUA_TSTRING: {
        std::size_t length = 0;
        const char* text = lua_tolstring(L, index, &length);
        out.SetString(text, static_cast<std::uint32_t>(length));
        return true;
      }
      case LUA_TUSERDATA:
        return copyVariant(*boxAt(L, index), out);
      default:
        out.SetNull();
        return true;
    }
  } catch (...) {
    return false;
  }
}

void pushVariant(lua_State* L, const OpcUa_VariantHlp& value) {
  const OpcUa_Variant& raw = value.Get();
  double number = 0;
  if (value.GetType() == OpcUaType_Null) {
    lua_pushnil(L);
  } else if (value.GetType() == OpcUaType_DataValue && !value.IsArray()) {
    OpcUa_VariantHlp* box = pushVariantBox(L);
    if (!copyVariant(value, *box)) luaL_error(L, "DataValue: out of memory");
  } else if (value.IsArray()) {
    const std::string& text = readableText(value);
    lua_pushlstring(L, text.data(), text.size());
  } else if (value.GetType() == OpcUaType_Boolean) {
    lua_pushboolean(L, raw.Value.Boolean ? 1 : 0);
  } else if (value.GetType() == OpcUaType_String || value.GetType() == OpcUaType_Json) {
    const char* text = OpcUa_String_GetRawString(raw.Value.String);
    lua_pushlstring(L, text == nullptr ? "" : text, OpcUa_String_StrSize(raw.Value.String));
  } else if (value.GetType() == OpcUaType_Int64 || value.GetType() == OpcUaType_UInt64) {
    pushInteger(L, raw);
  } else if (value.GetType() == OpcUaType_DateTime) {
    pushMilliseconds(L, OpcUa_DateTime_ToInt64(&raw.Value.DateTime));
  } else if (value.GetDouble(number)) {
    lua_pushnumber(L, number);
  } else {
    const std::string& text = readableText(value);
    lua_pushlstring(L, text.data(), text.size());
  }
}

OpcUa_VariantHlp* pushVariantBox(lua_State* L) {
  void* memory = lua_newuserdata(L, sizeof(OpcUa_VariantHlp));
  auto* box = new (memory) OpcUa_VariantHlp();
  luaL_setmetatable(L, kBoxName);
  return box;
}

void openDataValue(lua_State* L) {
  static const luaL_Reg kMetamethods[] = {{"__index", indexDataValue},
                                          {"__tostring", dataValueToText},
                                          {"__gc", collectDataValue},
                                          {nullptr, nullptr}};
  luaL_newmetatable(L, kBoxName);
  luaL_setfuncs(L, kMetamethods, 0);
  // Scripts get a word instead of the table, so that they cannot call __gc and the like.
  lua_pushliteral(L, "DataValue");
  lua_setfield(L, -2, "__metatable");
  lua_pop(L, 1);
  lua_pushcfunction(L, makeDataValue);
  lua_setglobal(L, "DataValue");
}

}  // namespace orva::host
