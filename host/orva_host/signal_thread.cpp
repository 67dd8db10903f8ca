#include "orva_host/signal_thread.h"

#include <pthread.h>

#include <csignal>

namespace orva::host {
namespace {

// Wakes the thread when it is to end.
constexpr int kWakeUp = SIGUSR2;

sigset_t handledSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGHUP, SIGUSR1, SIGTERM, SIGINT, kWakeUp}) sigaddset(&signals, signal);
  return signals;
}

}  // namespace

SignalThread::SignalThread() {
  std::signal(SIGPIPE, SIG_IGN);
  const sigset_t signals = handledSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  thread_ = std::thread([this] { run(); });
}

SignalThread::~SignalThread() {
  ending_ = true;
  pthread_kill(thread_.native_handle(), kWakeUp);
  thread_.join();
}

void SignalThread::run() {
  const sigset_t signals = handledSignals();
  while (true) {
    int signal = 0;
    if (sigwait(&signals, &signal) != 0) continue;
    if (ending_) return;
    if (signal == kWakeUp) continue;  // from outside: means nothing here
    give(signal);
  }
}

void SignalThread::give(int signal) {
  const MutexLock lock(mutex_);
  signals_.push_back(signal);
  arrived_.notifyOne();
}

int SignalThread::next(std::optional<std::chrono::steady_clock::time_point> end) {
  const MutexLock lock(mutex_);
  while (signals_.empty()) {
    if (!end) {
      arrived_.wait(mutex_);
    } else if (!arrived_.waitUntil(mutex_, *end) && signals_.empty()) {
      return 0;
    }
  }
  const int signal = signals_.front();
  signals_.pop_front();
  return signal;
}

}  // namespace orva::host
