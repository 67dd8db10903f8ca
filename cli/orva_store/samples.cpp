#include "orva_store/samples.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <tuple>

namespace orva::store {
namespace {

using sqlite::Columns;

bool isText(std::uint32_t type) { return type == OpcUaType_String || type == OpcUaType_Json; }

constexpr std::uint64_t kNan = ~std::uint64_t{0};

// The bits by which values of one type are told apart.
std::uint64_t identity(std::uint32_t type, std::uint64_t bits) {
  if (type == OpcUaType_Double) {
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    return std::isnan(number) ? kNan : bits;
  }
  if (type == OpcUaType_Float) {
    const auto low = static_cast<std::uint32_t>(bits);
    float number = 0;
    std::memcpy(&number, &low, sizeof number);
    return std::isnan(number) ? kNan : bits;
  }
  return bits;
}

std::string_view textOf(const Columns& samples, std::size_t i) {
  const std::uint64_t bits = samples.values[i];
  return bits == 0 ? std::string_view() : samples.texts[static_cast<std::size_t>(bits - 1)];
}

// Everything but the time. Only for samples of one `Columns`.
bool isLess(const Columns& samples, std::size_t i, std::size_t j) {
  const std::uint32_t type = samples.types[i];
  const auto left = std::tie(samples.qualities[i], type);
  const auto right = std::tie(samples.qualities[j], samples.types[j]);
  if (left != right) return left < right;
  if (isText(type)) return textOf(samples, i) < textOf(samples, j);
  return identity(type, samples.values[i]) < identity(type, samples.values[j]);
}

void markRepeatedOfOneTime(const Columns& samples, std::size_t begin, std::size_t end,
                           std::vector<bool>& marks) {
  std::vector<std::size_t> order(end - begin);
  std::iota(order.begin(), order.end(), begin);
  std::stable_sort(order.begin(), order.end(),
                   [&samples](std::size_t i, std::size_t j) { return isLess(samples, i, j); });
  for (std::size_t i = 1; i < order.size(); ++i) {
    if (!isLess(samples, order[i - 1], order[i])) marks[order[i]] = true;
  }
}

template <class T>
void dropFrom(std::vector<T>& column, const std::vector<bool>& marks) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < column.size(); ++i) {
    if (!marks[i]) column[kept++] = column[i];
  }
  column.resize(kept);
}

}  // namespace

bool isSameSample(const Columns& a, std::size_t i, const Columns& b, std::size_t j) {
  if (a.times[i] != b.times[j] || a.qualities[i] != b.qualities[j] || a.types[i] != b.types[j]) {
    return false;
  }
  const std::uint32_t type = a.types[i];
  if (isText(type)) return textOf(a, i) == textOf(b, j);
  return identity(type, a.values[i]) == identity(type, b.values[j]);
}

void markRepeated(const Columns& samples, std::vector<bool>& marks) {
  std::size_t end = 0;
  for (std::size_t begin = 0; begin < samples.size(); begin = end) {
    end = begin + 1;
    while (end < samples.size() && samples.times[end] == samples.times[begin]) ++end;
    if (end - begin > 1) markRepeatedOfOneTime(samples, begin, end, marks);
  }
}

void dropMarked(Columns& samples, const std::vector<bool>& marks) {
  if (std::find(marks.begin(), marks.end(), true) == marks.end()) return;
  dropFrom(samples.qualities, marks);
  dropFrom(samples.types, marks);
  dropFrom(samples.values, marks);
  dropFrom(samples.times, marks);
}

bool StretchReader::load(const sqlite::SegmentTable::Cursor& cursor) {
  if (cursor.decode(store_.store().decoder(), loaded_) == sqlite::Decoded::kGood) return true;
  store_.noteDamaged(cursor.segment());
  return false;
}

// From sample `at` on, with the segment just loaded; the first sample that is as new as its newest.
std::size_t StretchReader::markSegment(const Columns& samples, std::size_t at,
                                       std::vector<bool>& marks) const {
  for (std::size_t j = 0; j < loaded_.size() && at < samples.size(); ++j) {
    while (at < samples.size() && samples.times[at] < loaded_.times[j]) ++at;
    for (std::size_t i = at; i < samples.size() && samples.times[i] == loaded_.times[j]; ++i) {
      if (!marks[i] && isSameSample(samples, i, loaded_, j)) marks[i] = true;
    }
  }
  return at;
}

void StretchReader::markStored(const sqlite::StreamKey& key, const Columns& samples,
                               std::vector<bool>& marks) {
  sqlite::SegmentTable& segments = store_.store().segments();
  std::size_t at = 0;
  bool isDone = samples.empty();
  while (!isDone) {
    isDone = true;
    const std::int64_t start = samples.times[at];
    sqlite::SegmentTable::Cursor cursor = segments.forward(key, segments.beginFor(key, start));
    while (cursor.next()) {
      const sqlite::Segment& segment = cursor.segment();
      const auto next = std::lower_bound(samples.times.begin() + static_cast<std::ptrdiff_t>(at),
                                         samples.times.end(), segment.first);
      at = static_cast<std::size_t>(next - samples.times.begin());
      if (at == samples.size()) break;
      if (samples.times[at] > segment.last) {
        if (samples.times[at] == start) continue;
        isDone = false;  // the next sample may lie far ahead: look there
        break;
      }
      if (!load(cursor)) continue;
      at = markSegment(samples, at, marks);
      if (at == samples.size()) break;
    }
  }
}

}  // namespace orva::store
