#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "host/metrics.h"
#include "share/condition.h"
#include "share/mutex.h"

namespace orva::host {

// The collectors of all add-ins, and of the host itself.
//
// Thread-safe. Calls collectors under no lock. Never destroyed: static objects may remove their
// collectors as late as they like.
class MetricsRegistry {
 public:
  static MetricsRegistry& instance();
  MetricsRegistry(const MetricsRegistry&) = delete;
  MetricsRegistry& operator=(const MetricsRegistry&) = delete;

  // As metrics::addCollector and metrics::removeCollector say.
  std::int64_t add(const std::string& name, metrics::Collector collector) EXCLUDES(mutex_);
  void remove(std::int64_t id) EXCLUDES(mutex_);

  // Calls the collectors, in the order in which they came.
  void collect(metrics::Sink& sink) EXCLUDES(mutex_);

 private:
  // Guarded by the registry's mutex, the collector's call apart.
  struct Entry {
    std::string name;
    metrics::Collector collector;
    bool running = false;
    std::thread::id runner;
    bool removed = false;
  };

  MetricsRegistry() = default;
  ~MetricsRegistry() = default;

  // False when the entry was removed.
  bool begin(Entry& entry) EXCLUDES(mutex_);
  void end(Entry& entry) EXCLUDES(mutex_);

  Mutex mutex_;      // leaf
  Condition ended_;  // a call has ended
  std::map<std::int64_t, std::shared_ptr<Entry>> entries_ GUARDED_BY(mutex_);
  std::int64_t lastId_ GUARDED_BY(mutex_) = 0;
};

}  // namespace orva::host
