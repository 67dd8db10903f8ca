#include "host/addin_base.h"
#include "host/trace.h"
#include "orva_events_log/event_log.h"
#include "share/events_archive_manager.h"
#include "share/orva_export.h"

// The entries of the add-in.

// Registers the provider type "eventslog". 0, or a negative status.
extern "C" ORVA_API int InitAddin(HostCallback) {
  try {
    // The manager keeps it and may ask it as long as the process lives.
    static orva::events_log::Factory factory;
    orva::archive::EventsArchiveManager::instance().regFactory("eventslog", &factory);
    return 0;
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: eventslog InitAddin throws\n", __FILE__,
                    __LINE__);
    return -1;
  }
}

extern "C" ORVA_API void DisposeAddin() {}
