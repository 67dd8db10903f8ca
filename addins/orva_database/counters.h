#pragma once

#include <atomic>
#include <cstdint>

namespace orva {

// What the service has done since the process began, for its metrics. Each figure is exact by
// itself; together they may be a moment apart. What happens with every sample is counted by the
// cached items instead, under the lock that they hold anyway.
struct Counters {
  // A count, or a number of things that are there now. Any thread.
  class Count {
   public:
    void add(std::uint64_t n = 1) { count_.fetch_add(n, std::memory_order_relaxed); }
    void subtract(std::uint64_t n = 1) { count_.fetch_sub(n, std::memory_order_relaxed); }
    std::uint64_t value() const { return count_.load(std::memory_order_relaxed); }

   private:
    std::atomic<std::uint64_t> count_{0};
  };

  // How cached layers answer. A hit is a stretch of samples, a bound, a first or a last value that
  // a block in memory gave; a miss is an interval opened because no block vouches for it. So a read
  // of a day that spans three blocks and a gap is three hits and a miss.
  Count hits;
  Count misses;
  Count inboxDropped;    // fetched samples that were not cached, since the inboxes were full
  Count reads;           // requests of whatever kind
  Count readTimeouts;    // those given up before they were complete
  Count valuesReturned;  // values of items that were read to the end, after trimming
  Count openAsyncReads;  // waiting to be published

  // What the remote archive source gets from other controllers (see RemoteCounts).
  Count remoteExchanges;
  Count remoteFailures;  // exchanges without an answer that can be used
  Count remoteReceived;
  Count remoteStored;
  Count remoteRefused;
  Count remoteRepeated;
  Count remoteSkipped;
};

inline Counters counters;

}  // namespace orva
