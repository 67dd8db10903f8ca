#include "orva_store/importer.h"

#include <algorithm>

namespace orva::store {
namespace {

constexpr std::size_t kTextChunk = std::size_t{64} << 10;

bool isText(OpcUa_Byte type) { return type == OpcUaType_String || type == OpcUaType_Json; }

}  // namespace

struct Importer::Item {
  explicit Item(const ItemPlan& itsPlan) : plan(itsPlan) {}

  const ItemPlan& plan;
  archive::ItemKey key;
  sqlite::Stream* stream = nullptr;  // of layer 0; null: its rows are refused
  std::vector<LayerTarget> others;
  sqlite::Columns held;
  PinPtr last;  // that the filter let through
};

Importer::Importer(ImportPlan& plan, const Options& options) : plan_(plan), options_(options) {}

Importer::~Importer() {
  if (!hasBegun_) return;
  for (const auto& store : plan_.stores()) store->rollback();
}

// ---- rows

const char* Importer::take(host::PlantRow& row) {
  Item& item = itemOf(row);
  if (item.stream == nullptr) return item.plan.reason.c_str();
  if (options_.filter && !passesFilter(item, row)) {
    ++counts_.filtered;
    return nullptr;
  }
  add(item, row);
  if (rowsHeld_ >= options_.batchRows || textHeld_ >= options_.batchText) flush(false);
  return nullptr;
}

Importer::Item& Importer::itemOf(const host::PlantRow& row) {
  std::vector<std::unique_ptr<Item>>& sameId = items_[row.id];
  for (const auto& item : sameId) {
    if (item->key.second == row.path) return *item;
  }
  sameId.push_back(makeItem({row.id, row.path}));
  return *sameId.back();
}

std::unique_ptr<Importer::Item> Importer::makeItem(const archive::ItemKey& key) {
  auto item = std::make_unique<Item>(plan_.planOf(key));
  item->key = key;
  if (item->plan.store == nullptr) return item;
  item->stream = &item->plan.store->stream(key, 0);
  for (const ItemPlan::Layer& layer : item->plan.others) {
    LayerTarget target;
    target.store = layer.store;
    target.stream = &layer.store->stream(key, layer.number);
    target.interval = layer.interval;
    item->others.push_back(target);
  }
  return item;
}

// As the service decides, for samples that come in this order.
bool Importer::passesFilter(Item& item, const host::PlantRow& row) {
  // The filter would say so for each of them.
  if (item.last && row.ticks < item.last->time) return false;
  PinPtr sample = makePin(row.ticks, row.value, row.quality);
  if (!item.plan.filter(item.last, sample)) return false;
  item.last = std::move(sample);
  return true;
}

void Importer::add(Item& item, host::PlantRow& row) {
  if (item.held.empty()) waiting_.push_back(&item);
  pin_.time = row.ticks;
  pin_.quality = row.quality;
  pin_.value = std::move(row.value);
  const std::size_t texts = item.held.texts.size();
  item.held.add(pin_);
  if (isText(pin_.value.GetType()) && item.held.texts.size() > texts) {
    item.held.texts.back() = keepText(item.held.texts.back());
  }
  ++rowsHeld_;
}

std::string_view Importer::keepText(std::string_view text) {
  if (texts_.empty() || texts_.back().capacity() - texts_.back().size() < text.size()) {
    texts_.emplace_back();
    texts_.back().reserve(std::max(kTextChunk, text.size()));
  }
  sqlite::Bytes& chunk = texts_.back();
  const std::size_t begin = chunk.size();
  chunk.insert(chunk.end(), text.begin(), text.end());
  textHeld_ += text.size();
  return {reinterpret_cast<const char*>(chunk.data()) + begin, text.size()};
}

// ---- batches

void Importer::finish() {
  if (!isStoring_) flush(true);
}

ImportCounts Importer::result() const {
  ImportCounts counts = counts_;
  counts.stored = atCommit_.stored;
  counts.same = atCommit_.same;
  counts.layers = atCommit_.layers;
  for (const auto& store : plan_.stores()) {
    const DamageMet damage = store->damage();
    counts.damage.stretches += damage.stretches;
    counts.damage.setApart += damage.setApart;
  }
  return counts;
}

void Importer::flush(bool isLast) {
  isStoring_ = true;
  begin();
  for (Item* const item : waiting_) flushItem(*item);
  waiting_.clear();
  if (isLast) {
    for (auto& [id, items] : items_) {
      for (const auto& item : items) {
        for (LayerTarget& target : item->others) {
          filler_.finish(*item->plan.store, fileKey(*item->stream), target);
          counts_.layers[target.stream->layer] += target.written;
          target.written = 0;
        }
      }
    }
  }
  commit(isLast);
  atCommit_ = counts_;
  texts_.clear();
  rowsHeld_ = 0;
  textHeld_ = 0;
  isStoring_ = false;
}

void Importer::begin() {
  if (!hasBegun_) {
    for (const auto& store : plan_.stores()) store->begin();
  }
  hasBegun_ = true;
}

// A dry run is one long transaction, so that it counts what it has stored itself as there.
void Importer::commit(bool isLast) {
  for (const auto& store : plan_.stores()) {
    store->expectFine("writing");
    if (!options_.dryRun) {
      store->commit();
    } else if (isLast) {
      store->rollback();
    }
  }
  hasBegun_ = options_.dryRun && !isLast;
}

void Importer::flushItem(Item& item) {
  item.held.sortByTime();
  const std::vector<std::int64_t> times =
      item.others.empty() ? std::vector<std::int64_t>() : item.held.times;
  store(item);
  for (LayerTarget& target : item.others) {
    filler_.fill(*item.plan.store, fileKey(*item.stream), target, times);
    if (sqlite::SegmentWriter::mayMerge(*target.stream)) {
      target.store->segments().mergeSmall(*target.stream);
    }
  }
  item.held = sqlite::Columns();
}

void Importer::store(Item& item) {
  sqlite::Columns& samples = item.held;
  sqlite::Stream& stream = *item.stream;
  StoreWriter& store = *item.plan.store;
  std::vector<bool> marks(samples.size(), false);
  markRepeated(samples, marks);
  if (stream.stored.meets(samples.times.front(), samples.times.back())) {
    StretchReader(store).markStored(fileKey(stream), samples, marks);
  }
  const std::size_t all = samples.size();
  dropMarked(samples, marks);
  counts_.stored += samples.size();
  counts_.same += all - samples.size();
  if (samples.empty()) return;
  store.makeRow(stream);
  const std::int64_t first = samples.times.front();
  const std::int64_t last = samples.times.back();
  const auto newer =
      stream.stored.empty()
          ? samples.times.begin()
          : std::lower_bound(samples.times.begin(), samples.times.end(), stream.stored.last);
  const auto older = static_cast<std::size_t>(newer - samples.times.begin());
  if (older > 0) {
    sqlite::Columns part;
    part.append(samples, 0, older);
    store.segments().append(stream, part);
  }
  if (older < samples.size()) {
    sqlite::Columns part;
    part.append(samples, older, samples.size());
    store.segments().extend(stream, part);
  }
  stream.stored.extend(first, last);
  if (sqlite::SegmentWriter::mayMerge(stream)) store.segments().mergeSmall(stream);
  store.expectFine("writing");
}

}  // namespace orva::store
