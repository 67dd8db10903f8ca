#include "share/archive_manager.h"

#include <cstdlib>

#include "host/config_data.h"
#include "host/trace.h"
#include "orva_database/archive_manager_state.h"
#include "orva_database/guarded.h"

namespace orva::archive {

namespace {

// 0, or a negative status.
int parseSection(const std::string& text, json::Document& out) {
  if (json::nestsTooDeep(text.data(), text.size())) return static_cast<int>(status::kBadRequest);
  return parse_json(text, out);
}

// A factory that creates nothing has broken its contract: every later read and write of this
// archive would go astray, so the process ends here, in release builds too.
void requireProvider(const Provider& provider, const std::string& providerType) {
  if (provider) return;
  OpcUa_Trace_Imp(kTraceError, "<--Assert provider failed: factory \"%s\" created none\n", __FILE__,
                  __LINE__, providerType.c_str());
  std::abort();
}

}  // namespace

DataArchiveManager& DataArchiveManager::instance() {
  static DataArchiveManager manager;
  return manager;
}

// The worker is the last thing made, since it uses the others. The storage of the cached blocks is
// built when the library is loaded, and so outlives the manager.
DataArchiveManager::DataArchiveManager() {
  state_ = std::make_unique<State>();
  state_->worker = std::make_unique<tthread::thread>(
      [](void* manager) { static_cast<DataArchiveManager*>(manager)->requestProc(); }, this);
}

DataArchiveManager::~DataArchiveManager() {
  state_->stop.store(true);
  state_->stopping.notify();
  if (state_->worker->joinable()) state_->worker->join();
}

void DataArchiveManager::regFactory(const std::string& providerType,
                                    IDataArchiveProcFactory* factory) {
  state_->factories[providerType] = factory;
}

int DataArchiveManager::init() {
  MutexLock configLock(state_->configMutex);
  RecursiveMutexLock lock(state_->cacheMutex);
  if (!state_->archives.empty()) return 0;
  json::Document& cfg = state_->cfg;
  const int result = parseSection(GetConfigDataValue("DataArchive"), cfg);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: orva::parse_json(GetConfigDataValue(\"DataArchive\"), cfg) "
                    "returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  const json::Value& archives = json::expectedMember(cfg, "archives");
  for (rapidjson::SizeType i = 0; archives.IsArray() && i < archives.Size(); ++i) {
    guarded("DataArchiveManager::addArchive",
            [&] { addArchive(static_cast<int>(i), archives[i]); });
  }
  const json::Value& number = json::member(cfg, "defaultArchive");
  state_->defaultArchive = number.IsInt() ? number.GetInt() : 0;
  state_->attachMissing();
  return 0;
}

void DataArchiveManager::addArchive(int number, const json::Value& entry) {
  const ArchiveCfg limits(json::expectedMember(entry, "limits"));
  const ConnectionCfg connection(json::expectedMember(entry, "connection"), kDataArchive);
  const auto found = state_->factories.find(connection.providerType);
  if (found == state_->factories.end() || found->second == nullptr) return;
  Provider provider = found->second->create(limits, connection);
  requireProvider(provider, connection.providerType);
  provider->archive()->loadFilter(json::expectedMember(entry, "filter"));
  RecursiveMutexLock lock(state_->cacheMutex);
  provider->start();
  state_->archives[number].swap(provider);
}

void DataArchiveManager::clear() {
  std::map<std::int32_t, Provider> archives;
  State::Pending waiters;
  {
    MutexLock configLock(state_->configMutex);
    state_->forgetAll(archives, waiters);
    // No lock but the configuration's: a provider that stops completes reads and waits for its
    // threads, and whoever is told of that may call the manager.
    for (const auto& [number, provider] : archives) {
      guarded("IDataArchiveProc::stop", [&archive = *provider] { archive.stop(); });
    }
    state_->cfg = json::Document();
    // Before init() may run again: reads of the archives that it starts are not concerned.
    ++state_->clears;
    state_->takePending(waiters);
  }
  State::releaseWaiters(waiters);
}

void DataArchiveManager::State::forgetAll(std::map<std::int32_t, Provider>& oldArchives,
                                          Pending& waiters) {
  RecursiveMutexLock lock(cacheMutex);
  MutexLock queueLock(queueMutex);
  cache.clear();
  cacheItems.clear();
  layerArchives.clear();
  unfiltered.clear();
  waiters.swap(pending);
  oldArchives.swap(archives);
}

// Those that were queued while the archives ended: they were asked of these, or of none.
void DataArchiveManager::State::takePending(Pending& waiters) {
  MutexLock lock(queueMutex);
  waiters.splice(waiters.end(), pending);
}

std::int32_t DataArchiveManager::defaultArchive() const {
  RecursiveMutexLock lock(state_->cacheMutex);
  return state_->defaultArchive;
}

}  // namespace orva::archive
