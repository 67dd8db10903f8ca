#include <algorithm>
#include <iterator>

#include "orva_database/counters.h"
#include "orva_database/layer.h"
#include "share/ticks.h"

// How a layer answers reads. What it hands over is what live blocks hold; what they do not vouch
// for is asked for in intervals. Interval bounds are closed, so an archive may give the samples at
// an edge again: the interval drops those.

namespace orva::cache {

namespace {
constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();
// Blocks whose samples go through one resampling step, so that block boundaries hardly show.
constexpr int kBlocksPerResampling = 10;

using archive::Interval;
using archive::SharedInterval;
using archive::SharedItem;

void noteHit(DataBlock& block) {
  block.used();
  counters.hits.add();
}
}  // namespace

bool HasSpase(const SharedItem& item) {
  return item->numValuesPerNode == 0 || item->valueCount() < item->numValuesPerNode;
}

// One walk over the blocks of a range for one item.
struct Layer::Walk {
  Walk(const SharedItem& forItem, std::int64_t from, std::int64_t end)
      : item(forItem),
        cursor(from),
        to(end),
        resampled(forItem->resampleInterval > archive::Sampling::kOffUpTo),
        limit(forItem->numValuesPerNode == 0 ? kUnlimited : forItem->numValuesPerNode),
        count(forItem->valueCount()) {}

  // One value more than the limit: that there is one tells that the answer is cut.
  std::uint64_t most() const { return limit == kUnlimited ? kUnlimited : limit + 1; }
  bool hasSpace() const { return count < limit; }
  bool done() const { return count >= most(); }

  void give(const PinPtr* first, std::size_t number) {
    if (!resampled) {
      item->append(first, number);
      count += number;
      return;
    }
    pending.insert(pending.end(), first, first + number);
    if (++pendingBlocks == kBlocksPerResampling) settle();
  }
  // Hands over what waits to be resampled.
  void settle() {
    if (pendingBlocks == 0) return;
    item->appendResampled(pending);
    pending.clear();
    pendingBlocks = 0;
    count = item->valueCount();
  }

