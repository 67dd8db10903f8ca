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

}  // namespace orva::host
