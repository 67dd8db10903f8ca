#pragma once

#include <cstdint>
#include <functional>

#include "host/host_export.h"

// The host's periodic tasks: a few threads that call each task once per period.
//
// Time is the machine's monotonic one, so setting the controller's clock neither delays a task nor
// hurries it. A task never runs twice at a time; one that takes longer than its period misses the
// calls in between. A slow task does not hold up the others while the pool has threads left. What a
// task throws is traced, and it is called again at its next time.
//
// Thread-safe. Lives until the process ends: its threads are never joined.
class ORVA_HOST_API ParalelTasksPool {
 public:
  static ParalelTasksPool* instance();
  ParalelTasksPool(const ParalelTasksPool&) = delete;
  ParalelTasksPool& operator=(const ParalelTasksPool&) = delete;

  // Calls `task` every `period` (100 ns each; at least a millisecond, at most a year), first when
  // one period has passed. Gives the id to remove it by, which no other task ever gets.
  std::int64_t addTask(long long period, std::function<void()> task);
  // From the return on the task does not run and its function is destroyed: a call in progress is
  // waited for, except by itself. Hold no lock that the task takes. An id that is not known, or not
  // any more, is fine.
  void removeTask(std::int64_t id);

 private:
  ParalelTasksPool() = default;
  ~ParalelTasksPool() = default;
};

// An object with a task in the pool, from start() to its destruction at the latest.
//
// The pool calls from threads of its own. So a class that starts does it as the last step of its
// constructor and stops as the first step of its destructor; and it is the most derived class that
// does so (mark it final), since before and after that a virtual call would reach a half-built
// object.
class ORVA_HOST_API AsyncTask {
 public:
  AsyncTask() = default;
  AsyncTask(const AsyncTask&) = delete;
  AsyncTask& operator=(const AsyncTask&) = delete;
  virtual ~AsyncTask();  // stops

 protected:
  // At most once.
  void start(long long period, std::function<void()> call);
  // Takes the task out of the pool and waits for a call in progress. Again: nothing.
  void stop();

 private:
  std::int64_t id_ = 0;  // the task's in the pool; 0 before start()
};

// A task that writes something to the log once per period.
class ORVA_HOST_API AsyncLogger : public AsyncTask {
 public:
  // `period` in 100 ns. Nothing is called before the derived class says startLogging().
  explicit AsyncLogger(long long period);
  ~AsyncLogger() override;

  // What the host calls. The result is the log's.
  virtual int log();

 protected:
  void startLogging();

 private:
  const long long period_;
};
