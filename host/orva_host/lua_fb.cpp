#include "host/lua_fb.h"

const char* ParamType::GetLuaType(int code) {
  switch (code) {
    case kBool:
      return "TYPES.BOOL";
    case kLReal:
      return "TYPES.LREAL";
    case kTime:
      return "TYPES.TIME";
    case kUDInt:
      return "TYPES.UDINT";
    case kLInt:
      return "TYPES.LINT";
    case kString:
      return "TYPES.STRING";
    case kAny:
      return "TYPES.ANY";
    default:
      return "nil";
  }
}

const char* const LuaFBUtil::CheckErrStrPostfix = "function block expected";

LuaFBUtil::LuaFBUtil(const char* name)
    : name_(name), checkError_(name_ + " " + CheckErrStrPostfix) {}

BaseLuaFB::BaseLuaFB(lua_State* state, const std::string& name) : state_(state), name_(name) {}

BaseLuaFB::~BaseLuaFB() = default;
