#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>

namespace orva::host {

// Which periodic task is due when. A task's times are its start plus whole periods, so what delays
// one call does not shift the next ones; times that have gone by are left out.
//
// No lock and no clock of its own: times come from its user. Only add() and makeAllDue() need
// memory, and without it they change nothing.
class TaskSchedule {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;
  using Id = std::int64_t;
  using Call = std::shared_ptr<const std::function<void()>>;

  // A task that was due and is running from now on.
  struct Started {
    Id id;
    Call call;
  };

  static constexpr std::chrono::milliseconds kShortest{1};
  static constexpr std::chrono::hours kLongest{365 * 24};

  // A period, in 100 ns, within what is possible.
  static Clock::duration periodOf(long long ticks);

  // First due a period from now. Ids are never used again.
  Id add(Time now, Clock::duration period, std::function<void()> call);
  // Its call, which the caller destroys; null when there is no such task. A running one just does
  // not come again.
  Call remove(Id id);

  // The task that has been due for longest, unless it is running.
  std::optional<Started> startDue(Time now);
  void finish(Id id, Time now);
  // Every task that is not running is due now, and then after whole periods from now.
  void makeAllDue(Time now);
  // When the next task is due; none while all are running.
  std::optional<Time> nextDue() const;

 private:
  using Waiting = std::set<std::pair<Time, Id>>;
  struct Task {
    Clock::duration period;
    Call call;
    Time due;
    Waiting::node_type place;  // its own in `waiting_`, while it runs
  };

  std::map<Id, Task> tasks_;
  Waiting waiting_;  // those that are not running
  Id lastId_ = 0;
};

}  // namespace orva::host
