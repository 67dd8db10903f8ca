#include "share/archive_manager.h"

#include "host/trace.h"
#include "orva_database/archive_manager_state.h"
#include "orva_database/archive_section.h"
#include "orva_database/guarded.h"

namespace orva::archive {

namespace {

// Reads are told for as long as archives end.
class ArchivesEnd {
 public:
  ArchivesEnd() { Request::archivesBeginToEnd(); }
  ~ArchivesEnd() { Request::archivesHaveEnded(); }
  ArchivesEnd(const ArchivesEnd&) = delete;
  ArchivesEnd& operator=(const ArchivesEnd&) = delete;
};

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
  const int result = readArchiveSection("DataArchive", cfg);
  if (result < 0) {
    OpcUa_Trace_Imp(kTraceError,
                    "<--ReturnError: orva::parse_json(GetConfigDataValue(\"DataArchive\"), cfg) "
                    "returns 0x%08X\n",
                    __FILE__, __LINE__, static_cast<unsigned>(result));
    return result;
  }
  addEachArchive(cfg, "DataArchiveManager::addArchive",
                 [this](int number, const json::Value& entry) { addArchive(number, entry); });
  state_->defaultArchive = defaultArchiveOf(cfg);
  state_->attachMissing();
  return 0;
}

void DataArchiveManager::addArchive(int number, const json::Value& entry) {
  const ArchiveCfg limits(json::expectedMember(entry, "limits"));
  const ConnectionCfg connection(json::expectedMember(entry, "connection"), kDataArchive);
  const auto found = state_->factories.find(connection.providerType);
  if (found == state_->factories.end() || found->second == nullptr) return;
  const Provider provider = found->second->create(limits, connection);
  requireProvider(provider != nullptr, connection.providerType);
  provider->archive()->loadFilter(json::expectedMember(entry, "filter"));
  // What needs memory comes first: an archive that was started is kept.
  std::map<std::int32_t, Provider> added;
  added.emplace(number, provider);
  RecursiveMutexLock lock(state_->cacheMutex);
  provider->start();
  state_->archives.merge(added);
}

void DataArchiveManager::clear() {
  std::map<std::int32_t, Provider> archives;
  State::Pending waiters;
  {
    MutexLock configLock(state_->configMutex);
    const ArchivesEnd end;
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
