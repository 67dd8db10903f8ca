#pragma once

#include <memory>
#include <vector>

#include "orva_host/config_file.h"

namespace orva::host {

// Runs the Lua control programs, each on a thread and in a Lua state of its own, once per cycle.
//
// start() and stop() are called from one thread, or one after the other.
class ProgramRunner {
 public:
  ProgramRunner();
  ~ProgramRunner();  // stops
  ProgramRunner(const ProgramRunner&) = delete;
  ProgramRunner& operator=(const ProgramRunner&) = delete;

  // Loads every program and starts its cycles. A program that cannot be loaded is logged and left
  // out; false when there was one. The other programs run all the same.
  bool start(const std::vector<ProgramCfg>& programs);
  // Ends each program after its current cycle, waits for it and closes its Lua state: function
  // blocks write what they write when they are destroyed. A cycle that does not end is interrupted
  // after a second. start() may follow.
  void stop();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orva::host
