#include "orva_database/data_block.h"

#include <algorithm>

namespace orva::cache {

DataBlock::~DataBlock() = default;

DataBlock::iterator DataBlock::left_it(std::int64_t t, bool inclusive) const {
  if (samples_.empty()) return samples_.end();
  // Most reads go up to the newest sample; each step of a search waits for a sample far away.
  if (t > lastTime() || (inclusive && t == lastTime())) return std::prev(samples_.end());
  const auto newest = samples_.rbegin();
  const auto found = inclusive ? std::lower_bound(newest, samples_.rend(), t, left<true>)
                               : std::lower_bound(newest, samples_.rend(), t, left<false>);
  return found == samples_.rend() ? samples_.begin() : std::prev(found.base());
}

PinPtr DataBlock::left_val(std::int64_t t, bool inclusive) const {
  const iterator found = left_it(t, inclusive);
  return found == samples_.end() ? PinPtr() : *found;
}

DataBlock::iterator DataBlock::right_it(std::int64_t t, bool inclusive) const {
  return inclusive ? std::lower_bound(samples_.begin(), samples_.end(), t, right<true>)
                   : std::lower_bound(samples_.begin(), samples_.end(), t, right<false>);
}

PinPtr DataBlock::right_val(std::int64_t t, bool inclusive) const {
  const iterator found = right_it(t, inclusive);
  return found == samples_.end() ? PinPtr() : *found;
}

void DataBlock::join_with(DataBlock&) {}

}  // namespace orva::cache
