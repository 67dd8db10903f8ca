#include "host/async_task.h"

#include <utility>

AsyncTask::~AsyncTask() { stop(); }

void AsyncTask::start(long long period, std::function<void()> call) {
  id_ = ParalelTasksPool::instance()->addTask(period, std::move(call));
}

void AsyncTask::stop() {
  if (id_ != 0) ParalelTasksPool::instance()->removeTask(id_);
}

AsyncLogger::AsyncLogger(long long period) : period_(period) {}

AsyncLogger::~AsyncLogger() = default;

int AsyncLogger::log() { return 0; }

void AsyncLogger::startLogging() {
  start(period_, [this] { log(); });
}
