#include "sqlite_base/problem_log.h"

#include <algorithm>

#include "host/trace.h"
#include "share/signal.h"
#include "share/ticks.h"

namespace orva::sqlite {
namespace {
// How often a problem that lasts is said again.
constexpr std::int64_t kSayAgainTicks = 60 * kTicksPerSecond;
}  // namespace

ProblemLog::ProblemLog(const char* provider, const std::string& file)
    : provider_(provider), file_(file), source_(std::string(provider) + ": " + file) {}

void ProblemLog::cannotOpen(const std::string& problem) { report(problem, Trouble::kOpening); }

void ProblemLog::failed(const std::string& problem) { report(problem, Trouble::kWriting); }

void ProblemLog::report(const std::string& problem, Trouble trouble) {
  const std::int64_t now = Signal::elapsed();
  if (problem != last_ || now - lastAt_ >= kSayAgainTicks) {
    last_ = problem;
    lastAt_ = now;
    OpcUa_Trace_Imp(kTraceError, "%s: archive \"%s\": %s\n", __FILE__, __LINE__, provider_,
                    file_.c_str(), problem.c_str());
  }
  // What throws for lack of memory leaves it to be told.
  const bool isFirst = trouble_ == Trouble::kNone;
  if (isFirst) post(HostEventKind::kProviderFailure, HostEventSeverity::kError, problem);
  trouble_ = std::max(trouble_, trouble);
}

void ProblemLog::opened() {
  if (trouble_ == Trouble::kOpening) works();
}

void ProblemLog::works() {
  if (trouble_ == Trouble::kNone) return;
  trouble_ = Trouble::kNone;
  last_.clear();
  OpcUa_Trace_Imp(kTraceWarning, "%s: archive \"%s\": works again\n", __FILE__, __LINE__, provider_,
                  file_.c_str());
  post(HostEventKind::kProviderRecovered, HostEventSeverity::kInformation, "works again");
}

void ProblemLog::wasEmpty() {
  OpcUa_Trace_Imp(kTraceWarning, "%s: archive \"%s\" was an empty file: a new one is begun\n",
                  __FILE__, __LINE__, provider_, file_.c_str());
}

void ProblemLog::movedAside(const std::string& name) {
  OpcUa_Trace_Imp(kTraceError,
                  "%s: archive \"%s\" cannot be read: it was moved to \"%s\", and a new one is "
                  "begun\n",
                  __FILE__, __LINE__, provider_, file_.c_str(), name.c_str());
  post(HostEventKind::kProviderFailure, HostEventSeverity::kError,
       "cannot be read: it was moved to \"" + name + "\", and a new one is begun");
}

void ProblemLog::post(HostEventKind kind, HostEventSeverity severity, const std::string& text,
                      std::int64_t count) const {
  postHostEvent(kind, severity, source_.c_str(), text.c_str(), count);
}

}  // namespace orva::sqlite
