#pragma once

#include <memory>
#include <vector>

#include "orva_host/config_file.h"

namespace orva::host {

// Runs the sources of live values (orva_host/live_values.h), each on a thread of its own.
//
// start() and stop() are called from one thread, or one after the other.
class SourceRunner {
 public:
  SourceRunner();
  ~SourceRunner();  // stops
  SourceRunner(const SourceRunner&) = delete;
  SourceRunner& operator=(const SourceRunner&) = delete;

  // A source that cannot start is logged and left out; false when there was one.
  bool start(const std::vector<SourceCfg>& sources);
  // Returns when no source sets values any more, within a second. start() may follow.
  void stop();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orva::host
