#pragma once

#include <string>

#include "orva_host/network_config.h"
#include "orva_host/network_server.h"

namespace orva::host {

// The host's part in the controller network: what its add-ins ask others with (see
// host/controller_network.h), and the server that answers others. Nothing happens without the
// section "network". For one thread.
class HostNetwork {
 public:
  // Before the add-ins start. Empty, or why the server's socket cannot be opened.
  std::string open(const NetworkCfg& cfg);
  // From here on requests are answered.
  void serve();
  // Takes over the controllers and the times of a file that was read again.
  void reread(const NetworkCfg& next);
  void stop();
  bool joinWithin(int limitMs) { return server_.joinWithin(limitMs); }

 private:
  NetworkCfg cfg_;  // in use
  NetworkServer server_;
};

}  // namespace orva::host
