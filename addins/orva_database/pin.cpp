#include "orva_database/pin.h"

#include <boost/smart_ptr/make_shared.hpp>

#include "host/trace.h"
#include "host/vm_info.h"

namespace orva::cache {

boost::shared_ptr<CachedItem> CachedItem::make() { return boost::make_shared<CachedItem>(); }

CachedItem::CachedItem() : learntInbox_(boost::make_shared<Inbox>()) {}

void CachedItem::addLayer(archive::ILayerWriter& writer, int layer) {
  vm::Layer description;
  description.number = layer;
  const auto known = vm::VMInfo::GetInstance()->GetLayer(layer);
  if (known && known->number == layer) {
    description = *known;
  } else {
    OpcUa_Trace_Imp(kTraceWarning, "Not found VMLayer : %d\n", __FILE__, __LINE__, layer);
  }
  MutexLock lock(mutex_);
  try {
    layers_[layer].init(description, writer);
  } catch (...) {
    layers_.erase(layer);
    throw;
  }
}

bool CachedItem::hasLayer(int layer) const {
  MutexLock lock(mutex_);
  return layers_.count(layer) != 0;
}

std::size_t CachedItem::layerCount() const {
  MutexLock lock(mutex_);
  return layers_.size();
}

void CachedItem::setFilter(const archive::Filter& filter) {
  MutexLock lock(mutex_);
  filter_ = filter;
}

archive::Filter CachedItem::filter() const {
  MutexLock lock(mutex_);
  return filter_;
}

CachedItem& CachedItem::operator<<(const PinPtr& sample) {
  MutexLock lock(mutex_);
  accept(sample);
  return *this;
}

bool CachedItem::write(const PinPtr& sample) { return offer(sample) != Offer::stopped; }

CachedItem::Offer CachedItem::offer(const PinPtr& sample) {
  MutexLock lock(mutex_);
  if (stopped_) return Offer::stopped;
  return accept(sample) ? Offer::taken : Offer::refused;
}

bool CachedItem::crowded() const {
  MutexLock lock(mutex_);
  for (const auto& [number, layer] : layers_) {
    if (layer.crowded()) return true;
  }
  return false;
}

bool CachedItem::accept(const PinPtr& sample) {
  const archive::Filter::Rule rule = filter_.rule(last_, sample);
  if (!stopped_) ++ruleCounts_[static_cast<std::size_t>(rule)];
  if (!archive::Filter::accepts(rule)) return false;
  last_ = sample;
  for (auto& [number, layer] : layers_) layer << sample;
  return true;
}

void CachedItem::load(const archive::SharedItem& item, const Options& options) {
  MutexLock lock(mutex_);
  drainLearnt();
  const auto layer = layers_.find(options.layerId);
  if (layer != layers_.end()) layer->second.load(item, options);
}

bool CachedItem::getFirtsLast(const archive::SharedItem& item, const Options& options) {
  MutexLock lock(mutex_);
  drainLearnt();
  const auto layer = layers_.find(options.layerId);
  if (layer == layers_.end()) return false;
  const bool given = layer->second.getFirtsLast(item, options);
  listenForEdges(item);
  return given;
}

// What the archive answers comes in through the inbox, not on the provider's thread.
void CachedItem::listenForEdges(const archive::SharedItem& item) {
  for (const archive::SharedInterval& interval : item->openIntervals()) {
    if (interval->kind() == archive::Interval::Kind::range) continue;
    interval->addListner(
        [inbox = boost::weak_ptr<Inbox>(learntInbox_)](const archive::SharedInterval& done) {
          const auto box = inbox.lock();
          const archive::SharedItem asker = done->item();
          if (!box || done->failed() || done->buffer().empty() || (asker && asker->closed()))
            return;
          Inbox::Answer answer;
          answer.interval = done;
          box->post(std::move(answer));
        });
  }
}

void CachedItem::drainLearnt() const {
  for (const Inbox::Answer& answer : learntInbox_->take()) {
    const PinPtr& pin = answer.interval->buffer().front();
    if (answer.interval->kind() == archive::Interval::Kind::newest) {
      if (!learnt_ || learnt_->time <= pin->time) learnt_ = pin;
    } else if (!learntFirst_ || pin->time < learntFirst_->time) {
      learntFirst_ = pin;
    }
  }
}

void CachedItem::updateFirst(const archive::SharedInterval& interval) {
  if (!interval || interval->buffer().empty()) return;
  const PinPtr& pin = interval->buffer().front();
  MutexLock lock(mutex_);
  if (!learntFirst_ || pin->time < learntFirst_->time) learntFirst_ = pin;
}

void CachedItem::updateLast(const archive::SharedInterval& interval) {
  if (!interval || interval->buffer().empty()) return;
  const PinPtr& pin = interval->buffer().back();
  MutexLock lock(mutex_);
  if (!learnt_ || learnt_->time <= pin->time) learnt_ = pin;
}

PinPtr CachedItem::first() const {
  MutexLock lock(mutex_);
  drainLearnt();
  PinPtr oldest = layers_.empty() ? PinPtr() : layers_.begin()->second.oldest();
  if (!oldest || (learntFirst_ && learntFirst_->time < oldest->time)) oldest = learntFirst_;
  return oldest;
}

PinPtr CachedItem::last() const {
  MutexLock lock(mutex_);
  drainLearnt();
  if (!last_ || (learnt_ && learnt_->time > last_->time)) return learnt_;
  return last_;
}

void CachedItem::drain() {
  MutexLock lock(mutex_);
  drainLearnt();
  for (auto& [number, layer] : layers_) layer.drain();
}

void CachedItem::forgetLast() {
  MutexLock lock(mutex_);
  last_.reset();
}

void CachedItem::stop() {
  MutexLock lock(mutex_);
  stopped_ = true;
  filter_ = archive::Filter();
  for (auto& [number, layer] : layers_) layer.flush();
  layers_.clear();
  learntInbox_->take();
}

RuleCounts CachedItem::ruleCounts() const {
  MutexLock lock(mutex_);
  return ruleCounts_;
}

bool CachedItem::stopped() const {
  MutexLock lock(mutex_);
  return stopped_;
}

}  // namespace orva::cache
