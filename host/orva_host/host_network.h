#pragma once

#include <cstdint>
#include <string>

#include "orva_host/network_config.h"
#include "orva_host/network_server.h"

namespace orva::host {

// What the host's sockets did, the answering one and those that ask.
struct NetworkFigures {
  std::uint64_t datagramsIn = 0;
  std::uint64_t datagramsOut = 0;
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
  std::uint64_t ignored = 0;         // datagrams that were not for this controller, or not whole
  std::uint64_t repeatedPieces = 0;  // of what this controller asked for
  std::uint64_t requests = 0;        // of other controllers, that were served
  std::uint64_t refused = 0;         // those there was no room for
};

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
  // Any thread.
  NetworkFigures figures() const;

 private:
  NetworkCfg cfg_;  // in use
  NetworkServer server_;
};

}  // namespace orva::host
