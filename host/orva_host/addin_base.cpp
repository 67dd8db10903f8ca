#include "host/addin_base.h"

#include <algorithm>
#include <string>
#include <vector>

#include "host/trace.h"
#include "orva_host/config_events.h"
#include "share/mutex.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

struct Attached {
  std::string name;
  unsigned mask;
  AddinBase* addin;
};

struct Processors {
  Mutex mutex;
  std::vector<Attached> attached GUARDED_BY(mutex);
};

// Never destroyed: add-in objects are static and detach themselves at the end of the process.
Processors& processors() {
  static Processors& made = *new Processors;
  return made;
}

void attach(const char* name, unsigned mask, AddinBase* addin) {
  Processors& all = processors();
  MutexLock lock(all.mutex);
  for (Attached& known : all.attached) {
    if (known.name != name) continue;
    known.mask = mask;
    known.addin = addin;
    return;
  }
  all.attached.push_back({name, mask, addin});
}

void detach(const AddinBase* addin) {
  Processors& all = processors();
  MutexLock lock(all.mutex);
  const auto isAddin = [addin](const Attached& known) { return known.addin == addin; };
  all.attached.erase(std::remove_if(all.attached.begin(), all.attached.end(), isAddin),
                     all.attached.end());
}

std::vector<Attached> attachedFor(int mode) {
  Processors& all = processors();
  MutexLock lock(all.mutex);
  std::vector<Attached> found;
  for (const Attached& known : all.attached) {
    if ((known.mask >> mode & 1U) != 0) found.push_back(known);
  }
  return found;
}

}  // namespace

void deliverConfigEvent(int mode) {
  if (mode < 0 || mode > 9) return;
  for (const Attached& target : attachedFor(mode)) {
    try {
      const int result = target.addin->OnConfigEvent(mode, nullptr);
      if (result < 0) {
        OpcUa_Trace_Imp(kTraceError, "%s: configuration event %d answered with 0x%08X\n", __FILE__,
                        __LINE__, target.name.c_str(), mode, static_cast<unsigned>(result));
      }
    } catch (...) {
      OpcUa_Trace_Imp(kTraceError, "%s: configuration event %d let an exception out\n", __FILE__,
                      __LINE__, target.name.c_str(), mode);
    }
  }
}

}  // namespace orva::host

AddinBase::~AddinBase() { orva::host::detach(this); }

int AddinBase::AttachConfigProcessor(const char* name, unsigned mask) {
  if (name == nullptr) return static_cast<int>(orva::status::kBadInvalidArgument);
  orva::host::attach(name, mask, this);
  return 0;
}
