#include <algorithm>
#include <iterator>
#include <map>

#include "orva_database/layer.h"
#include "share/ticks.h"

// How a layer takes in what an archive answered. An answer vouches for what it delivered and no
// more; what live blocks hold already goes, one for one, and the rest is cut into blocks. Samples
// of a live block that the answer meets at both edges of a boundary prove that boundary joined.

namespace orva::cache {

namespace {
bool sameValue(const PinPtr& a, const PinPtr& b) { return a->value.IsEqual(b->value); }
}  // namespace

// Merges the samples of one answer. Lives for one call.
struct Layer::Merge {
  Merge(Layer& into, std::vector<PinPtr>& answer, std::int64_t newestCacheable, bool sameLastBlock)
      : layer(into), samples(answer), ceiling(newestCacheable), sameLast(sameLastBlock) {}

  void run(bool small);

 private:
  // A live block near the answer, and the stretch of joined live blocks it belongs to.
  struct Live {
    Iter entry;
    BlockPtr block;
    std::size_t chain;
  };
  struct Chain {
    std::int64_t first;
    std::int64_t last;
    bool endsInLast;  // its last block is the one being appended to
  };
  // A place in a live block.
  struct Held {
    std::size_t live;
    std::size_t position;
  };
  // What becomes of one sample of the answer.
  struct Fate {
    enum { remains, held, dropped } what;
    Held place{};  // of a held one; position kInside somewhere inside the block
  };
  static constexpr std::size_t kInside = static_cast<std::size_t>(-1);
  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  // Remaining samples that follow each other, and where they go.
  struct Run {
    std::size_t begin, end;
    std::size_t left;  // the live block before, or kNone
    bool joinsLeft, joinsRight;
  };

  void collectLive();
  void decide();
  void decideTime(std::size_t begin, std::size_t end, std::size_t& firstLive);
  bool match(std::size_t begin, std::size_t end, const std::vector<Held>& touching,
             std::vector<Fate>& out) const;
  bool equal(std::size_t begin, const std::vector<Held>& held) const;
  std::size_t sampleCount(std::size_t live_) const { return live[live_].block->size(); }
  bool endsAt(const Fate& fate) const {
    return fate.what == Fate::held && fate.place.position + 1 == sampleCount(fate.place.live);
  }
  static bool beginsAt(const Fate& fate) {
    return fate.what == Fate::held && fate.place.position == 0;
  }
  void joinProven();
  std::vector<Run> runs() const;
  std::size_t leftOf(const Run& run) const;
  void place(const Run& run);
  std::size_t fill(const Run& run);
  void clean(std::size_t left, std::size_t right);

