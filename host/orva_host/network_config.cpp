#include "orva_host/network_config.h"

#include <set>

#include "orva_host/network_address.h"

namespace orva::host {
namespace {

constexpr int kMostControllers = 1000;
constexpr int kMostTimeoutMs = 600'000;

class NetworkReader {
 public:
  NetworkReader(ConfigFields& network, ConfigErrors& errors, NetworkCfg& out)
      : network_(network), errors_(errors), out_(out) {}

  void readAll() {
    constexpr auto kOptional = ConfigFields::kOptional;
    network_.integer("index", ConfigFields::kRequired, 0, INT32_MAX, out_.index);
    network_.text("bind", kOptional, out_.bind);
    network_.integer("basePort", ConfigFields::kRequired, 1, UINT16_MAX, out_.basePort);
    network_.integer("timeoutMs", kOptional, 10, kMostTimeoutMs, out_.timing.timeoutMs);
    network_.integer("retryMs", kOptional, 1, kMostRetryMs, out_.timing.retryMs);
    network_.integer("retries", kOptional, 0, 1000, out_.timing.retries);
    network_.integer("answerBytes", kOptional, 1024, kNLMaxMessage, out_.answerBytes);
    own_ = networkAddress(out_.bind, out_.basePort == 0 ? 1 : out_.basePort);
    if (own_.port == 0) {
      network_.wrong("bind", "\"" + out_.bind + "\" is not a numeric IP address");
    }
    readControllers();
    network_.reportUnknown();
  }

 private:
  void readControllers();
  void readController(ConfigFields& fields);
  void readAddress(ConfigFields& fields, NLAddress& out);

  ConfigFields& network_;
  ConfigErrors& errors_;
  NetworkCfg& out_;
  NLAddress own_;
  std::set<std::int32_t> indexes_;
  std::set<NLAddress, AddressOrder> addresses_;
};

void NetworkReader::readControllers() {
  const json::Value* array = network_.array("controllers");
  if (array == nullptr) return;
  if (array->Size() > kMostControllers) {
    network_.wrong("controllers",
                   "must not be more than " + std::to_string(kMostControllers) + " controllers");
    return;
  }
  for (rapidjson::SizeType i = 0; i < array->Size(); ++i) {
    const std::string place = network_.placeOf("controllers") + "[" + std::to_string(i) + "]";
    ConfigFields fields((*array)[i], place, errors_);
    readController(fields);
    fields.reportUnknown();
  }
}

void NetworkReader::readController(ConfigFields& fields) {
  ControllerCfg controller;
  if (fields.integer("index", ConfigFields::kRequired, 0, INT32_MAX, controller.index)) {
    if (controller.index == out_.index) {
      fields.wrong("index", "is this controller's own");
    } else if (!indexes_.insert(controller.index).second) {
      fields.wrong("index", "another controller has it already");
    }
  }
  readAddress(fields, controller.address);
  out_.controllers.push_back(controller);
}

void NetworkReader::readAddress(ConfigFields& fields, NLAddress& out) {
  std::string host;
  int port = 0;
  fields.text("address", ConfigFields::kRequired, host);
  const bool hasPort = fields.integer("port", ConfigFields::kRequired, 1, UINT16_MAX, port);
  if (host.empty()) return;
  out = networkAddress(host, hasPort ? port : 1);
  if (out.port == 0) {
    fields.wrong("address", "\"" + host + "\" is not a numeric IP address");
  } else if (own_.port != 0 && isIPv4(out) != isIPv4(own_)) {
    fields.wrong("address", "must be of the address family of network.bind");
  } else if (hasPort && (sameAddress(out, own_) || !addresses_.insert(out).second)) {
    fields.wrong("port", "another controller has this address and port already");
  }
}

}  // namespace

void readNetwork(ConfigFields& root, ConfigErrors& errors, NetworkCfg& out) {
  const json::Value* section = root.value("network", ConfigFields::kOptional);
  if (section == nullptr || !section->IsObject()) return;
  out.enabled = true;
  ConfigFields fields(*section, "network", errors);
  NetworkReader(fields, errors, out).readAll();
}

bool asksFrom(const ControllerCfg& controller, const NLAddress& address) {
  const int above = (address.port - controller.address.port + 0x10000) % 0x10000;
  return above >= kAskingPortOffset && above < kAskingPortOffset + kAskingPorts &&
         sameHost(controller.address, address);
}

}  // namespace orva::host
