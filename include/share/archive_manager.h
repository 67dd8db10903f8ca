#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "share/archive_provider.h"
#include "share/orva_export.h"

namespace orva::cache {
class CachedItem;  // the state of one cached item, also known as Cache::Pin
}

namespace orva::metrics {
class Sink;
}

namespace orva::archive {

// Owner of everything archived: the registry of provider factories, the configured archives, the
// value cache, and the queue of pending reads.
//
// Thread-safe. Locks, in this order: the configuration mutex (init and clear exclude each other),
// cacheMutex (recursive: a provider may call createPinCache() from start()), queueMutex.
class ORVA_API DataArchiveManager {
 public:
  static DataArchiveManager& instance();
  ~DataArchiveManager();
  DataArchiveManager(const DataArchiveManager&) = delete;
  DataArchiveManager& operator=(const DataArchiveManager&) = delete;

  // ---- for providers
  // A later factory of the same name replaces the earlier. Not owned. Takes no lock: register
  // while the host loads add-ins, before init().
  void regFactory(const std::string& providerType, IDataArchiveProcFactory* factory);

  // ---- configuration
  // Reads the section "DataArchive" and starts its archives; does nothing while archives exist.
  // 0, or the negative status of the parse helper.
  int init();
  void addArchive(int number, const json::Value& entry);
  // Ends every archive and forgets every cached item; init() may follow. Reads that wait are
  // released as timed out.
  void clear();
  std::int32_t defaultArchive() const;

  // ---- items
  // The cache id of (item id, path), made when it is new; -1 when the host does not know the item
  // or archives no layer of it. A known item only gets the layers it lacks.
  std::int64_t createPinCache(const ItemKey& key);
  // The same, and the item itself; empty exactly when the id is -1. In one step: between two, the
  // item may be forgotten, though its successor would be there for the asking.
  boost::shared_ptr<cache::CachedItem> providePin(const ItemKey& key, std::int64_t& cacheId);
  // The cache id of a known item, or -1. This form zero-extends the id.
  std::int64_t getCacheId(unsigned itemId, const std::string& path) const;
  std::int64_t getCacheId(const ItemKey& key) const;
  // Empty when there is none.
  boost::shared_ptr<cache::CachedItem> getPinCache(const std::int64_t& cacheId) const;
  // Every cached item, by ascending cache id.
  std::vector<std::pair<std::int64_t, ItemKey>> cachedItems() const;

  // ---- reads
  // Returns at once; the request completes on any thread, perhaps inside the call. Touch nothing
  // of it afterwards but what is thread-safe. Timed out after about `timeoutMs`.
  void addRequest(const SharedRequest& request, int timeoutMs);
  // Returns when the request completed, or timed out after 60 s.
  void syncRead(const SharedRequest& request);
  // Fills the request from the cache; appends the intervals that need a provider.
  void loadFromCache(const SharedRequest& request, std::vector<SharedInterval>& out);
  // Time of the newest sample, 0 when there is none.
  std::int64_t lastTime(std::int64_t cacheId);
  // Figures of the cached items and of the queue.
  void collectMetrics(metrics::Sink& sink) const;
  // Body of the worker thread: times pending requests out, every 100 ms.
  void requestProc();

 private:
  DataArchiveManager();

  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orva::archive
