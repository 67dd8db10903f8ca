#include "orva_sqlite/text_column.h"

namespace orva::sqlite {

// 1 + the place of the text in this column; a new one goes to the heap.
std::int64_t TextEncoder::numberOf(std::string_view text) {
  const auto [at, isNew] = known_.emplace(text, static_cast<std::int64_t>(lengths_.size() + 1));
  if (isNew) {
    lengths_.push_back(static_cast<std::int64_t>(text.size()));
    heap_.insert(heap_.end(), text.begin(), text.end());
  }
  return at->second;
}

void TextEncoder::put(ByteWriter& out, const std::vector<std::string_view>& texts,
                      const std::uint64_t* numbers, std::size_t count, IntegerEncoder& integers,
                      BytesEncoder& bytes) {
  known_.clear();
  lengths_.clear();
  heap_.clear();
  indexes_.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    indexes_[i] = numbers[i] == 0 ? 0 : numberOf(texts[static_cast<std::size_t>(numbers[i] - 1)]);
  }
  out.varint(lengths_.size());
  integers.put(out, lengths_.data(), lengths_.size(), Orders::kToFirst);
  bytes.put(out, heap_.data(), heap_.size());
  integers.put(out, indexes_.data(), count, Orders::kToFirst);
}

void TextDecoder::get(ByteReader& in, std::vector<std::string_view>& texts, Bytes& heap,
                      std::uint64_t* numbers, std::size_t count, BytesDecoder& bytes) {
  const std::size_t different = in.count(count);
  lengths_.resize(different);
  getIntegers(in, lengths_.data(), different);
  bytes.get(in, heap, kMaxTextHeap);
  if (in.failed()) return;
  const std::size_t before = texts.size();
  std::size_t offset = 0;
  for (const std::int64_t length : lengths_) {
    if (length < 0 || static_cast<std::uint64_t>(length) > heap.size() - offset) return in.fail();
    const auto size = static_cast<std::size_t>(length);
    texts.emplace_back(reinterpret_cast<const char*>(heap.data()) + offset, size);
    offset += size;
  }
  if (offset != heap.size()) return in.fail();
  indexes_.resize(count);
  getIntegers(in, indexes_.data(), count);
  if (in.failed()) return;
  for (std::size_t i = 0; i < count; ++i) {
    if (indexes_[i] < 0 || static_cast<std::uint64_t>(indexes_[i]) > different) return in.fail();
    numbers[i] = indexes_[i] == 0 ? 0 : static_cast<std::uint64_t>(indexes_[i]) + before;
  }
}

}  // namespace orva::sqlite
