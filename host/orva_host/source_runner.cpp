#include "orva_host/source_runner.h"

#include <exception>
#include <thread>

#include "host/trace.h"
#include "orva_host/gate.h"
#include "orva_host/source.h"

namespace orva::host {

namespace {

void runSource(const std::string& type, Source& source, Gate& stop) noexcept {
  try {
    source.run(stop);
  } catch (const std::exception& e) {
    OpcUa_Trace_Imp(kTraceError, "source %s: %s\n", __FILE__, __LINE__, type.c_str(), e.what());
  }
}

}  // namespace

struct SourceRunner::State {
  struct Running {
    std::string type;
    std::unique_ptr<Source> source;
    Gate stop;
    std::thread thread;
  };

  std::vector<std::unique_ptr<Running>> sources;

  void add(const SourceCfg& cfg, std::unique_ptr<Source> source) {
    auto running = std::make_unique<Running>();
    running->type = cfg.type;
    running->source = std::move(source);
    sources.push_back(std::move(running));
    Running& added = *sources.back();
    added.thread = std::thread([&added] { runSource(added.type, *added.source, added.stop); });
  }
};

SourceRunner::SourceRunner() : state_(std::make_unique<State>()) {}

SourceRunner::~SourceRunner() { stop(); }

bool SourceRunner::start(const std::vector<SourceCfg>& sources) {
  stop();
  bool good = true;
  for (const SourceCfg& cfg : sources) {
    std::string error;
    try {
      std::unique_ptr<Source> source = makeSource(cfg, error);
      if (source) state_->add(cfg, std::move(source));
    } catch (const std::exception& e) {  // no memory or no thread
      error = e.what();
    }
    if (error.empty()) continue;
    logMsg("source %s: %s\n", cfg.type.c_str(), error.c_str());
    good = false;
  }
  return good;
}

void SourceRunner::stop() {
  for (const auto& running : state_->sources) running->stop.open();
  for (const auto& running : state_->sources) {
    if (running->thread.joinable()) running->thread.join();
  }
  state_->sources.clear();
}

std::unique_ptr<Source> makeSource(const SourceCfg& cfg, std::string& error) {
  if (cfg.type == "system") return makeSystemSource(cfg, error);
  if (cfg.type == "csv") return makeCsvSource(cfg, error);
  error = "no such type of source";
  return nullptr;
}

}  // namespace orva::host
