#include "orva_database/cache.h"

#include <vector>

namespace orva::cache {

namespace {
// FNV-1a (Fowler, Noll, Vo), 64 bits: the same on every machine and with every library.
std::uint64_t hashOf(const Cache::Key& key) {
  std::uint64_t hash = 14695981039346656037U;
  const auto add = [&hash](unsigned char byte) { hash = (hash ^ byte) * 1099511628211U; };
  for (int shift = 0; shift < 64; shift += 8) {
    add(static_cast<unsigned char>(static_cast<std::uint64_t>(key.first) >> shift));
  }
  for (const char c : key.second) add(static_cast<unsigned char>(c));
  return hash;
}

void addTo(RuleCounts& sum, const RuleCounts& counts) {
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += counts[i];
}

constexpr std::int64_t kLargestId = 0x7FFFFFFF;  // ids are 1 to this
}  // namespace

std::int64_t Cache::idFor(const Key& key) {
  auto id = static_cast<std::int64_t>(hashOf(key) % static_cast<std::uint64_t>(kLargestId)) + 1;
  for (;;) {
    const auto [given, isNew] = given_.emplace(id, key);
    if (isNew || given->second == key) return id;
    id = id == kLargestId ? 1 : id + 1;
  }
}

boost::shared_ptr<Cache::Pin> Cache::getPin(const Key& key, std::int64_t& id) {
  MutexLock lock(mutex_);
  const auto known = ids_.find(key);
  if (known != ids_.end()) {
    id = known->second;
    return pins_.at(id);
  }
  id = idFor(key);
  boost::shared_ptr<Pin> pin = Pin::make();
  const auto entry = ids_.emplace(key, id).first;
  try {
    pins_.emplace(id, pin);
  } catch (...) {
    ids_.erase(entry);
    throw;
  }
  return pin;
}

boost::shared_ptr<Cache::Pin> Cache::operator[](const std::int64_t& id) const {
  MutexLock lock(mutex_);
  const auto found = pins_.find(id);
  return found == pins_.end() ? boost::shared_ptr<Pin>() : found->second;
}

bool Cache::is_exist(const Key& key) const {
  MutexLock lock(mutex_);
  return ids_.count(key) != 0;
}

std::int64_t Cache::getCacheId(const Key& key) const {
  MutexLock lock(mutex_);
  const auto found = ids_.find(key);
  return found == ids_.end() ? ID_NOT_FOUND : found->second;
}

void Cache::clear() {
  MutexLock lock(mutex_);
  for (const auto& [id, pin] : pins_) {
    pin->stop();
    addTo(forgotten_, pin->ruleCounts());
  }
  pins_.clear();
  ids_.clear();
}

// An item is waited for under its own lock only, lest a long read of it hold up the directory. One
// forgotten meanwhile counts as before: its counts no longer change.
Cache::Figures Cache::figures() const {
  std::vector<boost::shared_ptr<Pin>> pins;
  Figures figures{};
  {
    MutexLock lock(mutex_);
    pins.reserve(pins_.size());
    for (const auto& [id, pin] : pins_) pins.push_back(pin);
    figures.rules = forgotten_;
  }
  figures.items = pins.size();
  for (const boost::shared_ptr<Pin>& pin : pins) addTo(figures.rules, pin->ruleCounts());
  return figures;
}

}  // namespace orva::cache
