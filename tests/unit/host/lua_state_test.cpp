#include "orva_host/lua_state.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

namespace orva::host {
namespace {

class LuaStateTest : public ::testing::Test {
 protected:
  LuaStateTest() {
    std::string error;
    EXPECT_TRUE(lua_.open(error)) << error;
  }
  bool run(const std::string& text) { return lua_.run(text, "prog.lua", error_); }

  // Interrupts the text once it has begun to run, and says what it ended with.
  std::string interrupted(const std::string& text) {
    static std::atomic<bool> running;
    running = false;
    lua_pushcfunction(lua_.get(), [](lua_State*) {
      running = true;
      return 0;
    });
    lua_setglobal(lua_.get(), "nowRunning");
    std::thread other([this] {
      while (!running) std::this_thread::yield();
      lua_.interrupt();
    });
    EXPECT_FALSE(run("nowRunning() " + text));
    other.join();
    lua_.resume();
    return error_;
  }

  LuaState lua_;
  std::string error_;
};

TEST_F(LuaStateTest, ProgramsGetCalculationTextAndTimeButNoFilesProcessesOrCode) {
  EXPECT_TRUE(
      run("assert(string.format('%d', math.floor(2.5)) == '2' and #table.pack(1, 2) == 2)\n"
          "assert(bit32.band(6, 3) == 2 and os.time() > 0 and os.date() and os.clock())"))
      << error_;
  for (const char* name :
       {"io", "os.execute", "os.exit", "os.remove", "os.getenv", "os.tmpname", "debug", "require",
        "package", "dofile", "loadfile", "load", "loadstring", "print", "coroutine"}) {
    EXPECT_TRUE(run(std::string("assert(") + name + " == nil)")) << name;
  }
}

TEST_F(LuaStateTest, MessagesNameTheFileAndTheLine) {
  EXPECT_FALSE(run("local x = 1\n\nx.y.z = 2"));
  EXPECT_EQ(error_.substr(0, 12), "prog.lua:3: ");
  EXPECT_FALSE(run("if then"));
  EXPECT_EQ(error_.substr(0, 12), "prog.lua:1: ");
}

TEST_F(LuaStateTest, ErrorValuesThatAreNoTextAreTold) {
  EXPECT_FALSE(run("error({})"));
  EXPECT_EQ(error_, "error value is a table");
  EXPECT_FALSE(run("error(setmetatable({}, {__tostring = function() error('no') end}))"));
  EXPECT_EQ(error_, "error value is a table");
  EXPECT_FALSE(run("error()"));
  EXPECT_EQ(error_, "error value is a nil");
}

TEST_F(LuaStateTest, CompiledCodeIsRefused) {
  EXPECT_FALSE(run("\x1bLua"));
  EXPECT_NE(error_.find("binary"), std::string::npos) << error_;
}

TEST_F(LuaStateTest, AFunctionIsCalledByItsGlobalName) {
  EXPECT_TRUE(run("n = 0 function cycle() n = n + 1 end notOne = 5"));
  EXPECT_TRUE(lua_.hasFunction("cycle"));
  EXPECT_FALSE(lua_.hasFunction("notOne"));
  EXPECT_FALSE(lua_.hasFunction("missing"));
  EXPECT_TRUE(lua_.call("cycle", error_));
  EXPECT_TRUE(run("assert(n == 1)"));
  EXPECT_FALSE(lua_.call("missing", error_));
}

TEST_F(LuaStateTest, GlobalsThatRaiseErrorsHarmNothing) {
  EXPECT_TRUE(run("setmetatable(_G, {__index = function() error('trap') end})"));
  EXPECT_FALSE(lua_.hasFunction("cycle"));
  EXPECT_FALSE(lua_.call("cycle", error_));
  EXPECT_NE(error_.find("trap"), std::string::npos);
}

TEST_F(LuaStateTest, AnEndlessLoopIsInterrupted) {
  EXPECT_EQ(interrupted("while true do end"), "prog.lua:1: interrupted");
}

TEST_F(LuaStateTest, AProgramThatCatchesErrorsIsInterruptedAllTheSame) {
  EXPECT_NE(interrupted("local function f() while true do end end while true do pcall(f) end")
                .find("interrupted"),
            std::string::npos);
  EXPECT_TRUE(run("local n = 0 for i = 1, 100000 do n = n + i end")) << error_;
}

TEST_F(LuaStateTest, MemoryIsLimitedAndTheStateGoesOn) {
  EXPECT_FALSE(run("local t = {} for i = 1, 1e9 do t[i] = ('x'):rep(1000) .. i end"));
  EXPECT_NE(error_.find("not enough memory"), std::string::npos) << error_;
  EXPECT_TRUE(run("collectgarbage() local t = {} for i = 1, 1000 do t[i] = i end")) << error_;
  EXPECT_FALSE(run("return ('x'):rep(1e9)"));
}

TEST_F(LuaStateTest, ADeepRecursionIsAnErrorOfTheProgram) {
  EXPECT_FALSE(run("local function f() return 1 + f() end f()"));
  EXPECT_FALSE(run("local s = string.rep('(', 1000000) .. 1 error(#s)"));
  EXPECT_FALSE(run(std::string(1'000'000, '{')));
  EXPECT_TRUE(run("return 1")) << error_;
}

}  // namespace
}  // namespace orva::host
