#include <set>

#include "host/trace.h"
#include "orva_host/cycle_schedule.h"
#include "orva_host/live_values.h"
#include "orva_host/source.h"
#include "orva_host/system_signals.h"

namespace orva::host {

namespace {

class SystemSource final : public Source {
 public:
  SystemSource(const SourceCfg& cfg, const std::string& root) : cfg_(cfg), signals_(root) {}

  void run(Gate& stop) override {
    CycleSchedule schedule(Gate::Clock::now(), std::chrono::milliseconds(cfg_.periodMs));
    do {
      signals_.refresh();
      for (const auto& [name, id] : cfg_.values) pass(name, id);
      schedule.finished(Gate::Clock::now());
    } while (!stop.waitUntil(schedule.due()));
  }

 private:
  void pass(const std::string& name, std::int64_t id) {
    OpcUa_VariantHlp value;
    const SystemSignals::Reading reading = signals_.read(name, value);
    if (reading == SystemSignals::Reading::value) {
      setLiveValue(id, value);
    } else if (reading == SystemSignals::Reading::absent && told_.insert(name).second) {
      logMsg("source system: this machine has no \"%s\"\n", name.c_str());
    }
  }

  const SourceCfg cfg_;
  SystemSignals signals_;
  std::set<std::string> told_;  // signals that were logged as absent
};

}  // namespace

std::unique_ptr<Source> makeSystemSource(const SourceCfg& cfg, std::string& error,
                                         const std::string& root) {
  for (const auto& [name, id] : cfg.values) {
    if (SystemSignals::known(name)) continue;
    error = "no signal \"" + name + "\"; there are";
    for (const std::string& known : SystemSignals::names()) error += " " + known;
    return nullptr;
  }
  return std::make_unique<SystemSource>(cfg, root);
}

}  // namespace orva::host