  const SharedItem& item;
  std::int64_t cursor;  // everything before it is given or asked for
  const std::int64_t to;
  const bool resampled;
  const std::uint64_t limit;
  std::uint64_t count;    // values the item holds
  bool leftLive = false;  // the block before was live in this walk
  BlockPtr lastBlock;     // the last one that was
  bool lastOpen = false;  // its newest time may go on after it
  PinList pending;
  int pendingBlocks = 0;
};

// ---- ranges

bool Layer::load(const SharedItem& item, const Options& options) {
  if (cached_) drain();
  const std::int64_t start = options.startTime;
  const std::int64_t end = options.endTime;
  if (end != 0 && end < start) return false;
  const auto point = item->continuationPoint();
  const bool firstPage = !point;
  const std::int64_t from = std::max<std::int64_t>(firstPage ? start : std::max(start, *point), 0);
  if (!cached_) return loadUncached(item, options, firstPage, from);

  std::int64_t to = end;
  if (end == 0) to = last_->empty() ? kMaxTime : last_->lastTime();
  const std::size_t held = item->valueCount();
  if (options.returnBounds && firstPage && start > 1) getLeftBound(before(start), item, start);
  bool ended = true;
  if (from <= to && !(end != 0 && start == end)) {
    Walk walk(item, from, to);
    ended = walkBlocks(walk);
  }
  if (options.returnBounds && end != 0 && ended) getRightBound(atOrBefore(end), item, end);
  return item->valueCount() > held;
}

bool Layer::loadUncached(const SharedItem& item, const Options& options, bool firstPage,
                         std::int64_t from) {
  const std::int64_t end = options.endTime;
  const bool right = options.returnBounds && end != 0 && end < kMaxTime;
  const std::int32_t number = static_cast<std::int32_t>(layer_);
  if (end == 0 || from <= end) {
    const SharedInterval whole = item->addInterval(number, from, end);
    whole->setBounds({options.returnBounds && firstPage && options.startTime > 1, right});
  } else if (right) {
    item->addTopInterval(number, end + 1, 0)->setKind(Interval::Kind::oldest);
  }
  return false;
}

// Asks the archive for a stretch; what it answers comes back through the inbox, with what this
// layer held when it asked.
SharedInterval Layer::ask(const SharedItem& item, std::int64_t from, std::int64_t to) {
  counters.misses.add();
  SharedInterval interval = item->addInterval(static_cast<std::int32_t>(layer_), from, to);
  Inbox::Answer answer;
  if (!last_->empty()) answer.newestThen = last_->lastTime();
  answer.lastThen = last_;
  answer.wanted = interval->wanted();
  interval->addListner(
      [answer, inbox = boost::weak_ptr<Inbox>(inbox_)](const SharedInterval& done) {
        const auto box = inbox.lock();
        const SharedItem asker = done->item();
        if (!box || done->failed() || !asker || asker->closed()) return;
        const auto& samples = done->buffer();
        const auto atEdge = [&done](const PinPtr& pin) {
          return pin->time == done->start() || pin->time == done->end();
        };
        const bool proof = std::all_of(samples.begin(), samples.end(), atEdge);
        if (samples.empty() || (samples.size() < limits.cachedFrom && !proof)) return;
        Inbox::Answer filled = answer;
        filled.interval = done;
        box->post(std::move(filled));
      });
  return interval;
}

// The entry that holds `from`. Where samples of that very time lie before the entry too, the walk
// begins with the one that holds them.
Layer::Iter Layer::startEntry(std::int64_t from) {
  Iter entry = atOrBefore(from);
  if (entry == blocks_.end()) return first();
  for (;;) {
    const BlockPtr block = live(entry->second);
    if (!block || !entry->second.openLeft || !entry->second.joined || block->firstTime() != from) {
      return entry;
    }
    Iter earlier = entry;
    if (!previous(earlier) || !live(earlier->second)) return entry;
    entry = earlier;
  }
}

// True when the end of the range was reached or asked for.
bool Layer::walkBlocks(Walk& walk) {
  Iter entry = startEntry(walk.cursor);
  while (entry != blocks_.end() && entry->first <= walk.to && !walk.done()) {
    const BlockPtr block = live(entry->second);
    if (!block) {
      if (!walk.hasSpace()) break;
      clearInterval(entry);
      walk.leftLive = false;
      continue;
    }
    if (!takeFrom(walk, entry, block) || walk.done()) break;
    walk.leftLive = true;
    walk.lastBlock = block;
    walk.lastOpen = entry->second.openRight;
    entry = next(entry);
    if (block->lastTime() > walk.to) {
      walk.settle();
      return true;
    }
  }
  walk.settle();
  if (walk.done()) return false;
  if (entry == blocks_.end() || entry->first > walk.to) {
    if (entry != blocks_.end() && entry->second.joined && walk.leftLive) return true;
    const BlockPtr& newest = walk.lastBlock;
    if (newest && newest->lastTime() == walk.to && (newest == last_ || !walk.lastOpen)) return true;
  }
  if (!walk.hasSpace()) {
    walk.item->setCut();
    return false;
  }
  ask(walk.item, walk.cursor, walk.to == kMaxTime && last_->empty() ? 0 : walk.to);
  return true;
}

// Gives what one live block holds of the range, and asks for the gap before it. False when that
// would have to be asked for but the item has no space.
bool Layer::takeFrom(Walk& walk, Iter position, const BlockPtr& block) {
  const Entry& entry = position->second;
  const std::int64_t firstTime = block->firstTime();
  const bool spanned = entry.joined && walk.leftLive;
  const bool gap = firstTime > walk.cursor || (firstTime == walk.cursor && entry.openLeft);
  if (!spanned && gap && firstTime > 0) {
    walk.settle();
    if (!walk.hasSpace()) return false;
    ask(walk.item, walk.cursor, firstTime);
  }
  const auto right = block->right_it(walk.cursor, true);
  const auto left = block->left_it(walk.to, true);
  if (right == block->end() || (*right)->time > walk.to || (*left)->time > walk.to ||
      left < right) {
    return true;
  }
  std::uint64_t number = static_cast<std::uint64_t>(left - right) + 1;
  if (!walk.resampled) number = std::min(number, walk.most() - walk.count);
  noteHit(*block);
  walk.cursor = std::max(walk.cursor, right[static_cast<std::ptrdiff_t>(number) - 1]->time);
  walk.give(&*right, static_cast<std::size_t>(number));
  return true;
}

// ---- bounds

// The newest sample strictly before `t`; `position` is the last entry keyed before it.
void Layer::getLeftBound(Iter position, const SharedItem& item, std::int64_t t) {
  const BlockPtr block = position == blocks_.end() ? BlockPtr() : live(position->second);
  if (block && block->firstTime() < t) {
    const auto found = block->left_it(t, false);
    const Iter after = next(position);
    const bool spanned = after != blocks_.end() && after->second.joined;
    if (std::next(found) != block->end() || spanned) {
      item->push_front(*found);
      noteHit(*block);
      return;
    }
  }
  counters.misses.add();
  item->addBotInterval(static_cast<std::int32_t>(layer_), 0, t - 1)
      ->setKind(Interval::Kind::newest);
}

// The oldest sample strictly after `t`; `position` is the last entry keyed at or before it.
void Layer::getRightBound(Iter position, const SharedItem& item, std::int64_t t) {
  if (t == kMaxTime) return;
  BlockPtr block = position == blocks_.end() ? BlockPtr() : live(position->second);
  if (block) {
    auto found = block->right_it(t, false);
    if (found == block->end()) {
      const Iter after = next(position);
      block = after != blocks_.end() && after->second.joined ? live(after->second) : BlockPtr();
      if (block) found = block->begin();
    }
    if (block) {
      item->push_back(*found);
      noteHit(*block);
      return;
    }
  }
  counters.misses.add();
  item->addTopInterval(static_cast<std::int32_t>(layer_), t + 1, 0)
      ->setKind(Interval::Kind::oldest);
}

// ---- first and last value

bool Layer::getFirtsLast(const SharedItem& item, const Options& options) {
  if (cached_) drain();
  item->setFirstLast();
  const std::int64_t end = options.endTime;
  std::int64_t start = options.startTime;
  if (end != 0 && end < start) return false;
  const auto point = item->continuationPoint();
  const bool onlyLast = static_cast<bool>(point);
  if (point) start = std::max(start, *point);
  if (end != 0 && end < start) return false;
  start = std::max<std::int64_t>(start, 0);
  if (!cached_) {
    firstLastUncached(item, start, end, onlyLast);
    return false;
  }
  const std::int32_t number = static_cast<std::int32_t>(layer_);
  PinPtr given;
  if (!onlyLast) {
    given = findFirst(start);
    if (!given) {
      counters.misses.add();
      item->addBotInterval(number, start, end)->setKind(Interval::Kind::oldest);
    } else if (end != 0 && given->time > end) {
      return false;  // nothing lies in the range
    } else {
      item->push_back(given);
    }
  }
  const PinPtr newest = findLast(end);
  if (!newest) {
    counters.misses.add();
    item->addTopInterval(number, start, end)->setKind(Interval::Kind::newest);
  } else if (newest->time >= start &&
             !(given && given->time == newest->time && given->value.IsEqual(newest->value))) {
    item->push_back(newest);
  }
  return given || newest;
}

void Layer::firstLastUncached(const SharedItem& item, std::int64_t from, std::int64_t to,
                              bool onlyLast) {
  const std::int32_t number = static_cast<std::int32_t>(layer_);
  if (!onlyLast) item->addBotInterval(number, from, to)->setKind(Interval::Kind::oldest);
  item->addTopInterval(number, from, to)->setKind(Interval::Kind::newest);
}

// The first sample at or after `start` if live blocks vouch for it, else null. An open start always
// asks: the archive may hold older history.
PinPtr Layer::findFirst(std::int64_t start) {
  if (start == 0) return {};
  Iter entry;
  BlockPtr block;
  for (;;) {
    entry = startEntry(start);
    if (entry == blocks_.end()) return {};
    block = live(entry->second);
    if (block) break;
    if (entry->first > start || entry->first == 0 || entry == lastEntry_) return {};
    clearInterval(entry);
  }
  if (block->firstTime() > start) return {};
  if (block->firstTime() == start && entry->second.openLeft) return {};
  for (;;) {
    if (PinPtr found = block->right_val(start, true)) {
      noteHit(*block);
      return found;
    }
    entry = next(entry);
    if (entry == blocks_.end() || !entry->second.joined) return {};
    block = live(entry->second);
    if (!block) return {};
  }
}

// The last sample at or before `end` (0: of all) if live blocks vouch for it, else null.
PinPtr Layer::findLast(std::int64_t end) {
  if (!last_->empty() && (end == 0 || end >= last_->lastTime())) {
    counters.hits.add();
    return *std::prev(last_->end());
  }
  if (end == 0) return {};
  const Iter entry = atOrBefore(end);
  const BlockPtr block = entry == blocks_.end() ? BlockPtr() : live(entry->second);
  if (!block) return {};
  const auto found = block->left_it(end, true);
  if (std::next(found) == block->end()) {
    if ((*found)->time == end) {
      if (entry->second.openRight) return {};
    } else {
      const Iter after = next(entry);
      if (after == blocks_.end() || !after->second.joined) return {};
    }
  }
  noteHit(*block);
  return *found;
}

}  // namespace orva::cache
