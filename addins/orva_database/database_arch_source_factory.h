#pragma once

#include "host/archive_adapter.h"
#include "host/archive_source.h"
#include "share/mutex.h"

namespace orva {

// Makes the sources that the host's archive add-in knows as "sqlite3". Thread-safe.
class DatabaseArchSourceFactory final : public ArchiveSourceFactory {
 public:
  // A new archive::ProxyOldArchiveApi, described as "memory", which the caller owns. Null when
  // memory ran out.
  ArchiveSource* CreateArchiveSource() override EXCLUDES(mutex_);

  // Whether records added to sources made from then on are also written to the host's own archive.
  void SetHostArchive(ArchiveAdapter* archive, bool forward) EXCLUDES(mutex_);

 private:
  Mutex mutex_;  // leaf
  ArchiveAdapter* hostArchive_ GUARDED_BY(mutex_) = nullptr;
  bool forwardToHost_ GUARDED_BY(mutex_) = false;
};

}  // namespace orva
