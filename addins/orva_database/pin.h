#pragma once

#include <array>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <map>

#include "host/pin.h"
#include "orva_database/inbox.h"
#include "orva_database/layer.h"
#include "share/archive_provider.h"
#include "share/archive_request.h"
#include "share/live_count.h"
#include "share/mutex.h"
#include "share/write_filter.h"

namespace orva::cache {

// How many samples each rule of the write filter decided about.
using RuleCounts = std::array<std::uint64_t, archive::Filter::kRules>;

// The state of one archived item: the sample accepted last, the write filter, one layer per
// archive layer. Known as Cache::Pin.
//
// Thread-safe: one mutex serialises writers and readers of the item. Under it providers are called
// by ILayerWriter::write() only.
class CachedItem : public LiveCount<CachedItem> {
 public:
  using Options = archive::Request::Options;

  static boost::shared_ptr<CachedItem> make();
  CachedItem();
  CachedItem(const CachedItem&) = delete;
  CachedItem& operator=(const CachedItem&) = delete;

  // Enters or re-initialises a layer, from the host's description of that number.
  void addLayer(archive::ILayerWriter& writer, int layer) EXCLUDES(mutex_);
  bool hasLayer(int layer) const EXCLUDES(mutex_);
  std::size_t layerCount() const EXCLUDES(mutex_);

  void setFilter(const archive::Filter& filter) EXCLUDES(mutex_);
  archive::Filter filter() const EXCLUDES(mutex_);
  // Changes single fields of the filter under one lock: change(archive::Filter&). Whether layer 0
  // is there at that moment: when it comes later, its archive's filter replaces what was changed.
  template <class Change>
  bool updateFilter(Change&& change) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    change(filter_);
    return layers_.count(0) != 0;
  }

  // A new sample: if the filter accepts it, it becomes the last one and goes to every layer in
  // ascending order.
  CachedItem& operator<<(const PinPtr& sample) EXCLUDES(mutex_);
  // The same, unless the item is stopped: then nothing happens and the result is false, so that a
  // writer which holds the item for long can go to its successor without losing the sample.
  bool write(const PinPtr& sample) EXCLUDES(mutex_);
  // The same, and whether the filter took the sample.
  enum class Offer { taken, refused, stopped };
  Offer offer(const PinPtr& sample) EXCLUDES(mutex_);
  // Whether a layer's writer asks those who can wait with their samples to wait.
  bool crowded() const EXCLUDES(mutex_);

  // Answers from the layer that the options name; a layer the item does not have leaves the
  // request untouched.
  void load(const archive::SharedItem& item, const Options& options) EXCLUDES(mutex_);
  bool getFirtsLast(const archive::SharedItem& item, const Options& options) EXCLUDES(mutex_);

  // The oldest and the newest sample known.
  PinPtr first() const EXCLUDES(mutex_);
  PinPtr last() const EXCLUDES(mutex_);
  // What a first/last query brought.
  void updateFirst(const archive::SharedInterval& interval) EXCLUDES(mutex_);
  void updateLast(const archive::SharedInterval& interval) EXCLUDES(mutex_);
  // Takes in what providers answered since the last read.
  void drain() EXCLUDES(mutex_);

  // Forgets the sample accepted last: for an item that had no layer yet, so that it went nowhere.
  void forgetLast() EXCLUDES(mutex_);
  // Ends the item: default filter, no layers. What a resampler has selected goes to its archive
  // first. The last sample stays. Whoever holds a stopped item asks the manager for a new one.
  void stop() EXCLUDES(mutex_);
  bool stopped() const EXCLUDES(mutex_);

  // Of the samples that came before the item was stopped: what is read after that stays.
  RuleCounts ruleCounts() const EXCLUDES(mutex_);

  // Calls visit(number, const Layer&) for each layer, under the item's lock. For tests.
  template <class Visit>
  void visitLayers(Visit&& visit) const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    for (const auto& [number, layer] : layers_) visit(number, layer);
  }

 private:
  // Whether the filter took it.
  bool accept(const PinPtr& sample) REQUIRES(mutex_);
  void listenForEdges(const archive::SharedItem& item) REQUIRES(mutex_);
  void drainLearnt() const REQUIRES(mutex_);

  mutable Mutex mutex_{
      LockClass::kCachedItem};      // before the item mutex of a request and every inbox
  PinPtr last_ GUARDED_BY(mutex_);  // written by operator<< alone: the filter relies on it
  mutable PinPtr learnt_ GUARDED_BY(mutex_);       // the newest sample that a provider told
  mutable PinPtr learntFirst_ GUARDED_BY(mutex_);  // the oldest sample that a provider told
  std::map<std::int32_t, Layer> layers_ GUARDED_BY(mutex_);
  archive::Filter filter_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
  RuleCounts ruleCounts_ GUARDED_BY(mutex_){};
  const boost::shared_ptr<Inbox> learntInbox_;  // first/last answers; listeners hold it weakly
};

}  // namespace orva::cache
