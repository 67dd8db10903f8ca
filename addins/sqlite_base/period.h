#pragma once

#include <algorithm>
#include <cstdint>

namespace orva::sqlite {

// What is left of a period that began at `since`, 1 at least. A configured period may be any
// number.
inline std::int64_t ticksLeft(std::int64_t period, std::int64_t since, std::int64_t now) {
  const std::int64_t gone = std::max<std::int64_t>(0, now - since);
  return period > gone ? period - gone : 1;
}

}  // namespace orva::sqlite