  Layer& layer;
  std::vector<PinPtr>& samples;
  const std::int64_t ceiling;  // samples as new as this are not cached
  const bool sameLast;         // the block appended to is still the one of the asking
  std::vector<Live> live;
  std::vector<Chain> chains;
  std::vector<Fate> fates;  // one per sample
};

void Layer::assign(std::int64_t from, std::int64_t to, std::vector<PinPtr>& samples) {
  if (to != 0 && from > to) return;
  if (!cached_) return;
  const std::int64_t ceiling = last_->empty() ? kMaxTime : last_->lastTime();
  const auto outside = [from, to](const PinPtr& pin) {
    return pin->time < from || (to != 0 && pin->time > to);
  };
  samples.erase(std::remove_if(samples.begin(), samples.end(), outside), samples.end());
  Merge(*this, samples, ceiling, true).run(false);
}

void Layer::take(const Inbox::Answer& answer) {
  if (!cached_) return;
  const archive::Interval& interval = *answer.interval;
  const std::int64_t from = interval.start();
  const std::int64_t to = interval.end();
  if (to != 0 && from > to) return;
  // Asked for while nothing had been appended, and that has changed: what was the newest then is
  // not known.
  if (!answer.newestThen && !last_->empty()) return;
  std::vector<PinPtr> samples;
  samples.reserve(interval.buffer().size());
  for (const PinPtr& pin : interval.buffer()) {
    if (pin->time >= from && (to == 0 || pin->time <= to)) samples.push_back(pin);
  }
  const auto older = [](const PinPtr& a, const PinPtr& b) { return a->time < b->time; };
  if (!std::is_sorted(samples.begin(), samples.end(), older)) {
    std::stable_sort(samples.begin(), samples.end(), older);
  }
  // An answer of as many values as were wanted may have been cut within its last time.
  const bool complete = answer.wanted == 0 || interval.pushed() < answer.wanted;
  if ((!complete || interval.hadEnough()) && !samples.empty()) {
    const std::int64_t cutTime = samples.back()->time;
    while (!samples.empty() && samples.back()->time == cutTime) samples.pop_back();
  }
  const std::int64_t ceiling = answer.newestThen ? *answer.newestThen : kMaxTime;
  const bool small = interval.buffer().size() < limits.cachedFrom;
  Merge(*this, samples, ceiling, answer.lastThen.lock() == last_).run(small);
}

void Layer::Merge::run(bool small) {
  if (samples.empty()) return;
  collectLive();
  decide();
  joinProven();
  if (small) return;
  // Runs refer to the answer by position, so placing one leaves the others as they are.
  for (const Run& run : runs()) place(run);
}

// The live blocks that the answer's span touches, and one that begins before and one that ends
// after it: whatever lies farther away makes no difference.
void Layer::Merge::collectLive() {
  const std::int64_t from = samples.front()->time;
  const std::int64_t to = samples.back()->time;
  Iter at = layer.atOrBefore(from);
  if (at == layer.blocks_.end()) at = layer.first();
  for (BlockPtr block = Layer::live(at->second);
       (!block || block->firstTime() >= from) && layer.previous(at);) {
    block = Layer::live(at->second);
  }
  BlockPtr before;
  for (; at != layer.blocks_.end(); at = layer.next(at)) {
    const BlockPtr block = Layer::live(at->second);
    if (block) {
      if (!(before && at->second.joined)) chains.push_back({block->firstTime(), 0, false});
      chains.back().last = block->lastTime();
      chains.back().endsInLast = block == layer.last_;
      live.push_back({at, block, chains.size() - 1});
      if (block->lastTime() > to) break;
    }
    before = block;
  }
}

// Time by time, since samples of one time stand or fall together.
void Layer::Merge::decide() {
  fates.reserve(samples.size());
  std::size_t firstLive = 0;
  for (std::size_t begin = 0; begin < samples.size();) {
    std::size_t end = begin + 1;
    while (end < samples.size() && samples[end]->time == samples[begin]->time) ++end;
    decideTime(begin, end, firstLive);
    begin = end;
  }
}

void Layer::Merge::decideTime(std::size_t begin, std::size_t end, std::size_t& firstLive) {
  const std::int64_t t = samples[begin]->time;
  // From its first sample on only the block being appended to rules.
  if (!layer.last_->empty() && t > layer.last_->firstTime()) {
    fates.resize(end, {Fate::dropped});
    return;
  }
  while (firstLive < live.size() && live[firstLive].block->lastTime() < t) ++firstLive;
  std::vector<Held> touching;
  for (std::size_t i = firstLive; i < live.size() && live[i].block->firstTime() <= t; ++i) {
    const DataBlock& block = *live[i].block;
    if (block.lastTime() < t) continue;
    const Chain& chain = chains[live[i].chain];
    if (chain.first < t && t < chain.last) {
      fates.resize(end, {Fate::held, {i, kInside}});
      return;
    }
    const auto first = static_cast<std::size_t>(block.right_it(t, true) - block.begin());
    const auto behind = static_cast<std::size_t>(block.right_it(t, false) - block.begin());
    for (std::size_t position = first; position < behind; ++position) {
      touching.push_back({i, position});
    }
  }
  std::vector<Fate> matched;
  if (!match(begin, end, touching, matched)) {
    fates.resize(end, {Fate::dropped});
    return;
  }
  for (Fate& fate : matched) {
    if (fate.what == Fate::remains && t >= ceiling) fate.what = Fate::dropped;
    fates.push_back(fate);
  }
}

bool Layer::Merge::equal(std::size_t begin, const std::vector<Held>& held) const {
  for (std::size_t i = 0; i < held.size(); ++i) {
    const PinPtr& mine =
        live[held[i].live].block->begin()[static_cast<std::ptrdiff_t>(held[i].position)];
    if (!sameValue(mine, samples[begin + i])) return false;
  }
  return true;
}

// Samples of one time against what live blocks hold of it, joined ones counting as one: they must
// begin with those of the block that ends at this time and end with those of the block that begins
// at it. Else nothing of this time is cached or proves anything.
bool Layer::Merge::match(std::size_t begin, std::size_t end, const std::vector<Held>& touching,
                         std::vector<Fate>& out) const {
  const std::size_t count = end - begin;
  out.assign(count, {Fate::remains});
  if (touching.empty()) return true;
  const std::int64_t t = samples[begin]->time;
  const bool grown = t >= ceiling;  // more of this time may have been appended since
  std::vector<Held> leftHeld;
  std::vector<Held> rightHeld;
  std::vector<Held> whole;  // of a stretch that is all of this one time
  bool severalWhole = false;
  for (const Held& held : touching) {
    const std::size_t chainOf = live[held.live].chain;
    const Chain& chain = chains[chainOf];
    if (chain.endsInLast || chain.last > t) {
      rightHeld.push_back(held);
    } else if (chain.first < t) {
      leftHeld.push_back(held);
    } else {
      severalWhole = severalWhole || (!whole.empty() && live[whole[0].live].chain != chainOf);
      whole.push_back(held);
    }
  }
  const auto hold = [&out](std::size_t at, const std::vector<Held>& held) {
    for (const Held& place : held) out[at++] = {Fate::held, place};
  };
  if (!whole.empty()) {
    if (severalWhole || !leftHeld.empty() || !rightHeld.empty() || grown || whole.size() != count ||
        !equal(begin, whole)) {
      return false;
    }
    hold(0, whole);
    return true;
  }
  if (leftHeld.size() + rightHeld.size() > count) return false;
  if (grown && (count > 1 || !sameLast)) return false;
  const std::size_t rightAt = count - rightHeld.size();
  if (!equal(begin, leftHeld) || !equal(begin + rightAt, rightHeld)) return false;
  hold(0, leftHeld);
  hold(rightAt, rightHeld);
  return true;
}

// The answer went from the end of one live block straight to the beginning of the next.
void Layer::Merge::joinProven() {
  for (std::size_t i = 0; i + 1 < fates.size(); ++i) {
    const Fate& a = fates[i];
    const Fate& b = fates[i + 1];
    if (!endsAt(a) || !beginsAt(b) || b.place.live != a.place.live + 1) continue;
    clean(a.place.live, b.place.live);
    Live& left = live[a.place.live];
    Live& right = live[b.place.live];
    const bool sameTime = left.block->lastTime() == right.block->firstTime();
    right.entry->second.joined = true;
    right.entry->second.openLeft = sameTime;
    left.entry->second.openRight = sameTime;
  }
}

std::vector<Layer::Merge::Run> Layer::Merge::runs() const {
  std::vector<Run> all;
  for (std::size_t i = 0; i < fates.size();) {
    if (fates[i].what != Fate::remains) {
      ++i;
      continue;
    }
    Run run{i, i, kNone, false, false};
    while (i < fates.size() && fates[i].what == Fate::remains) ++i;
    run.end = i;
    run.joinsLeft = run.begin > 0 && endsAt(fates[run.begin - 1]);
    run.joinsRight = run.end < fates.size() && beginsAt(fates[run.end]);
    run.left = leftOf(run);
    all.push_back(run);
  }
  return all;
}

std::size_t Layer::Merge::leftOf(const Run& run) const {
  if (run.begin > 0 && fates[run.begin - 1].what == Fate::held) {
    return fates[run.begin - 1].place.live;
  }
  if (run.end < fates.size() && fates[run.end].what == Fate::held) {
    const std::size_t right = fates[run.end].place.live;
    return right == 0 ? kNone : right - 1;
  }
  std::size_t left = kNone;
  for (std::size_t i = 0; i < live.size(); ++i) {
    if (live[i].block->lastTime() <= samples[run.begin]->time) left = i;
  }
  return left;
}

// Removes the expired entries between two live ones (kNone: the ends of the map).
void Layer::Merge::clean(std::size_t left, std::size_t right) {
  Iter at = left == kNone ? layer.first() : layer.next(live[left].entry);
  const Iter stop = right < live.size() ? live[right].entry : layer.blocks_.end();
  while (at != stop && at != layer.blocks_.end()) {
    if (at->first == 0 || at == layer.lastEntry_ || Layer::live(at->second)) {
      at = layer.next(at);
    } else {
      layer.clearInterval(at);
    }
  }
}

// First into the live block before, if the run joins it and it has room: small answers must not use
// up the storage's blocks. Returns how many samples went there.
std::size_t Layer::Merge::fill(const Run& run) {
  if (!run.joinsLeft || run.left == kNone) return 0;
  Live& left = live[run.left];
  if (left.block == layer.last_ || !layer.hasRoom(*left.block)) return 0;
  const std::size_t room = limits.blockSamples - left.block->size();
  const std::size_t count = std::min(room, run.end - run.begin);
  left.block->push(&samples[run.begin], count);
  left.entry->second.openRight = false;
  return count;
}

void Layer::Merge::place(const Run& run) {
  const std::size_t right = run.left == kNone ? 0 : run.left + 1;
  clean(run.left, right);
  const std::int64_t runLast = samples[run.end - 1]->time;
  Entry* before = run.left == kNone ? nullptr : &live[run.left].entry->second;
  bool proven = run.joinsLeft;  // nothing lies between `before` and what comes next
  std::size_t at = run.begin + fill(run);
  // The newest time before the next piece; none behind samples that were left out.
  bool hasNewest = before != nullptr;
  std::int64_t newest = before ? live[run.left].block->lastTime() : 0;
  while (at < run.end) {
    const std::int64_t key = samples[at]->time;
    const Iter known = layer.blocks_.find(key);
    if (known != layer.blocks_.end() && (Layer::live(known->second) || known == layer.lastEntry_)) {
      if (proven && before) before->openRight = hasNewest && newest == key;
      while (at < run.end && samples[at]->time == key) ++at;
      before = nullptr;
      proven = false;
      hasNewest = false;
      continue;
    }
    const std::size_t count = std::min<std::size_t>(limits.blockSamples, run.end - at);
    BlockPtr block = Layer::storage->make_new();
    if (count == samples.size()) {
      block->swapSamples(samples);
    } else {
      block->push(&samples[at], count);
    }
    at += count;
    Entry entry;
    entry.block = block;
    entry.joined = proven && before;
    entry.openLeft = hasNewest && newest == key;
    if (before && (proven || entry.openLeft)) before->openRight = entry.openLeft;
    hasNewest = true;
    newest = block->lastTime();
    Iter placed;
    if (known != layer.blocks_.end()) {
      known->second = std::move(entry);
      placed = known;
    } else {
      placed = layer.blocks_.emplace(key, std::move(entry));
    }
    before = &placed->second;
    proven = true;
  }
  if (right >= live.size()) return;
  Entry& after = live[right].entry->second;
  const bool sameTime = live[right].block->firstTime() == runLast;
  after.joined = run.joinsRight && proven && before;
  if (proven && before) before->openRight = sameTime;
  if (run.joinsRight) {
    after.openLeft = sameTime;
  } else if (sameTime) {
    after.openLeft = true;
  }
}

}  // namespace orva::cache
