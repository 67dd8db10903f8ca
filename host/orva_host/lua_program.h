#pragma once

#include <string>
#include <thread>

#include "orva_host/config_file.h"
#include "orva_host/gate.h"
#include "orva_host/log_limit.h"
#include "orva_host/lua_state.h"

namespace orva::host {

// One control program on a thread of its own. Its file is run once; what that leaves behind as the
// global function cycle() runs once per period from then on:
//
//   local fb = ArchiveProc.new{Id = 1}
//   function cycle()
//     fb.Value = Read(1)
//     fb()
//   end
//
// An error ends the cycle and is logged with file and line, at most one line a second; the next
// cycle comes all the same.
class LuaProgram {
 public:
  explicit LuaProgram(const ProgramCfg& cfg);
  ~LuaProgram();  // stops, then closes the Lua state
  LuaProgram(const LuaProgram&) = delete;
  LuaProgram& operator=(const LuaProgram&) = delete;

  // Whether the file was run and has its function. Waits for that; a program that takes longer than
  // kLoadTimeMs is interrupted and has failed.
  bool loaded();
  // Asks it to end after its present cycle.
  void requestStop() { stop_.open(); }
  // Whether it has ended by then; if not, its cycle is interrupted.
  void interruptAfter(Gate::Clock::time_point until);

 private:
  static constexpr int kLoadTimeMs = 3000;

  void threadMain() noexcept;
  bool load();
  bool prepare(std::string& error);
  void runCycles();
  void logError(const std::string& error);
  void logMissed(long long missed);

  const ProgramCfg cfg_;
  const Gate::Clock::time_point started_ = Gate::Clock::now();
  LuaState state_;  // used by the thread while there is one
  Gate stop_;
  Gate loadEnded_;
  bool loaded_ = false;  // written before loadEnded_ opens
  Gate ended_;
  LogLimit errorLimit_;                 // the thread's
  Gate::Clock::time_point missedLine_;  // the thread's: when it last logged missed cycles
  long long missed_ = 0;                // the thread's: cycles missed since then
  std::thread thread_;
};

}  // namespace orva::host
