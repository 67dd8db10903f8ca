#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "share/archive_request.h"
#include "share/ticks.h"

namespace orva {

// A read whose result is published later.
struct AsyncRead {
  std::int64_t requestId = 0;
  archive::SharedRequest request;  // nobody else holds it
  std::int64_t since = 0;          // ticks
  std::uint64_t serial = 0;        // ascending in the order of entry
};

// The asynchronous reads that nobody has fetched yet, one for each subscription.
//
// What goes without having been fetched is closed: its archive is told that nothing more is needed,
// what it pushes all the same is ignored, and the memory comes back. So the reads of clients that
// went away leave when others come.
//
// Times are those of Signal::elapsed(), so the controller's clock may be set, or stand still.
//
// Not thread-safe. Calls nobody.
class AsyncReads {
 public:
  AsyncReads() = default;
  AsyncReads(const AsyncReads&) = delete;
  AsyncReads& operator=(const AsyncReads&) = delete;
  ~AsyncReads();

  static constexpr std::size_t kMost = 256;
  static constexpr std::int64_t kAnswerTicks = 60 * kTicksPerSecond;  // to complete in
  static constexpr std::int64_t kKeptTicks = 10 * kTicksPerMinute;    // to be fetched in

  // Enters a read in place of the one that the subscription had. Those kept too long go, and of
  // more than kMost the oldest.
  void put(std::int64_t subscriptionId, std::int64_t requestId,
           const archive::SharedRequest& request, std::int64_t now);
  // Null when there is none. Valid until the next put() or drop().
  AsyncRead* find(std::int64_t subscriptionId);
  void drop(std::int64_t subscriptionId);
  std::size_t size() const { return reads_.size(); }

  // Whether the read should have completed by now.
  static bool overdue(AsyncRead& read, std::int64_t now) { return age(read, now) >= kAnswerTicks; }

 private:
  using Reads = std::map<std::int64_t, AsyncRead>;

  static std::int64_t age(AsyncRead& read, std::int64_t now);
  Reads::iterator erase(Reads::iterator read);
  void expire(std::int64_t now);
  Reads::iterator oldest();

  Reads reads_;  // by subscription id
  std::uint64_t lastSerial_ = 0;
};

}  // namespace orva
