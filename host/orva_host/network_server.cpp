#include "orva_host/network_server.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <thread>

#include "host/trace.h"
#include "orva_host/log_limit.h"
#include "orva_host/random_number.h"
#include "orva_host/requests.h"
#include "orva_host/steady_time.h"
#include "orva_host/udp_socket.h"
#include "share/condition.h"
#include "share/mutex.h"

namespace orva::host {
namespace {

// Requests that are served at one time.
constexpr int kServingThreads = 2;
// How soon stop() is noticed while nothing arrives, and how often old exchanges are looked for.
constexpr int kReceiveWaitMs = 50;
constexpr std::int64_t kExpireMs = 500;
// One byte more than a datagram may have, so that a longer one is seen to be.
constexpr std::size_t kReceiveBytes = kDatagramBytes + 1;

}  // namespace

struct NetworkServer::State {
  State(Handler handler, ExchangeLimits limits)
      : serve(std::move(handler)), exchanges(randomNumber, limits) {}

  void receiveAll();
  void receiveOne(const NLAddress& from, const char* bytes, std::size_t length) EXCLUDES(mutex);
  void expire() EXCLUDES(mutex);
  void serveAll() EXCLUDES(mutex);
  bool next(NetworkRequest& out) EXCLUDES(mutex);
  void serveOne(const NetworkRequest& request, std::vector<char>& buffer) EXCLUDES(mutex);
  void send(const OutgoingDatagrams& out);
  void reportStrangers() EXCLUDES(mutex);

  const Handler serve;
  UdpSocket socket;  // set before the threads start
  int answerBytes = 0;
  std::atomic<std::uint64_t> datagramsSent{0};
  std::atomic<std::uint64_t> bytesSent{0};

  mutable Mutex mutex;  // leaf
  Condition changed;    // queue, stopping or threads
  ServerExchanges exchanges GUARDED_BY(mutex);
  std::deque<NetworkRequest> queue GUARDED_BY(mutex);  // as long as `exchanges` allows
  bool stopping GUARDED_BY(mutex) = false;
  int serving GUARDED_BY(mutex) = 0;  // threads that run

