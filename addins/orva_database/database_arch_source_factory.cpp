#include "orva_database/database_arch_source_factory.h"

#include <memory>

#include "orva_database/guarded.h"
#include "orva_database/proxy_old_archive_api.h"

namespace orva {

ArchiveSource* DatabaseArchSourceFactory::CreateArchiveSource() {
  std::unique_ptr<archive::ProxyOldArchiveApi> source;
  const bool made = guarded("DatabaseArchSourceFactory::CreateArchiveSource", [&] {
    source = std::make_unique<archive::ProxyOldArchiveApi>();
    source->SetDescription("memory");
    MutexLock lock(mutex_);
    ArchiveAdapter* const archive = hostArchive_;
    const bool forward = forwardToHost_;
    lock.unlock();  // the source has a mutex of its own
    source->SetHostArchive(archive, forward);
  });
  return made ? source.release() : nullptr;
}

void DatabaseArchSourceFactory::SetHostArchive(ArchiveAdapter* archive, bool forward) {
  MutexLock lock(mutex_);
  hostArchive_ = archive;
  forwardToHost_ = forward;
}

}  // namespace orva
