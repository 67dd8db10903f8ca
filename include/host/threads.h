#pragma once

#include <memory>

#include "host/host_export.h"

namespace tthread {

// A thread of the host. The function runs with the argument; it must not let an exception out.
// Destroying a handle that was neither joined nor detached detaches.
class ORVA_HOST_API thread {
 public:
  thread(void (*function)(void*), void* argument);
  ~thread();
  thread(const thread&) = delete;
  thread& operator=(const thread&) = delete;

  bool joinable() const;
  void join();
  void detach();

 private:
  struct Native;
  std::unique_ptr<Native> native_;
};

}  // namespace tthread
