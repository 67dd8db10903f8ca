#include <algorithm>
#include <limits>

#include "model/world.h"

// What must hold of the cache at any moment, and what a read may ask the archives for.

namespace orva::model {

using archive::Interval;
using cache::Layer;

namespace {
constexpr std::int64_t kLatest = std::numeric_limits<std::int64_t>::max();
}

// The entries as a reader sees them: without a block that waits for its first sample.
World::Blocks World::seen(Blocks blocks) {
  blocks.erase(std::remove_if(blocks.begin(), blocks.end(),
                              [](const auto& b) { return b.last && b.samples.empty(); }),
               blocks.end());
  return blocks;
}

std::vector<World::Chain> World::chains(const Blocks& blocks) {
  std::vector<Chain> all;
  bool open = false;
  for (const Layer::BlockInfo& block : blocks) {
    if (block.samples.empty()) {
      open = false;
      continue;
    }
    if (!open || !block.joined) all.push_back({block.samples.front()->time, 0, {}});
    all.back().last = block.samples.back()->time;
    all.back().blocks.push_back(block.samples.front().get());
    open = true;
  }
  return all;
}

// Whether the range holds samples that were cached once and are no more, or is there in part, or
// is just being fetched for somebody else.
void World::noteWhatIsMet(Read& read, const Blocks& blocks) {
  if (!read.query.cachedLayer || read.query.firstLast) return;
  const Variable& variable = *read.variable;
  const Truth& truth = variable.writer.truth;
  const std::int64_t from = std::max<std::int64_t>(read.query.from(), 0);
  const std::int64_t to = read.query.end == 0 ? kLatest : read.query.end;
  if (from > to) return;
  const auto [first, last] = truth.range(from, read.query.end, truth.size());
  std::size_t held = 0;
  std::size_t heldOfAppended = 0;
  const std::int64_t began =
      variable.history < truth.size() ? truth.samples()[variable.history].time : kLatest;
  for (const Layer::BlockInfo& block : blocks) {
    for (const PinPtr& pin : block.samples) {
      if (pin->time < from || pin->time > to) continue;
      ++held;
      heldOfAppended += pin->time >= began;
    }
  }
  const std::size_t appended = last - std::min(last, std::max(first, variable.history));
  const std::size_t there = last - first;
  const bool fetching = std::any_of(reads_.begin(), reads_.end(), [&](const ReadPtr& other) {
    if (other->variable != &variable || other.get() == &read) return false;
    const auto open = other->item->openIntervals();
    return std::any_of(open.begin(), open.end(), [&](const auto& interval) {
      return interval->kind() == Interval::Kind::range && interval->start() <= to &&
             (interval->end() == 0 || interval->end() >= from);
    });
  });
  read.metEvicted = read.metEvicted || heldOfAppended < appended;
  read.metHalfFetched = read.metHalfFetched || (held > 0 && held < there) || fetching;
}

// Nobody is asked for what live blocks vouch for. (A block may be evicted while its layer is
// read: its stretch does not count.)
void World::checkAsked(const Read& read, const std::vector<Chain>& before) const {
  const Query& query = read.query;
  const auto intervals = read.item->openIntervals();
  const PinPtr newest = read.item->lastValue();
  if (!query.resampled() && query.limit != 0) {
    if (read.held > std::size_t{query.limit} + 1)
      differs("hands over more than one beyond the limit");
    for (const auto& interval : intervals) {
      const bool beyond = interval->end() == 0 || interval->end() > (newest ? newest->time : 0);
      if (read.held >= query.limit && interval->kind() == Interval::Kind::range && beyond) {
        differs("asks though the item has no space");
      }
    }
  }
  const Blocks after = seen(read.variable->layer->describe());
  for (const Chain& chain : before) {
    if (live(chain, after)) checkRangeAsked(read, intervals, newest, chain);
  }
}

// Whether all its blocks are there still.
bool World::live(const Chain& chain, const Blocks& blocks) {
  return std::all_of(chain.blocks.begin(), chain.blocks.end(), [&](const Pin* first) {
    return std::any_of(blocks.begin(), blocks.end(), [first](const auto& block) {
      return !block.samples.empty() && block.samples.front().get() == first;
    });
  });
}

void World::checkRangeAsked(const Read& read, const Intervals& intervals, const PinPtr& newest,
                            const Chain& chain) const {
  const Query& query = read.query;
  const std::int64_t from = query.from();
  if (read.item->cut() && !query.resampled()) {
    const std::int64_t reached = std::max(from, newest ? newest->time : from);
    if (chain.first < reached && reached < chain.last) differs("cut though live blocks know more");
  }
  for (const auto& interval : intervals) {
    const std::int64_t start = interval->start();
    const std::int64_t end = interval->end();
    if (interval->kind() == Interval::Kind::range) {
      if (end != 0 && std::max(start, chain.first) < std::min(end, chain.last)) {
        differs("asks for what live blocks vouch for");
      }
      if (start == end && chain.first < start && start < chain.last) {
        differs("asks for an instant that live blocks vouch for");
      }
    } else if (interval->kind() == Interval::Kind::newest) {
      if (chain.first < query.start && query.start <= chain.last)
        differs("asks for the left bound");
    } else if (chain.first <= query.end && query.end < chain.last) {
      differs("asks for the right bound");
    }
  }
  const bool space = query.limit == 0 || read.held < query.limit;
  if (space && query.end != 0 && query.start != query.end && !query.bounds && !intervals.empty() &&
      chain.first < from && from <= query.end && query.end < chain.last) {
    differs("asks though the range lies in live blocks");
  }
}

void World::checkFirstLastAsked(Read& read, const std::vector<Chain>& before) {
  const std::int64_t end = read.query.end;
  const auto intervals = read.item->openIntervals();
  const bool asksLast = std::any_of(intervals.begin(), intervals.end(), [](const auto& i) {
    return i->kind() == Interval::Kind::newest;
  });
  const Blocks after = seen(read.variable->layer->describe());
  for (const Chain& chain : before) {
    if (!live(chain, after)) continue;
    if (asksLast && end != 0 && chain.first <= end && end < chain.last) {
      differs("asks for a last value that live blocks vouch for");
    }
    if (!asksLast && end != 0 && read.held != 0 && end < before.back().last) {
      ++counts_.lastFromCache;
      break;
    }
  }
}

// ---- the cache

void World::checkStorage() const {
  const auto counts = Layer::storage->counts();
  if (counts.firstIn > total_ / 4 || counts.probation > 2 * (total_ / 4) ||
      counts.main > total_ - 3 * (total_ / 4)) {
    differs("the storage holds more blocks than it may");
  }
}

void World::checkCache(const Variable& variable) const {
  const Layer& layer = *variable.layer;
  Blocks all = layer.describe();
  if (!layer.cached()) {
    if (!all.empty()) differs("blocks in a layer that is not cached");
    return;
  }
  checkEntries(all, variable);
  const Blocks blocks = seen(std::move(all));
  checkNoneTwice(blocks, variable);
  if (variable.writer.older) return;
  for (std::size_t first = 0; first < blocks.size();) {
    if (blocks[first].samples.empty()) {
      ++first;
      continue;
    }
    std::size_t last = first;
    while (last + 1 < blocks.size() && blocks[last + 1].joined &&
           !blocks[last + 1].samples.empty()) {
      ++last;
    }
    checkStretch(blocks, first, last, variable);
    first = last + 1;
  }
}

void World::checkEntries(const Blocks& all, const Variable& variable) const {
  if (all.empty() || all.front().key != 0) differs("the entry of key 0 is gone");
  int lasts = 0;
  std::int64_t newest = 0;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const Layer::BlockInfo& block = all[i];
    lasts += block.last;
    const bool alone = block.entered && (i == 0 || all[i - 1].entered);
    if (i > 0 && (block.key < all[i - 1].key || (alone && block.key == all[i - 1].key))) {
      differs("keys are not in order or not unique");
    }
    if (!block.entered && (!block.last || block.samples.empty() || i + 1 != all.size())) {
      differs("a block outside the map that is not the newest");
    }
    if (block.samples.empty()) continue;
    if (block.samples.size() > Layer::limits.blockSamples) differs("a block is too long");
    if (block.key != block.samples.front()->time) differs("a key is not the block's first time");
    if (block.samples.front()->time < newest) differs("blocks are out of order");
    newest = block.samples.back()->time;
  }
  if (lasts != 1)
    differs("the block appended to is not in the map of " + std::to_string(variable.number));
}

