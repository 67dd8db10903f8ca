#pragma once

#include <cstdint>
#include <vector>

#include "orva_sqlite/catalog.h"
#include "orva_sqlite/counters.h"
#include "orva_sqlite/damage_register.h"
#include "orva_sqlite/reader_pool.h"
#include "orva_sqlite/stream_view.h"
#include "orva_sqlite/write_buffer.h"
#include "share/archive_request.h"
#include "sqlite_base/trace_limit.h"

namespace orva::sqlite {

// Answers intervals from the write buffer and the file, on the thread that asks. It pushes and
// fails, finalising is left to its caller; no lock is held meanwhile.
//
// An answer that may lack something says so: 0x809D0000 where a damaged segment lies in the stretch
// that was looked at, 0x809E0000 when the file cannot be read now. What is there is given.
class IntervalReader {
 public:
  IntervalReader(const Catalog& catalog, const WriteBuffer& buffer, ReaderPool& pool,
                 DamageRegister& damage, Counters& counters)
      : catalog_(catalog), buffer_(buffer), pool_(pool), damage_(damage), counters_(counters) {}

  // The number of samples pushed.
  std::uint64_t answer(archive::Interval& interval, std::uint32_t handle);

 private:
  struct Stretch {
    std::int64_t from;
    std::int64_t to;
    bool left;   // also the newest sample before
    bool right;  // and the oldest behind
  };
  static Stretch stretchOf(const archive::Interval& interval);

  // Each gives the number of samples pushed.
  std::uint64_t answerOne(archive::Interval& interval, const std::vector<Stream*>& streams,
                          const Stretch& stretch);
  std::uint64_t answerRange(archive::Interval& interval, const Stream& stream,
                            const Stretch& stretch);
  std::uint64_t answerMerged(archive::Interval& interval, const std::vector<Stream*>& streams,
                             const Stretch& stretch);
  std::uint64_t push(archive::Interval& interval, const PinPtr& pin);
  void close(archive::Interval& interval, const StreamView& view);

  const Catalog& catalog_;
  const WriteBuffer& buffer_;
  ReaderPool& pool_;
  DamageRegister& damage_;
  Counters& counters_;
  TraceLimit unavailableTrace_;
};

}  // namespace orva::sqlite
