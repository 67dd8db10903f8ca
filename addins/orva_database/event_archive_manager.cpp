#include <map>

#include "host/trace.h"
#include "orva_database/archive_section.h"
#include "share/events_archive_manager.h"
#include "share/mutex.h"

namespace orva::archive {

namespace {
using EventsProvider = boost::shared_ptr<IEventsArchiveProc>;
}  // namespace

struct EventsArchiveManager::State {
  // No lock: written while the host loads add-ins, read from init() on.
  std::map<std::string, IEventsArchiveProcFactory*> factories;

  // Held while init() makes the archives and while clear() takes them out. Recursive, since init()
  // stores each of them by addArchive().
  mutable RecursiveMutex mutex{LockClass::kEventsManager};
  std::map<std::int32_t, EventsProvider> archives GUARDED_BY(mutex);
  json::Document cfg GUARDED_BY(mutex);  // until clear() emptied the archives
  std::int32_t defaultArchive GUARDED_BY(mutex) = 0;
};

EventsArchiveManager& EventsArchiveManager::instance() {
  static EventsArchiveManager manager;
  return manager;
}

EventsArchiveManager::EventsArchiveManager() : state_(std::make_unique<State>()) {}
EventsArchiveManager::~EventsArchiveManager() = default;

void EventsArchiveManager::regFactory(const std::string& providerType,
                                      IEventsArchiveProcFactory* factory) {
  state_->factories[providerType] = factory;
}

int EventsArchiveManager::init() {
  RecursiveMutexLock lock(state_->mutex);
  if (!state_->archives.empty()) return 0;
  json::Document& cfg = state_->cfg;
  const int result = readArchiveSection("EventsArchive", cfg);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: parse_json(GetConfigDataValue(\"EventsArchive\"), cfg) "
                    "returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  addEachArchive(cfg, "EventsArchiveManager::addArchive",
                 [this](int number, const json::Value& entry) { addArchive(number, entry); });
  state_->defaultArchive = defaultArchiveOf(cfg);
  return 0;
}

void EventsArchiveManager::addArchive(int number, const json::Value& entry) {
  const ArchiveCfg limits(json::expectedMember(entry, "limits"));
  const ConnectionCfg connection(json::expectedMember(entry, "connection"), kEventsArchive);
  const auto found = state_->factories.find(connection.providerType);
  if (found == state_->factories.end() || found->second == nullptr) return;
  EventsProvider provider = found->second->create(limits, connection);
  requireProvider(provider != nullptr, connection.providerType);
  provider->start();
  RecursiveMutexLock lock(state_->mutex);
  state_->archives[number].swap(provider);
}

void EventsArchiveManager::clear() {
  std::map<std::int32_t, EventsProvider> ending;
  {
    RecursiveMutexLock lock(state_->mutex);
    ending.swap(state_->archives);
    state_->cfg = json::Document();
  }
  while (!ending.empty()) ending.erase(ending.begin());
}

std::int32_t EventsArchiveManager::defaultArchive() const {
  RecursiveMutexLock lock(state_->mutex);
  return state_->defaultArchive;
}

boost::shared_ptr<IEventsArchiveProc> EventsArchiveManager::archive(int number) const {
  RecursiveMutexLock lock(state_->mutex);
  const auto found = state_->archives.find(number);
  return found == state_->archives.end() ? EventsProvider() : found->second;
}

}  // namespace orva::archive
