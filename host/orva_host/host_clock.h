#pragma once

namespace orva::host {

// What getInt64FileTime() asks. Must be callable from any thread.
class HostClock {
 public:
  virtual ~HostClock() = default;
  virtual long long now() = 0;  // ticks
};

// The machine's clock.
long long machineTime();

// Puts another clock in the place of the machine's; null gives that one back. The former clock may
// still be asked by threads that are inside getInt64FileTime().
void setHostClock(HostClock* clock);

}  // namespace orva::host