void World::checkNoneTwice(const Blocks& blocks, const Variable& variable) const {
  std::vector<Sample> held;
  for (const Layer::BlockInfo& block : blocks) {
    for (const PinPtr& pin : block.samples) held.push_back(sampleOf(*pin));
  }
  const Truth& truth = variable.writer.truth;
  for (std::size_t i = 0; i < held.size();) {
    std::size_t end = i + 1;
    while (end < held.size() && held[end].time == held[i].time) ++end;
    const auto [first, last] = truth.range(held[i].time, held[i].time, truth.size());
    const auto from = truth.samples().begin() + static_cast<std::ptrdiff_t>(first);
    const auto to = truth.samples().begin() + static_cast<std::ptrdiff_t>(last);
    for (std::size_t k = i; k < end; ++k) {
      const auto mine = std::count(held.begin() + static_cast<std::ptrdiff_t>(i),
                                   held.begin() + static_cast<std::ptrdiff_t>(end), held[k]);
      // Time 0 is an open bound.
      if (held[k].time != 0 && mine > std::count(from, to, held[k])) {
        differs("twice or unknown in the cache: " + text(held[k]));
      }
    }
    i = end;
  }
}

// Joined blocks must be a stretch of the plain list without a hole, and at its two edges complete
// unless the entry says that samples of that time may be missing.
void World::checkStretch(const Blocks& blocks, std::size_t firstBlock, std::size_t lastBlock,
                         const Variable& variable) const {
  std::vector<Sample> stretch;
  for (std::size_t i = firstBlock; i <= lastBlock; ++i) {
    for (const PinPtr& pin : blocks[i].samples) stretch.push_back(sampleOf(*pin));
  }
  const std::vector<Sample>& all = variable.writer.truth.samples();
  const std::size_t n = stretch.size();
  const std::size_t from = variable.writer.truth.notBelow(stretch.front().time, all.size());
  for (std::size_t k = from; k + n <= all.size() && all[k].time == stretch.front().time; ++k) {
    if (!std::equal(stretch.begin(), stretch.end(), all.begin() + static_cast<std::ptrdiff_t>(k))) {
      continue;
    }
    const bool moreBefore = k > 0 && all[k - 1].time == all[k].time;
    const bool moreAfter = k + n < all.size() && all[k + n].time == stretch.back().time;
    if (moreBefore && !blocks[firstBlock].openLeft) continue;
    if (moreAfter && !blocks[lastBlock].last && !blocks[lastBlock].openRight) continue;
    return;
  }
  differs("joined blocks are no stretch of the list: " + text(stretch));
}

}  // namespace orva::model