  LogLimit strangers;  // of the receiving thread, as the next one
  std::uint64_t strangersTold = 0;
  std::thread receiver;
  std::vector<std::thread> servants;
};

void NetworkServer::State::receiveAll() {
  char bytes[kReceiveBytes];
  std::int64_t expired = steadyMs();
  while (true) {
    NLAddress from;
    const int length = socket.receive(bytes, sizeof bytes, kReceiveWaitMs, from);
    {
      const MutexLock lock(mutex);
      if (stopping) return;
    }
    if (length >= 0) receiveOne(from, bytes, static_cast<std::size_t>(length));
    if (const std::int64_t now = steadyMs(); now - expired >= kExpireMs) {
      expired = now;
      expire();
    }
  }
}

void NetworkServer::State::receiveOne(const NLAddress& from, const char* bytes,
                                      std::size_t length) {
  OutgoingDatagrams out;
  {
    const MutexLock lock(mutex);
    auto request = exchanges.receive(from, bytes, length, steadyMs(), out);
    if (request) {
      queue.push_back(std::move(*request));
      changed.notifyOne();
    }
  }
  send(out);
}

void NetworkServer::State::send(const OutgoingDatagrams& out) {
  const UdpSocket::Sent taken = socket.send(out);
  datagramsSent += taken.datagrams;
  bytesSent += taken.bytes;
}

void NetworkServer::State::expire() {
  {
    const MutexLock lock(mutex);
    exchanges.expire(steadyMs());
  }
  reportStrangers();
}

// A controller that is missing in the configuration shows here.
void NetworkServer::State::reportStrangers() {
  std::uint64_t count = 0;
  {
    const MutexLock lock(mutex);
    count = exchanges.counters().strange;
  }
  long long suppressed = 0;
  if (count == strangersTold || !strangers.allow(LogLimit::Clock::now(), suppressed)) return;
  OpcUa_Trace_Imp(kTraceWarning,
                  "network: %lld datagrams came from addresses that no controller asks from\n",
                  __FILE__, __LINE__, static_cast<long long>(count - strangersTold));
  strangersTold = count;
}

void NetworkServer::State::serveAll() {
  std::vector<char> buffer(static_cast<std::size_t>(answerBytes));
  NetworkRequest request;
  while (next(request)) serveOne(request, buffer);
  const MutexLock lock(mutex);
  --serving;
  changed.notifyAll();
}

bool NetworkServer::State::next(NetworkRequest& out) {
  const MutexLock lock(mutex);
  while (queue.empty() && !stopping) changed.wait(mutex);
  if (stopping) return false;
  out = std::move(queue.front());
  queue.pop_front();
  return true;
}

void NetworkServer::State::serveOne(const NetworkRequest& request, std::vector<char>& buffer) {
  int length = 0;
  const StatusCode code =
      serve(request.text, buffer.data(), static_cast<int>(buffer.size()), length);
  OutgoingDatagrams out;
  {
    const MutexLock lock(mutex);
    if (stopping) return;
    std::string text(buffer.data(), static_cast<std::size_t>(length));
    exchanges.answer(request.key, code, std::move(text), steadyMs(), out);
  }
  send(out);
}

NetworkServer::NetworkServer() : NetworkServer(dispatchToBuffer) {}
NetworkServer::NetworkServer(Handler handler, ExchangeLimits limits)
    : state_(std::make_unique<State>(std::move(handler), limits)) {}

NetworkServer::~NetworkServer() {
  stop();
  join();
}

std::string NetworkServer::open(const NetworkCfg& cfg) {
  setControllers(cfg.controllers);
  state_->answerBytes = cfg.answerBytes;
  const int error = state_->socket.open(cfg.bind, cfg.basePort);
  if (error == 0) return "";
  return "network: cannot listen on " + cfg.bind + " port " + std::to_string(cfg.basePort) + ": " +
         std::strerror(error);
}

void NetworkServer::serve() {
  State* state = state_.get();
  {
    const MutexLock lock(state->mutex);
    state->serving = kServingThreads;
  }
  for (int i = 0; i < kServingThreads; ++i) {
    state->servants.emplace_back([state] { state->serveAll(); });
  }
  state->receiver = std::thread([state] { state->receiveAll(); });
}

void NetworkServer::setControllers(const std::vector<ControllerCfg>& controllers) {
  const MutexLock lock(state_->mutex);
  state_->exchanges.setControllers(controllers);
}

void NetworkServer::stop() {
  {
    const MutexLock lock(state_->mutex);
    state_->stopping = true;
    state_->queue.clear();
    state_->changed.notifyAll();
  }
  if (state_->receiver.joinable()) state_->receiver.join();
}

void NetworkServer::join() {
  for (std::thread& thread : state_->servants) {
    if (thread.joinable()) thread.join();
  }
}

bool NetworkServer::joinWithin(int limitMs) {
  const auto end = Condition::Clock::now() + std::chrono::milliseconds(limitMs);
  {
    const MutexLock lock(state_->mutex);
    while (state_->serving > 0) {
      if (!state_->changed.waitUntil(state_->mutex, end)) break;
    }
    if (state_->serving > 0) return false;
  }
  join();
  return true;
}

std::uint16_t NetworkServer::port() const { return state_->socket.port(); }

ExchangeCounters NetworkServer::counters() const {
  const MutexLock lock(state_->mutex);
  return state_->exchanges.counters();
}

std::uint64_t NetworkServer::datagramsSent() const { return state_->datagramsSent; }
std::uint64_t NetworkServer::bytesSent() const { return state_->bytesSent; }

std::size_t NetworkServer::bytesKept() const {
  const MutexLock lock(state_->mutex);
  return state_->exchanges.bytesKept();
}

}  // namespace orva::host
