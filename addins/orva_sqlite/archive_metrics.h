#pragma once

#include <string>

#include "host/metrics.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/write_buffer.h"

namespace orva::sqlite {

// Offers an archive's figures to the host's metrics while it lives; see docs/metrics.md. They carry
// the configured location as their label.
class ArchiveMetrics {
 public:
  ArchiveMetrics(const std::string& location, const std::string& file, const Counters& counters,
                 const WriteBuffer& buffer);
  ArchiveMetrics(const ArchiveMetrics&) = delete;
  ArchiveMetrics& operator=(const ArchiveMetrics&) = delete;

 private:
  void collect(metrics::Sink& sink) const;

  const metrics::Labels labels_;
  const std::string file_;
  const Counters& counters_;
  const WriteBuffer& buffer_;
  const metrics::Registration registration_;  // last: the collector looks at what stands above
};

}  // namespace orva::sqlite
