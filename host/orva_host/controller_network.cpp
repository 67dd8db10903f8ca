#include "host/controller_network.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <map>
#include <memory>

#include "orva_host/client_exchange.h"
#include "orva_host/controller_network_state.h"
#include "orva_host/network_address.h"
#include "orva_host/random_number.h"
#include "orva_host/steady_time.h"
#include "orva_host/udp_socket.h"
#include "share/condition.h"
#include "share/mutex.h"
#include "share/status_codes.h"

namespace orva::host {
namespace {

// How long a wait goes on before the reasons to end it are looked at.
constexpr int kSliceMs = 50;
// Proofs that a socket keeps for the next exchange; beyond that they are asked for anew.
constexpr std::size_t kMostProofs = 4096;

struct NetworkState {
  Mutex mutex;  // leaf
  NetworkCfg cfg GUARDED_BY(mutex);
  SocketCounters counters GUARDED_BY(mutex);  // of all sockets
};

// Never destroyed: threads may still ask while the process ends.
NetworkState& networkState() {
  static NetworkState& made = *new NetworkState;
  return made;
}

NetworkCfg currentNetwork() {
  NetworkState& state = networkState();
  const MutexLock lock(state.mutex);
  return state.cfg;
}

}  // namespace
}  // namespace orva::host

struct NLSocket {
  orva::host::UdpSocket socket;

  orva::Mutex mutex;  // leaf
  orva::Condition changed;
  bool busy GUARDED_BY(mutex) = false;  // an exchange runs; it owns `proofs`
  bool closing GUARDED_BY(mutex) = false;
  int users GUARDED_BY(mutex) = 0;  // threads inside NLSendReceive()
  orva::host::SocketCounters counters GUARDED_BY(mutex);

  std::map<NLAddress, std::uint64_t, orva::host::AddressOrder> proofs;
};

namespace orva::host {
namespace {

// One thread's stay in NLSendReceive().
class SocketUse {
 public:
  SocketUse(NLSocket& socket, const NLWait& wait, std::int64_t endMs)
      : socket_(socket), wait_(wait), endMs_(endMs) {
    const MutexLock lock(socket_.mutex);
    ++socket_.users;
  }
  ~SocketUse() {
    const MutexLock lock(socket_.mutex);
    if (owner_) socket_.busy = false;
    --socket_.users;
    socket_.changed.notifyAll();
  }
  SocketUse(const SocketUse&) = delete;
  SocketUse& operator=(const SocketUse&) = delete;

  // 0 when this thread's exchange may begin.
  int take() {
    const MutexLock lock(socket_.mutex);
    while (true) {
      if (isStopped() || socket_.closing) return kNLCancelled;
      if (!socket_.busy) break;
      if (steadyMs() >= endMs_) return kNLTimedOut;
      const auto slice = Condition::Clock::now() + std::chrono::milliseconds(kSliceMs);
      socket_.changed.waitUntil(socket_.mutex, slice);
    }
    socket_.busy = true;
    owner_ = true;
    return 0;
  }
  bool isCancelled() {
    const MutexLock lock(socket_.mutex);
    return isStopped() || socket_.closing;
  }

 private:
  bool isStopped() const { return wait_.stop != nullptr && wait_.stop->load(); }

  NLSocket& socket_;
  const NLWait& wait_;
  const std::int64_t endMs_;
  bool owner_ = false;
};

// Runs one exchange over a socket that is this thread's meanwhile.
class SocketExchange {
 public:
  SocketExchange(NLSocket& socket, ClientExchange::Start start)
      : socket_(socket), to_(start.to), exchange_(std::move(start), out_) {
    sendAll();
  }

  int run(SocketUse& use, std::string& answer) {
    while (!exchange_.isOver()) {
      if (use.isCancelled()) return kNLCancelled;
      step();
    }
    keepProof();
    const int code = exchange_.result(answer);
    count([this](SocketCounters& counters) {
      counters.repeatedPieces += static_cast<std::uint64_t>(exchange_.repeatedPieces());
    });
    return code == kNLTimedOut && !sent_ ? kNLSendFailed : code;
  }

 private:
  void step() {
    const std::int64_t wait = std::max<std::int64_t>(
        0, std::min<std::int64_t>(exchange_.nextMs() - steadyMs(), kSliceMs));
    char bytes[kDatagramBytes + 1];
    NLAddress from;
    const int length = socket_.socket.receive(bytes, sizeof bytes, static_cast<int>(wait), from);
    if (length >= 0) {
      const auto size = static_cast<std::size_t>(length);
      const bool taken = exchange_.receive(from, bytes, size, steadyMs(), out_);
      count([size, taken](SocketCounters& counters) {
        ++counters.datagramsIn;
        counters.bytesIn += size;
        counters.ignored += taken ? 0 : 1;
      });
    }
    exchange_.tick(steadyMs(), out_);
    sendAll();
  }

