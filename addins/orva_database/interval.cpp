#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>
#include <exception>
#include <iterator>
#include <new>

#include "host/trace.h"
#include "orva_database/sampling.h"
#include "share/archive_request.h"

namespace orva::archive {

namespace {
bool sameSample(const Pin& a, const Pin& b) { return a.time == b.time && a.value.IsEqual(b.value); }
}  // namespace

// Gathers what several archives answer for one interval.
struct Request::Item::Interval::Fan {
  Fan(SharedInterval whole, std::size_t count) : parent(std::move(whole)), answers(count) {}

  const SharedInterval parent;
  Mutex mutex;  // leaf
  std::vector<std::vector<PinPtr>> answers GUARDED_BY(mutex);
  std::size_t finished GUARDED_BY(mutex) = 0;

  // One archive is done; the last one hands everything to the parent, and ends it in any case.
  void finish() EXCLUDES(mutex) {
    {
      MutexLock lock(mutex);
      if (++finished != answers.size()) return;
    }
    try {
      handOver();
    } catch (const std::bad_alloc&) {
      parent->fail(status::kBadOutOfMemory);
    }
    parent->finalize();
  }

 private:
  void handOver() EXCLUDES(mutex) {
    std::vector<PinPtr> all;
    {
      MutexLock lock(mutex);
      all = merged();
    }
    trim(all);
    parent->push(all.data(), all.size());
  }

  struct Taken {
    PinPtr pin;
    std::size_t archive;  // the last archive that gave it
  };

  // In time order, by archive where times are equal; a sample that an earlier archive gave too is
  // dropped, one for one.
  std::vector<PinPtr> merged() REQUIRES(mutex) {
    std::vector<Taken> sorted;
    for (std::size_t archive = 0; archive < answers.size(); ++archive) {
      for (const PinPtr& pin : answers[archive]) sorted.push_back({pin, archive});
    }
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Taken& a, const Taken& b) { return a.pin->time < b.pin->time; });
    std::vector<Taken> kept;
    std::size_t sameTime = 0;  // where the samples of the current time begin in `kept`
    for (Taken& next : sorted) {
      if (!kept.empty() && kept.back().pin->time != next.pin->time) sameTime = kept.size();
      const auto known = std::find_if(
          kept.begin() + static_cast<std::ptrdiff_t>(sameTime), kept.end(), [&](const Taken& k) {
            return k.archive != next.archive && sameSample(*k.pin, *next.pin);
          });
      if (known != kept.end()) {
        known->archive = next.archive;
      } else {
        kept.push_back(std::move(next));
      }
    }
    std::vector<PinPtr> pins;
    pins.reserve(kept.size());
    for (Taken& taken : kept) pins.push_back(std::move(taken.pin));
    return pins;
  }

  // Each archive gives a bound of its own and stops at the wanted number by itself. Of the bounds
  // the ones next to the stretch count, and past the wanted number there may be holes.
  void trim(std::vector<PinPtr>& all) const {
    const auto inside = std::find_if(all.begin(), all.end(), [this](const PinPtr& pin) {
      return parent->start_ == 0 || pin->time >= parent->start_;
    });
    const bool left = parent->bounds_.left && inside != all.begin();
    all.erase(all.begin(), left ? std::prev(inside) : inside);
    const std::uint64_t wanted = parent->kind_ == Kind::range ? parent->wanted() : 0;
    if (wanted != 0 && all.size() > wanted) all.resize(static_cast<std::size_t>(wanted));
  }
};

Request::Item::Interval::Interval(boost::weak_ptr<Item> item, std::uint32_t index,
                                  std::int32_t layer, std::int64_t start, std::int64_t end,
                                  std::int64_t cacheId, Item::Sink sink)
    : item_(std::move(item)),
      index_(index),
      layer_(layer),
      start_(start),
      end_(end),
      cacheId_(cacheId),
      sink_(sink) {}

// Whoever filled it dropped it: its item completes without the rest. No shared reference to this
// object can be made here, so no listener runs and nothing of it is cached.
Request::Item::Interval::~Interval() {
  if (final_.load()) return;
  if (fan_) {
    fan_->parent->failed_.store(true);
    fan_->finish();
  } else if (const SharedItem item = item_.lock()) {
    if (item->remove(this)) item->finalize();
  }
}

bool Request::Item::Interval::resamples(const Item& item) const {
  return kind_ == Kind::range && item.resampleInterval > Sampling::kOffUpTo;
}

std::uint64_t Request::Item::Interval::positionInItem(const Item& item) const {
  if (!anchored_) return 0;
  std::uint64_t count = 1;
  const PinList::const_iterator reached = hint_;
  for (auto at = item.values_.begin(); at != reached; ++at) ++count;
  return count;
}

