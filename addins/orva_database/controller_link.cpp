#include "orva_database/controller_link.h"

namespace orva::archive {
namespace {
constexpr int kPortsAboveBase = 600;
constexpr int kPorts = 65536;
constexpr int kAttempts = 20;
}  // namespace

NetworkLink::NetworkLink()
    : socket_(NLTryOpenUDPSocket((NLGetBasePort() + kPortsAboveBase) % kPorts, kAttempts)) {}

NetworkLink::~NetworkLink() { NLCloseSocket(socket_); }

int NetworkLink::addresses(std::int32_t index, NLAddress& first) {
  NLControllerAddress address;
  const int count = NLGetOtherControllerAddresses(index, &address, 1);
  first = NLAddress();
  if (count > 0) NLMakeAddress(address.host, address.port, &first);
  return count;
}

int NetworkLink::exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
                          std::string& answer) {
  return NLSendReceive(socket_, &to, request.data(), static_cast<int>(request.size()), &answer,
                       &wait);
}

}  // namespace orva::archive
