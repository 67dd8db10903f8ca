#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/fleet/fleet_plant.h"
#include "bench/fleet/plant_methods.h"
#include "orva_host/network_config.h"
#include "orva_host/outgoing_datagram.h"

namespace orva::bench {

// What the controllers, and the network between them and the puller, do wrong.
struct FleetFaults {
  double loss = 0;  // of datagrams in each direction: 0 to 1
  std::uint32_t delayMs = 0;
  std::uint32_t silent = 0;  // so many of the controllers, the last ones, never answer
  Spoil spoil = Spoil::kNothing;
};

// What went over the wire in both directions, lost datagrams that somebody sent included.
struct Traffic {
  std::uint64_t datagrams = 0;
  std::uint64_t bytes = 0;  // with the headers of IP and UDP
};

// The controllers of a plant, each on an address of its own (127.1.x.y): the answering side of the
// host's network, for all of them on one thread.
class SimulatedControllers {
 public:
  SimulatedControllers(const FleetPlant& plant, FleetFaults faults);
  ~SimulatedControllers();
  SimulatedControllers(const SimulatedControllers&) = delete;
  SimulatedControllers& operator=(const SimulatedControllers&) = delete;

  // Empty, or why there are no sockets.
  std::string open();
  void start();
  // The network as the puller has it configured: the controllers are 1, 2, ...
  host::NetworkCfg pullerNetwork() const;
  // Nothing that arrives is taken any more, or it is again.
  void setReachable(bool reachable) { reachable_ = reachable; }
  Traffic traffic() const;
  // What the thread used of the processor.
  std::int64_t cpuNs() const { return cpuNs_; }

 private:
  struct Controller;
  struct Delayed {
    std::int64_t dueMs;
    Controller* from;
    host::OutgoingDatagrams datagrams;
  };

  std::string openController(std::uint32_t index);
  void work();
  void receiveAll(Controller& controller);
  void take(Controller& controller, const NLAddress& from, std::size_t length);
  void send(Controller& controller, host::OutgoingDatagrams& out);
  int sendDelayed();
  void expire();
  bool isLost() { return faults_.loss > 0 && chance_(random_) < faults_.loss; }
  void count(std::size_t bytes);

  const FleetPlant& plant_;
  const FleetFaults faults_;
  std::vector<std::unique_ptr<Controller>> controllers_;
  std::uint16_t port_ = 0;  // of all of them
  int poll_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<bool> reachable_{true};
  std::atomic<std::uint64_t> datagrams_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::int64_t> cpuNs_{0};
  std::thread thread_;

  // Of the thread alone.
  std::mt19937_64 random_{20240517};
  std::uniform_real_distribution<double> chance_{0, 1};
  std::deque<Delayed> delayed_;
  std::vector<char> received_;
  std::vector<char> reply_;
  std::int64_t expiredMs_ = 0;
};

}  // namespace orva::bench