std::uint64_t Request::Item::Interval::wanted() const {
  if (kind_ != Kind::range) return 1;
  const SharedItem item = item_.lock();
  if (!item || item->numValuesPerNode == 0 || resamples(*item)) return 0;
  return std::uint64_t{item->numValuesPerNode} + 1;
}

bool Request::Item::Interval::full() const {
  if (isFinal()) return true;
  const SharedItem item = item_.lock();
  if (!item) return true;
  MutexLock lock(item->mutex_);
  if (!item->takesValues()) return true;
  return enough(*item);
}

bool Request::Item::Interval::enough(const Item& item) const {
  return resamples(item) && item.numValuesPerNode != 0 && resampledCount_ > item.numValuesPerNode;
}

void Request::Item::Interval::push(const PinPtr& pin) { push(&pin, 1); }

void Request::Item::Interval::push(const PinPtr* first, std::size_t count) {
  if (isFinal()) return traceLate("push");
  const SharedItem item = item_.lock();
  if (!item) return;  // nobody waits for it any more
  if (fan_) return gather(*item, first, count);
  MutexLock lock(item->mutex_);
  if (isFinal() || !item->takesValues()) return;
  for (const PinPtr* pin = first; pin != first + count; ++pin) {
    if (*pin) take(*item, *pin);
  }
}

void Request::Item::Interval::gather(const Item& item, const PinPtr* first, std::size_t count) {
  if (item.closed() || item.isFinal()) return;
  MutexLock lock(fan_->mutex);
  std::vector<PinPtr>& answer = fan_->answers[fanIndex_];
  for (const PinPtr* pin = first; pin != first + count; ++pin) {
    if (!*pin) continue;
    if (kind_ == Kind::range) {
      answer.push_back(*pin);
    } else if (!outside((*pin)->time) && (answer.empty() || betterThan(*answer.front(), **pin))) {
      answer.assign(1, *pin);
    }
  }
}

void Request::Item::Interval::take(Item& item, const PinPtr& pin) {
  ++pushed_;
  if (kind_ != Kind::range) return takeOne(item, pin);
  // A bound is given as it is, and must not count in a period of the stretch.
  if (resamples(item) && !outside(pin->time)) {
    if (!resampler_) {
      resampler_ = std::make_unique<Sampling>(item.resampleInterval, resampled_, resampled_.end());
    }
    resampler_->push(pin);
    drainResampler(item);
  } else {
    sink(item, pin);
    if (limit_ && *limit_ > 0) --*limit_;
  }
  buffer_.push_back(pin);  // intervalComplite at least listens
}

bool Request::Item::Interval::outside(std::int64_t time) const {
  return (start_ != 0 && time < start_) || (end_ != 0 && time > end_);
}

// Of a one-value kind: whether `pin` takes the place of the value it has.
bool Request::Item::Interval::betterThan(const Pin& held, const Pin& pin) const {
  return kind_ == Kind::oldest ? pin.time < held.time : pin.time >= held.time;
}

void Request::Item::Interval::takeOne(Item& item, const PinPtr& pin) {
  if (outside(pin->time)) return;
  if (!one_) {
    PinList& values = item.values_;
    one_ = sink_ == Item::Sink::front ? &values.emplace_front(pin) : &values.emplace_back(pin);
    buffer_.assign(1, pin);
    return;
  }
  if (!betterThan(**one_, *pin)) return;
  *one_ = pin;
  buffer_.assign(1, pin);
}

void Request::Item::Interval::sink(Item& item, const PinPtr& pin) {
  switch (sink_) {
    case Item::Sink::back:
      item.values_.push_back(pin);
      break;
    case Item::Sink::front:
      item.values_.push_front(pin);
      break;
    case Item::Sink::place:
      place(item, pin);
      break;
  }
}

// Outside the stretch only the two bounding samples pass, once each, and only when asked for.
bool Request::Item::Interval::admits(std::int64_t time) {
  if (!outside(time)) return true;
  bool& wantedBound = time < start_ ? bounds_.left : bounds_.right;
  const bool admitted = wantedBound;
  wantedBound = false;
  return admitted;
}

// The first held value that is not older than `time`, found from where this interval is.
Request::Item::Position Request::Item::Interval::firstNotOlder(Item& item,
                                                               std::int64_t time) const {
  PinList& values = item.values_;
  Position at = anchored_ ? hint_ : values.begin();
  while (at != values.end() && (*at)->time < time) ++at;
  while (at != values.begin() && (*std::prev(at))->time >= time) --at;
  return at;
}

