#include "orva_host/gate.h"

namespace orva::host {

// The analysis does not follow a lock that a condition variable lets go and takes again.
void Gate::wait() NO_THREAD_SAFETY_ANALYSIS {
  std::unique_lock<std::mutex> lock(mutex_.native());
  while (!open_) opened_.wait(lock);
}

bool Gate::waitUntil(Clock::time_point until) NO_THREAD_SAFETY_ANALYSIS {
  std::unique_lock<std::mutex> lock(mutex_.native());
  while (!open_) {
    if (opened_.wait_until(lock, until) == std::cv_status::timeout) break;
  }
  return open_;
}

}  // namespace orva::host
