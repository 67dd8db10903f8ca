#pragma once

#include <cstdint>
#include <string>

#include "host/controller_network.h"

namespace orva::archive {

// The way to the other controllers of the installation. exchange() is called by one thread at a
// time, the others by any.
class ControllerLink {
 public:
  virtual ~ControllerLink() = default;

  virtual bool isOpen() const = 0;
  // How many addresses the controller has; `first` is the first of them, else with port 0.
  virtual int addresses(std::int32_t index, NLAddress& first) = 0;
  // Sends a request and waits for its answer; see NLSendReceive().
  virtual int exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
                       std::string& answer) = 0;
};

// The host's controller network, over a socket of its own on the first free port from 600 above the
// base port on. Without one it is not open.
class NetworkLink final : public ControllerLink {
 public:
  NetworkLink();
  ~NetworkLink() override;
  NetworkLink(const NetworkLink&) = delete;
  NetworkLink& operator=(const NetworkLink&) = delete;

  bool isOpen() const override { return socket_ != nullptr; }
  int addresses(std::int32_t index, NLAddress& first) override;
  int exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
               std::string& answer) override;

 private:
  NLSocket* const socket_;
};

}  // namespace orva::archive
