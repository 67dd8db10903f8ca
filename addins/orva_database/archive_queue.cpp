#include <algorithm>

#include "orva_database/archive_manager_state.h"
#include "orva_database/counters.h"
#include "orva_database/guarded.h"
#include "share/ticks.h"

namespace orva::archive {

namespace {
constexpr int kPassMs = 100;

// The status is set before anything can go wrong, so listeners are told in any case.
void timeOut(Request& request) {
  guarded("Request::timeout", [&request] { request.timeout(); });
}
}  // namespace

void DataArchiveManager::requestProc() {
  while (!state_->stop.load()) {
    const std::uint64_t seen = state_->stopping.count();
    if (state_->stop.load()) break;
    guarded("requestProc", [this] { state_->countDown(); });
    state_->stopping.wait(seen, kPassMs * kTicksPerMillisecond);
  }
}

// One pass: entries with 99 ms or less left are timed out, whether their request completed or not.
// (Whoever polls such a request asks for its finalised items.)
void DataArchiveManager::State::countDown() {
  std::vector<SharedRequest> timedOut;  // their last references may die here, under no lock
  {
    MutexLock lock(queueMutex);
    for (auto entry = pending.begin(); entry != pending.end();) {
      if (entry->leftMs >= kPassMs && !entry->request.expired()) {
        entry->leftMs -= kPassMs;
        ++entry;
        continue;
      }
      if (SharedRequest due = entry->request.lock()) {
        timedOut.push_back(due);
        if (entry->limited && !due->complete()) counters.readTimeouts.add();
        timeOut(*due);
      }
      entry = pending.erase(entry);
    }
  }
  for (const SharedRequest& request : timedOut) request->runTimeoutListener();
}

// No reference is made to other requests: the last one must not die under the mutex.
void DataArchiveManager::State::takePending(const SharedRequest& request, Pending& out) {
  MutexLock lock(queueMutex);
  const auto entry = std::find_if(pending.begin(), pending.end(), [&](const Waiter& waiter) {
    return !waiter.request.owner_before(request) && !request.owner_before(waiter.request);
  });
  if (entry != pending.end()) out.splice(out.end(), pending, entry);
}

// Requests that no archive will answer any more.
void DataArchiveManager::State::releaseWaiters(const Pending& waiters) {
  for (const auto& waiter : waiters) {
    const SharedRequest request = waiter.request.lock();
    if (!request || request->complete()) continue;
    if (waiter.limited) counters.readTimeouts.add();
    timeOut(*request);
    request->runTimeoutListener();
  }
}

}  // namespace orva::archive
