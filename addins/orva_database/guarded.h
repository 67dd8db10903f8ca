#pragma once

#include <exception>

#include "host/trace.h"

namespace orva {

// Runs call(), which may enter code of others. What it throws is traced and ends here. Whether it
// returned.
template <class Call>
bool guarded(const char* what, const Call& call) noexcept {
  try {
    call();
    return true;
  } catch (const std::exception& e) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: %s throws: %s\n", __FILE__, __LINE__, what,
                    e.what());
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: %s throws\n", __FILE__, __LINE__, what);
  }
  return false;
}

}  // namespace orva
