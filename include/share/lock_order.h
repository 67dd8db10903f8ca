#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#if defined(ORVA_LOCK_ORDER)
#include <execinfo.h>
#include <unistd.h>
#endif

namespace orva {

// Where a mutex stands in the order of locks that docs/architecture.md tells. A thread takes them
// downwards; what is not named is a leaf.
enum class LockClass : unsigned char {
  kRemotePass,     // a pass of the remote archive source
  kConfiguration,  // the manager's making and stopping of archives
  kMethod,         // the JSON methods
  kAsyncReads,     // the table of asynchronous reads
  kLegacyFilter,   // a source of the older archive interface
  kArchives,       // the manager's cacheMutex
  kProvider,       // start and stop of a provider
  kQueue,          // the manager's pending requests
  kDirectory,      // of the cache
  kCachedItem,
  kLeaf,       // under it nothing is taken but what a trace line needs
  kTrace,      // the host's, while a hook is told of a line
  kTraceHook,  // of whoever is told
  // These have no place in the order, but must not close a circle.
  kRemoteTables,   // of the remote archive source; above leaves alone
  kEventsManager,  // the making and stopping of archives of events
  kSection,        // an add-in's critical section, above whatever it calls meanwhile
  kTestFirst,      // for the test of what follows
  kTestSecond,
};

// Checks the order in builds with ORVA_LOCK_ORDER, for each thread's locks one by one: a lock taken
// against the order, or one that closes a circle with what any thread has done before, ends the
// process, whether or not threads happened to block each other. Classes are compared, not mutexes.
//
// Threads share relaxed atomics alone, so that the check hides nothing from the thread sanitizer.
// Every library of a process uses the same tables.
#pragma GCC visibility push(default)
namespace lock_order {

constexpr std::size_t kClasses = static_cast<std::size_t>(LockClass::kTestSecond) + 1;

constexpr const char* nameOf(LockClass lockClass) {
  constexpr const char* kNames[kClasses] = {
      "remote pass",          "configuration",  "JSON method",    "asynchronous reads",
      "older archive filter", "archives",       "provider",       "queue",
      "cache directory",      "cached item",    "leaf",           "trace",
      "trace hook",           "remote tables",  "events manager", "critical section",
      "first of test",        "second of test",
  };
  return kNames[static_cast<std::size_t>(lockClass)];
}

// What happens with a breach; a test may put something else in the place of the end.
using Failure = void (*)(const char* text);
[[noreturn]] inline void endProcess(const char* text) {
  std::fprintf(stderr, "lock order: %s\n", text);
#if defined(ORVA_LOCK_ORDER)
  std::array<void*, 48> frames{};
  backtrace_symbols_fd(frames.data(), backtrace(frames.data(), static_cast<int>(frames.size())),
                       STDERR_FILENO);
#endif
  std::abort();
}
inline std::atomic<Failure> failure{&endProcess};

struct Held {
  const void* mutex;
  LockClass lockClass;
};
struct HeldLocks {
  std::array<Held, 32> locks{};
  std::size_t count = 0;
};
inline thread_local HeldLocks heldLocks;

// [a][b]: some thread has taken b while it held a.
inline std::array<std::array<std::atomic<bool>, kClasses>, kClasses> taken{};

constexpr bool isOrdered(LockClass lockClass) { return lockClass <= LockClass::kTraceHook; }

// Whether the order alone allows it.
constexpr bool mayFollow(LockClass held, LockClass wanted) {
  if (held == LockClass::kRemoteTables && wanted < LockClass::kLeaf) return false;
  if (held >= LockClass::kLeaf && held <= LockClass::kTraceHook) {
    return isOrdered(wanted) && wanted > held;
  }
  return held != wanted && (wanted > held || !isOrdered(held));
}

inline bool leads(std::size_t from, std::size_t to, std::array<bool, kClasses>& seen) {
  if (from == to) return true;
  seen[from] = true;
  for (std::size_t next = 0; next < kClasses; ++next) {
    if (!seen[next] && taken[from][next].load() && leads(next, to, seen)) return true;
  }
  return false;
}

inline void report(const char* what, LockClass held, LockClass wanted) {
  char text[160];
  std::snprintf(text, sizeof text, "\"%s\" is taken while \"%s\" is held, %s", nameOf(wanted),
                nameOf(held), what);
  failure.load()(text);
}

inline void check(LockClass held, LockClass wanted) {
  if (!mayFollow(held, wanted)) return report("against the order of locks", held, wanted);
  const auto a = static_cast<std::size_t>(held);
  const auto b = static_cast<std::size_t>(wanted);
  if (taken[a][b].load(std::memory_order_relaxed) || taken[a][b].exchange(true)) return;
  std::array<bool, kClasses> seen{};
  if (leads(b, a, seen)) report("which closes a circle", held, wanted);
}

inline bool isHeld(const void* mutex) {
  const HeldLocks& held = heldLocks;
  for (std::size_t i = 0; i < held.count; ++i) {
    if (held.locks[i].mutex == mutex) return true;
  }
  return false;
}

// Before a lock is waited for.
inline void acquiring(const void* mutex, LockClass wanted) {
  const HeldLocks& held = heldLocks;
  for (std::size_t i = 0; i < held.count; ++i) {
    if (held.locks[i].mutex == mutex) {
      report("and is the same", wanted, wanted);
    } else {
      check(held.locks[i].lockClass, wanted);
    }
  }
}

// Before a mutex that is held is let go until something happens, and then taken again: as if all
// other locks had been taken before it.
inline void awaiting(const void* mutex, LockClass lockClass) {
  const HeldLocks& held = heldLocks;
  for (std::size_t i = 0; i < held.count; ++i) {
    if (held.locks[i].mutex != mutex) check(held.locks[i].lockClass, lockClass);
  }
}

inline void acquired(const void* mutex, LockClass lockClass) {
  HeldLocks& held = heldLocks;
  if (held.count == held.locks.size()) return failure.load()("a thread holds too many locks");
  held.locks[held.count++] = {mutex, lockClass};
}

inline void released(const void* mutex) {
  HeldLocks& held = heldLocks;
  for (std::size_t i = held.count; i-- > 0;) {
    if (held.locks[i].mutex != mutex) continue;
    for (--held.count; i < held.count; ++i) held.locks[i] = held.locks[i + 1];
    return;
  }
}

}  // namespace lock_order
#pragma GCC visibility pop

// The part of a mutex that the check needs: nothing where there is none.
#if defined(ORVA_LOCK_ORDER)
class LockWatch {
 protected:
  LockWatch() = default;
  explicit LockWatch(LockClass lockClass) : lockClass_(lockClass) {}
  void acquiring() const { lock_order::acquiring(this, lockClass_); }
  void acquiringAgain() const {
    if (!lock_order::isHeld(this)) acquiring();
  }
  void acquired() const { lock_order::acquired(this, lockClass_); }
  void awaiting() const { lock_order::awaiting(this, lockClass_); }
  void released() const { lock_order::released(this); }

 private:
  const LockClass lockClass_ = LockClass::kLeaf;
};
#else
class LockWatch {
 protected:
  LockWatch() = default;
  explicit LockWatch(LockClass) {}
  void acquiring() const {}
  void acquiringAgain() const {}
  void acquired() const {}
  void awaiting() const {}
  void released() const {}
};
#endif

}  // namespace orva
