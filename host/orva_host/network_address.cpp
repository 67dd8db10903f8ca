#include "orva_host/network_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

namespace orva::host {
namespace {
constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
}

NLAddress networkAddress(const std::string& host, int port) {
  NLAddress address;
  if (port < 1 || port > UINT16_MAX) return address;
  if (inet_pton(AF_INET, host.c_str(), address.ip + sizeof kMappedPrefix) == 1) {
    std::memcpy(address.ip, kMappedPrefix, sizeof kMappedPrefix);
  } else if (inet_pton(AF_INET6, host.c_str(), address.ip) != 1) {
    return NLAddress();
  }
  address.port = static_cast<std::uint16_t>(port);
  return address;
}

NLAddress networkAddress(const sockaddr_storage& from) {
  NLAddress address;
  if (from.ss_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, &from, sizeof v4);
    std::memcpy(address.ip, kMappedPrefix, sizeof kMappedPrefix);
    std::memcpy(address.ip + sizeof kMappedPrefix, &v4.sin_addr, sizeof v4.sin_addr);
    address.port = ntohs(v4.sin_port);
  } else if (from.ss_family == AF_INET6) {
    sockaddr_in6 v6{};
    std::memcpy(&v6, &from, sizeof v6);
    std::memcpy(address.ip, &v6.sin6_addr, sizeof v6.sin6_addr);
    address.port = ntohs(v6.sin6_port);
  }
  return address;
}

socklen_t systemAddress(const NLAddress& address, sockaddr_storage& out) {
  out = sockaddr_storage{};
  if (isIPv4(address)) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(address.port);
    std::memcpy(&v4.sin_addr, address.ip + sizeof kMappedPrefix, sizeof v4.sin_addr);
    std::memcpy(&out, &v4, sizeof v4);
    return sizeof v4;
  }
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(address.port);
  std::memcpy(&v6.sin6_addr, address.ip, sizeof v6.sin6_addr);
  std::memcpy(&out, &v6, sizeof v6);
  return sizeof v6;
}

bool isIPv4(const NLAddress& address) {
  return std::memcmp(address.ip, kMappedPrefix, sizeof kMappedPrefix) == 0;
}

bool sameHost(const NLAddress& a, const NLAddress& b) {
  return std::memcmp(a.ip, b.ip, sizeof a.ip) == 0;
}

bool sameAddress(const NLAddress& a, const NLAddress& b) {
  return a.port == b.port && sameHost(a, b);
}

std::string hostText(const NLAddress& address) {
  char text[INET6_ADDRSTRLEN] = {};
  const bool v4 = isIPv4(address);
  inet_ntop(v4 ? AF_INET : AF_INET6, address.ip + (v4 ? sizeof kMappedPrefix : 0), text,
            sizeof text);
  return text;
}

std::string addressText(const NLAddress& address) {
  const std::string host = hostText(address);
  return (isIPv4(address) ? host : "[" + host + "]") + ":" + std::to_string(address.port);
}

bool AddressOrder::operator()(const NLAddress& a, const NLAddress& b) const {
  const int order = std::memcmp(a.ip, b.ip, sizeof a.ip);
  return order != 0 ? order < 0 : a.port < b.port;
}

}  // namespace orva::host
