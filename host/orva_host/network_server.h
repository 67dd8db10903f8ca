#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orva_host/network_config.h"
#include "orva_host/server_exchanges.h"

namespace orva::host {

// Answers the requests of other controllers on this one's base port: each goes to the handlers that
// add-ins registered for a reply into a buffer (host/request_dispatch.h), of
// NetworkCfg::answerBytes. What does not fit they say so, and answer page by page.
//
// open(), serve(), stop() and join...() are for one thread, in that order; the others for any.
class NetworkServer {
 public:
  // Serves one request, as dispatchToBuffer(). Runs on the server's threads.
  using Handler =
      std::function<StatusCode(const std::string& request, char* out, int capacity, int& length)>;

  NetworkServer();  // serves with dispatchToBuffer()
  explicit NetworkServer(Handler handler, ExchangeLimits limits = {});
  ~NetworkServer();  // stop() and join()
  NetworkServer(const NetworkServer&) = delete;
  NetworkServer& operator=(const NetworkServer&) = delete;

  // Binds the socket. Empty, or why it cannot. What arrives waits for serve().
  std::string open(const NetworkCfg& cfg);
  void serve();
  // Who may ask from now on.
  void setControllers(const std::vector<ControllerCfg>& controllers);

  // Nothing is received or begun any more; requests that are being served run on, unanswered.
  void stop();
  void join();
  // The same for a limited time; false when a request still runs. To be called again then, or
  // join().
  bool joinWithin(int limitMs);

  std::uint16_t port() const;
  ExchangeCounters counters() const;
  // What the system took of what was to be sent.
  std::uint64_t datagramsSent() const;
  std::uint64_t bytesSent() const;
  // Requests and answers that are kept, in bytes.
  std::size_t bytesKept() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orva::host
