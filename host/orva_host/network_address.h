#pragma once

#include <sys/socket.h>

#include <string>

#include "host/controller_network.h"

namespace orva::host {

// Port 0 when `host` is no numeric address or `port` none of 1 to 65535.
NLAddress networkAddress(const std::string& host, int port);
// From what the system says of a datagram's sender.
NLAddress networkAddress(const sockaddr_storage& from);
// The length of what was written to `out`.
socklen_t systemAddress(const NLAddress& address, sockaddr_storage& out);

bool isIPv4(const NLAddress& address);
bool sameHost(const NLAddress& a, const NLAddress& b);
bool sameAddress(const NLAddress& a, const NLAddress& b);
// "10.0.0.1", "fd00::1".
std::string hostText(const NLAddress& address);
// "10.0.0.1:9000", "[fd00::1]:9000".
std::string addressText(const NLAddress& address);

// Orders addresses, for maps.
struct AddressOrder {
  bool operator()(const NLAddress& a, const NLAddress& b) const;
};

}  // namespace orva::host
