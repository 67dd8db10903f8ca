#pragma once

#include <cstdint>
#include <string>

#include "host/async_task.h"
#include "share/mutex.h"
#include "share/orva_export.h"

namespace orva {

// What an archive read, wrote and deleted since the last line in the log. A provider keeps one per
// archive; the host's task pool has it write a line every 60 s:
//
//   Stat: data/fast
//   R(Tm:0.012000, Ct:1200, Av:100000) W(Tm:..., Ct:..., Av:..., Wt: 17) D(Tm:..., Ct:..., Av:...)
//
// Tm: seconds spent, Ct: how many, Av: how many a second, Wt: the wait data.
//
// Thread-safe. A line is written under the mutex, so an update may have to wait for that.
class ORVA_API Stats final : public AsyncLogger {
 public:
  // `header` stands at the head of each line.
  explicit Stats(std::string header);
  // Waits for a log() in progress.
  ~Stats() override;

  void set_header(std::string header) EXCLUDES(mutex_);
  // Adds to what the operation took, in 100 ns, and to its count.
  void update_read(long long time, long long count) EXCLUDES(mutex_);
  void update_write(long long time, long long count) EXCLUDES(mutex_);
  void update_delete(long long time, long long count) EXCLUDES(mutex_);
  // What waits, in whatever unit; the lines show the value set last. A new period leaves it.
  void set_wait_data(long long value) EXCLUDES(mutex_);

  // Writes the line and begins a new period. What logMsg() gave, or -1 after an exception.
  int log() override EXCLUDES(mutex_);

 private:
  int print() const REQUIRES(mutex_);

  mutable Mutex mutex_;  // guards everything below
  std::int64_t readCount_ GUARDED_BY(mutex_) = 0;
  std::int64_t writeCount_ GUARDED_BY(mutex_) = 0;
  std::int64_t deleteCount_ GUARDED_BY(mutex_) = 0;
  std::int64_t readTime_ GUARDED_BY(mutex_) = 0;
  std::int64_t writeTime_ GUARDED_BY(mutex_) = 0;
  std::int64_t deleteTime_ GUARDED_BY(mutex_) = 0;
  std::int64_t waitData_ GUARDED_BY(mutex_) = 0;
  std::string header_ GUARDED_BY(mutex_);
};

}  // namespace orva
