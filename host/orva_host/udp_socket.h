#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/controller_network.h"
#include "orva_host/outgoing_datagram.h"

namespace orva::host {

// A bound UDP socket. send() and receive() may run at one time on two threads.
class UdpSocket {
 public:
  UdpSocket() = default;
  ~UdpSocket();
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // 0, or the errno of the attempt. Port 0 is any free one.
  int open(const std::string& host, std::uint16_t port);
  bool isOpen() const { return fd_ >= 0; }
  std::uint16_t port() const;
  // For poll(), to wait for several sockets at a time; -1 while it is not open.
  int handle() const { return fd_; }

  // Waits for a datagram at most so long. Its length, cut to `capacity`, or -1 when none came.
  int receive(char* bytes, std::size_t capacity, int waitMs, NLAddress& from);
  // What the system took of what was to be sent.
  struct Sent {
    std::size_t datagrams = 0;
    std::size_t bytes = 0;
  };
  // Never waits: what the system has no room for is lost, as on the wire.
  Sent send(const OutgoingDatagrams& datagrams);

 private:
  int fd_ = -1;
};

}  // namespace orva::host
