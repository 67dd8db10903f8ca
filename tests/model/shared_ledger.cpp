#include "model/shared_ledger.h"

#include <algorithm>

namespace orva::model {

std::vector<SharedLedger::Entry>::const_iterator SharedLedger::notBelow(std::int64_t time) const {
  return std::lower_bound(entries_.begin(), entries_.end(), time,
                          [](const Entry& e, std::int64_t t) { return e.sample.time < t; });
}

void SharedLedger::offer(const Sample& sample) {
  MutexLock lock(mutex_);
  entries_.insert(notBelow(sample.time), Entry{sample});
}

void SharedLedger::accepted(const Sample& sample) {
  MutexLock lock(mutex_);
  const auto place = entries_.begin() + (notBelow(sample.time) - entries_.cbegin());
  place->number = accepted_++;
}

std::size_t SharedLedger::acceptedCount() const {
  MutexLock lock(mutex_);
  return accepted_;
}

std::size_t SharedLedger::offeredCount() const {
  MutexLock lock(mutex_);
  return entries_.size();
}

std::string SharedLedger::compare(const Reading& reading, std::size_t before) const {
  const std::vector<Sample>& got = reading.samples;
  MutexLock lock(mutex_);
  for (std::size_t i = 0; i < got.size(); ++i) {
    if (i > 0 && got[i].time == got[i - 1].time) return "twice: " + text(got[i]);
    if (i > 0 && got[i].time < got[i - 1].time) return "not in order: " + text(got[i]);
    const auto place = notBelow(got[i].time);
    if (place == entries_.end() || place->sample != got[i]) return "unknown: " + text(got[i]);
    if (got[i].time < reading.from || (reading.to != 0 && got[i].time > reading.to)) {
      return "outside the range: " + text(got[i]);
    }
  }
  return reading.whole ? missing(reading, before) : "";
}

std::string SharedLedger::missing(const Reading& reading, std::size_t before) const {
  auto got = reading.samples.begin();
  const auto end = reading.samples.end();
  if (reading.more && got == end) return "";
  for (auto place = notBelow(reading.from); place != entries_.end(); ++place) {
    const Sample& sample = place->sample;
    if (reading.to != 0 && sample.time > reading.to) break;
    if (reading.more && sample.time >= reading.samples.back().time) break;
    while (got != end && got->time < sample.time) ++got;
    if (place->number >= before) continue;
    if (got == end || *got != sample) {
      return "missing: " + text(sample) + ", accepted as number " + std::to_string(place->number) +
             " of " + std::to_string(before) + ", " + std::to_string(reading.samples.size()) +
             " samples read";
    }
  }
  return "";
}

}  // namespace orva::model
