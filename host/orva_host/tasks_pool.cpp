#include "orva_host/tasks_pool.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "host/async_task.h"
#include "host/threads.h"
#include "host/trace.h"

namespace orva::host {
namespace {

void callTask(const std::function<void()>& task) {
  try {
    task();
  } catch (const std::exception& error) {
    OpcUa_Trace_Imp(kTraceError, "a periodic task throws: %s\n", __FILE__, __LINE__, error.what());
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "a periodic task throws\n", __FILE__, __LINE__);
  }
}

}  // namespace

TasksPool& TasksPool::instance() {
  static auto* const pool = new TasksPool;
  return *pool;
}

void TasksPool::serve(void* self) {
  for (auto& pool = *static_cast<TasksPool*>(self);;) {
    TaskSchedule::Started task = pool.next();
    callTask(*task.call);
    task.call.reset();  // before remove() learns that it has ended
    pool.finish(task.id);
  }
}

TaskSchedule::Started TasksPool::next() {
  const MutexLock lock(mutex_);
  for (;;) {
    if (auto task = schedule_.startDue(TaskSchedule::Clock::now())) {
      running_.push_back({task->id, std::this_thread::get_id()});
      keepThreadFree();
      return std::move(*task);
    }
    if (const auto due = schedule_.nextDue()) {
      changed_.waitUntil(mutex_, *due);
    } else {
      changed_.wait(mutex_);
    }
  }
}

void TasksPool::finish(std::int64_t id) {
  const MutexLock lock(mutex_);
  running_.erase(running(id));
  schedule_.finish(id, TaskSchedule::Clock::now());
  ended_.notifyAll();
}

void TasksPool::keepThreadFree() {
  if (threads_ > running_.size() || threads_ == kMostThreads) return;
  try {
    tthread::thread thread(&TasksPool::serve, this);
    if (!thread.joinable()) return;
    thread.detach();
    ++threads_;
  } catch (const std::bad_alloc&) {
    // Tried again with the next task.
  }
}

TasksPool::AllRunning::const_iterator TasksPool::running(std::int64_t id) const {
  return std::find_if(running_.begin(), running_.end(),
                      [id](const Running& task) { return task.id == id; });
}

bool TasksPool::runsElsewhere(std::int64_t id) const {
  const auto found = running(id);
  return found != running_.end() && found->thread != std::this_thread::get_id();
}

std::int64_t TasksPool::add(long long period, std::function<void()> task) {
  const MutexLock lock(mutex_);
  const std::int64_t id =
      schedule_.add(TaskSchedule::Clock::now(), TaskSchedule::periodOf(period), std::move(task));
  keepThreadFree();
  changed_.notifyAll();
  return id;
}

void TasksPool::remove(std::int64_t id) {
  TaskSchedule::Call removed;  // destroyed outside the lock: it may hold anything
  const MutexLock lock(mutex_);
  removed = schedule_.remove(id);
  while (runsElsewhere(id)) ended_.wait(mutex_);
}

std::optional<TaskSchedule::Time> TasksPool::nextDue() {
  const MutexLock lock(mutex_);
  return schedule_.nextDue();
}

void TasksPool::makeAllDue() {
  const MutexLock lock(mutex_);
  schedule_.makeAllDue(TaskSchedule::Clock::now());
  changed_.notifyAll();
}

}  // namespace orva::host

ParalelTasksPool* ParalelTasksPool::instance() {
  static auto* const pool = new ParalelTasksPool;
  return pool;
}

std::int64_t ParalelTasksPool::addTask(long long period, std::function<void()> task) {
  return orva::host::TasksPool::instance().add(period, std::move(task));
}

void ParalelTasksPool::removeTask(std::int64_t id) { orva::host::TasksPool::instance().remove(id); }
