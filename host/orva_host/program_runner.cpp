#include "orva_host/program_runner.h"

#include <exception>

#include "host/trace.h"
#include "orva_host/lua_program.h"

namespace orva::host {

namespace {

// How long a cycle may go on after the program was asked to stop.
constexpr std::chrono::seconds kStopTime{1};

}  // namespace

struct ProgramRunner::State {
  std::vector<std::unique_ptr<LuaProgram>> programs;
};

ProgramRunner::ProgramRunner() : state_(std::make_unique<State>()) {}

ProgramRunner::~ProgramRunner() { stop(); }

bool ProgramRunner::start(const std::vector<ProgramCfg>& programs) {
  stop();
  bool good = true;
  for (const ProgramCfg& cfg : programs) {
    try {
      state_->programs.push_back(std::make_unique<LuaProgram>(cfg));
    } catch (const std::exception& e) {  // no memory or no thread
      logMsg("program %s: %s\n", cfg.name.c_str(), e.what());
      good = false;
    }
  }
  for (auto& program : state_->programs) {
    if (program->loaded()) continue;
    program.reset();
    good = false;
  }
  return good;
}

void ProgramRunner::stop() {
  const auto until = Gate::Clock::now() + kStopTime;
  for (const auto& program : state_->programs) {
    if (program) program->requestStop();
  }
  for (const auto& program : state_->programs) {
    if (program) program->interruptAfter(until);
  }
  state_->programs.clear();
}

}  // namespace orva::host
