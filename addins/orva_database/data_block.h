#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <vector>

#include "host/pin.h"
#include "orva_database/block_storage.h"
#include "share/live_count.h"

namespace orva::cache {

// Orders of a sample and a time, as the searches use them.
template <bool inclusive>
bool left(const PinPtr& pin, std::int64_t t) {
  return inclusive ? pin->time > t : pin->time >= t;
}
template <bool inclusive>
bool right(const PinPtr& pin, std::int64_t t) {
  return inclusive ? pin->time < t : pin->time <= t;
}

class DataBlock;
using BlockStorage = Storage<DataBlock, Allocator2Q, storage_hook>;

// A run of samples of one item and one layer in ascending time: the unit in which the value cache
// keeps and drops history.
//
// No lock of its own. Blocks are filled and read under the lock of the cached item; whoever holds a
// strong reference keeps the block after the storage evicted it.
class DataBlock : public storage_hook<BlockStorage>, public LiveCount<DataBlock> {
 public:
  static constexpr std::uint32_t MAX_SIZE = 1000;
  using iterator = std::vector<PinPtr>::const_iterator;

  DataBlock() = default;
  ~DataBlock() override;

  bool hasSpace() const { return samples_.size() < MAX_SIZE; }
  bool empty() const { return samples_.empty(); }
  std::uint32_t size() const { return static_cast<std::uint32_t>(samples_.size()); }
  iterator begin() const { return samples_.begin(); }
  iterator end() const { return samples_.end(); }
  // Times of the oldest and newest sample; the block must hold one.
  std::int64_t firstTime() const { return samples_.front()->time; }
  std::int64_t lastTime() const { return samples_.back()->time; }

  // Appends; order and capacity are the caller's business.
  void push(PinPtr pin) { samples_.push_back(std::move(pin)); }
  // Appends a stretch.
  void push(const PinPtr* first, std::size_t count) {
    samples_.insert(samples_.end(), first, first + count);
  }
  // Exchanges the samples as a whole.
  void swapSamples(std::vector<PinPtr>& samples) { samples_.swap(samples); }

  // The newest sample before `t` (inclusive: at or before). If there is none, the oldest sample all
  // the same, and the end only for an empty block: callers compare the time they get.
  iterator left_it(std::int64_t t, bool inclusive) const;
  PinPtr left_val(std::int64_t t, bool inclusive) const;
  // The oldest sample after `t` (inclusive: at or after), else the end.
  iterator right_it(std::int64_t t, bool inclusive) const;
  PinPtr right_val(std::int64_t t, bool inclusive) const;

  // Where a following block would be merged into this one. It moves nothing, and nothing calls it:
  // blocks are never merged.
  void join_with(DataBlock& other);

 private:
  std::vector<PinPtr> samples_;
};

}  // namespace orva::cache
