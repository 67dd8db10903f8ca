#pragma once

#include <cstdint>

#include "orva_database/controller_link.h"
#include "orva_host/controller_network_state.h"
#include "share/mutex.h"

namespace orva::bench {

// What the puller's exchanges were, since the link was made.
struct LinkFigures {
  std::uint64_t exchanges = 0;
  std::uint64_t failed = 0;
  std::int64_t exchangeNs = 0;     // time inside them, the one that runs included
  std::int64_t exchangeCpuNs = 0;  // of that, what its thread used of the processor
  std::int64_t threadCpuNs = 0;    // all that the thread used by the end of the last one
  host::SocketCounters socket;
};

// The host's controller network, as the remote source uses it, with figures.
class CountedLink final : public archive::ControllerLink {
 public:
  explicit CountedLink(int basePort);
  ~CountedLink() override;
  CountedLink(const CountedLink&) = delete;
  CountedLink& operator=(const CountedLink&) = delete;

  bool isOpen() const override { return socket_ != nullptr; }
  int addresses(std::int32_t index, NLAddress& first) override;
  int exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
               std::string& answer) override EXCLUDES(mutex_);

  // From any thread.
  LinkFigures figures() const EXCLUDES(mutex_);

 private:
  NLSocket* const socket_;
  mutable Mutex mutex_;  // leaf
  LinkFigures figures_ GUARDED_BY(mutex_);
  std::int64_t runsSinceNs_ GUARDED_BY(mutex_) = 0;  // 0: no exchange
};

}  // namespace orva::bench
