#pragma once

#include <boost/smart_ptr/shared_ptr.hpp>
#include <cstdint>
#include <list>

#include "share/archive_manager.h"

namespace orva::archive {

// Finds where the history of an item ends: its newest time, and the samples of that time. Never
// waits for an archive: the answer is there, or comes with a later step. Of archives that ended
// meanwhile it tells nothing; begin with a new one then.
//
// For one thread.
class LocalEnd {
 public:
  // One step. True when the end is known. A read that fails is begun again after a while.
  bool find(std::int64_t itemId, std::int64_t cacheId);

  std::int64_t time() const { return time_; }  // 0: there are no samples
  const std::list<PinPtr>& samples() const { return samples_; }

 private:
  enum class State { start, newest, samples, known };

  void ask(State next, std::int32_t layer);
  bool answered();
  void readAnswer(std::int32_t layer);

  State state_ = State::start;
  std::int64_t cacheId_ = 0;
  SharedRequest request_;
  bool failed_ = false;
  std::int64_t failedAt_ = 0;  // host time
  std::int64_t time_ = 0;
  std::list<PinPtr> samples_;
};

}  // namespace orva::archive
