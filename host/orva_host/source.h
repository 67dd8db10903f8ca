#pragma once

#include <memory>
#include <string>

#include "orva_host/config_file.h"
#include "orva_host/gate.h"

namespace orva::host {

// Something that feeds the installation with values, on a thread of its own.
class Source {
 public:
  virtual ~Source() = default;
  // Goes on until it has nothing more to do or `stop` opens; then it returns within a second.
  virtual void run(Gate& stop) = 0;
};

// A source of the configured type, ready to run; null, with the reason, when it cannot.
std::unique_ptr<Source> makeSource(const SourceCfg& cfg, std::string& error);

// Live values of what the machine tells about itself, once per period. The signals are those of
// SystemSignals, and so is `root`. One that this machine does not have is logged once, its variable
// stays as it is.
std::unique_ptr<Source> makeSystemSource(const SourceCfg& cfg, std::string& error,
                                         const std::string& root = "");

// Replays a recorded plant (orva_host/plant_row.h says in which form) into the archives: each row
// is one execution of a function block "ArchiveProc", with the time and quality of the row. The
// rows come as they arrived, `speed` times as fast, or as fast as it goes when that is 0. While an
// archive has little room in its write buffer the recording waits, so nothing of it is dropped;
// what is late then comes without a pause. Bad rows are counted and logged, at most one line a
// second.
std::unique_ptr<Source> makeCsvSource(const SourceCfg& cfg, std::string& error);

}  // namespace orva::host
