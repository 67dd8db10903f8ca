#include "orva_database/sampling.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

namespace orva::archive {

namespace {

constexpr std::int64_t kBatchOffUpTo = 1'000;  // ticks
constexpr std::size_t kBatchMinimum = 3;       // samples
constexpr double kNone = std::numeric_limits<double>::quiet_NaN();

// The value as a number, NaN when it is none.
double numberOf(const Pin& pin) {
  double number = kNone;
  return pin.value.GetDouble(number) ? number : kNone;
}

// Whether the value's type is one that is never read as a number; a NaN is no such value.
bool isOther(const Pin& pin) {
  double ignored = 0;
  return !pin.value.GetDouble(ignored);
}

bool differs(const Pin* before, const Pin& pin) {
  return before == nullptr || !before->value.IsEqual(pin.value);
}

// The places of the smallest and the largest value in [first, last). The first sample starts as
// both; a sample is looked at as a new maximum only when it is no new minimum.
std::pair<std::size_t, std::size_t> extremes(const std::vector<PinPtr>& samples, std::size_t first,
                                             std::size_t last) {
  std::size_t minimum = first;
  std::size_t maximum = first;
  double smallest = numberOf(*samples[first]);
  double largest = smallest;
  for (std::size_t i = first + 1; i < last; ++i) {
    const double number = numberOf(*samples[i]);
    if (std::isnan(number)) continue;
    if (std::isnan(smallest)) {
      minimum = maximum = i;
      smallest = largest = number;
    } else if (number < smallest) {
      minimum = i;
      smallest = number;
    } else if (number > largest) {
      maximum = i;
      largest = number;
    }
  }
  return {minimum, maximum};
}

// Moves what the period [first, last) keeps to `kept` and behind; the next free place.
std::size_t keepPeriod(std::vector<PinPtr>& samples, std::size_t first, std::size_t last,
                       std::size_t kept) {
  const auto [minimum, maximum] = extremes(samples, first, last);
  PinPtr lastOther;
  for (std::size_t i = first; i < last; ++i) {
    const bool other = isOther(*samples[i]) && differs(lastOther.get(), *samples[i]);
    if (other) lastOther = samples[i];
    if (other || i == minimum || i == maximum) {
      if (kept != i) samples[kept] = std::move(samples[i]);
      ++kept;
    }
  }
  return kept;
}

}  // namespace

Sampling::Sampling(std::int64_t interval, PinList& queue, PinList::iterator /*position*/)
    : interval_(interval > kOffUpTo ? interval : 0), queue_(queue) {}

Sampling::~Sampling() = default;

// Rounded down, so that periods before time 0 are as long as all others.
std::int64_t Sampling::periodOf(std::int64_t time, std::int64_t interval) {
  const std::int64_t quotient = time / interval;
  return time % interval < 0 ? quotient - 1 : quotient;
}

void Sampling::push(const PinPtr& sample) {
  if (interval_ == 0) {
    queue_.push_back(sample);
  } else if (!open_ || periodOf(sample->time, interval_) > period_) {
    beginPeriod(sample);
  } else {
    select(sample);
  }
}

void Sampling::beginPeriod(const PinPtr& sample) {
  flush();
  queue_.push_back(sample);
  open_ = true;
  period_ = periodOf(sample->time, interval_);
  places_ = emitted_ = 1;
  minimum_ = maximum_ = Selected{sample, 1};
  smallest_ = largest_ = numberOf(*sample);
  lastOther_ = isOther(*sample) ? sample : nullptr;
}

void Sampling::select(const PinPtr& sample) {
  const Selected selected{sample, ++places_};
  double number = kNone;
  if (sample->value.GetDouble(number)) {
    selectNumber(selected, number);
  } else if (differs(lastOther_.get(), *sample)) {
    lastOther_ = sample;
    others_.push_back(selected);
  }
}

void Sampling::selectNumber(const Selected& sample, double number) {
  if (std::isnan(number)) return;
  if (std::isnan(smallest_)) {
    minimum_ = maximum_ = sample;
    smallest_ = largest_ = number;
  } else if (number < smallest_) {
    minimum_ = sample;
    smallest_ = number;
  } else if (number > largest_) {
    maximum_ = sample;
    largest_ = number;
  }
}

void Sampling::flush() {
  std::vector<Selected> selection = std::move(others_);
  others_.clear();
  if (minimum_.place > emitted_) selection.push_back(minimum_);
  if (maximum_.place > emitted_ && maximum_.place != minimum_.place) selection.push_back(maximum_);
  std::sort(selection.begin(), selection.end(), [](const Selected& a, const Selected& b) {
    return a.pin->time != b.pin->time ? a.pin->time < b.pin->time : a.place < b.place;
  });
  for (Selected& selected : selection) queue_.push_back(std::move(selected.pin));
  emitted_ = places_;
}

void Sampling::erase() {
  open_ = false;
  if (minimum_.place <= emitted_) minimum_ = Selected{};
  if (maximum_.place <= emitted_) maximum_ = Selected{};
  if (others_.empty()) lastOther_ = nullptr;
}

void Sampling::insert(const PinList& samples, std::int64_t interval, PinList::iterator position) {
  PinList reduced(queue_.get_allocator());  // the queue's allocator, or splice() could not
  Sampling sampling(interval, reduced, reduced.end());
  for (const PinPtr& sample : samples) sampling.push(sample);
  sampling.flush();
  queue_.splice(position, reduced);
}

void Sampling::sampl(std::vector<PinPtr>& samples, std::int64_t interval) {
  if (samples.size() < kBatchMinimum || interval <= kBatchOffUpTo) return;
  std::size_t kept = 0;
  std::size_t first = 0;
  while (first < samples.size()) {
    const std::int64_t period = periodOf(samples[first]->time, interval);
    std::size_t last = first + 1;
    while (last < samples.size() && periodOf(samples[last]->time, interval) == period) ++last;
    kept = keepPeriod(samples, first, last, kept);
    first = last;
  }
  samples.resize(kept);
}

}  // namespace orva::archive
