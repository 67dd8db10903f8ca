#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/controller_network.h"
#include "orva_host/config_fields.h"

namespace orva::host {

// What asks other controllers uses the ports from here above the base port.
constexpr int kAskingPortOffset = 600;
constexpr int kAskingPorts = 20;

struct ControllerCfg {
  std::int32_t index = 0;
  NLAddress address;  // its own, with its base port
};

// How lost datagrams are noticed.
struct NetworkTiming {
  int timeoutMs = 10'000;  // for a whole exchange
  int retryMs = 100;       // until what got no reply is sent again; doubles up to kMostRetryMs
  int retries = 6;         // sent again so often without a sign of life, it is given up
};
constexpr int kMostRetryMs = 800;

// The section "network".
struct NetworkCfg {
  bool enabled = false;  // the file has the section
  std::int32_t index = 0;
  std::string bind = "127.0.0.1";
  std::uint16_t basePort = 0;
  std::vector<ControllerCfg> controllers;
  NetworkTiming timing;
  int answerBytes = kNLMaxMessage;  // of the longest answer that this controller gives
};

// Reads the section from the file's outermost object. That it is an object at all is for the caller
// to demand.
void readNetwork(ConfigFields& root, ConfigErrors& errors, NetworkCfg& out);

// Whether `address` is one that the controller asks from.
bool asksFrom(const ControllerCfg& controller, const NLAddress& address);

}  // namespace orva::host
