#include "orva_host/lua_program.h"

#include <cstring>
#include <exception>
#include <filesystem>

#include "host/trace.h"
#include "orva_host/cycle_schedule.h"
#include "orva_host/program_api.h"
#include "orva_host/text_file.h"

namespace orva::host {

namespace {

constexpr const char* kCycleFunction = "cycle";
constexpr std::chrono::minutes kMissedLineEvery{1};

int openApi(lua_State* L) {
  openProgramApi(L, static_cast<const char*>(lua_touserdata(L, 1)));
  return 0;
}

}  // namespace

LuaProgram::LuaProgram(const ProgramCfg& cfg)
    : cfg_(cfg), missedLine_(started_ - kMissedLineEvery) {
  thread_ = std::thread([this] { threadMain(); });
}

LuaProgram::~LuaProgram() {
  requestStop();
  thread_.join();
}

bool LuaProgram::loaded() {
  if (!loadEnded_.waitUntil(started_ + std::chrono::milliseconds(kLoadTimeMs))) {
    state_.interrupt();
    loadEnded_.wait();
  }
  return loaded_;
}

void LuaProgram::interruptAfter(Gate::Clock::time_point until) {
  if (!ended_.waitUntil(until)) state_.interrupt();
}

void LuaProgram::threadMain() noexcept {
  try {
    loaded_ = load();
  } catch (const std::exception& e) {
    OpcUa_Trace_Imp(kTraceError, "program %s: %s\n", __FILE__, __LINE__, cfg_.name.c_str(),
                    e.what());
  }
  const bool runs = loaded_;
  loadEnded_.open();
  if (runs) runCycles();
  ended_.open();
}

bool LuaProgram::load() {
  std::string error;
  const bool good = prepare(error);
  if (!good) logMsg("program %s: %s\n", cfg_.name.c_str(), error.c_str());
  return good;
}

bool LuaProgram::prepare(std::string& error) {
  std::string text;
  if (const int result = readTextFile(cfg_.file, text); result != 0) {
    error = cfg_.file + ": " + std::strerror(result);
    return false;
  }
  const std::string fileName = std::filesystem::path(cfg_.file).filename().string();
  if (!state_.open(error)) return false;
  if (!state_.protectedCall(openApi, const_cast<char*>(cfg_.name.c_str()), error)) return false;
  if (!state_.run(text, fileName, error)) return false;
  if (state_.hasFunction(kCycleFunction)) return true;
  error = fileName + ": no function cycle()";
  return false;
}

void LuaProgram::runCycles() {
  CycleSchedule schedule(Gate::Clock::now(), std::chrono::milliseconds(cfg_.cycleMs));
  std::string error;
  while (!stop_.waitUntil(schedule.due())) {
    try {
      if (!state_.call(kCycleFunction, error)) logError(error);
    } catch (const std::exception& e) {  // no memory for the message
      OpcUa_Trace_Imp(kTraceError, "program %s: %s\n", __FILE__, __LINE__, cfg_.name.c_str(),
                      e.what());
    }
    logMissed(schedule.finished(Gate::Clock::now()));
  }
}

void LuaProgram::logError(const std::string& error) {
  long long suppressed = 0;
  if (!errorLimit_.allow(LogLimit::Clock::now(), suppressed)) return;
  if (suppressed == 0) {
    logMsg("program %s: %s\n", cfg_.name.c_str(), error.c_str());
  } else {
    logMsg("program %s: %s (%lld more errors since the last line)\n", cfg_.name.c_str(),
           error.c_str(), suppressed);
  }
}

void LuaProgram::logMissed(long long missed) {
  missed_ += missed;
  const Gate::Clock::time_point now = Gate::Clock::now();
  if (missed_ == 0 || now - missedLine_ < kMissedLineEvery) return;
  logMsg("program %s: %lld cycles of %d ms missed, the program takes too long\n", cfg_.name.c_str(),
         missed_, cfg_.cycleMs);
  missedLine_ = now;
  missed_ = 0;
}

}  // namespace orva::host
