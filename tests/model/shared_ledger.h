#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "model/sample.h"
#include "share/mutex.h"

namespace orva::model {

// A range that was read, and what came back.
struct Reading {
  std::int64_t from = 0;  // the times of the range, 0 is open
  std::int64_t to = 0;
  std::vector<Sample> samples;
  bool whole = false;  // nothing failed
  bool more = false;   // there is more behind the last sample
};

// What the writers of one variable have offered, and what of it was accepted. No two samples have
// one time. Thread-safe.
class SharedLedger {
 public:
  // Before a sample is offered, and once it was accepted by an item with an archive.
  void offer(const Sample& sample) EXCLUDES(mutex_);
  void accepted(const Sample& sample) EXCLUDES(mutex_);

  // How many were accepted so far.
  std::size_t acceptedCount() const EXCLUDES(mutex_);
  std::size_t offeredCount() const EXCLUDES(mutex_);

  // What is wrong with an answer: out of order, twice, never offered; and, where the reading is
  // whole, one of the first `before` accepted samples of the range is missing. Empty when nothing.
  std::string compare(const Reading& reading, std::size_t before) const EXCLUDES(mutex_);

 private:
  struct Entry {
    Sample sample;
    std::size_t number = SIZE_MAX;  // in the order of acceptance
  };
  std::vector<Entry>::const_iterator notBelow(std::int64_t time) const REQUIRES(mutex_);
  std::string missing(const Reading& reading, std::size_t before) const REQUIRES(mutex_);

  mutable Mutex mutex_;                            // leaf
  std::vector<Entry> entries_ GUARDED_BY(mutex_);  // by time
  std::size_t accepted_ GUARDED_BY(mutex_) = 0;
};

}  // namespace orva::model
