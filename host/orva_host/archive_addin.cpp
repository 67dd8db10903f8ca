#include <exception>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "host/archive_source.h"
#include "host/trace.h"
#include "share/condition.h"
#include "share/mutex.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

using SourceKey = std::pair<std::string, int>;  // type, number

struct SourceEntry {
  ArchiveSource* source = nullptr;  // null while it is made
  std::thread::id maker;
};

struct SourceRegistry {
  Mutex mutex;  // leaf: add-ins are called without it
  Condition changed;
  std::map<std::string, std::shared_ptr<ArchiveSourceFactory>> factories GUARDED_BY(mutex);
  std::map<SourceKey, SourceEntry> sources GUARDED_BY(mutex);

  // Waits while another thread makes the source; its entry then, or null when there is none.
  SourceEntry* find(const SourceKey& key) REQUIRES(mutex) {
    while (true) {
      const auto found = sources.find(key);
      if (found == sources.end()) return nullptr;
      SourceEntry& entry = found->second;
      if (entry.source != nullptr || entry.maker == std::this_thread::get_id()) return &entry;
      changed.wait(mutex);
    }
  }
};

// Never destroyed: sources are valid until the process ends.
SourceRegistry& sourceRegistry() {
  static SourceRegistry& made = *new SourceRegistry;
  return made;
}

void traceFailure(const SourceKey& key, const char* what) {
  OpcUa_Trace_Imp(kTraceError, "archive source \"%s\" %d: %s\n", __FILE__, __LINE__,
                  key.first.c_str(), key.second, what);
}

bool succeeded(const SourceKey& key, const char* operation, int result) {
  if (result >= 0) return true;
  OpcUa_Trace_Imp(kTraceError, "archive source \"%s\" %d: %s returns 0x%08X\n", __FILE__, __LINE__,
                  key.first.c_str(), key.second, operation, static_cast<unsigned>(result));
  return false;
}

// Null when the add-in has none to give.
ArchiveSource* makeArchiveSource(ArchiveSourceFactory& factory, const SourceKey& key) {
  try {
    const json::Value noSettings;
    std::unique_ptr<ArchiveSource> source(factory.CreateArchiveSource());
    if (!source) {
      traceFailure(key, "the factory made none");
    } else if (succeeded(key, "Init", source->Init(key.second, &noSettings)) &&
               succeeded(key, "InitSource", source->InitSource())) {
      return source.release();
    }
  } catch (const std::exception& error) {
    traceFailure(key, error.what());
  } catch (...) {
    traceFailure(key, "an exception of an unknown type");
  }
  return nullptr;
}

// The source if it is there. Else its factory, if there is one: then the caller makes the source,
// and tells keepSource().
ArchiveSource* findSource(const SourceKey& key, std::shared_ptr<ArchiveSourceFactory>& factory) {
  SourceRegistry& registry = sourceRegistry();
  const MutexLock lock(registry.mutex);
  if (const SourceEntry* entry = registry.find(key)) {
    if (entry->source == nullptr) traceFailure(key, "is asked for while it is being made");
    return entry->source;
  }
  const auto known = registry.factories.find(key.first);
  if (known == registry.factories.end()) {
    traceFailure(key, "no add-in has sources of this type");
    return nullptr;
  }
  factory = known->second;
  registry.sources[key].maker = std::this_thread::get_id();
  return nullptr;
}

void keepSource(const SourceKey& key, ArchiveSource* source) {
  SourceRegistry& registry = sourceRegistry();
  const MutexLock lock(registry.mutex);
  if (source != nullptr) {
    registry.sources[key].source = source;
  } else {
    registry.sources.erase(key);
  }
  registry.changed.notifyAll();
}

}  // namespace
}  // namespace orva::host

int ArchiveAddin::AddSourceFactory(const std::string& type, ArchiveSourceFactory* factory) {
  if (type.empty() || factory == nullptr) {
    return static_cast<int>(orva::status::kBadInvalidArgument);
  }
  std::shared_ptr<ArchiveSourceFactory> replacement(factory);
  orva::host::SourceRegistry& registry = orva::host::sourceRegistry();
  const orva::MutexLock lock(registry.mutex);
  registry.factories[type].swap(replacement);
  return 0;
}

ArchiveSource* ArchiveAddin::GetArchiveSource(const std::string& type, int number) {
  const orva::host::SourceKey key(type, number);
  std::shared_ptr<ArchiveSourceFactory> factory;
  ArchiveSource* source = orva::host::findSource(key, factory);
  if (!factory) return source;
  source = orva::host::makeArchiveSource(*factory, key);
  orva::host::keepSource(key, source);
  return source;
}
