#include "bench/fleet/simulated_controllers.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "bench/fleet/clocks.h"
#include "orva_host/datagram_format.h"
#include "orva_host/network_address.h"
#include "orva_host/random_number.h"
#include "orva_host/server_exchanges.h"
#include "orva_host/steady_time.h"
#include "orva_host/udp_socket.h"

namespace orva::bench {
namespace {

constexpr char kPullerHost[] = "127.0.0.1";
constexpr int kFirstIndex = 1;
constexpr int kMostWaitMs = 50;
constexpr std::int64_t kExpireMs = 500;
constexpr std::uint64_t kHeaderBytes = 28;  // IPv4 and UDP
constexpr int kAttempts = 10;

std::string hostOf(std::uint32_t controller) {
  return "127.1." + std::to_string(controller / 250) + "." + std::to_string(1 + controller % 250);
}

}  // namespace

struct SimulatedControllers::Controller {
  Controller(const FleetPlant& plant, std::uint32_t index, const FleetFaults& faults)
      : exchanges(host::randomNumber),
        methods(plant, index, faults.spoil),
        isSilent(index + faults.silent >= plant.controllers()) {}

  host::UdpSocket socket;
  host::ServerExchanges exchanges;
  PlantMethods methods;
  const bool isSilent;
};

SimulatedControllers::SimulatedControllers(const FleetPlant& plant, FleetFaults faults)
    : plant_(plant),
      faults_(faults),
      received_(host::kDatagramBytes + 1),
      reply_(static_cast<std::size_t>(kNLMaxMessage)) {}

SimulatedControllers::~SimulatedControllers() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (poll_ >= 0) close(poll_);
}

// The port that the first one gets has to be free at all addresses.
std::string SimulatedControllers::open() {
  poll_ = epoll_create1(EPOLL_CLOEXEC);
  if (poll_ < 0) return std::strerror(errno);
  std::string problem;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    controllers_.clear();
    port_ = 0;
    problem.clear();
    for (std::uint32_t i = 0; i < plant_.controllers() && problem.empty(); ++i) {
      problem = openController(i);
    }
    if (problem.empty()) break;
  }
  return problem;
}

std::string SimulatedControllers::openController(std::uint32_t index) {
  auto controller = std::make_unique<Controller>(plant_, index, faults_);
  const std::string address = hostOf(index);
  if (const int error = controller->socket.open(address, port_); error != 0) {
    return address + ": " + std::strerror(error);
  }
  port_ = controller->socket.port();
  controller->exchanges.setControllers({{0, host::networkAddress(kPullerHost, port_)}});
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = controller.get();
  if (epoll_ctl(poll_, EPOLL_CTL_ADD, controller->socket.handle(), &event) != 0) {
    return std::strerror(errno);
  }
  controllers_.push_back(std::move(controller));
  return "";
}

host::NetworkCfg SimulatedControllers::pullerNetwork() const {
  host::NetworkCfg cfg;
  cfg.enabled = true;
  cfg.bind = kPullerHost;
  cfg.basePort = port_;
  for (std::uint32_t i = 0; i < plant_.controllers(); ++i) {
    cfg.controllers.push_back(
        {static_cast<std::int32_t>(i) + kFirstIndex, host::networkAddress(hostOf(i), port_)});
  }
  return cfg;
}

Traffic SimulatedControllers::traffic() const { return {datagrams_.load(), bytes_.load()}; }

void SimulatedControllers::start() {
  thread_ = std::thread([this] { work(); });
}

// ---- the thread

void SimulatedControllers::work() {
  constexpr int kEvents = 64;
  epoll_event events[kEvents];
  while (!stop_) {
    const int ready = epoll_wait(poll_, events, kEvents, sendDelayed());
    for (int i = 0; i < ready; ++i) receiveAll(*static_cast<Controller*>(events[i].data.ptr));
    expire();
    cpuNs_ = threadCpuNs();
  }
}

void SimulatedControllers::receiveAll(Controller& controller) {
  NLAddress from;
  while (true) {
    const int length = controller.socket.receive(received_.data(), received_.size(), 0, from);
    if (length < 0) return;
    count(static_cast<std::size_t>(length));
    if (reachable_ && !controller.isSilent && !isLost())
      take(controller, from, static_cast<std::size_t>(length));
  }
}

void SimulatedControllers::take(Controller& controller, const NLAddress& from, std::size_t length) {
  host::OutgoingDatagrams out;
  const auto request =
      controller.exchanges.receive(from, received_.data(), length, host::steadyMs(), out);
  if (request) {
    int written = 0;
    const int code = PlantMethods::ProcessJSONRequest(
        &controller.methods, 0, request->text.data(), static_cast<int>(request->text.size()),
        reply_.data(), static_cast<int>(reply_.size()), &written);
    std::string text(reply_.data(), static_cast<std::size_t>(written));
    controller.exchanges.answer(request->key, static_cast<StatusCode>(code), std::move(text),
                                host::steadyMs(), out);
  }
  send(controller, out);
}

void SimulatedControllers::send(Controller& controller, host::OutgoingDatagrams& out) {
  for (const host::OutgoingDatagram& datagram : out) count(datagram.bytes.size());
  const auto lost = [this](const host::OutgoingDatagram&) { return isLost(); };
  out.erase(std::remove_if(out.begin(), out.end(), lost), out.end());
  if (out.empty()) return;
  if (faults_.delayMs == 0) {
    controller.socket.send(out);
  } else {
    delayed_.push_back({host::steadyMs() + faults_.delayMs, &controller, std::move(out)});
  }
}

// How long nothing is due.
int SimulatedControllers::sendDelayed() {
  const std::int64_t now = host::steadyMs();
  for (; !delayed_.empty() && delayed_.front().dueMs <= now; delayed_.pop_front()) {
    delayed_.front().from->socket.send(delayed_.front().datagrams);
  }
  if (delayed_.empty()) return kMostWaitMs;
  return static_cast<int>(std::min<std::int64_t>(kMostWaitMs, delayed_.front().dueMs - now));
}

void SimulatedControllers::expire() {
  const std::int64_t now = host::steadyMs();
  if (now - expiredMs_ < kExpireMs) return;
  expiredMs_ = now;
  for (const auto& controller : controllers_) controller->exchanges.expire(now);
}

void SimulatedControllers::count(std::size_t bytes) {
  datagrams_.fetch_add(1, std::memory_order_relaxed);
  bytes_.fetch_add(bytes + kHeaderBytes, std::memory_order_relaxed);
}

}  // namespace orva::bench
