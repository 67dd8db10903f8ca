#pragma once

// What the data archive manager holds. Only its own sources include this.

#include <atomic>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/threads.h"
#include "host/vm_info.h"
#include "orva_database/cache.h"
#include "share/archive_manager.h"
#include "share/json.h"
#include "share/mutex.h"
#include "share/signal.h"

namespace orva::archive {

using Provider = boost::shared_ptr<IDataArchiveProc>;

struct DataArchiveManager::State {
  using LayerKey = std::pair<std::int64_t, std::int32_t>;  // cache id, layer

  // A request until its time is up.
  struct Waiter {
    std::int32_t leftMs;
    bool limited;                      // whether the end of its time counts as a time-out
    boost::weak_ptr<Request> request;  // weakly, so that what nobody waits for goes
  };
  using Pending = std::list<Waiter>;

  // One read of one archive, to be made under no lock.
  struct Target {
    ItemKey key;
    std::vector<Provider> providers;  // more than one for layer -1 only
  };

  // ---- configuration: archive_manager.cpp
  void forgetAll(std::map<std::int32_t, Provider>& oldArchives, Pending& waiters)
      EXCLUDES(cacheMutex, queueMutex);
  void takePending(Pending& waiters) EXCLUDES(queueMutex);

  // ---- items: archive_items.cpp
  void attachLayers(std::int64_t cacheId, const ItemKey& key, const vm::ArchivedLayers& layers,
                    cache::CachedItem& pin) REQUIRES(cacheMutex);
  bool attachLayer(std::int64_t cacheId, const ItemKey& key, std::int32_t layer,
                   std::int32_t archive, std::int64_t parameter, cache::CachedItem& pin)
      REQUIRES(cacheMutex);
  // Gives items that were first used without archives what they lack.
  void attachMissing() REQUIRES(cacheMutex);
  Provider findArchive(std::int32_t number) const REQUIRES(cacheMutex);

  // ---- reads: archive_reads.cpp
  void dispatch(const std::vector<SharedInterval>& intervals) EXCLUDES(cacheMutex);
  void dispatch(const SharedInterval& interval) EXCLUDES(cacheMutex);
  // Who answers the interval. False when nobody can: then the item is marked not found.
  bool findTarget(const Interval& interval, Target& out) EXCLUDES(cacheMutex);
  // Whether the host archives this layer, which the item did not have when it was read. That is
  // then traced: the item's cache has no such layer, and so opens no interval that could fail.
  bool archiveMissing(std::int64_t cacheId, std::int32_t layer) EXCLUDES(cacheMutex);
  void drain(const std::vector<SharedInterval>& intervals);

  // ---- queue: archive_queue.cpp
  void countDown() EXCLUDES(queueMutex);
  // Takes one request out, if it is there.
  void takePending(const SharedRequest& request, Pending& out) EXCLUDES(queueMutex);
  static void releaseWaiters(const Pending& waiters);

  // init() and clear() exclude each other; taken before all others.
  Mutex configMutex{LockClass::kConfiguration};
  json::Document cfg GUARDED_BY(configMutex);  // until clear() emptied the archives

  // No lock: written while the host loads add-ins, read from init() on.
  std::map<std::string, IDataArchiveProcFactory*> factories;

  // Recursive: a provider may call createPinCache() from start().
  mutable RecursiveMutex cacheMutex{LockClass::kArchives};
  std::map<std::int32_t, Provider> archives GUARDED_BY(cacheMutex);
  std::map<std::int64_t, ItemKey> cacheItems GUARDED_BY(cacheMutex);
  std::map<LayerKey, std::int32_t> layerArchives GUARDED_BY(cacheMutex);
  std::int32_t defaultArchive GUARDED_BY(cacheMutex) = 0;
  std::set<std::int64_t> unfiltered GUARDED_BY(cacheMutex);  // items logged for it, by cache id
  cache::Cache cache;                                        // locks itself

  Mutex queueMutex{LockClass::kQueue};  // taken after cacheMutex
  Pending pending GUARDED_BY(queueMutex);

  std::atomic<std::uint32_t> clears{0};  // finished clear() calls; a synchronous read watches it
  std::atomic<bool> stop{false};
  Signal stopping;
  std::unique_ptr<tthread::thread> worker;
};

}  // namespace orva::archive
