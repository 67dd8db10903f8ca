#include "orva_host/bind_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace orva::host {

bool isAddress(const std::string& text) {
  in_addr v4{};
  in6_addr v6{};
  return inet_pton(AF_INET, text.c_str(), &v4) == 1 || inet_pton(AF_INET6, text.c_str(), &v6) == 1;
}

bool isLoopback(const std::string& address) {
  in_addr v4{};
  if (inet_pton(AF_INET, address.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace orva::host
