#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "host/pin.h"
#include "orva_sqlite/byte_stream.h"

namespace orva::sqlite {

// A text longer than this is refused; segments then have a bounded size.
constexpr std::uint32_t kMaxText = std::uint32_t{16} << 20;

// Whether an archive keeps this value: null, or a scalar of type 1 to 13 or 26 that is not too
// long. A DataValue is not one, what it holds may be.
bool isStorable(const OpcUa_VariantHlp& value);

// Samples column by column: how segments hold them, and how they are merged and cut. The order of
// samples with equal times is their order of arrival.
//
// Texts are not copied: they belong to the pins that were added or to the heaps in `owned`.
struct Columns {
  std::vector<std::int64_t> times;
  std::vector<std::uint32_t> qualities;
  std::vector<std::uint32_t> types;
  // Raw bits; signed integers with their sign extended. A text's is 0, or 1 + its index in texts.
  std::vector<std::uint64_t> values;
  std::vector<std::string_view> texts;
  std::vector<std::shared_ptr<const Bytes>> owned;

  std::size_t size() const { return times.size(); }
  bool empty() const { return times.empty(); }
  void clear();

  // The pin must hold a storable value, and live as long as its text is needed.
  void add(const Pin& pin);
  // The samples [from, to) of `other`.
  void append(const Columns& other, std::size_t from, std::size_t to);
  // Puts the samples into ascending time, equal times in the order in which they stand.
  void sortByTime();
  // The end of the longest stretch from `from` on that may be one segment: 1000 samples, 256 KiB of
  // text; always one sample at least.
  std::size_t segmentEnd(std::size_t from) const;

  PinPtr pin(std::size_t index) const;
};

// Segments are cut at these.
constexpr std::size_t kSegmentSamples = 1000;
constexpr std::size_t kSegmentText = std::size_t{256} << 10;

}  // namespace orva::sqlite
