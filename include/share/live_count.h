#pragma once

#include <atomic>

namespace orva {

// Base of classes whose living objects are counted in builds with ORVA_LIVE_COUNTS, so that a test
// can tell that none is left behind; empty in all others. Relaxed, so it hides nothing from the
// thread sanitizer.
template <class T>
class LiveCount {
#if defined(ORVA_LIVE_COUNTS)
 public:
  static constexpr bool kCounts = true;
  static long long alive() { return alive_.load(std::memory_order_relaxed); }

 protected:
  LiveCount() { alive_.fetch_add(1, std::memory_order_relaxed); }
  LiveCount(const LiveCount&) : LiveCount() {}
  LiveCount& operator=(const LiveCount&) = default;
  ~LiveCount() { alive_.fetch_sub(1, std::memory_order_relaxed); }

 private:
  inline static std::atomic<long long> alive_{0};
#else
 public:
  static constexpr bool kCounts = false;
  static long long alive() { return 0; }
#endif
};

}  // namespace orva
