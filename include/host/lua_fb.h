#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <lua.hpp>
#include <new>
#include <string>
#include <vector>

#include "host/host_export.h"
#include "host/opcua_variant.h"
#include "host/trace.h"

// The host's framework for function blocks that Lua control programs use.
//
// A block is a class derived from BaseFB<itself>. It names its inputs in a static table and
// overrides Inited() and Execute(); an add-in registers the opener of its Lua library with
// RegisterExternalSTLib(), which the host runs for each Lua state of its own. A program then writes
//
//   local fb = ArchiveProc.new{Id = 7}   -- constructor table: inputs by name
//   fb.Value = 21.5                      -- sets an input
//   fb()                                 -- Execute()
//
// Values: nil is the null value, a boolean a Boolean, a number a Double, a string a String, and
// what the host function DataValue{...} makes a DataValue. Integers beyond 2^53, which a Lua number
// cannot hold, go both ways as decimal text.
//
// Each block belongs to one Lua state and is used on the thread that runs it.
//
// Lua reports its errors by longjmp and knows nothing of exceptions. So no exception may reach Lua,
// and a call that may raise a Lua error stands where no object with a destructor is alive.

// Types of a block's inputs.
class ORVA_HOST_API ParamType {
 public:
  enum Code : int {
    kBool = 1,
    kLReal = 5,
    kTime = 8,  // a count of ticks
    kUDInt = 14,
    kLInt = 16,
    kString = 21,
    kAny = 22,
  };
  // The Lua expression that stands for a type in a block's metadata ("TYPES.BOOL"); "nil" for a
  // code that is none.
  static const char* GetLuaType(int code);
};

// One input. A table of inputs ends with a null name.
struct FBInput {
  const char* name;
  int type;  // ParamType::Code
};

// Names a block for the Lua side: the metatable, and the text for a wrong argument.
class ORVA_HOST_API LuaFBUtil {
 public:
  static const char* const CheckErrStrPostfix;

  explicit LuaFBUtil(const char* name);
  const char* name() const { return name_.c_str(); }
  const char* checkError() const { return checkError_.c_str(); }

 private:
  std::string name_;
  std::string checkError_;
};

class ORVA_HOST_API BaseLuaFB {
 public:
  BaseLuaFB(lua_State* state, const std::string& name);
  virtual ~BaseLuaFB();
  BaseLuaFB(const BaseLuaFB&) = delete;
  BaseLuaFB& operator=(const BaseLuaFB&) = delete;

  const std::string& name() const { return name_; }

 protected:
  lua_State* state() const { return state_; }  // where it was made

 private:
  lua_State* const state_;
  const std::string name_;
};

// The values of a block's inputs, null until they are set.
class ORVA_HOST_API InputsFB {
 public:
  struct Data {
    const FBInput* table = nullptr;
    std::vector<OpcUa_VariantHlp> values;  // by position in the table
  };

  InputsFB();
  virtual ~InputsFB();
  InputsFB(const InputsFB&) = delete;
  InputsFB& operator=(const InputsFB&) = delete;

  // The table must outlive the block.
  void LoadInputs(const FBInput* table);

  // Sets the input named below the top of the stack from the value at the top. Raises a Lua error
  // for a name that is no input, and for a value that is none. Leaves the stack as it is.
  static int ReadFrom(lua_State* L, Data& data);
  // Pushes the input named at the top of the stack, nil when there is none of that name. Returns 1.
  static int WriteTo(lua_State* L, const Data& data);

  // The live value; null when there is no such input.
  OpcUa_VariantHlp* GetFBInput(const char* name);
  const OpcUa_VariantHlp* GetFBInput(const char* name) const;

  // Typed reads. An input that is not set, or that cannot be read so, gives the fallback.
  bool GetBool(const char* name, bool fallback = false) const;
  double GetDouble(const char* name, double fallback = 0.0) const;
  // Decimal text is read as a number.
  std::int64_t GetInt64(const char* name, std::int64_t fallback = 0) const;
  // Ticks.
  std::int64_t GetTime(const char* name) const;
  std::string GetString(const char* name) const;

 protected:
  Data data;
};

// Registers the opener of a Lua library. The host runs it in each Lua state made from then on, in
// the order of registration; a negative result is a failure. A known name takes the new opener.
// Returns 0. Thread-safe.
ORVA_HOST_API int RegisterExternalSTLib(const char* name, lua_CFunction open);

namespace orva::lua {

// Runs one step of a block. What it throws is traced and goes no further. True if it threw nothing.
template <class Step>
bool guarded(const char* block, const char* stepName, Step step) noexcept {
  try {
    step();
    return true;
  } catch (const std::exception& e) {
    OpcUa_Trace_Imp(kTraceError, "%s: %s failed: %s\n", __FILE__, __LINE__, block, stepName,
                    e.what());
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "%s: %s failed\n", __FILE__, __LINE__, block, stepName);
  }
  return false;
}

}  // namespace orva::lua