// A value goes right behind the one this interval gave or met before if that has the same time,
// else before the first held value that is not older: so equal times keep their order of arrival
// in whatever order intervals are answered.
//
// At its two edges an interval meets what the cache or another interval gave: a value equal to one
// it has not met yet is that one. (Quality is not compared.)
void Request::Item::Interval::place(Item& item, const PinPtr& pin) {
  const std::int64_t time = pin->time;
  if (!admits(time)) return;
  const bool edge = time == start_ || (end_ != 0 && time == end_);
  const bool behindHint = given_ && (*hint_)->time == time;
  Position before;
  if (edge || !behindHint) {
    before = firstNotOlder(item, time);
    if (edge && meet(item, before, *pin)) return;
  }
  if (behindHint) before = std::next(hint_);
  hint_ = item.values_.insert(before, pin);
  anchored_ = given_ = true;
  if (edge) met_.insert(&*hint_);
}

// Looks for an unmet value equal to `pin` among those of its time, from `first` on.
bool Request::Item::Interval::meet(Item& item, Position first, const Pin& pin) {
  for (Position at = first; at != item.values_.end() && (*at)->time == pin.time; ++at) {
    if (!(*at)->value.IsEqual(pin.value) || met_.count(&*at) != 0) continue;
    met_.insert(&*at);
    hint_ = at;
    anchored_ = given_ = true;
    return true;
  }
  return false;
}

void Request::Item::Interval::drainResampler(Item& item) {
  for (const PinPtr& pin : resampled_) {
    sink(item, pin);
    ++resampledCount_;
  }
  resampled_.clear();
}

std::uint32_t Request::Item::Interval::availableSpace() const {
  if (!limit_) return 0x7FFFFFFF;  // whether there is a limit is settled before it is handed out
  const SharedItem item = item_.lock();
  if (!item) return 0;
  MutexLock lock(item->mutex_);
  const std::uint64_t used = resamples(*item) ? resampledCount_ : buffer_.size();
  return used < *limit_ ? *limit_ - static_cast<std::uint32_t>(used) : 0;
}

void Request::Item::Interval::fail(StatusCode code) {
  if (isFinal()) return traceLate("fail");
  failed_.store(true, std::memory_order_release);
  if (fan_) {
    fan_->parent->fail(code);
  } else if (const SharedItem item = item_.lock()) {
    item->fail(code);
  }
}

void Request::Item::Interval::finalize() {
  if (final_.exchange(true, std::memory_order_acq_rel)) return traceLate("finalize");
  const SharedInterval self = shared_from_this();
  if (fan_) return fan_->finish();
  // Held while the listeners run: to them an item that is gone means that pushes were ignored.
  const SharedItem item = item_.lock();
  if (item) {
    try {
      MutexLock lock(item->mutex_);
      hadEnough_ = enough(*item);
      if (resampler_ && item->takesValues()) {
        resampler_->flush();
        drainResampler(*item);
      }
    } catch (const std::bad_alloc&) {
      // The listeners run all the same: without them the item would never end.
      failed_.store(true, std::memory_order_release);
      item->fail(status::kBadOutOfMemory);
    }
    resampler_.reset();
  }
  runListeners(self);
}

void Request::Item::Interval::runListeners(const SharedInterval& self) {
  std::vector<Listener> listeners;
  {
    MutexLock lock(listenerMutex_);
    listeners.swap(listeners_);
  }
  for (const Listener& listener : listeners) {
    try {
      listener(self);
    } catch (const std::exception& e) {
      OpcUa_Trace_Imp(kTraceError, "<--ReturnError: interval listener throws: %s\n", __FILE__,
                      __LINE__, e.what());
    } catch (...) {
      OpcUa_Trace_Imp(kTraceError, "<--ReturnError: interval listener throws\n", __FILE__,
                      __LINE__);
    }
  }
}

void Request::Item::Interval::addListner(Listener listener) {
  MutexLock lock(listenerMutex_);
  listeners_.push_back(std::move(listener));
}

void Request::Item::Interval::traceLate(const char* operation) {
  if (lateTraced_.exchange(true)) return;
  OpcUa_Trace_Imp(kTraceWarning,
                  "Interval: %s after finalize is ignored, cache_id = %lld, layer = %d\n", __FILE__,
                  __LINE__, operation, static_cast<long long>(cacheId_), layer_);
}

std::vector<SharedInterval> Request::Item::Interval::split(std::size_t count) {
  const auto fan = boost::make_shared<Fan>(shared_from_this(), count);
  std::vector<SharedInterval> parts;
  for (std::size_t i = 0; i < count; ++i) {
    SharedInterval part(
        new Interval(item_, index_, layer_, start_, end_, cacheId_, Item::Sink::place));
    part->kind_ = kind_;
    part->bounds_ = bounds_;
    part->fan_ = fan;
    part->fanIndex_ = i;
    parts.push_back(std::move(part));
  }
  return parts;
}

}  // namespace orva::archive
