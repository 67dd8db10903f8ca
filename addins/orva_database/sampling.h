#pragma once

#include <cstdint>
#include <vector>

#include "host/pin.h"

namespace orva::archive {

// Thins samples to a time grid: of each period it keeps the sample with the smallest and the one
// with the largest value, so that a spike stays visible at any distance. Periods lie on multiples
// of the interval, also before 1601.
//
// A stream (push) also keeps the first sample of every period, at once: a layer hands it on
// without waiting for the period's end. The batch form (sampl) does not.
//
// A value that cannot be read as a number is never a minimum or maximum. NaN is left out; any
// other such value (text, say) is kept where it differs from the one kept before in its period.
//
// An interval up to kOffUpTo switches resampling off: samples pass unchanged.
// No lock of its own.
class Sampling {
 public:
  // Intervals up to this many ticks (0.1 s) switch resampling off.
  static constexpr std::int64_t kOffUpTo = 1'000'000;

  // The period that a time lies in, counted from time 0.
  static std::int64_t periodOf(std::int64_t time, std::int64_t interval);

  // Output goes to `queue`, which must outlive this. push() and flush() append to it, so only
  // insert() has a use for a position, and it is told one: no position is kept between calls.
  Sampling(std::int64_t interval, PinList& queue, PinList::iterator position);
  virtual ~Sampling();
  Sampling(const Sampling&) = delete;
  Sampling& operator=(const Sampling&) = delete;

  // The next sample of the stream, in ascending time.
  void push(const PinPtr& sample);
  // Appends what the current period has selected and did not emit yet, in ascending time. The
  // period goes on.
  void flush();
  // Forgets what was emitted: the next sample begins a period. What waits for flush() stays.
  void erase();
  // Puts `samples`, reduced to `interval`, before `position` of the output queue (its end: appends
  // them), in order and whole: the last period is not held back. The stream is not concerned.
  void insert(const PinList& samples, std::int64_t interval, PinList::iterator position);

  // Reduces a time-ordered vector in place. Fewer than 3 samples, or an interval up to 1000 ticks
  // (another threshold than above, on purpose), leave it unchanged.
  static void sampl(std::vector<PinPtr>& samples, std::int64_t interval);

 private:
  // A selected sample and its place in the period, counted from 1; 0 is none.
  struct Selected {
    PinPtr pin;
    std::uint64_t place = 0;
  };

  void beginPeriod(const PinPtr& sample);
  void select(const PinPtr& sample);
  void selectNumber(const Selected& sample, double number);

  const std::int64_t interval_;  // ticks, 0 is off
  PinList& queue_;

  bool open_ = false;          // whether there is a current period
  std::int64_t period_ = 0;    // its time / interval_
  std::uint64_t places_ = 0;   // samples seen in it
  std::uint64_t emitted_ = 0;  // all selected ones up to this place are in the queue
  Selected minimum_;
  Selected maximum_;
  double smallest_ = 0;  // their values; NaN while the period had no number
  double largest_ = 0;
  PinPtr lastOther_;              // the value kept last that is no number
  std::vector<Selected> others_;  // selected values that are no numbers, not yet emitted
};

}  // namespace orva::archive