// Base of the block T, and its Lua functions. T supplies
//   static const LuaFBUtil util;              its name
//   static const FBInput* GetMetaTable();     its inputs
//   T(lua_State* L, const std::string& name); calls no Lua function
//   a destructor that lets no exception out.
// The order of the virtual functions is relied on by blocks built elsewhere.
template <class T>
class BaseFB : public BaseLuaFB, public InputsFB {
 public:
  BaseFB(lua_State* state, const std::string& name) : BaseLuaFB(state, name) {}
  ~BaseFB() override = default;

  // Sets the inputs from the constructor table, which lies below the top of the stack (no table: no
  // inputs), then calls InitedInternal() and Inited(). Only true string keys count. May raise a Lua
  // error, then the block is whole but not initialised.
  virtual void Init(lua_State* state);
  virtual int getField(lua_State* state) { return WriteTo(state, data); }
  virtual int setField(lua_State* state) { return ReadFrom(state, data); }
  // Returns the value at the top of the stack: the block itself, unless the call had arguments.
  virtual int call(lua_State*) {
    orva::lua::guarded(T::util.name(), "Execute", [this] { Execute(); });
    return 1;
  }
  virtual void Inited() {}
  // May raise a Lua error, must not throw.
  virtual void InitedInternal(lua_State*) {}
  virtual void Execute() {}

  // ---- the Lua functions
  static int NewFB(lua_State* L);
  static int Get(lua_State* L);
  static int Set(lua_State* L);
  static int Call(lua_State* L);
  // Destroys the block in its place; the memory is Lua's. Never raises, and does nothing for an
  // argument that is no block or one that was destroyed already.
  static int GC(lua_State* L);

 private:
  struct Slot;

  // The argument's block; raises a Lua error when it is no live block of this kind.
  static T* checkedArgument(lua_State* L);
};

// What the userdata holds.
template <class T>
struct BaseFB<T>::Slot {
  alignas(T) unsigned char block[sizeof(T)];
  bool live;  // the block is constructed and not destroyed
  T* get() { return std::launder(reinterpret_cast<T*>(block)); }
};

template <class T>
void BaseFB<T>::Init(lua_State* state) {
  const int top = lua_gettop(state);
  const int table = top - 1;
  if (table >= 1 && lua_istable(state, table)) {
    lua_pushnil(state);
    while (lua_next(state, table) != 0) {
      if (lua_type(state, -2) == LUA_TSTRING) {
        // setField gets copies: whatever it does to them, lua_next finds its key unchanged.
        lua_pushvalue(state, -2);
        lua_pushvalue(state, -2);
        setField(state);
      }
      lua_settop(state, top + 1);
    }
  }
  InitedInternal(state);
  lua_settop(state, top);
  orva::lua::guarded(T::util.name(), "Inited", [this] { Inited(); });
}

template <class T>
T* BaseFB<T>::checkedArgument(lua_State* L) {
  auto* slot = static_cast<Slot*>(luaL_testudata(L, 1, T::util.name()));
  if (slot == nullptr || !slot->live) luaL_argerror(L, 1, T::util.checkError());
  return slot->get();
}

template <class T>
int BaseFB<T>::NewFB(lua_State* L) {
  const int last = lua_gettop(L);
  static_assert(alignof(Slot) <= alignof(double), "Lua aligns userdata for a double");
  if (last > 0 && !lua_isnil(L, last)) luaL_checktype(L, last, LUA_TTABLE);
  auto* slot = static_cast<Slot*>(lua_newuserdata(L, sizeof(Slot)));
  slot->live = orva::lua::guarded(T::util.name(), "construction",
                                  [&] { new (slot->block) T(L, T::util.name()); });
  if (!slot->live) return luaL_error(L, "%s: out of memory", T::util.name());
  // From here on the collector destroys it, also when a field of the table is refused.
  luaL_setmetatable(L, T::util.name());
  slot->get()->Init(L);
  return 1;
}

template <class T>
int BaseFB<T>::Get(lua_State* L) {
  T* block = checkedArgument(L);
  lua_settop(L, 2);
  return block->getField(L);
}

template <class T>
int BaseFB<T>::Set(lua_State* L) {
  T* block = checkedArgument(L);
  lua_settop(L, 3);
  return block->setField(L);
}

template <class T>
int BaseFB<T>::Call(lua_State* L) {
  return checkedArgument(L)->call(L);
}

template <class T>
int BaseFB<T>::GC(lua_State* L) {
  auto* slot = static_cast<Slot*>(luaL_testudata(L, 1, T::util.name()));
  if (slot != nullptr && slot->live) {
    slot->live = false;
    slot->get()->~T();
  }
  return 1;
}
