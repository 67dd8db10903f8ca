#include "host/addin_base.h"
#include "host/trace.h"
#include "orva_sqlite/provider.h"
#include "share/archive_manager.h"
#include "share/orva_export.h"

// The entries of the add-in.

// Registers the provider type "sqlite". 0, or a negative status.
extern "C" ORVA_API int InitAddin(HostCallback) {
  try {
    // The manager keeps it and may ask it as long as the process lives.
    static orva::sqlite::Factory factory;
    orva::archive::DataArchiveManager::instance().regFactory("sqlite", &factory);
    return 0;
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "<--ReturnError: sqlite InitAddin throws\n", __FILE__, __LINE__);
    return -1;
  }
}

extern "C" ORVA_API void DisposeAddin() {}
