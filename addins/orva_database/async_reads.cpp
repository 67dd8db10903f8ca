#include "orva_database/async_reads.h"

#include <algorithm>
#include <iterator>

#include "orva_database/counters.h"

namespace orva {

AsyncReads::~AsyncReads() { counters.openAsyncReads.subtract(reads_.size()); }

std::int64_t AsyncReads::age(AsyncRead& read, std::int64_t now) {
  read.since = std::min(read.since, now);
  return now - read.since;
}

void AsyncReads::put(std::int64_t subscriptionId, std::int64_t requestId,
                     const archive::SharedRequest& request, std::int64_t now) {
  drop(subscriptionId);
  expire(now);
  // By order of entry, not by time: the clock may have been set.
  reads_[subscriptionId] = {requestId, request, now, ++lastSerial_};
  counters.openAsyncReads.add();
  while (reads_.size() > kMost) erase(oldest());
}

AsyncRead* AsyncReads::find(std::int64_t subscriptionId) {
  const auto found = reads_.find(subscriptionId);
  return found != reads_.end() ? &found->second : nullptr;
}

void AsyncReads::drop(std::int64_t subscriptionId) {
  const auto found = reads_.find(subscriptionId);
  if (found != reads_.end()) erase(found);
}

AsyncReads::Reads::iterator AsyncReads::erase(Reads::iterator read) {
  for (const archive::SharedItem& item : read->second.request->items()) item->close();
  counters.openAsyncReads.subtract();
  return reads_.erase(read);
}

void AsyncReads::expire(std::int64_t now) {
  for (auto read = reads_.begin(); read != reads_.end();) {
    read = age(read->second, now) > kKeptTicks ? erase(read) : std::next(read);
  }
}

AsyncReads::Reads::iterator AsyncReads::oldest() {
  return std::min_element(reads_.begin(), reads_.end(), [](const auto& a, const auto& b) {
    return a.second.serial < b.second.serial;
  });
}

}  // namespace orva
