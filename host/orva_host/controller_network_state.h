#pragma once

#include <cstdint>

#include "host/controller_network.h"
#include "orva_host/network_config.h"

namespace orva::host {

// The network that the functions of host/controller_network.h speak of. Sockets that are open stay
// as they are. Thread-safe.
void useNetwork(const NetworkCfg& cfg);

// What went over a socket since it was opened.
struct SocketCounters {
  std::uint64_t datagramsIn = 0;
  std::uint64_t datagramsOut = 0;  // that the system took
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
  std::uint64_t ignored = 0;         // that arrived and were of no open exchange
  std::uint64_t repeatedPieces = 0;  // pieces that were sent or asked for again
};
SocketCounters socketCounters(NLSocket* socket);
// The same of all sockets that were ever opened.
SocketCounters allSocketCounters();

}  // namespace orva::host
