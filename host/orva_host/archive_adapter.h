#pragma once

#include <cstdint>
#include <deque>
#include <unordered_map>
#include <vector>

#include "host/archive_adapter.h"
#include "share/mutex.h"

// The host's own archive: of each global parameter the newest values that were written, in memory.
//
// Thread-safe.
struct ArchiveAdapter {
 public:
  static constexpr std::size_t kValuesOfParameter = 1000;

  // As ArchiveAdapterWriteValues. Of a full parameter the oldest value goes, also when that is the
  // one being written.
  int write(const ArchiveAdapterValue* values, std::uint32_t count) EXCLUDES(mutex_);
  // By ascending time, those of one time in the order in which they were written.
  std::vector<ArchiveAdapterValue> values(std::uint32_t index) const EXCLUDES(mutex_);
  void clear() EXCLUDES(mutex_);

 private:
  void insert(const ArchiveAdapterValue& value) REQUIRES(mutex_);

  mutable orva::Mutex mutex_;  // leaf
  std::unordered_map<std::uint32_t, std::deque<ArchiveAdapterValue>> values_ GUARDED_BY(mutex_);
};

namespace orva::host {

// The host's one adapter, there until the process ends: the handle that add-ins get.
ArchiveAdapter* archiveAdapter();

}  // namespace orva::host
