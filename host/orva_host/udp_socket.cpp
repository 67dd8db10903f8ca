#include "orva_host/udp_socket.h"

#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "orva_host/network_address.h"

namespace orva::host {
namespace {

// Room for the bursts of several controllers. The system may grant less.
constexpr int kReceiveBuffer = 1 << 20;

int bindTo(int fd, const NLAddress& address, std::uint16_t port) {
  const int on = 1;
  if (!isIPv4(address)) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  NLAddress own = address;
  own.port = port;
  sockaddr_storage system{};
  const socklen_t length = systemAddress(own, system);
  return bind(fd, reinterpret_cast<const sockaddr*>(&system), length) == 0 ? 0 : errno;
}

}  // namespace

UdpSocket::~UdpSocket() {
  if (fd_ >= 0) close(fd_);
}

int UdpSocket::open(const std::string& host, std::uint16_t port) {
  const NLAddress address = networkAddress(host, 1);
  if (address.port == 0) return EINVAL;
  const int family = isIPv4(address) ? AF_INET : AF_INET6;
  const int fd = socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  const int error = bindTo(fd, address, port);
  if (error != 0) {
    close(fd);
    return error;
  }
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
  return 0;
}

std::uint16_t UdpSocket::port() const {
  sockaddr_storage own{};
  socklen_t length = sizeof own;
  if (getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &length) != 0) return 0;
  return networkAddress(own).port;
}

int UdpSocket::receive(char* bytes, std::size_t capacity, int waitMs, NLAddress& from) {
  pollfd waiting{fd_, POLLIN, 0};
  if (poll(&waiting, 1, waitMs) <= 0) return -1;
  sockaddr_storage sender{};
  socklen_t length = sizeof sender;
  const ssize_t received =
      recvfrom(fd_, bytes, capacity, 0, reinterpret_cast<sockaddr*>(&sender), &length);
  if (received < 0) return -1;
  from = networkAddress(sender);
  return static_cast<int>(received);
}

UdpSocket::Sent UdpSocket::send(const OutgoingDatagrams& datagrams) {
  Sent taken;
  for (const OutgoingDatagram& datagram : datagrams) {
    sockaddr_storage to{};
    const socklen_t length = systemAddress(datagram.to, to);
    const ssize_t sent = sendto(fd_, datagram.bytes.data(), datagram.bytes.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&to), length);
    if (sent < 0) continue;
    ++taken.datagrams;
    taken.bytes += datagram.bytes.size();
  }
  return taken;
}

}  // namespace orva::host
