#include "orva_host/gate.h"

namespace orva::host {

void Gate::wait() {
  const MutexLock lock(mutex_);
  while (!open_) opened_.wait(mutex_);
}

bool Gate::waitUntil(Clock::time_point until) {
  const MutexLock lock(mutex_);
  while (!open_) {
    if (!opened_.waitUntil(mutex_, until)) break;
  }
  return open_;
}

}  // namespace orva::host
