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

NetworkFigures HostNetwork::figures() const {
  const ExchangeCounters answering = server_.counters();
  const SocketCounters asking = allSocketCounters();
  NetworkFigures figures;
  figures.datagramsIn = answering.datagrams + asking.datagramsIn;
  figures.datagramsOut = server_.datagramsSent() + asking.datagramsOut;
  figures.bytesIn = answering.bytes + asking.bytesIn;
  figures.bytesOut = server_.bytesSent() + asking.bytesOut;
  figures.ignored = answering.strange + answering.unreadable + asking.ignored;
  figures.repeatedPieces = asking.repeatedPieces;
  figures.requests = answering.requests;
  figures.refused = answering.refused + answering.evicted;
  return figures;
}

}  // namespace orva::host
