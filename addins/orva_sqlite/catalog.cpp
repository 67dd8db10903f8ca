#include "orva_sqlite/catalog.h"

namespace orva::sqlite {

std::uint32_t Catalog::handleOf(const archive::ItemKey& key) const {
  MutexLock lock(mutex_);
  const auto found = byKey_.find(key);
  return found == byKey_.end() ? 0 : found->second->handle;
}

Item& Catalog::add(const archive::ItemKey& key) {
  MutexLock lock(mutex_);
  const auto found = byKey_.find(key);
  if (found != byKey_.end()) return *found->second;
  auto item = std::make_unique<Item>();
  item->key = key;
  item->handle = static_cast<std::uint32_t>(byHandle_.size() + 1);
  Item& added = *item;
  byHandle_.push_back(std::move(item));
  try {
    byKey_.emplace(key, &added);
  } catch (...) {
    byHandle_.pop_back();
    throw;
  }
  return added;
}

Stream& Catalog::addStream(Item& item, std::int32_t layer) {
  MutexLock lock(mutex_);
  const auto known = item.layers.find(layer);
  if (known != item.layers.end()) return *known->second;
  auto stream = std::make_unique<Stream>(intake_, item, layer);
  return *item.layers.emplace(layer, std::move(stream)).first->second;
}

std::vector<Stream*> Catalog::streamsOf(std::uint32_t handle, std::int32_t layer) const {
  std::vector<Stream*> found;
  MutexLock lock(mutex_);
  if (handle == 0 || handle > byHandle_.size()) return found;
  for (const auto& [number, stream] : byHandle_[handle - 1]->layers) {
    if (layer == -1 || number == layer) found.push_back(stream.get());
  }
  return found;
}

std::vector<Stream*> Catalog::streams() const {
  std::vector<Stream*> all;
  MutexLock lock(mutex_);
  for (const auto& item : byHandle_) {
    for (const auto& layer : item->layers) all.push_back(layer.second.get());
  }
  return all;
}

std::vector<Item*> Catalog::items() const {
  std::vector<Item*> all;
  MutexLock lock(mutex_);
  for (const auto& item : byHandle_) all.push_back(item.get());
  return all;
}

}  // namespace orva::sqlite
