#pragma once

#include <string>
#include <vector>

#include "orva_host/trace_log.h"
#include "share/mutex.h"

namespace orva::test {

// Catches what is traced and logged while it lives; nothing of it reaches the log. One at a time.
// Thread-safe.
class TraceCapture final : public host::TraceHook {
 public:
  TraceCapture();
  ~TraceCapture() override;
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<host::TraceLine> lines() const EXCLUDES(mutex_);
  // The texts alone, as formatted, with their newlines.
  std::vector<std::string> texts() const EXCLUDES(mutex_);
  // How many lines are exactly this text, and how many contain it.
  int count(const std::string& text) const EXCLUDES(mutex_);
  int countContaining(const std::string& part) const EXCLUDES(mutex_);
  void clear() EXCLUDES(mutex_);

  void onLine(const host::TraceLine& line) override EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_{LockClass::kTraceHook};
  std::vector<host::TraceLine> lines_ GUARDED_BY(mutex_);
};

}  // namespace orva::test
