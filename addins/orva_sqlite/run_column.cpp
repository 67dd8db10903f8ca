#include "orva_sqlite/run_column.h"

#include <algorithm>

namespace orva::sqlite {

void RunEncoder::put(ByteWriter& out, const std::vector<std::uint32_t>& values,
                     IntegerEncoder& integers) {
  different_.clear();
  indexes_.clear();
  lengths_.clear();
  for (std::size_t i = 0; i < values.size();) {
    std::size_t end = i + 1;
    while (end < values.size() && values[end] == values[i]) ++end;
    auto known = std::find(different_.begin(), different_.end(), values[i]);
    if (known == different_.end()) known = different_.insert(known, values[i]);
    indexes_.push_back(known - different_.begin());
    lengths_.push_back(static_cast<std::int64_t>(end - i));
    i = end;
  }
  out.varint(different_.size());
  for (const std::uint32_t value : different_) out.varint(value);
  if (different_.size() < 2) return;
  out.varint(lengths_.size());
  integers.put(out, indexes_.data(), indexes_.size(), Orders::kToFirst);
  integers.put(out, lengths_.data(), lengths_.size(), Orders::kToFirst);
}

void getRuns(ByteReader& in, std::vector<std::uint32_t>& values) {
  std::vector<std::uint32_t> different(in.count(values.size()));
  for (std::uint32_t& value : different) {
    const std::uint64_t stored = in.varint();
    if (stored > UINT32_MAX) in.fail();
    value = static_cast<std::uint32_t>(stored);
  }
  if (in.failed() || different.empty()) return in.fail();
  if (different.size() == 1) {
    std::fill(values.begin(), values.end(), different.front());
    return;
  }
  const std::size_t runs = in.count(values.size());
  std::vector<std::int64_t> indexes(runs);
  std::vector<std::int64_t> lengths(runs);
  getIntegers(in, indexes.data(), runs);
  getIntegers(in, lengths.data(), runs);
  if (in.failed()) return;
  auto at = values.begin();
  for (std::size_t i = 0; i < runs; ++i) {
    const bool right = indexes[i] >= 0 &&
                       indexes[i] < static_cast<std::int64_t>(different.size()) && lengths[i] > 0 &&
                       lengths[i] <= values.end() - at;
    if (!right) return in.fail();
    at = std::fill_n(at, lengths[i], different[static_cast<std::size_t>(indexes[i])]);
  }
  if (at != values.end()) in.fail();
}

}  // namespace orva::sqlite
