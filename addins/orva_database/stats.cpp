#include "share/stats.h"

#include <limits>

#include "host/trace.h"
#include "orva_database/guarded.h"
#include "share/ticks.h"

namespace orva {

namespace {

constexpr long long kLogPeriod = 600'000'000;  // 60 s

// One operation's part of the line.
struct Activity {
  double seconds;
  long long count;
  long long rate;
};

// Toward zero; what does not fit becomes the nearest end, infinity too.
long long saturated(float number) {
  constexpr float kBound = 9223372036854775808.0F;  // 2^63
  if (number >= kBound) return std::numeric_limits<long long>::max();
  if (number < -kBound) return std::numeric_limits<long long>::min();
  return static_cast<long long>(number);
}

// In single precision throughout.
Activity activityOf(std::int64_t time, std::int64_t count) {
  const float seconds = static_cast<float>(time) / static_cast<float>(kTicksPerSecond);
  const long long rate = count < 1 ? 0 : saturated(static_cast<float>(count) / seconds);
  return {static_cast<double>(seconds), static_cast<long long>(count), rate};
}

// Wraps at the ends of 64 bits.
void add(std::int64_t& sum, long long value) {
  static_cast<void>(__builtin_add_overflow(sum, value, &sum));
}

}  // namespace

Stats::Stats(std::string header) : AsyncLogger(kLogPeriod) {
  header_.swap(header);
  startLogging();
}

Stats::~Stats() { stop(); }

void Stats::set_header(std::string header) {
  MutexLock lock(mutex_);
  header_.swap(header);
}

void Stats::update_read(long long time, long long count) {
  MutexLock lock(mutex_);
  add(readTime_, time);
  add(readCount_, count);
}

void Stats::update_write(long long time, long long count) {
  MutexLock lock(mutex_);
  add(writeTime_, time);
  add(writeCount_, count);
}

void Stats::update_delete(long long time, long long count) {
  MutexLock lock(mutex_);
  add(deleteTime_, time);
  add(deleteCount_, count);
}

void Stats::set_wait_data(long long value) {
  MutexLock lock(mutex_);
  waitData_ = value;
}

int Stats::log() {
  int result = -1;
  guarded("Stats::log", [this, &result] {
    MutexLock lock(mutex_);
    result = print();
    readCount_ = writeCount_ = deleteCount_ = 0;
    readTime_ = writeTime_ = deleteTime_ = 0;
  });
  return result;
}

int Stats::print() const {
  const Activity read = activityOf(readTime_, readCount_);
  const Activity write = activityOf(writeTime_, writeCount_);
  const Activity deletion = activityOf(deleteTime_, deleteCount_);
  return logMsg(
      "Stat: %s\r\nR(Tm:%f, Ct:%lld, Av:%lld) W(Tm:%f, Ct:%lld, Av:%lld, Wt: %lld) D(Tm:%f, "
      "Ct:%lld, Av:%lld)\r\n",
      header_.c_str(), read.seconds, read.count, read.rate, write.seconds, write.count, write.rate,
      static_cast<long long>(waitData_), deletion.seconds, deletion.count, deletion.rate);
}

}  // namespace orva
