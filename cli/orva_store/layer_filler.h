#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "orva_store/samples.h"
#include "orva_store/store_writer.h"

namespace orva::store {

// A layer that is filled from layer 0 of the same item.
struct LayerTarget {
  StoreWriter* store = nullptr;
  sqlite::Stream* stream = nullptr;
  std::int64_t interval = 0;            // of resampling; 0 keeps every sample
  std::optional<std::int64_t> pending;  // the newest period that samples came for; not filled yet
  std::uint64_t written = 0;            // samples that were put into the layer
};

// Fills a layer with what the service's own resampler makes of layer 0, in whole periods. What the
// layer holds of samples that layer 0 no longer has takes part as well. So filling a period again
// changes nothing, unless there are new samples in it.
class LayerFiller {
 public:
  // Fills the periods of `times`, ascending, but for the newest one that is known: more may come
  // for it.
  void fill(StoreWriter& source, const sqlite::StreamKey& layer0, LayerTarget& target,
            const std::vector<std::int64_t>& times);
  // Fills that one, too.
  void finish(StoreWriter& source, const sqlite::StreamKey& layer0, LayerTarget& target);

 private:
  using Periods = std::pair<std::int64_t, std::int64_t>;  // the first and the last one

  static std::vector<Periods> periodsOf(const std::vector<std::int64_t>& times,
                                        const LayerTarget& target);
  void fillPeriods(StoreWriter& source, const sqlite::StreamKey& layer0, LayerTarget& target,
                   Periods periods);
  void fillStretch(StoreWriter& source, const sqlite::StreamKey& layer0, LayerTarget& target,
                   std::int64_t from, std::int64_t to);
  void resample(StoreWriter& source, const sqlite::StreamKey& layer0, const LayerTarget& target,
                std::int64_t from, std::int64_t to, PinList& out);

  sqlite::Columns held_;  // what the layer has of the stretch
  std::vector<bool> isInLayer0_;
};

}  // namespace orva::store
