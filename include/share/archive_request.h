#pragma once

#include <atomic>
#include <boost/function.hpp>
#include <boost/optional.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <string>
#include <unordered_set>
#include <vector>

#include "host/pin.h"
#include "share/json.h"
#include "share/live_count.h"
#include "share/mutex.h"
#include "share/orva_export.h"
#include "share/signal.h"
#include "share/status_codes.h"

// The read of archived history: a Request asks for the samples of some items in a range of time,
// each Request::Item collects the samples of one item, and each Request::Item::Interval stands for
// one stretch of time that the cache lacks and an archive provider fills. (Compare the historical
// read of raw data with continuation points in OPC UA Part 11.)
//
// What a provider needs is the public part of Interval.

namespace orva::archive {

class Sampling;

class ORVA_API Request : public boost::enable_shared_from_this<Request>, public LiveCount<Request> {
 public:
  struct ORVA_API Options {
    bool returnBounds = false;          // also the samples next to the range
    bool returnFirstLastValue = false;  // only the first and the last sample of each item
    bool onlyItemList = false;          // only the list of items; set by the query service alone
    bool fourthFlag = false;            // cleared when a full range is read; nobody reads it
    std::int32_t layerId = 0;           // 0, 1 or 2
    std::int64_t startTime = 0;         // ticks, 0 is open
    std::int64_t endTime = 0;           // ticks, 0 is open
    std::int64_t resampleInterval = 0;  // ticks, 0 is raw

    // Reads a request's "parameters" object; times there are ms since 1970.
    void fromJson(const json::Value& parameters);
    // One object, for logs only; times are written in ticks.
    void toJson(rapidjson::Writer<rapidjson::StringBuffer>& writer) const;
    // The layer that holds samples this far apart: 0 below a minute, 1 below an hour, 2 above.
    static std::int32_t layerFor(std::int64_t resampleInterval);
  };

  class Item;
  using Completion = boost::function<void(const boost::shared_ptr<Request>&)>;

  // `tag` marks the request in diagnostics, no more.
  explicit Request(std::int64_t tag = 0) : tag_(tag) {}
  ~Request();
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // A request from the body of a history call; empty when "data" is no array.
  static boost::shared_ptr<Request> make(const json::Value& body);

  // Adds an item; ids may repeat. Before the request is handed to the manager only. The reference
  // is valid until the next addItem().
  const boost::shared_ptr<Item>& addItem(std::int64_t id);
  const std::vector<boost::shared_ptr<Item>>& items() const { return items_; }

  Options options;  // set before the request is handed over

  // 0x80320000 until complete, 0 when complete, 0x800A0000 after timeout(). A completed request
  // that is timed out later says 0x800A0000: ask finalizedItems() whether the data are there.
  StatusCode status() const { return status_.load(std::memory_order_acquire); }
  std::uint32_t finalizedItems() const { return finalized_.load(std::memory_order_acquire); }
  bool complete() const { return finalizedItems() >= items_.size(); }
  std::int64_t tag() const { return tag_; }

  // Called with the shared request, once, on whatever thread completes the last item, under no
  // lock. Set it before the request is handed over; it may run inside that call.
  void setCompletion(Completion callback) EXCLUDES(callbackMutex_);
  // Runs after timeout(), at most once, outside the manager's locks.
  void setTimeoutListener(Completion callback) EXCLUDES(callbackMutex_);
  void clearCallbacks() EXCLUDES(callbackMutex_);

  // Each item says so once when it is final. The last one completes the request.
  void finalizeItem(std::int64_t id) EXCLUDES(callbackMutex_);
  // Completes a request that has no items at all.
  void completeIfEmpty() EXCLUDES(callbackMutex_);
  // Sets the status and logs what was asked. Closes nothing: the data may still come.
  void timeout();
  // What timeout() announces; the manager calls it once it holds no lock.
  void runTimeoutListener() EXCLUDES(callbackMutex_);

  // Notified at completion.
  Signal& completed() { return completed_; }

  // ---- for the manager
  // Archives that end answer nothing, which must not be taken for no data: an item that becomes
  // final after the archives began to end, or was asked for while they did, says 0x809E0000.
  static void archivesBeginToEnd() { ++archivesEpoch_; }
  static void archivesHaveEnded() { ++archivesEpoch_; }
  // The request is about to be asked of the archives that there are.
  void noteArchives() { epoch_ = archivesEpoch_.load(); }
  bool archivesEnd() const {
    return epoch_ != kNotHandedOver && (epoch_ % 2 != 0 || epoch_ != archivesEpoch_.load());
  }

