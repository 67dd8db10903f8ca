#include "orva_host/host_network.h"

#include "host/trace.h"
#include "orva_host/controller_network_state.h"

namespace orva::host {
namespace {

// What is settled when the sockets are opened.
bool sameSockets(const NetworkCfg& a, const NetworkCfg& b) {
  return a.enabled == b.enabled && a.bind == b.bind && a.basePort == b.basePort &&
         a.answerBytes == b.answerBytes;
}

}  // namespace

std::string HostNetwork::open(const NetworkCfg& cfg) {
  cfg_ = cfg;
  useNetwork(cfg_);
  return cfg_.enabled ? server_.open(cfg_) : "";
}

void HostNetwork::serve() {
  if (cfg_.enabled) server_.serve();
}

void HostNetwork::reread(const NetworkCfg& next) {
  if (!sameSockets(cfg_, next)) {
    logMsg("network: bind, basePort and answerBytes take effect when the host starts again\n");
  }
  cfg_.index = next.index;
  cfg_.controllers = next.controllers;
  cfg_.timing = next.timing;
  useNetwork(cfg_);
  server_.setControllers(cfg_.controllers);
}

void HostNetwork::stop() { server_.stop(); }

}  // namespace orva::host
