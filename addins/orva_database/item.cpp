#include <algorithm>
#include <limits>

#include "orva_database/counters.h"
#include "orva_database/sampling.h"
#include "share/archive_request.h"

namespace orva::archive {

namespace {
// First chunk of an item's list nodes; later ones grow geometrically.
constexpr std::size_t kFirstArenaBytes = 4096;

std::int64_t nextTick(std::int64_t time) {
  return time == std::numeric_limits<std::int64_t>::max() ? time : time + 1;
}
}  // namespace

Request::Item::Item(boost::weak_ptr<Request> owner, std::int64_t id)
    : request(std::move(owner)), cacheId(id), arena_(kFirstArenaBytes), values_(&arena_) {}

Request::Item::~Item() = default;

boost::optional<std::int64_t> Request::Item::continuationPoint() const {
  MutexLock lock(mutex_);
  return continuationPoint_;
}

void Request::Item::setContinuationPoint(boost::optional<std::int64_t> point) {
  MutexLock lock(mutex_);
  continuationPoint_ = point;
}

StatusCode Request::Item::status() const {
  MutexLock lock(mutex_);
  return status_;
}

StatusCode Request::Item::failure() const {
  MutexLock lock(mutex_);
  return failure_;
}

void Request::Item::fail(StatusCode code) {
  MutexLock lock(mutex_);
  if (failure_ == status::kGood && takesValues()) failure_ = code;
}

bool Request::Item::cut() const {
  MutexLock lock(mutex_);
  return cut_;
}

void Request::Item::setCut() {
  MutexLock lock(mutex_);
  cut_ = true;
}

void Request::Item::setFirstLast() {
  MutexLock lock(mutex_);
  firstLast_ = true;
}

bool Request::Item::isFinal() const {
  MutexLock lock(mutex_);
  return final_;
}

void Request::Item::close() {
  MutexLock lock(mutex_);
  closed_ = true;
}

bool Request::Item::closed() const {
  MutexLock lock(mutex_);
  return closed_;
}

std::size_t Request::Item::valueCount() const {
  MutexLock lock(mutex_);
  return values_.size();
}

PinPtr Request::Item::lastValue() const {
  MutexLock lock(mutex_);
  return values_.empty() ? PinPtr() : values_.back();
}

void Request::Item::push_back(const PinPtr& pin) {
  MutexLock lock(mutex_);
  values_.push_back(pin);
}

void Request::Item::push_front(const PinPtr& pin) {
  MutexLock lock(mutex_);
  values_.push_front(pin);
}

void Request::Item::insert(const PinPtr& pin, Position before) {
  MutexLock lock(mutex_);
  values_.insert(before, pin);
}

Request::Item::Position Request::Item::begin() {
  MutexLock lock(mutex_);
  return values_.begin();
}

Request::Item::Position Request::Item::end() {
  MutexLock lock(mutex_);
  return values_.end();
}

void Request::Item::append(const PinPtr* first, std::size_t count) {
  // Samples of one block lie scattered in memory and each is touched to count the reference:
  // asking for them ahead hides most of the wait.
  constexpr std::size_t kAhead = 12;
  MutexLock lock(mutex_);
  for (std::size_t i = 0; i < count; ++i) {
    if (i + kAhead < count) __builtin_prefetch(first[i + kAhead].get(), 1);
    values_.push_back(first[i]);
  }
}

void Request::Item::appendResampled(const PinList& samples) {
  MutexLock lock(mutex_);
  Sampling(resampleInterval, values_, values_.end())
      .insert(samples, resampleInterval, values_.end());
}

std::uint32_t Request::Item::availableSpace() const {
  MutexLock lock(mutex_);
  if (numValuesPerNode == 0) return 0xFFFFFFFF;
  if (!intervals_.empty()) {
    const Interval& first = *intervals_.front();
    if (!first.resamples(*this)) return numValuesPerNode;
    const std::uint64_t reached = first.positionInItem(*this);
    return reached < numValuesPerNode ? numValuesPerNode - static_cast<std::uint32_t>(reached) : 0;
  }
  if (values_.size() >= numValuesPerNode) return 0;
  return static_cast<std::uint32_t>(values_.size()) - numValuesPerNode;
}

SharedInterval Request::Item::open(std::int32_t layer, std::int64_t start, std::int64_t end,
                                   Sink sink) {
  std::uint32_t index = 0;
  {
    MutexLock lock(mutex_);
    index = static_cast<std::uint32_t>(intervals_.size());
  }
  // An interval that ends unfinished, as it does when memory runs out here, takes the mutex.
  SharedInterval interval(new Interval(weak_from_this(), index, layer, start, end, cacheId, sink));
  // Weakly: the item owns the interval.
  interval->addListner([item = weak_from_this()](const SharedInterval& done) {
    if (const SharedItem owner = item.lock()) owner->intervalComplite(done);
  });
  MutexLock lock(mutex_);
  if (!values_.empty()) {
    interval->hint_ = std::prev(values_.end());
    interval->anchored_ = true;
  }
  intervals_.push_back(interval);
  return interval;
}

SharedInterval Request::Item::createInterval(std::int32_t layer, std::int64_t start,
                                             std::int64_t end) {
  return open(layer, start, end, Sink::place);
}

SharedInterval Request::Item::addInterval(std::int32_t layer, std::int64_t start,
                                          std::int64_t end) {
  return createInterval(layer, start, end);
}

SharedInterval Request::Item::addBotInterval(std::int32_t layer, std::int64_t start,
                                             std::int64_t end) {
  return open(layer, start, end, Sink::front);
}

SharedInterval Request::Item::addTopInterval(std::int32_t layer, std::int64_t start,
                                             std::int64_t end) {
  return open(layer, start, end, Sink::back);
}

std::vector<SharedInterval> Request::Item::openIntervals() const {
  MutexLock lock(mutex_);
  return intervals_;
}

bool Request::Item::remove(const Interval* interval) {
  SharedInterval removed;  // dies after the mutex is released
  MutexLock lock(mutex_);
  const auto found = std::find_if(intervals_.begin(), intervals_.end(),
                                  [interval](const auto& open) { return open.get() == interval; });
  if (found == intervals_.end()) return false;
  removed = *found;
  intervals_.erase(found);
  return intervals_.empty();
}

void Request::Item::intervalComplite(const SharedInterval& interval) {
  if (!interval) return;
  const SharedItem self = shared_from_this();
  if (remove(interval.get())) finalize();
}

void Request::Item::dropRepeatedLast() {
  if (!firstLast_ || values_.size() != 2) return;
  const Pin& first = *values_.front();
  const Pin& last = *values_.back();
  if (first.time == last.time && first.value.IsEqual(last.value)) values_.pop_back();
}

void Request::Item::finalize() {
  const SharedRequest owner = request.lock();
  const bool archivesEnd = owner && owner->archivesEnd();
  {
    MutexLock lock(mutex_);
    // A closed item stays as the reader that gave up found it.
    if (!takesValues()) return;
    final_ = true;
    if (archivesEnd && failure_ == status::kGood) failure_ = status::kBadDataUnavailable;
    dropRepeatedLast();
    continuationPoint_.reset();
    status_ = status::kGood;
    if (numValuesPerNode != 0 && values_.size() > numValuesPerNode) {
      status_ = status::kGoodMoreData;
      values_.resize(numValuesPerNode);
      continuationPoint_ = nextTick(values_.back()->time);
    }
    counters.valuesReturned.add(values_.size());
  }
  if (owner) owner->finalizeItem(cacheId);
}

}  // namespace orva::archive
