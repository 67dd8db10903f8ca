#pragma once

#include <cstdint>
#include <vector>

#include "orva_sqlite/catalog.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/segment_writer.h"
#include "orva_sqlite/store.h"
#include "orva_sqlite/write_buffer.h"
#include "share/archive_configs.h"

namespace orva::sqlite {

// Enforces an archive's age and size in steps of one transaction each, so that new samples are
// written in between. For the writer's thread only.
class Cleaner {
 public:
  Cleaner(const archive::ArchiveCfg& limits, Store& store, SegmentWriter& writer, Catalog& catalog,
          WriteBuffer& buffer, DamageRegister& damage, Counters& counters);

  // Begins a clean-up as of `now`.
  void start(std::int64_t now);
  bool isRunning() const { return phase_ != Phase::kIdle; }
  // One step. False when its transaction failed; the clean-up is over then, until the next start().
  bool step();

 private:
  enum class Phase { kIdle, kAge, kSize };

  std::size_t deleteOld();
  std::size_t deleteForSize();
  std::size_t deleteFromOldest(std::int64_t excess);
  bool finishStep(std::size_t deleted);

  const std::size_t maxPerStep_;
  const std::int64_t maxTime_;
  Store& store_;
  SegmentWriter& writer_;
  Catalog& catalog_;
  WriteBuffer& buffer_;
  DamageRegister& damage_;
  Counters& counters_;
  Phase phase_ = Phase::kIdle;
  std::int64_t cutoff_ = 0;
  std::vector<Stream*> streams_;  // those of this clean-up
  std::size_t next_ = 0;          // the first one whose old samples may still be there
  std::vector<Stream*> touched_;  // in the current step
};

}  // namespace orva::sqlite