 private:
  static constexpr std::uint64_t kNotHandedOver = UINT64_MAX;
  static std::atomic<std::uint64_t> archivesEpoch_;  // odd while archives end
  void completeNow() EXCLUDES(callbackMutex_);

  const std::int64_t tag_;
  std::uint64_t epoch_ = kNotHandedOver;        // unchanged once handed over
  std::vector<boost::shared_ptr<Item>> items_;  // unchanged once handed over
  std::atomic<StatusCode> status_{status::kBadWaiting};
  std::atomic<std::uint32_t> finalized_{0};
  std::atomic<bool> completedOnce_{false};
  Signal completed_;
  Mutex callbackMutex_;  // leaf; guards the two callbacks
  Completion completion_ GUARDED_BY(callbackMutex_);
  Completion timeoutListener_ GUARDED_BY(callbackMutex_);
};

// The answer for one item. Lock: the item's own mutex, a leaf, taken per call; nothing is called
// out while it is held.
class ORVA_API Request::Item : public boost::enable_shared_from_this<Request::Item>,
                               public LiveCount<Request::Item> {
 public:
  class Interval;
  using Position = PinList::iterator;

  Item(boost::weak_ptr<Request> owner, std::int64_t cacheId);
  ~Item();
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;

  const boost::weak_ptr<Request> request;
  const std::int64_t cacheId;
  // Set before the request is handed over, unchanged from then on.
  std::uint32_t numValuesPerNode = 0;  // the most values returned; 0 is unlimited
  std::int64_t resampleInterval = 0;   // ticks

  // In: where an earlier answer stopped. Out: where this one stops.
  boost::optional<std::int64_t> continuationPoint() const EXCLUDES(mutex_);
  void setContinuationPoint(boost::optional<std::int64_t> point) EXCLUDES(mutex_);

  // 0x80320000, then 0 or 0x00A60000 once final.
  StatusCode status() const EXCLUDES(mutex_);
  // Why there may be less than there should be: 0x803E0000 for an unknown id or a missing archive,
  // or what a provider said by Interval::fail(). 0 when nothing failed. The first one stays.
  StatusCode failure() const EXCLUDES(mutex_);
  void fail(StatusCode code) EXCLUDES(mutex_);
  // The walk stopped exactly at the limit and nothing is known of what follows.
  bool cut() const EXCLUDES(mutex_);
  void setCut() EXCLUDES(mutex_);
  // The item is a first/last query: two equal values at its end are one.
  void setFirstLast() EXCLUDES(mutex_);
  bool isFinal() const EXCLUDES(mutex_);
  // Ends the item for a reader that gave up: later pushes are ignored, what arrived stays.
  void close() EXCLUDES(mutex_);
  bool closed() const EXCLUDES(mutex_);

  // The answer, oldest first. Read it once the item is final or closed: nothing changes it then.
  const PinList& values() const NO_THREAD_SAFETY_ANALYSIS { return values_; }
  std::size_t valueCount() const EXCLUDES(mutex_);
  // The newest value of the answer so far, null when there is none.
  PinPtr lastValue() const EXCLUDES(mutex_);

  void push_back(const PinPtr& pin) EXCLUDES(mutex_);
  void push_front(const PinPtr& pin) EXCLUDES(mutex_);
  void insert(const PinPtr& pin, Position before) EXCLUDES(mutex_);
  Position begin() EXCLUDES(mutex_);
  Position end() EXCLUDES(mutex_);
  // Appends a stretch of samples under one lock.
  void append(const PinPtr* first, std::size_t count) EXCLUDES(mutex_);
  // Appends samples reduced to the item's resampling interval.
  void appendResampled(const PinList& samples) EXCLUDES(mutex_);

  // How many values more the item would take. The odd figures are what callers expect: with open
  // intervals the first one decides, without any the shortfall wraps around (and is never 0).
  std::uint32_t availableSpace() const EXCLUDES(mutex_);
  bool hasSpace() const EXCLUDES(mutex_) { return availableSpace() != 0; }

  // Opens an interval whose values go to their place in time.
  boost::shared_ptr<Interval> createInterval(std::int32_t layer, std::int64_t start,
                                             std::int64_t end) EXCLUDES(mutex_);
  boost::shared_ptr<Interval> addInterval(std::int32_t layer, std::int64_t start, std::int64_t end)
      EXCLUDES(mutex_);
  // Values go to the front (history older than what the item holds) ...
  boost::shared_ptr<Interval> addBotInterval(std::int32_t layer, std::int64_t start,
                                             std::int64_t end) EXCLUDES(mutex_);
  // ... or to the end.
  boost::shared_ptr<Interval> addTopInterval(std::int32_t layer, std::int64_t start,
                                             std::int64_t end) EXCLUDES(mutex_);
  std::vector<boost::shared_ptr<Interval>> openIntervals() const EXCLUDES(mutex_);

  // Takes a completed interval out; the last one finalises the item, outside its mutex.
  void intervalComplite(const boost::shared_ptr<Interval>& interval) EXCLUDES(mutex_);
  // Trims to the limit, sets status and continuation point, tells the request. Once.
  void finalize() EXCLUDES(mutex_);

 private:
  friend class Interval;

  enum class Sink { place, back, front };
  boost::shared_ptr<Interval> open(std::int32_t layer, std::int64_t start, std::int64_t end,
                                   Sink sink) EXCLUDES(mutex_);
  bool takesValues() const REQUIRES(mutex_) { return !final_ && !closed_; }
  // Removes an interval by identity; true if it was the last one open.
  bool remove(const Interval* interval) EXCLUDES(mutex_);
  void dropRepeatedLast() REQUIRES(mutex_);

  mutable Mutex mutex_;                                           // leaf
  std::pmr::monotonic_buffer_resource arena_ GUARDED_BY(mutex_);  // nodes of values_
  PinList values_ GUARDED_BY(mutex_);
  std::vector<boost::shared_ptr<Interval>> intervals_ GUARDED_BY(mutex_);
  boost::optional<std::int64_t> continuationPoint_ GUARDED_BY(mutex_);
  StatusCode status_ GUARDED_BY(mutex_) = status::kBadWaiting;
  StatusCode failure_ GUARDED_BY(mutex_) = status::kGood;
  bool cut_ GUARDED_BY(mutex_) = false;
  bool firstLast_ GUARDED_BY(mutex_) = false;
  bool final_ GUARDED_BY(mutex_) = false;
  bool closed_ GUARDED_BY(mutex_) = false;
};

// One stretch of time of one item that somebody fills. Its bounds are closed; an end of 0 is open.
//
// For a provider: read(interval) may answer on the caller's thread or later on its own. Copy
// handle() first, push() in ascending time, then finalize() exactly once, also on failure (fail()
// first). Ask full() at least every 1000 values and stop when it is true. Hold no lock of your own
// while you push or finalise. Keep a shared reference as long as you work on it. Whatever comes
// after finalize(), or for a reader that went away, is ignored.
class ORVA_API Request::Item::Interval
    : public boost::enable_shared_from_this<Request::Item::Interval>,
      public LiveCount<Request::Item::Interval> {
 public:
  enum class Kind {
    range,   // every sample of the stretch
    oldest,  // the oldest sample of the stretch only
    newest,  // the newest sample of the stretch only
  };
  // Whether the samples next to the stretch are wanted too: the newest before `start`, the oldest
  // after `end`.
  struct Bounds {
    bool left = false;
    bool right = false;
  };
  using Listener = boost::function<void(const boost::shared_ptr<Interval>&)>;

  ~Interval();
  Interval(const Interval&) = delete;
  Interval& operator=(const Interval&) = delete;

  // ---- what is asked
  std::int64_t start() const { return start_; }
  std::int64_t end() const { return end_; }
  std::int32_t layer() const { return layer_; }
  std::int64_t cacheId() const { return cacheId_; }
  // The provider's own number of the item, set before read().
  std::uint32_t handle() const { return handle_.load(std::memory_order_relaxed); }
  Kind kind() const { return kind_; }
  Bounds bounds() const { return bounds_; }
  // How many values must be pushed if there are as many, from the old end (Kind::newest: from the
  // new end); 0 means all. More is allowed. Fewer, and not full(), means that there are no more.
  std::uint64_t wanted() const;

  // ---- the answer
  void push(const PinPtr& pin);
  // The same for several samples, in ascending time, under one lock.
  void push(const PinPtr* first, std::size_t count);
  // Nothing more is needed: stop and finalise.
  bool full() const;
  // Says that the answer is incomplete; before finalize().
  void fail(StatusCode code);
  void finalize();

  // ---- for the cache and the manager
  std::uint32_t index() const { return index_; }
  std::uint32_t availableSpace() const;
  // Called with the shared interval when it is final, in the order in which they were added. After
  // finalize() they are gone. Before the interval is handed to a provider only.
  void addListner(Listener listener) EXCLUDES(listenerMutex_);
  void setHandle(std::uint32_t handle) { handle_.store(handle, std::memory_order_relaxed); }
  void setKind(Kind kind) { kind_ = kind; }            // before it is handed out
  void setBounds(Bounds bounds) { bounds_ = bounds; }  // before it is handed out
  // How many values more it may take; nobody here sets it. Each push uses up two.
  void setLimit(std::uint32_t limit) { limit_ = limit; }  // before it is handed out
  bool isFinal() const { return final_.load(std::memory_order_acquire); }
  bool failed() const { return failed_.load(std::memory_order_acquire); }
  std::uint64_t pushed() const { return pushed_; }  // once final
  // Whether its reader had enough before the end, so that a provider may have stopped anywhere,
  // also between samples of one time. Once final.
  bool hadEnough() const { return hadEnough_; }
  // Everything pushed, in order (a one-value kind: the one kept). Once final.
  const std::vector<PinPtr>& buffer() const { return buffer_; }
  boost::shared_ptr<Item> item() const { return item_.lock(); }

  // For an interval that several archives answer: `count` intervals of the same stretch, each to
  // be answered by one archive. Their values come into this interval merged in time order, what
  // another archive gave already (time and value) dropped; it is final when the last of them is.
  std::vector<boost::shared_ptr<Interval>> split(std::size_t count);

 private:
  friend class Item;
  struct Fan;  // gathers the answers of split() intervals

  Interval(boost::weak_ptr<Item> item, std::uint32_t index, std::int32_t layer, std::int64_t start,
           std::int64_t end, std::int64_t cacheId, Item::Sink sink);

  // Whether pushed values pass through a resampler.
  bool resamples(const Item& item) const;
  bool outside(std::int64_t time) const;
  bool enough(const Item& item) const;
  bool betterThan(const Pin& held, const Pin& pin) const;
  void gather(const Item& item, const PinPtr* first, std::size_t count);
  void runListeners(const boost::shared_ptr<Interval>& self) EXCLUDES(listenerMutex_);
  void traceLate(const char* operation);

  void take(Item& item, const PinPtr& pin) REQUIRES(item.mutex_);
  void takeOne(Item& item, const PinPtr& pin) REQUIRES(item.mutex_);
  void sink(Item& item, const PinPtr& pin) REQUIRES(item.mutex_);
  void place(Item& item, const PinPtr& pin) REQUIRES(item.mutex_);
  bool meet(Item& item, Position first, const Pin& pin) REQUIRES(item.mutex_);
  bool admits(std::int64_t time);
  void drainResampler(Item& item) REQUIRES(item.mutex_);
  Position firstNotOlder(Item& item, std::int64_t time) const REQUIRES(item.mutex_);
  // How many of the item's values stand up to where the resampler has come.
  std::uint64_t positionInItem(const Item& item) const REQUIRES(item.mutex_);

  const boost::weak_ptr<Item> item_;
  const std::uint32_t index_;
  const std::int32_t layer_;
  const std::int64_t start_;
  const std::int64_t end_;
  const std::int64_t cacheId_;
  const Item::Sink sink_;
  Kind kind_ = Kind::range;  // set before it is handed out
  Bounds bounds_;            // set before it is handed out
  std::atomic<std::uint32_t> handle_{0};
  std::atomic<bool> final_{false};
  std::atomic<bool> failed_{false};
  std::atomic<bool> lateTraced_{false};
  boost::shared_ptr<Fan> fan_;  // set on intervals made by split()
  std::size_t fanIndex_ = 0;

  // Guarded by the item's mutex until the interval is final, unchanged afterwards.
  std::uint64_t pushed_ = 0;
  boost::optional<std::uint32_t> limit_;
  std::vector<PinPtr> buffer_;
  bool anchored_ = false;                  // whether hint_ points at a value
  bool given_ = false;                     // whether that is one it gave or met
  Position hint_;                          // that one, else the last value held when it was opened
  std::unordered_set<const PinPtr*> met_;  // values at the edge times that were given or met
  PinPtr* one_ = nullptr;                  // a one-value kind: its value in the item's list
  PinList resampled_;                      // the resampler's output queue
  std::unique_ptr<Sampling> resampler_;
  std::uint32_t resampledCount_ = 0;
  bool hadEnough_ = false;

  mutable Mutex listenerMutex_;  // leaf
  std::vector<Listener> listeners_ GUARDED_BY(listenerMutex_);
};

using SharedRequest = boost::shared_ptr<Request>;
using SharedItem = boost::shared_ptr<Request::Item>;
using Interval = Request::Item::Interval;
using SharedInterval = boost::shared_ptr<Interval>;

}  // namespace orva::archive
