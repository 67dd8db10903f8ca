#pragma once

namespace orva::test {

// The memory allocations of a test binary that includes failing_allocations.cpp: operator new,
// SQLite's own and those of zstd's contexts. They are counted, and one of them fails when a test
// says so. Allocations of
// threads that the system starts count too; those inside an Unharmed do not, nor do they fail.
class FailingAllocations {
 public:
  // SQLite must not be in use. One at a time.
  FailingAllocations();
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;

  // From now on allocations count; the n-th one fails, 0 for none.
  void arm(long n);
  void disarm();
  // Since arm().
  long counted() const;
  bool hasFailed() const;
  // Blocks that were allocated by operator new and not freed, by whomever; SQLite's bytes.
  static long long blocks();
  static long long sqliteBytes();

  // For the code of a test between what it tests, on its thread.
  class Unharmed {
   public:
    Unharmed();
    ~Unharmed();
    Unharmed(const Unharmed&) = delete;
    Unharmed& operator=(const Unharmed&) = delete;
  };
};

// Runs call() so that the calling thread's allocations fail once `count` of them succeeded.
void limitAllocations(long count);  // negative: no limit
template <class Call>
void withAllocations(long count, const Call& call) {
  limitAllocations(count);
  try {
    call();
  } catch (...) {
    limitAllocations(-1);
    throw;
  }
  limitAllocations(-1);
}

}  // namespace orva::test
