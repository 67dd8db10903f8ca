#include "bench/fleet/counted_link.h"

#include "bench/fleet/clocks.h"
#include "orva_host/network_config.h"

namespace orva::bench {

CountedLink::CountedLink(int basePort)
    : socket_(NLTryOpenUDPSocket((basePort + host::kAskingPortOffset) % (UINT16_MAX + 1),
                                 host::kAskingPorts)) {}

CountedLink::~CountedLink() { NLCloseSocket(socket_); }

int CountedLink::addresses(std::int32_t index, NLAddress& first) {
  NLControllerAddress address;
  const int count = NLGetOtherControllerAddresses(index, &address, 1);
  first = NLAddress();
  if (count > 0) NLMakeAddress(address.host, address.port, &first);
  return count;
}

int CountedLink::exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
                          std::string& answer) {
  const std::int64_t begun = steadyNs();
  const std::int64_t cpu = threadCpuNs();
  {
    const MutexLock lock(mutex_);
    runsSinceNs_ = begun;
  }
  const int result =
      NLSendReceive(socket_, &to, request.data(), static_cast<int>(request.size()), &answer, &wait);
  const MutexLock lock(mutex_);
  ++figures_.exchanges;
  figures_.failed += result != 0 ? 1 : 0;
  figures_.exchangeNs += steadyNs() - begun;
  runsSinceNs_ = 0;
  figures_.threadCpuNs = threadCpuNs();
  figures_.exchangeCpuNs += figures_.threadCpuNs - cpu;
  return result;
}

LinkFigures CountedLink::figures() const {
  LinkFigures figures;
  {
    const MutexLock lock(mutex_);
    figures = figures_;
    if (runsSinceNs_ != 0) figures.exchangeNs += steadyNs() - runsSinceNs_;
  }
  if (socket_ != nullptr) figures.socket = host::socketCounters(socket_);
  return figures;
}

}  // namespace orva::bench
