#include "host/critical_section.h"

#include <new>
#include <string>

#include "host/trace.h"
#include "share/mutex.h"

struct RCriticalSection {
  explicit RCriticalSection(const char* givenName) : name(givenName == nullptr ? "" : givenName) {}

  const std::string name;  // seen in a debugger
  orva::RecursiveMutex mutex{orva::LockClass::kSection};
};

// Each call makes a section of its own; equal names are not the same section.
RCriticalSection* RInitCriticalSection(const char* name) {
  try {
    return new RCriticalSection(name);
  } catch (const std::bad_alloc&) {
    OpcUa_Trace_Imp(kTraceError, "critical section not made: out of memory\n", __FILE__, __LINE__);
    return nullptr;
  }
}

void RDoneCriticalSection(RCriticalSection* section) { delete section; }

void REnterCriticalSection(RCriticalSection* section) NO_THREAD_SAFETY_ANALYSIS {
  if (section != nullptr) section->mutex.lock();
}

void RLeaveCriticalSection(RCriticalSection* section) NO_THREAD_SAFETY_ANALYSIS {
  if (section != nullptr) section->mutex.unlock();
}
