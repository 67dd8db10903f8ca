#pragma once

#include <atomic>
#include <cstddef>
#include <lua.hpp>
#include <string>

namespace orva::host {

// One Lua state as control programs get it: the libraries base, string, table, math and bit32, of
// os only time, date and clock, no access to files, processes or other code; DataValue, TYPES and
// FBMetadata; and every library of function blocks that add-ins have registered. It may use
// kMaxMemory bytes, what asks for more gets a Lua error.
//
// Used by one thread at a time, but for interrupt().
class LuaState {
 public:
  static constexpr std::size_t kMaxMemory = std::size_t{64} << 20;

  LuaState();   // throws std::bad_alloc
  ~LuaState();  // blocks are destroyed, and write what they write then
  LuaState(const LuaState&) = delete;
  LuaState& operator=(const LuaState&) = delete;

  // For setting up; what may raise a Lua error belongs into protectedCall().
  lua_State* get() { return L_; }

  // Makes what the class comment lists. This and the following give false and the reason on
  // failure.
  bool open(std::string& error);
  // Runs a text once. `name` stands in messages, which read "<name>:<line>: <what is wrong>".
  bool run(const std::string& text, const std::string& name, std::string& error);
  // Calls a global function without arguments and results.
  bool call(const char* name, std::string& error);
  // Calls `function` with `argument` as a light userdata.
  bool protectedCall(lua_CFunction function, void* argument, std::string& error);

  bool hasFunction(const char* name);

  // From any thread: what runs Lua code, or begins to before resume(), ends with an error, also
  // when it catches errors itself. Functions of the libraries and __gc functions finish first.
  void interrupt() { interrupted_ = true; }
  void resume();

 private:
  static void* allocate(void* self, void* block, std::size_t oldSize, std::size_t newSize);
  static void onHook(lua_State* L, lua_Debug*);

  std::atomic<bool> interrupted_{false};
  std::size_t used_ = 0;  // bytes of the state, those that Lua knows of
  lua_State* const L_;
};

}  // namespace orva::host
