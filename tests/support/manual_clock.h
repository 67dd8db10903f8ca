#pragma once

#include <atomic>
#include <cstdint>

#include "orva_host/host_clock.h"
#include "share/signal.h"

namespace orva::test {

// Time that passes only when a test says so. From construction to destruction it stands in for
// getInt64FileTime() and for every timed wait on an orva::Signal.
//
// A wait ends when its signal is notified, or once the virtual time has moved on by its ticks. With
// autoAdvance a wait that would block moves the virtual time on by its ticks itself and ends at
// once: code that waits in a loop runs through without real time.
//
// Thread-safe. One at a time; make it before the threads that wait, and end those before it.
class ManualClock final : public host::HostClock, public Signal::WaitClock {
 public:
  // 2024-01-01 00:00 UTC.
  static constexpr long long kStart = 133'485'408'000'000'000;

  explicit ManualClock(long long start = kStart);
  ~ManualClock() override;
  ManualClock(const ManualClock&) = delete;
  ManualClock& operator=(const ManualClock&) = delete;

  long long now() override { return wall_.load(); }
  bool wait(Signal& signal, std::uint64_t seen, long long ticks) override;

  // Time goes by: waits see it too.
  void advance(long long ticks);
  // Somebody sets the controller's clock: no time goes by, waits go on as before.
  void setTime(long long time) { wall_ = time; }
  void setAutoAdvance(bool on) { autoAdvance_ = on; }

  // How many waits are in progress; what a test polls before it advances.
  int waiting() const { return waiting_.load(); }

 private:
  std::atomic<long long> wall_;
  std::atomic<long long> elapsed_{0};  // what waits measure; never goes back
  std::atomic<bool> autoAdvance_{false};
  std::atomic<int> waiting_{0};
};

}  // namespace orva::test
