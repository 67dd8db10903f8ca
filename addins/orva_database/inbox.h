#pragma once

#include <atomic>
#include <boost/optional.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <cstdint>
#include <vector>

#include "orva_database/data_block.h"
#include "share/archive_request.h"
#include "share/mutex.h"

namespace orva::cache {

// Completed intervals on their way from a provider's thread to the item they belong to, which takes
// them in at its next read, under its own lock. All inboxes together hold a bounded number of
// samples; what does not fit is not cached.
//
// Thread-safe; its mutex is a leaf.
class Inbox {
 public:
  // An interval, and what the layer held when it asked.
  struct Answer {
    archive::SharedInterval interval;
    boost::optional<std::int64_t> newestThen;  // time of its newest sample; none while it had none
    boost::weak_ptr<DataBlock> lastThen;       // the block that was appended to
    // Interval::wanted() as it was asked: the reader may be gone when the answer is taken in.
    std::uint64_t wanted = 0;
  };

  // The most samples that wait in all inboxes together; tests make it small.
  static std::uint32_t maxWaiting;

  ~Inbox();
  void post(Answer answer) EXCLUDES(mutex_);
  std::vector<Answer> take() EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::vector<Answer> answers_ GUARDED_BY(mutex_);
};

}  // namespace orva::cache
