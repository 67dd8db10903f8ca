#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>

#include "host/host_time.h"
#include "host/trace.h"
#include "orva_database/archive_manager_state.h"
#include "orva_database/counters.h"
#include "orva_database/guarded.h"
#include "share/ticks.h"

namespace orva::archive {

namespace {

constexpr std::int32_t kEveryArchive = -1;  // a layer number
constexpr long long kWaitTicks = 100 * kTicksPerMillisecond;
constexpr long long kReadLimitTicks = 60 * kTicksPerSecond;
constexpr int kReadLimitWaits = 600;

void traceNoArchive(std::int64_t cacheId, std::int32_t layer) {
  OpcUa_Trace_Imp(kTraceError,
                  "DataArchiveManager::addRequest : not find archive for cache_id = %lld and "
                  "layer = %d",
                  __FILE__, __LINE__, static_cast<long long>(cacheId), layer);
}

// Runs an archive's code for an interval. What it throws ends the interval, not the whole read.
template <class Call>
void ask(const SharedInterval& interval, const char* what, const Call& call) {
  if (guarded(what, call) || interval->isFinal()) return;
  interval->fail(status::kBadOutOfMemory);
  interval->finalize();
}

// An archive that holds the item, and its handle for it.
struct Holder {
  IDataArchive* archive;
  std::uint32_t handle;
};

// In the order of `providers`. One that throws holds nothing, and the interval says so.
std::vector<Holder> findHolders(const std::vector<Provider>& providers, const ItemKey& key,
                                const SharedInterval& interval) {
  std::vector<Holder> holders;
  holders.reserve(providers.size());
  for (const Provider& provider : providers) {
    const bool answered = guarded("IDataArchive::itemHandle", [&] {
      IDataArchive* archive = provider->archive();
      if (const std::uint32_t handle = archive->itemHandle(key)) {
        holders.push_back({archive, handle});
      }
    });
    if (!answered) interval->fail(status::kBadOutOfMemory);
  }
  return holders;
}

void readFrom(const Holder& holder, const SharedInterval& interval) {
  interval->setHandle(holder.handle);
  ask(interval, "IDataArchive::read", [&] { holder.archive->read(interval); });
}

void readFromAll(const std::vector<Holder>& holders, const SharedInterval& interval) {
  const std::vector<SharedInterval> parts = interval->split(holders.size());
  for (std::size_t i = 0; i < holders.size(); ++i) readFrom(holders[i], parts[i]);
}

// The 60 s that a synchronous read may take, counted twice: on the host's clock, which may be set
// back at any moment, and in waits.
class ReadLimit {
 public:
  bool reached() {
    const long long now = getInt64FileTime();
    if (now < start_) start_ = now;
    return now - start_ > kReadLimitTicks || waits_ >= kReadLimitWaits;
  }
  void countWait() { ++waits_; }

