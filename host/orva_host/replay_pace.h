#pragma once

#include <cstdint>
#include <deque>

namespace orva::host {

// When the rows of a recording arrived, judged by the times that they bear. Rows come in order of
// arrival, but a row's time may be late (a delayed sample) or early (a station whose clock is
// ahead): neither may stop the others. So a row arrived at its own time or at the median of the
// rows around it, whichever is earlier, and never before the row in front of it.
//
//   pace.add(time of each row, kWindow rows ahead of the one that is replayed)
//   pace.next()   arrival of the rows, one by one
class ReplayPace {
 public:
  // Rows that are looked at together.
  static constexpr std::size_t kWindow = 64;

  void add(std::int64_t time);
  // Of the oldest row not yet asked for. There must be one.
  std::int64_t next();

 private:
  std::deque<std::int64_t> window_;  // times not yet asked for, in order of arrival
  bool begun_ = false;
  std::int64_t arrival_ = 0;
};

}  // namespace orva::host