  void sendAll() {
    if (out_.empty()) return;
    const UdpSocket::Sent taken = socket_.socket.send(out_);
    sent_ = sent_ || taken.datagrams > 0;
    count([taken](SocketCounters& counters) {
      counters.datagramsOut += taken.datagrams;
      counters.bytesOut += taken.bytes;
    });
    out_.clear();
  }

  void keepProof() {
    if (socket_.proofs.size() >= kMostProofs) socket_.proofs.clear();
    socket_.proofs[to_] = exchange_.proof();
  }

  template <class Change>
  void count(Change change) {
    {
      const MutexLock lock(socket_.mutex);
      change(socket_.counters);
    }
    NetworkState& state = networkState();
    const MutexLock lock(state.mutex);
    change(state.counters);
  }

  NLSocket& socket_;
  const NLAddress to_;
  OutgoingDatagrams out_;  // before the exchange, which fills it
  ClientExchange exchange_;
  bool sent_ = false;
};

int sendReceive(NLSocket& socket, const NLAddress& to, std::string request, const NLWait& wait,
                std::string& answer) {
  ClientExchange::Start start;
  start.to = to;
  start.request = std::move(request);
  start.timing = currentNetwork().timing;
  if (wait.limitMs > 0) start.timing.timeoutMs = wait.limitMs;
  const std::int64_t begunMs = steadyMs();
  SocketUse use(socket, wait, begunMs + start.timing.timeoutMs);
  if (const int code = use.take(); code != 0) return code;
  start.nowMs = steadyMs();
  start.timing.timeoutMs -= static_cast<int>(start.nowMs - begunMs);
  start.id = randomNumber();
  const auto known = socket.proofs.find(to);
  start.proof = known == socket.proofs.end() ? 0 : known->second;
  return SocketExchange(socket, std::move(start)).run(use, answer);
}

}  // namespace

void useNetwork(const NetworkCfg& cfg) {
  NetworkState& state = networkState();
  const MutexLock lock(state.mutex);
  state.cfg = cfg;
}

SocketCounters socketCounters(NLSocket* socket) {
  const MutexLock lock(socket->mutex);
  return socket->counters;
}

SocketCounters allSocketCounters() {
  NetworkState& state = networkState();
  const MutexLock lock(state.mutex);
  return state.counters;
}

}  // namespace orva::host

int NLGetBasePort() {
  const orva::host::NetworkCfg cfg = orva::host::currentNetwork();
  return cfg.enabled ? cfg.basePort : 0;
}

NLSocket* NLTryOpenUDPSocket(int port, int attempts) {
  const orva::host::NetworkCfg cfg = orva::host::currentNetwork();
  if (!cfg.enabled) return nullptr;
  auto socket = std::make_unique<NLSocket>();
  for (int i = 0; i < attempts && i <= UINT16_MAX; ++i) {
    const auto tried = static_cast<std::uint16_t>(port + i);
    if (tried != 0 && socket->socket.open(cfg.bind, tried) == 0) return socket.release();
  }
  return nullptr;
}

void NLCloseSocket(NLSocket* socket) {
  if (socket == nullptr) return;
  {
    const orva::MutexLock lock(socket->mutex);
    socket->closing = true;
    socket->changed.notifyAll();
    while (socket->users > 0) socket->changed.wait(socket->mutex);
  }
  delete socket;
}

int NLGetOtherControllerAddresses(int index, NLControllerAddress* out, int capacity) {
  for (const orva::host::ControllerCfg& controller : orva::host::currentNetwork().controllers) {
    if (controller.index != index) continue;
    if (out == nullptr || capacity < 1) return 1;
    *out = NLControllerAddress();
    const std::string host = orva::host::hostText(controller.address);
    host.copy(out->host, sizeof out->host - 1);
    out->port = controller.address.port;
    return 1;
  }
  return 0;
}

void NLMakeAddress(const char* host, int port, NLAddress* out) {
  *out = orva::host::networkAddress(host == nullptr ? "" : host, port);
}

int NLSendReceive(NLSocket* socket, const NLAddress* address, const char* request, int length,
                  std::string* answer, const NLWait* wait) {
  answer->clear();
  if (socket == nullptr || address == nullptr || address->port == 0 || request == nullptr ||
      length <= 0) {
    return kNLInvalid;
  }
  if (length > kNLMaxMessage) return kNLTooLong;
  try {
    std::string text(request, static_cast<std::size_t>(length));
    return orva::host::sendReceive(*socket, *address, std::move(text),
                                   wait == nullptr ? NLWait() : *wait, *answer);
  } catch (const std::exception&) {
    answer->clear();
    return static_cast<int>(orva::status::kBadOutOfMemory);
  }
}
