#include "orva_database/layer.h"

#include <algorithm>
#include <iterator>

#include "host/host_time.h"

namespace orva::cache {

namespace {
// Entries looked at for each that comes. Of those whose blocks are gone, a third as many as of the
// others stay, about.
constexpr std::size_t kSweptPerBlock = 4;

// Puts an entry into the map; a live block that is there under its key stays. Needs no memory.
template <class Blocks, class Live>
typename Blocks::iterator enter(Blocks& blocks, typename Blocks::node_type entry,
                                const Live& live) {
  const auto known = blocks.find(entry.key());
  if (known == blocks.end()) return blocks.insert(std::move(entry));
  if (live(known->second)) {
    entry.mapped().entered = false;
    return blocks.insert(std::move(entry));
  }
  known->second = std::move(entry.mapped());
  return known;
}
}  // namespace

Layer::Limits Layer::limits;
boost::shared_ptr<BlockStorage> Layer::storage = BlockStorage::make(Layer::kStorageBlocks);

Layer::Layer() : lastEntry_(blocks_.end()), inbox_(boost::make_shared<Inbox>()) {}

Layer::~Layer() = default;

// ---- set up

void Layer::init(const vm::Layer& description, archive::ILayerWriter& writer) {
  flush();
  resampler_.reset();
  inbox_ = boost::make_shared<Inbox>();  // what the layer asked for until now comes to nothing
  blocks_.clear();
  lastEntry_ = blocks_.end();
  last_.reset();
  layer_ = static_cast<std::uint32_t>(description.number);
  cached_ = description.cache;
  if (cached_) baseInit();
  writer_ = &writer;
  if (description.resampleInterval > archive::Sampling::kOffUpTo) {
    resampler_ = std::make_unique<archive::Sampling>(description.resampleInterval, resampled_,
                                                     resampled_.end());
  }
}

void Layer::baseInit() {
  reserved_ = 0;
  last_ = storage->make_new();
  blocks_.emplace(0, Entry());  // nothing before the first block is known
  set_last(last_);
}

void Layer::set_last(const BlockPtr& block) {
  // Key 0 is the lower end of the map, so a clock that stands there counts as one tick later.
  const std::int64_t key =
      block->empty() ? std::max<std::int64_t>(getInt64FileTime(), 1) : block->firstTime();
  Blocks made;
  made.emplace(key, Entry())->second.block = block;
  lastEntry_ = enter(blocks_, made.extract(made.begin()), &Layer::live);
}

// ---- the entries as a reader sees them

Layer::BlockPtr Layer::live(const Entry& entry) {
  BlockPtr block = entry.block.lock();
  if (block && block->empty()) block.reset();
  return block;
}

Layer::Iter Layer::skipEmptyLast(Iter it) {
  if (it != blocks_.end() && it == lastEntry_ && last_->empty()) ++it;
  return it;
}

bool Layer::previous(Iter& it) {
  Iter at = it;
  do {
    if (at == blocks_.begin()) return false;
    --at;
  } while (at == lastEntry_ && last_->empty());
  it = at;
  return true;
}

Layer::Iter Layer::atOrBefore(std::int64_t time) {
  Iter it = blocks_.upper_bound(time);
  return previous(it) ? it : blocks_.end();
}

Layer::Iter Layer::before(std::int64_t time) {
  Iter it = blocks_.lower_bound(time);
  return previous(it) ? it : blocks_.end();
}

void Layer::clearInterval(Iter& position) {
  const Iter removed = position;
  position = next(position);
  if (position != blocks_.end()) position->second.joined = false;
  if (removed == lastEntry_) return;
  if (removed->first == 0) {
    removed->second.block.reset();
  } else {
    blocks_.erase(removed);
  }
}

void Layer::sweep(std::size_t entries) {
  Iter at = blocks_.upper_bound(sweptTo_);
  for (; entries > 0; --entries) {
    if (at == blocks_.end()) at = blocks_.upper_bound(0);  // the entry of key 0 stays
    if (at == blocks_.end()) return;
    sweptTo_ = at->first;
    if (at == lastEntry_ || live(at->second)) {
      ++at;
    } else {
      clearInterval(at);
    }
  }
}

PinPtr Layer::oldest() const {
  for (const auto& [key, entry] : blocks_) {
    if (const BlockPtr block = live(entry)) return *block->begin();
  }
  return {};
}

// ---- new samples

Layer& Layer::operator<<(const PinPtr& sample) {
  if (resampler_) {
    resampler_->push(sample);
    emitResampled();
  } else {
    emit(sample);
  }
  return *this;
}

void Layer::flush() {
  if (!resampler_) return;
  resampler_->flush();
  emitResampled();
}

// A sample that is in the cache is not met here again, also when its archive throws.
void Layer::emitResampled() {
  while (!resampled_.empty()) {
    const PinPtr sample = resampled_.front();
    if (cached_) append(sample);
    resampled_.pop_front();
    writer_->write(sample);
  }
}

void Layer::emit(const PinPtr& sample) {
  if (cached_) append(sample);
  writer_->write(sample);
}

void Layer::append(const PinPtr& sample) {
  if (last_->empty()) {
    appendFirst(sample);
  } else if (hasRoom(*last_)) {
    last_->push(sample);
  } else {
    openBlock(sample);
  }
}

// The block being appended to is full. Its entry, unless it never got into the map, is the
// neighbour of the new one, and no sample lies between. What needs memory comes first.
void Layer::openBlock(const PinPtr& sample) {
  const BlockPtr block = storage->make_new();
  block->push(sample);
  Blocks made;
  made.emplace(sample->time, Entry())->second.block = block;
  const bool sameTime = last_->lastTime() == sample->time;
  const bool wasEntered = lastEntry_->second.entered;
  lastEntry_->second.openRight = sameTime;
  if (!wasEntered) blocks_.erase(lastEntry_);
  last_ = block;
  // An expired entry under this key may be the very one this would be joined to.
  const Iter known = blocks_.find(sample->time);
  const bool replaces = known != blocks_.end() && !live(known->second);
  lastEntry_ = enter(blocks_, made.extract(made.begin()), &Layer::live);
  lastEntry_->second.joined = wasEntered && !replaces;
  lastEntry_->second.openLeft = sameTime;
  sweep(kSweptPerBlock);
}

// The first sample of a layer: its block leaves the key it had while empty. From this sample on
// only what is appended counts, so whatever reaches past it leaves the map.
void Layer::appendFirst(const PinPtr& sample) {
  last_->push(sample);  // without the memory for it nothing has happened
  Blocks::node_type entry = blocks_.extract(lastEntry_);
  entry.key() = sample->time;
  entry.mapped() = Entry();
  entry.mapped().block = last_;
  dropEntriesBeyond(sample->time);
  lastEntry_ = enter(blocks_, std::move(entry), &Layer::live);
  lastEntry_->second.openLeft = sample->time > 0;  // the archive may hold more of this time
}

void Layer::dropEntriesBeyond(std::int64_t time) {
  for (Iter it = blocks_.begin(); it != blocks_.end();) {
    const BlockPtr block = live(it->second);
    const std::int64_t reaches = block ? block->lastTime() : it->first;
    if (block && reaches == time) it->second.openRight = true;
    if (reaches <= time) {
      ++it;
    } else if (it->first == 0) {
      it->second.block.reset();
      ++it;
    } else {
      it = blocks_.erase(it);
    }
  }
}

// ---- taking in answers

void Layer::drain() {
  for (const Inbox::Answer& answer : inbox_->take()) {
    take(answer);
    sweep(kSweptPerBlock * (1 + answer.interval->buffer().size() / limits.blockSamples));
  }
}

void Layer::insert(const archive::SharedInterval& interval) {
  Inbox::Answer answer;
  answer.interval = interval;
  if (cached_ && !last_->empty()) answer.newestThen = last_->lastTime();
  answer.lastThen = last_;
  answer.wanted = interval->wanted();
  take(answer);
}

std::vector<Layer::BlockInfo> Layer::describe() const {
  std::vector<BlockInfo> all;
  for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
    const Entry& e = it->second;
    const bool isLast = Blocks::const_iterator(lastEntry_) == it;
    BlockInfo info{it->first, {}, e.joined, e.openLeft, e.openRight, e.entered, isLast};
    if (const BlockPtr block = live(e)) info.samples.assign(block->begin(), block->end());
    all.push_back(std::move(info));
  }
  return all;
}

}  // namespace orva::cache
