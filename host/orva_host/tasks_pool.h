#pragma once

#include <boost/container/static_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

#include "orva_host/task_schedule.h"
#include "share/condition.h"
#include "share/mutex.h"

namespace orva::host {

// What stands behind ParalelTasksPool: the schedule and the threads that serve it. These are
// started as they are needed, so that one is free while tasks run, up to a few.
//
// Thread-safe. Never destroyed: its threads run until the process ends, and whatever static object
// has a task may remove it as late as it likes.
class TasksPool {
 public:
  static TasksPool& instance();
  TasksPool(const TasksPool&) = delete;
  TasksPool& operator=(const TasksPool&) = delete;

  // As ParalelTasksPool says.
  std::int64_t add(long long period, std::function<void()> task) EXCLUDES(mutex_);
  void remove(std::int64_t id) EXCLUDES(mutex_);

  // When the next task is due; none while there is none that is not running. For tests.
  std::optional<TaskSchedule::Time> nextDue() EXCLUDES(mutex_);
  // Has every task that is not running called now, and then after whole periods from now. For
  // tests, which cannot wait for long periods.
  void makeAllDue() EXCLUDES(mutex_);

 private:
  static constexpr std::size_t kMostThreads = 4;
  struct Running {
    std::int64_t id;
    std::thread::id thread;
  };
  using AllRunning = boost::container::static_vector<Running, kMostThreads>;

  TasksPool() = default;
  ~TasksPool() = default;

  static void serve(void* self);
  TaskSchedule::Started next() EXCLUDES(mutex_);
  void finish(std::int64_t id) EXCLUDES(mutex_);
  void keepThreadFree() REQUIRES(mutex_);
  AllRunning::const_iterator running(std::int64_t id) const REQUIRES(mutex_);
  bool runsElsewhere(std::int64_t id) const REQUIRES(mutex_);

  Mutex mutex_;        // leaf
  Condition changed_;  // something may be due earlier than before
  Condition ended_;    // a call has ended
  TaskSchedule schedule_ GUARDED_BY(mutex_);
  AllRunning running_ GUARDED_BY(mutex_);
  std::size_t threads_ GUARDED_BY(mutex_) = 0;
};

}  // namespace orva::host
