#include "orva_host/history_points.h"

#include <algorithm>

namespace orva::host {
namespace {

void addUnlessThere(const std::optional<HistoryPoint>& point, std::vector<HistoryPoint>& out,
                    std::size_t from) {
  if (!point) return;
  const auto isSame = [&point](const HistoryPoint& other) {
    return other.timeMs == point->timeMs && other.value == point->value;
  };
  if (std::none_of(out.begin() + static_cast<std::ptrdiff_t>(from), out.end(), isSame)) {
    out.push_back(*point);
  }
}

}  // namespace

HistoryPoints::HistoryPoints(std::int64_t fromMs, std::int64_t toMs, std::size_t most)
    : from_(fromMs), to_(std::max(toMs, fromMs + 1)), most_(std::max(most, kFewest)) {}

void HistoryPoints::add(HistoryPoint point) {
  if (!stretches_.empty()) return put(std::move(point));
  all_.push_back(std::move(point));
  if (all_.size() > most_) cutInto(std::max<std::size_t>(most_ / 2, 1));
}

// Goes on with so many stretches, and what there is goes into them.
void HistoryPoints::cutInto(std::size_t stretches) {
  stretches_.assign(stretches, {});
  for (HistoryPoint& point : all_) put(std::move(point));
  all_.clear();
}

void HistoryPoints::put(HistoryPoint point) {
  const double part = static_cast<double>(point.timeMs - from_) / static_cast<double>(to_ - from_);
  const double place = std::clamp(part, 0.0, 1.0) * static_cast<double>(stretches_.size());
  Stretch& in = stretches_[std::min(static_cast<std::size_t>(place), stretches_.size() - 1)];
  if (!point.isDrawn()) {
    if (!in.firstBroken) in.firstBroken = point;
  } else {
    if (!in.least || *point.number < *in.least->number) in.least = point;
    if (!in.greatest || *point.number > *in.greatest->number) in.greatest = point;
  }
  in.last = std::move(point);
}

std::vector<HistoryPoint> HistoryPoints::kept() const {
  std::vector<HistoryPoint> points;
  for (const Stretch& stretch : stretches_) {
    const std::size_t begin = points.size();
    if (stretch.least) {
      addUnlessThere(stretch.least, points, begin);
      addUnlessThere(stretch.greatest, points, begin);
    } else {
      addUnlessThere(stretch.firstBroken, points, begin);
    }
    if (stretch.last && !stretch.last->isDrawn()) addUnlessThere(stretch.last, points, begin);
    std::stable_sort(points.begin() + static_cast<std::ptrdiff_t>(begin), points.end(),
                     [](const auto& a, const auto& b) { return a.timeMs < b.timeMs; });
  }
  return points;
}

std::vector<HistoryPoint> HistoryPoints::take() {
  if (stretches_.empty()) return std::move(all_);
  std::vector<HistoryPoint> points = kept();
  if (points.size() <= most_) return points;
  // Three of each stretch at most: wider ones have room for all.
  all_ = std::move(points);
  cutInto(std::max<std::size_t>(most_ / 3, 1));
  return kept();
}

}  // namespace orva::host
