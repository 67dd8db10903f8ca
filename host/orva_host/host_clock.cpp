#include "orva_host/host_clock.h"

#include <atomic>
#include <ctime>

#include "host/host_time.h"
#include "share/ticks.h"

namespace orva::host {
namespace {
std::atomic<HostClock*> replacement{nullptr};
}

long long machineTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return kUnixEpochTicks + static_cast<long long>(now.tv_sec) * kTicksPerSecond + now.tv_nsec / 100;
}

void setHostClock(HostClock* clock) { replacement.store(clock, std::memory_order_release); }

}  // namespace orva::host

long long getInt64FileTime() {
  using namespace orva::host;
  HostClock* clock = replacement.load(std::memory_order_acquire);
  return clock == nullptr ? machineTime() : clock->now();
}
