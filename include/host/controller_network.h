#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "host/host_export.h"

// The network of the controllers of one installation: requests to other controllers over UDP, with
// an answer each. A request is the framed text that request handlers get (host/request_dispatch.h):
// "<path>\n<caller>\n<body>". docs/controller-network.md describes what is on the wire.
//
// A controller answers on its base port. Whatever asks other controllers does so from a port of its
// own above it: base port + 600 for the remote archive source. Other controllers answer only
// askers at base port + 600 to base port + 619 of a controller that they know.

// A socket to ask from. Null: none.
struct NLSocket;

// An IP address and port; IPv4 in its IPv6-mapped form. The port is 0 when it is no address.
struct NLAddress {
  unsigned char ip[16] = {};
  std::uint16_t port = 0;
};

// Where a controller of the installation answers.
struct NLControllerAddress {
  char host[46] = {};  // numeric address, terminated
  std::uint16_t port = 0;
};

// Bytes of the longest request and of the longest answer.
constexpr int kNLMaxMessage = 256 * 1024;

// Statuses of NLSendReceive() besides those of the handler that was asked.
constexpr int kNLTimedOut = static_cast<int>(0x800A0000U);    // no answer, or not all of it
constexpr int kNLCancelled = static_cast<int>(0x802C0000U);   // stop was set, or the socket closed
constexpr int kNLTooLong = static_cast<int>(0x80080000U);     // the request exceeds kNLMaxMessage
constexpr int kNLInvalid = static_cast<int>(0x80AB0000U);     // no socket, no address
constexpr int kNLSendFailed = static_cast<int>(0x80050000U);  // the system refused to send

// How long an exchange may last, and what ends it early.
struct NLWait {
  int limitMs = 0;  // 0: the time-out of the host's configuration
  // Looked at before sending and at least every 50 ms; null: nothing.
  const std::atomic<bool>* stop = nullptr;
};

extern "C" {
// The base port of this controller, 0 when it has no network.
ORVA_HOST_API int NLGetBasePort();

// Opens a socket on the first free one of `attempts` ports from `port` on (65535 is followed by
// 0, which is passed over), at the address that the host's configuration binds to. Null when none
// is free or this controller has no network.
ORVA_HOST_API NLSocket* NLTryOpenUDPSocket(int port, int attempts);

// Ends the exchange that runs on it, if any, and waits for that (50 ms at most). Null is allowed.
ORVA_HOST_API void NLCloseSocket(NLSocket* socket);

// How many addresses the controller with this index has: 0 when it is unknown or this one. The
// first `capacity` of them are written to `out`. Follows the configuration when that is read anew.
ORVA_HOST_API int NLGetOtherControllerAddresses(int index, NLControllerAddress* out, int capacity);

// The address of a numeric host and a port of 1 to 65535; port 0 in it when they are none.
ORVA_HOST_API void NLMakeAddress(const char* host, int port, NLAddress* out);

// Sends a request and waits for its answer, whose text replaces that of `answer` (at most
// kNLMaxMessage bytes). 0 when there is a text: what the handler thinks of the request stands in
// it. Else one of the statuses above, or the handler's when it wrote nothing (0x80750000: no
// handler knows the method); `answer` is empty then.
//
// One exchange at a time on a socket: another one waits, within its own limit. Lost datagrams are
// sent again meanwhile. A request whose answer was lost may have been served all the same.
// Thread-safe.
ORVA_HOST_API int NLSendReceive(NLSocket* socket, const NLAddress* address, const char* request,
                                int length, std::string* answer, const NLWait* wait);
}
