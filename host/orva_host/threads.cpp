#include "host/threads.h"

#include <system_error>
#include <thread>

#include "host/trace.h"

namespace tthread {

struct thread::Native {
  std::thread thread;
};

thread::thread(void (*function)(void*), void* argument) : native_(std::make_unique<Native>()) {
  try {
    native_->thread = std::thread(function, argument);
  } catch (const std::system_error& error) {
    OpcUa_Trace_Imp(kTraceError, "thread not started: %s\n", __FILE__, __LINE__, error.what());
  }
}

thread::~thread() {
  if (joinable()) detach();
}

bool thread::joinable() const { return native_->thread.joinable(); }

void thread::join() {
  if (joinable()) native_->thread.join();
}

void thread::detach() {
  if (joinable()) native_->thread.detach();
}

}  // namespace tthread
