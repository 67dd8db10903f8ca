#include "host/archive_source.h"

#include "share/status_codes.h"

BaseSource::~BaseSource() = default;

int ArchiveSource::RemoveRequest(ArchiveRequest*) {
  return static_cast<int>(orva::status::kBadNotFound);
}

ArchiveSourceFactory::~ArchiveSourceFactory() = default;
