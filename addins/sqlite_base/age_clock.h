#pragma once

#include <algorithm>
#include <cstdint>

namespace orva::sqlite {

// The controller's clock as a clean-up counts age by it. A clock that was set forward is believed
// at the second clean-up after that, so that a step which is set right within a clean-up period
// costs no history.
//
// `now` is the controller's time, `elapsed` that of Signal::elapsed(). For one thread.
class AgeClock {
 public:
  // When an archive begins, and at each clean-up: the time as of which it deletes.
  std::int64_t timeOfCleanUp(std::int64_t now, std::int64_t elapsed) {
    const bool isFirst = elapsedBefore_ == 0;
    const std::int64_t expected = before_ + (elapsed - elapsedBefore_);
    before_ = now;
    elapsedBefore_ = elapsed;
    return isFirst ? now : std::min(now, expected);
  }

 private:
  std::int64_t before_ = 0;
  std::int64_t elapsedBefore_ = 0;
};

}  // namespace orva::sqlite
