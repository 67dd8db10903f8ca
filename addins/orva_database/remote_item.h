#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "orva_database/cache.h"
#include "orva_database/counters.h"
#include "orva_database/local_end.h"
#include "orva_database/remote_message.h"
#include "orva_database/remote_source_info.h"

namespace orva::archive {

// A count of one controller's, which goes into that of all controllers too.
class RemoteCount {
 public:
  explicit RemoteCount(Counters::Count& ofAll) : ofAll_(&ofAll) {}
  RemoteCount& operator++() {
    ++count_;
    ofAll_->add();
    return *this;
  }
  operator std::uint64_t() const { return count_; }  // NOLINT(google-explicit-constructor)

 private:
  std::uint64_t count_ = 0;
  Counters::Count* ofAll_;
};

// What became of the samples of one controller. Received is what the others add up to, and what
// waits for room.
struct RemoteCounts {
  RemoteCount received{counters.remoteReceived};
  RemoteCount stored{counters.remoteStored};
  RemoteCount refused{counters.remoteRefused};      // by the local filter, or older than the newest
  RemoteCount duplicates{counters.remoteRepeated};  // were there already
  RemoteCount skipped{counters.remoteSkipped};      // of a form or type that cannot be taken
};

// One remote item at work: where its next page begins, and its samples on their way into the local
// item. Nothing is asked before the page before is stored, so a sample that was received is stored
// or counted.
//
// A continuation point of the other controller's is exact, to the tick, while its samples come with
// times cut to milliseconds. After a start the point is derived from the newest local time, so the
// samples of that millisecond may come once more; those are dropped, one for one.
//
// The point that an answer gives is believed as far as its samples account for it. One beyond them
// stands for the sample that the next page begins with; when nothing is there, it goes back to
// where the samples ended.
//
// For one thread, the one that runs the exchanges.
class RemoteItem {
 public:
  RemoteItem(const RemoteSourceInfo& info, RemoteCounts& counts) : info_(info), counts_(counts) {}
  RemoteItem(const RemoteItem&) = delete;
  RemoteItem& operator=(const RemoteItem&) = delete;

  // Brings the item on as far as goes without waiting: finds the local item, where it ends, and
  // stores what was received. True when the next page may be asked for.
  bool prepare();
  // Whether prepare() went no further since the local archive has no room.
  bool lacksRoom() const { return lacksRoom_; }
  bool hasToStore() const { return !info_.values.empty(); }
  std::int64_t continuationPoint() const { return info_.continuationPoint; }
  const RemoteSourceInfo& info() const { return info_; }
  // What an answer leaves to ask for.
  enum class Next {
    nothing,  // until the next round
    page,     // at once
    again,    // the same: the answer had no room for a sample of it
  };
  // The answer to a question from continuationPoint().
  Next take(const RemoteItemReply& reply);

 private:
  bool findPin();
  bool findStart();
  bool hasRoom();
  bool store();
  void receive(const json::Value& values);
  void advance(const RemoteItemReply& reply);
  bool isRepeated(const Pin& sample);
  void noteRemoteStatus(StatusCode status);

  RemoteSourceInfo info_;
  RemoteCounts& counts_;
  std::int64_t cacheId_ = cache::Cache::ID_NOT_FOUND;
  boost::shared_ptr<cache::CachedItem> pin_;
  bool unresolved_ = false;  // and traced
  std::int64_t lookedUpAt_ = 0;
  bool lacksRoom_ = false;
  bool started_ = false;  // continuationPoint is set
  // The other side gave continuationPoint: whatever comes from there on was not here before.
  bool exact_ = false;
  // Where the samples ended before a page that was announced.
  std::optional<std::int64_t> announcedFrom_;
  LocalEnd localEnd_;
  // The samples of the newest millisecond that were received or found here, and of these the ones
  // that may come again.
  std::int64_t newestTime_ = 0;
  std::list<PinPtr> newest_;
  std::list<PinPtr> expected_;
  StatusCode remoteStatus_ = 0;
};

}  // namespace orva::archive
