#include "orva_store/layer_filler.h"

#include <algorithm>

#include "orva_database/sampling.h"
#include "share/ticks.h"

namespace orva::store {
namespace {

using archive::Sampling;

// Periods with samples are filled together when no more than this lies between them.
constexpr std::int64_t kCloseBy = 16;
// So many periods at a time, which bounds the memory.
constexpr std::int64_t kMostPeriods = 10'000;

// A layer without resampling takes everything; its periods are only stretches to look at.
std::int64_t periodTicks(const LayerTarget& target) {
  return target.interval > Sampling::kOffUpTo ? target.interval : kTicksPerMinute;
}

bool holdsTheSame(const sqlite::Columns& a, const sqlite::Columns& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (!isSameSample(a, i, b, i)) return false;
  }
  return true;
}

}  // namespace

std::vector<LayerFiller::Periods> LayerFiller::periodsOf(const std::vector<std::int64_t>& times,
                                                         const LayerTarget& target) {
  std::vector<Periods> all;
  for (const std::int64_t time : times) {
    const std::int64_t period = Sampling::periodOf(time, periodTicks(target));
    if (all.empty() || period - all.back().second > kCloseBy) {
      all.emplace_back(period, period);
    } else {
      all.back().second = period;
    }
  }
  return all;
}

void LayerFiller::fill(StoreWriter& source, const sqlite::StreamKey& layer0, LayerTarget& target,
                       const std::vector<std::int64_t>& times) {
  if (times.empty()) return;
  const std::int64_t newest = Sampling::periodOf(times.back(), periodTicks(target));
  if (target.pending && *target.pending < newest) finish(source, layer0, target);
  if (!target.pending) target.pending = newest;
  for (Periods& periods : periodsOf(times, target)) {
    periods.second = std::min(periods.second, *target.pending - 1);
    fillPeriods(source, layer0, target, periods);
  }
}

void LayerFiller::finish(StoreWriter& source, const sqlite::StreamKey& layer0,
                         LayerTarget& target) {
  if (!target.pending) return;
  fillPeriods(source, layer0, target, {*target.pending, *target.pending});
  target.pending.reset();
}

void LayerFiller::fillPeriods(StoreWriter& source, const sqlite::StreamKey& layer0,
                              LayerTarget& target, Periods periods) {
  const std::int64_t ticks = periodTicks(target);
  for (std::int64_t first = periods.first; first <= periods.second; first += kMostPeriods) {
    const std::int64_t last = std::min(periods.second, first + kMostPeriods - 1);
    const bool isLatest = last >= sqlite::kLatest / ticks;
    fillStretch(source, layer0, target, first * ticks,
                isLatest ? sqlite::kLatest : (last + 1) * ticks - 1);
  }
}

void LayerFiller::fillStretch(StoreWriter& source, const sqlite::StreamKey& layer0,
                              LayerTarget& target, std::int64_t from, std::int64_t to) {
  held_.clear();
  if (target.stream->stored.meets(from, to)) {
    StretchReader(*target.store)
        .read(fileKey(*target.stream), from, to,
              [this](const sqlite::Columns& samples, std::size_t begin, std::size_t end) {
                held_.append(samples, begin, end);
              });
  }
  PinList pins;
  resample(source, layer0, target, from, to, pins);
  sqlite::Columns made;
  for (const PinPtr& pin : pins) made.add(*pin);
  if (made.empty() || holdsTheSame(made, held_)) return;
  target.store->makeRow(*target.stream);
  target.store->segments().replace(*target.stream, from, to, made);
  target.stream->stored.extend(made.times.front(), made.times.back());
  if (made.size() > held_.size()) target.written += made.size() - held_.size();
}

void LayerFiller::resample(StoreWriter& source, const sqlite::StreamKey& layer0,
                           const LayerTarget& target, std::int64_t from, std::int64_t to,
                           PinList& out) {
  Sampling sampling(target.interval, out, out.end());
  isInLayer0_.assign(held_.size(), false);
  std::size_t at = 0;  // in what the layer holds
  const auto pushHeldBefore = [&](std::int64_t time) {
    for (; at < held_.size() && held_.times[at] < time; ++at) {
      if (!isInLayer0_[at]) sampling.push(held_.pin(at));
    }
  };
  StretchReader(source).read(
      layer0, from, to, [&](const sqlite::Columns& samples, std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
          pushHeldBefore(samples.times[i]);
          for (std::size_t k = at; k < held_.size() && held_.times[k] == samples.times[i]; ++k) {
            if (isSameSample(held_, k, samples, i)) isInLayer0_[k] = true;
          }
          sampling.push(samples.pin(i));
        }
      });
  for (; at < held_.size(); ++at) {
    if (!isInLayer0_[at]) sampling.push(held_.pin(at));
  }
  sampling.flush();
}

}  // namespace orva::store
