// The entry points of the add-in's shared library.

#include "orva_database/database_addin.h"
#include "orva_database/guarded.h"
#include "share/orva_export.h"
#include "share/status_codes.h"

extern "C" {

ORVA_API int InitAddin(HostCallback callback) { return orva::archive::Init(callback); }

ORVA_API void DisposeAddin() {}

// For hosts that know entry points only by their C names.
ORVA_API int StartAddin(HostCallback callback) {
  int result = static_cast<int>(orva::status::kBadOutOfMemory);
  orva::guarded("StartAddin", [&] { result = orva::DataBaseAddin::GetInstance().Init(callback); });
  return result;
}

}  // extern "C"
