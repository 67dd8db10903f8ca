#include "orva_host/metrics_registry.h"

#include <exception>
#include <utility>
#include <vector>

#include "host/trace.h"

namespace orva::host {
namespace {

void callCollector(const std::string& name, const metrics::Collector& collector,
                   metrics::Sink& sink) {
  try {
    collector(sink);
  } catch (const std::exception& error) {
    OpcUa_Trace_Imp(kTraceError, "the metrics collector \"%s\" throws: %s\n", __FILE__, __LINE__,
                    name.c_str(), error.what());
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "the metrics collector \"%s\" throws\n", __FILE__, __LINE__,
                    name.c_str());
  }
}

}  // namespace

MetricsRegistry& MetricsRegistry::instance() {
  static auto* const registry = new MetricsRegistry;
  return *registry;
}

std::int64_t MetricsRegistry::add(const std::string& name, metrics::Collector collector) {
  auto entry = std::make_shared<Entry>();
  entry->name = name;
  entry->collector = std::move(collector);
  const MutexLock lock(mutex_);
  entries_.emplace(++lastId_, std::move(entry));
  return lastId_;
}

void MetricsRegistry::remove(std::int64_t id) {
  metrics::Collector removed;  // destroyed outside the lock: it may hold anything
  const MutexLock lock(mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end()) return;
  const std::shared_ptr<Entry> entry = found->second;
  entries_.erase(found);
  entry->removed = true;
  const auto me = std::this_thread::get_id();
  while (entry->running && entry->runner != me) ended_.wait(mutex_);
  if (!entry->running) removed = std::move(entry->collector);
}

void MetricsRegistry::collect(metrics::Sink& sink) {
  std::vector<std::shared_ptr<Entry>> all;
  {
    const MutexLock lock(mutex_);
    for (const auto& [id, entry] : entries_) all.push_back(entry);
  }
  for (const std::shared_ptr<Entry>& entry : all) {
    if (!begin(*entry)) continue;
    callCollector(entry->name, entry->collector, sink);
    end(*entry);
  }
}

bool MetricsRegistry::begin(Entry& entry) {
  const MutexLock lock(mutex_);
  while (entry.running) ended_.wait(mutex_);
  if (entry.removed) return false;
  entry.running = true;
  entry.runner = std::this_thread::get_id();
  return true;
}

void MetricsRegistry::end(Entry& entry) {
  const MutexLock lock(mutex_);
  entry.running = false;
  ended_.notifyAll();
}

}  // namespace orva::host

namespace orva::metrics {

std::int64_t addCollector(const std::string& name, Collector collector) {
  return host::MetricsRegistry::instance().add(name, std::move(collector));
}

void removeCollector(std::int64_t id) { host::MetricsRegistry::instance().remove(id); }

}  // namespace orva::metrics
