#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

#include "orva_database/pin.h"
#include "share/mutex.h"

namespace orva::cache {

// The directory of cached items: (item id, path) -> cache id -> state.
//
// Cache ids are 1 to 2^31 - 1 and follow from the key, so that nearly all are the same after a
// restart. An id once given stays with its key for the life of the process, also through clear().
//
// Thread-safe. Lock order: this mutex before an item's.
class Cache {
 public:
  using Pin = CachedItem;
  using Key = std::pair<std::int64_t, std::string>;
  static constexpr std::int64_t ID_NOT_FOUND = -1;

  Cache() = default;
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  // The item's state, made when it is new; its cache id comes back in `id`.
  boost::shared_ptr<Pin> getPin(const Key& key, std::int64_t& id) EXCLUDES(mutex_);
  // Null when there is none.
  boost::shared_ptr<Pin> operator[](const std::int64_t& id) const EXCLUDES(mutex_);
  bool is_exist(const Key& key) const EXCLUDES(mutex_);
  std::int64_t getCacheId(const Key& key) const EXCLUDES(mutex_);
  // Stops every item and forgets it.
  void clear() EXCLUDES(mutex_);

  struct Figures {
    std::size_t items;
    RuleCounts rules;  // of all items, those forgotten too
  };
  Figures figures() const EXCLUDES(mutex_);

 private:
  std::int64_t idFor(const Key& key) REQUIRES(mutex_);

  mutable Mutex mutex_{LockClass::kDirectory};
  std::map<std::int64_t, boost::shared_ptr<Pin>> pins_ GUARDED_BY(mutex_);
  std::map<Key, std::int64_t> ids_ GUARDED_BY(mutex_);
  RuleCounts forgotten_ GUARDED_BY(mutex_){};  // of the items that clear() forgot
  std::unordered_map<std::int64_t, Key> given_ GUARDED_BY(mutex_);  // never emptied
};

}  // namespace orva::cache
