#include "host/trace.h"
#include "orva_database/archive_manager_state.h"
#include "orva_database/guarded.h"

namespace orva::archive {

std::int64_t DataArchiveManager::createPinCache(const ItemKey& key) {
  std::int64_t cacheId = cache::Cache::ID_NOT_FOUND;
  providePin(key, cacheId);
  return cacheId;
}

boost::shared_ptr<cache::CachedItem> DataArchiveManager::providePin(const ItemKey& key,
                                                                    std::int64_t& cacheId) {
  cacheId = cache::Cache::ID_NOT_FOUND;
  RecursiveMutexLock lock(state_->cacheMutex);
  const auto layers = vm::VMInfo::GetInstance()->GetArchivedLayers(key.first);
  if (!layers) {
    OpcUa_Trace_Imp(kTraceWarning, "Not found VMItem : %lld", __FILE__, __LINE__,
                    static_cast<long long>(key.first));
    return {};
  }
  if (layers->empty()) {
    OpcUa_Trace_Imp(kTraceWarning, "Layers info emty for VMItem : %lld", __FILE__, __LINE__,
                    static_cast<long long>(key.first));
    return {};
  }
  std::int64_t id = cache::Cache::ID_NOT_FOUND;
  boost::shared_ptr<cache::CachedItem> pin = state_->cache.getPin(key, id);
  state_->cacheItems.emplace(id, key);
  state_->attachLayers(id, key, *layers, *pin);
  cacheId = id;
  return pin;
}

// Layers that are there already are left alone, with their samples, filter and running periods:
// every look-up of an item comes through here.
void DataArchiveManager::State::attachLayers(std::int64_t cacheId, const ItemKey& key,
                                             const vm::ArchivedLayers& layers,
                                             cache::CachedItem& pin) {
  bool hasLayers = pin.layerCount() != 0;
  for (const auto& [layer, target] : layers) {
    if (pin.hasLayer(layer)) continue;
    hasLayers |= attachLayer(cacheId, key, layer, target.first, target.second, pin);
  }
  if (hasLayers && !pin.hasLayer(0) && unfiltered.insert(cacheId).second) {
    OpcUa_Trace_Imp(kTraceWarning,
                    "No archive of layer 0 gives a filter for VMItem : %lld, only its first "
                    "sample is archived\n",
                    __FILE__, __LINE__, static_cast<long long>(key.first));
  }
}

bool DataArchiveManager::State::attachLayer(std::int64_t cacheId, const ItemKey& key,
                                            std::int32_t layer, std::int32_t archiveNumber,
                                            std::int64_t parameter, cache::CachedItem& pin) {
  const Provider provider = findArchive(archiveNumber);
  if (!provider) {
    OpcUa_Trace_Imp(kTraceWarning, "Archive -> %d not found for layer %ld in VMItem : %lld",
                    __FILE__, __LINE__, archiveNumber, static_cast<long>(layer),
                    static_cast<long long>(key.first));
    return false;
  }
  IDataArchive& archive = *provider->archive();
  if (pin.layerCount() == 0) pin.forgetLast();  // what came before any layer was never archived
  if (layer == 0) pin.setFilter(archive.filter());
  ILayerWriter& writer = archive.layerWriter(key, layer, parameter);
  layerArchives[{cacheId, layer}] = archiveNumber;
  try {
    pin.addLayer(writer, layer);
  } catch (...) {
    layerArchives.erase({cacheId, layer});
    throw;
  }
  return true;
}

// What is thrown for one item costs that item its layers, not the others theirs.
void DataArchiveManager::State::attachMissing() {
  for (const auto& [cacheId, key] : cacheItems) {
    guarded("DataArchiveManager::attachLayers",
            [&, id = cacheId, &itemKey = key]() NO_THREAD_SAFETY_ANALYSIS {
              const auto layers = vm::VMInfo::GetInstance()->GetArchivedLayers(itemKey.first);
              const boost::shared_ptr<cache::CachedItem> pin = cache[id];
              if (layers && pin) attachLayers(id, itemKey, *layers, *pin);
            });
  }
}

Provider DataArchiveManager::State::findArchive(std::int32_t number) const {
  const auto found = archives.find(number);
  return found == archives.end() ? Provider() : found->second;
}

std::int64_t DataArchiveManager::getCacheId(unsigned itemId, const std::string& path) const {
  return getCacheId(ItemKey(itemId, path));
}

std::int64_t DataArchiveManager::getCacheId(const ItemKey& key) const {
  return state_->cache.getCacheId(key);
}

boost::shared_ptr<cache::CachedItem> DataArchiveManager::getPinCache(
    const std::int64_t& cacheId) const {
  return state_->cache[cacheId];
}

std::vector<std::pair<std::int64_t, ItemKey>> DataArchiveManager::cachedItems() const {
  RecursiveMutexLock lock(state_->cacheMutex);
  return {state_->cacheItems.begin(), state_->cacheItems.end()};
}

}  // namespace orva::archive
