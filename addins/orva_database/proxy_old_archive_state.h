#pragma once

// What a source of the older archive interface holds. Only its own sources include this.

#include <boost/optional.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <map>

#include "orva_database/guarded.h"
#include "orva_database/proxy_old_archive_api.h"
#include "share/mutex.h"
#include "share/status_codes.h"
#include "share/write_filter.h"

namespace orva::archive {

// The result of call(), as the older interface gives it.
template <class Call>
int legacyResult(const char* what, const Call& call) noexcept {
  StatusCode result = status::kBadOutOfMemory;  // when something throws
  guarded(what, [&] { result = call(); });
  return static_cast<int>(result);
}

// The fields of a write filter that somebody set.
struct FilterFields {
  boost::optional<bool> allValues;
  boost::optional<bool> writeByChange;
  boost::optional<long long> maxWritePeriod;
  boost::optional<long long> minWritePeriod;
  boost::optional<double> deadband;
  boost::optional<bool> blocksWrite;

  void add(const FilterFields& later);
  void applyTo(Filter& filter) const;
};

struct ProxyOldArchiveApi::State {
  // What a legacy id is bound to.
  struct LegacyItem {
    boost::shared_ptr<Pin> pin;
    std::int64_t cacheId = cache::Cache::ID_NOT_FOUND;
    std::int64_t variable = 0;  // the whole id it was found by
    FilterFields set;
    // The item had no layer 0 when it was bound. The archive's filter comes with that layer, and
    // what is set must be put on top of it.
    bool awaitsArchive = false;
  };
  using Requests = std::map<boost::shared_ptr<Request>, ArchiveRequest*>;

  // The binding of a legacy id; without an item when there is none.
  LegacyItem find(std::int64_t item) EXCLUDES(mutex);
  void bind(std::int64_t item, const LegacyItem& bound) REQUIRES(filterMutex) EXCLUDES(mutex);
  // Remembers fields for an id that is bound, and says to what.
  boost::shared_ptr<Pin> noteFields(std::int64_t item, const FilterFields& fields)
      REQUIRES(filterMutex) EXCLUDES(mutex);

  // Ends the read: the first call for it does.
  void finish(const boost::shared_ptr<Request>& request) EXCLUDES(mutex);
  void add(const boost::shared_ptr<Request>& request, ArchiveRequest* legacyRequest)
      EXCLUDES(mutex);
  // Takes an open read out; null when it is not there.
  ArchiveRequest* take(const boost::shared_ptr<Request>& request) EXCLUDES(mutex);
  // Any read that is open, null when none is.
  boost::shared_ptr<Request> anyRequest() EXCLUDES(mutex);

  // Makes what is remembered as set and what is set on the item's filter one step. Taken before
  // `mutex` and an item's mutex.
  Mutex filterMutex{LockClass::kLegacyFilter};
  // A leaf; held across no call into manager, host or cached item.
  Mutex mutex;
  std::map<std::int64_t, LegacyItem> pins GUARDED_BY(mutex);  // by legacy id
  // Index of the host's global parameter by legacy id, 0xFFFFFFFF when it has none.
  std::map<std::int64_t, std::uint32_t> paramIndex GUARDED_BY(mutex);
  Requests requests GUARDED_BY(mutex);  // reads under way
  bool forwardToHost GUARDED_BY(mutex) = false;
  ArchiveAdapter* hostArchive GUARDED_BY(mutex) = nullptr;
};

}  // namespace orva::archive
