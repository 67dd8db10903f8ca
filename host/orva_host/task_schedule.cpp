#include "orva_host/task_schedule.h"

#include <algorithm>

namespace orva::host {

TaskSchedule::Clock::duration TaskSchedule::periodOf(long long ticks) {
  using Ticks = std::chrono::duration<long long, std::ratio<1, 10'000'000>>;
  return std::clamp(Ticks(ticks), std::chrono::duration_cast<Ticks>(kShortest),
                    std::chrono::duration_cast<Ticks>(kLongest));
}

TaskSchedule::Id TaskSchedule::add(Time now, Clock::duration period, std::function<void()> call) {
  const Id id = lastId_ + 1;
  const Time due = now + period;
  Waiting place;
  place.emplace(due, id);
  const Call shared = std::make_shared<const std::function<void()>>(std::move(call));
  tasks_.emplace(id, Task{period, shared, due, {}});
  waiting_.merge(place);
  return lastId_ = id;
}

TaskSchedule::Call TaskSchedule::remove(Id id) {
  const auto found = tasks_.find(id);
  if (found == tasks_.end()) return {};
  waiting_.erase({found->second.due, id});
  Call call = std::move(found->second.call);
  tasks_.erase(found);
  return call;
}

std::optional<TaskSchedule::Started> TaskSchedule::startDue(Time now) {
  if (waiting_.empty() || waiting_.begin()->first > now) return std::nullopt;
  const Id id = waiting_.begin()->second;
  Task& task = tasks_.at(id);
  task.place = waiting_.extract(waiting_.begin());
  return Started{id, task.call};
}

void TaskSchedule::finish(Id id, Time now) {
  const auto found = tasks_.find(id);
  if (found == tasks_.end()) return;
  Task& task = found->second;
  const auto missed = std::max<std::int64_t>(0, (now - task.due) / task.period);
  task.due += (missed + 1) * task.period;
  if (!task.place) return;  // it does not run
  task.place.value() = {task.due, id};
  waiting_.insert(std::move(task.place));
}

void TaskSchedule::makeAllDue(Time now) {
  Waiting due;
  for (const auto& place : waiting_) due.emplace(now, place.second);
  for (const auto& place : due) tasks_.at(place.second).due = now;
  waiting_.swap(due);
}

std::optional<TaskSchedule::Time> TaskSchedule::nextDue() const {
  if (waiting_.empty()) return std::nullopt;
  return waiting_.begin()->first;
}

}  // namespace orva::host