 private:
  long long start_ = getInt64FileTime();
  int waits_ = 0;
};

void giveUp(Request& request) {
  counters.readTimeouts.add();
  for (const SharedItem& item : request.items()) item->close();
  request.timeout();
}

}  // namespace

void DataArchiveManager::loadFromCache(const SharedRequest& request,
                                       std::vector<SharedInterval>& out) {
  counters.reads.add();
  request->noteArchives();
  const Request::Options& options = request->options;
  for (const SharedItem& item : request->items()) {
    const boost::shared_ptr<cache::CachedItem> pin = state_->cache[item->cacheId];
    if (!pin) {
      OpcUa_Trace_Imp(kTraceError, "DataArchiveManager::loadFromCache : not found PinCache = %lld",
                      __FILE__, __LINE__, static_cast<long long>(item->cacheId));
      item->fail(status::kBadNotFound);
      item->finalize();
      continue;
    }
    // Asked before: while it is read the item may get the layer that it lacked.
    const bool hadLayer = pin->hasLayer(options.layerId);
    if (options.returnFirstLastValue) {
      pin->getFirtsLast(item, options);
    } else {
      pin->load(item, options);
    }
    const std::vector<SharedInterval> open = item->openIntervals();
    if (open.empty()) {
      if (!hadLayer && item->valueCount() == 0 &&
          state_->archiveMissing(item->cacheId, options.layerId)) {
        item->fail(status::kBadNotFound);
      }
      item->finalize();
    } else {
      out.insert(out.end(), open.begin(), open.end());
    }
  }
  request->completeIfEmpty();
}

bool DataArchiveManager::State::archiveMissing(std::int64_t cacheId, std::int32_t layer) {
  std::int64_t itemId = 0;
  {
    RecursiveMutexLock lock(cacheMutex);
    const auto key = cacheItems.find(cacheId);
    if (key == cacheItems.end()) return false;
    itemId = key->second.first;
  }
  const auto layers = vm::VMInfo::GetInstance()->GetArchivedLayers(itemId);
  if (!layers || layers->count(layer) == 0) return false;
  traceNoArchive(cacheId, layer);
  return true;
}

bool DataArchiveManager::State::findTarget(const Interval& interval, Target& out) {
  const std::int64_t cacheId = interval.cacheId();
  RecursiveMutexLock lock(cacheMutex);
  const auto key = cacheItems.find(cacheId);
  if (interval.layer() == kEveryArchive) {
    if (key == cacheItems.end()) return false;
    out.key = key->second;
    for (const auto& [number, provider] : archives) out.providers.push_back(provider);
    return true;
  }
  const auto number = layerArchives.find({cacheId, interval.layer()});
  const Provider provider =
      number == layerArchives.end() ? Provider() : findArchive(number->second);
  if (!provider || key == cacheItems.end()) {
    traceNoArchive(cacheId, interval.layer());
    return false;
  }
  out.key = key->second;
  out.providers.push_back(provider);
  return true;
}

void DataArchiveManager::State::dispatch(const std::vector<SharedInterval>& intervals) {
  for (const SharedInterval& interval : intervals) dispatch(interval);
}

// An interval that no archive takes is finalised on the spot, so that its reader does not wait.
void DataArchiveManager::State::dispatch(const SharedInterval& interval) {
  Target target;
  if (!findTarget(*interval, target)) {
    interval->fail(status::kBadNotFound);
    interval->finalize();
    return;
  }
  ask(interval, "DataArchiveManager::dispatch", [&] {
    const std::vector<Holder> holders = findHolders(target.providers, target.key, interval);
    if (holders.empty()) {
      interval->finalize();
    } else if (holders.size() == 1) {
      readFrom(holders.front(), interval);
    } else {
      readFromAll(holders, interval);
    }
  });
}

// Lets the cache take in what was fetched, so that the next read finds it.
void DataArchiveManager::State::drain(const std::vector<SharedInterval>& intervals) {
  std::int64_t drained = cache::Cache::ID_NOT_FOUND;
  for (const SharedInterval& interval : intervals) {
    if (interval->cacheId() == drained) continue;
    drained = interval->cacheId();
    if (const boost::shared_ptr<cache::CachedItem> pin = cache[drained]) pin->drain();
  }
}

void DataArchiveManager::addRequest(const SharedRequest& request, int timeoutMs) {
  // Whoever is told of the completion may let go of the caller's reference.
  const SharedRequest kept = request->shared_from_this();
  const std::uint32_t clears = state_->clears.load();
  std::vector<SharedInterval> intervals;
  loadFromCache(kept, intervals);
  state_->dispatch(intervals);
  {
    MutexLock lock(state_->queueMutex);
    state_->pending.push_back({timeoutMs, timeoutMs > 0, kept});
  }
  if (state_->clears.load() == clears) return;
  // A clear() that went by meanwhile may not have seen it in the queue.
  State::Pending unseen;
  state_->takePending(kept, unseen);
  State::releaseWaiters(unseen);
}

void DataArchiveManager::syncRead(const SharedRequest& request) {
  const SharedRequest kept = request->shared_from_this();
  const std::uint32_t clears = state_->clears.load();
  std::vector<SharedInterval> intervals;
  loadFromCache(kept, intervals);
  if (intervals.empty()) return;
  state_->dispatch(intervals);
  for (ReadLimit limit;; limit.countWait()) {
    const std::uint64_t seen = kept->completed().count();
    if (kept->status() != status::kBadWaiting) break;
    if (limit.reached() || state_->clears.load() != clears) {
      giveUp(*kept);
      break;
    }
    kept->completed().wait(seen, kWaitTicks);
  }
  state_->drain(intervals);
}

std::int64_t DataArchiveManager::lastTime(std::int64_t cacheId) {
  const boost::shared_ptr<cache::CachedItem> pin = state_->cache[cacheId];
  if (!pin) return 0;
  if (const PinPtr last = pin->last()) return last->time;
  const auto request = boost::make_shared<Request>();
  request->options.returnFirstLastValue = true;
  const SharedItem item = request->addItem(cacheId);
  syncRead(request);
  // The cache may not have taken the answer in yet.
  const PinPtr cached = pin->last();
  const PinPtr read = item->lastValue();
  return std::max(cached ? cached->time : 0, read ? read->time : 0);
}

}  // namespace orva::archive
