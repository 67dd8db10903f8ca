#include <cstring>

#include "host/lua_fb.h"
#include "orva_host/lua_value.h"
#include "share/json.h"

namespace {

constexpr std::size_t kNoInput = static_cast<std::size_t>(-1);

std::size_t positionOf(const InputsFB::Data& data, const char* name) {
  for (std::size_t i = 0; i < data.values.size(); ++i) {
    if (std::strcmp(data.table[i].name, name) == 0) return i;
  }
  return kNoInput;
}

}  // namespace

InputsFB::InputsFB() = default;

InputsFB::~InputsFB() = default;

void InputsFB::LoadInputs(const FBInput* table) {
  std::size_t count = 0;
  while (table[count].name != nullptr) ++count;
  data.table = table;
  data.values.assign(count, OpcUa_VariantHlp());
}

int InputsFB::ReadFrom(lua_State* L, Data& data) {
  if (lua_type(L, -2) != LUA_TSTRING) return luaL_error(L, "name of an input expected");
  const char* name = lua_tostring(L, -2);
  const std::size_t position = positionOf(data, name);
  if (position == kNoInput) return luaL_error(L, "no input \"%s\"", name);
  if (!orva::host::isLuaValue(L, -1)) {
    return luaL_error(L, "input \"%s\": %s, got %s", name, orva::host::kLuaValueExpected,
                      luaL_typename(L, -1));
  }
  if (!orva::host::luaToVariant(L, -1, data.values[position])) {
    return luaL_error(L, "input \"%s\": out of memory", name);
  }
  return 0;
}

int InputsFB::WriteTo(lua_State* L, const Data& data) {
  const std::size_t position =
      lua_type(L, -1) == LUA_TSTRING ? positionOf(data, lua_tostring(L, -1)) : kNoInput;
  if (position == kNoInput) {
    lua_pushnil(L);
  } else {
    orva::host::pushVariant(L, data.values[position]);
  }
  return 1;
}

OpcUa_VariantHlp* InputsFB::GetFBInput(const char* name) {
  const std::size_t position = positionOf(data, name);
  return position == kNoInput ? nullptr : &data.values[position];
}

const OpcUa_VariantHlp* InputsFB::GetFBInput(const char* name) const {
  const std::size_t position = positionOf(data, name);
  return position == kNoInput ? nullptr : &data.values[position];
}

bool InputsFB::GetBool(const char* name, bool fallback) const {
  const OpcUa_VariantHlp* value = GetFBInput(name);
  bool result = fallback;
  return value != nullptr && value->GetBool(result) ? result : fallback;
}

double InputsFB::GetDouble(const char* name, double fallback) const {
  const OpcUa_VariantHlp* value = GetFBInput(name);
  double result = fallback;
  return value != nullptr && value->GetDouble(result) ? result : fallback;
}

std::int64_t InputsFB::GetInt64(const char* name, std::int64_t fallback) const {
  const OpcUa_VariantHlp* value = GetFBInput(name);
  if (value == nullptr) return fallback;
  if (value->GetType() == OpcUaType_String) {
    return orva::json::decimalText(value->GetString().c_str());
  }
  std::int64_t result = fallback;
  return value->GetInt64(result) ? result : fallback;
}

std::int64_t InputsFB::GetTime(const char* name) const {
  const OpcUa_VariantHlp* value = GetFBInput(name);
  std::int64_t ticks = 0;
  if (value != nullptr) OpcUa_VariantHlp::GetTime(*value, 1, ticks);
  return ticks;
}

std::string InputsFB::GetString(const char* name) const {
  const OpcUa_VariantHlp* value = GetFBInput(name);
  return value == nullptr ? std::string() : value->GetString();
}
