#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "orva_host/config_file.h"
#include "orva_host/http_router.h"

namespace orva::host {

// An HTTP/1.1 listener with limits. What goes beyond them is answered with a 4xx and the
// connection closed: 400 no HTTP, 408 header or body too slow, 413 body too large, 429 too many
// connections, 431 header too large.
//
// Handlers run on two groups of threads, those that may block on HttpLimits::threads of their own.
// So handlers that wait leave the others responsive. Thread-safe but for start() and stop().
class HttpServer {
 public:
  HttpServer();
  ~HttpServer();  // stop(0) and join()
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Before start().
  void add(HttpRoute route);

  // Empty, or why it cannot listen. Once in an object's life.
  std::string start(const HttpCfg& cfg);
  std::uint16_t port() const;
  // "http://127.0.0.1:8580".
  std::string address() const;

  // How many replies there were so far by the class of their status: 1xx, 2xx ... 5xx. Any thread.
  using ReplyCounts = std::array<std::uint64_t, 5>;
  ReplyCounts replyCounts() const;

  // Stops listening at once, gives requests that are being served `graceMs` to end, then closes
  // every connection. Handlers may run on; nobody gets their reply.
  void stop(int graceMs);
  // Waits for the handlers that still run. After stop().
  void join();
  // The same for a limited time; false when some run on.
  bool joinWithin(int limitMs);

 private:
  struct State;
  class Session;
  std::unique_ptr<State> state_;
};

}  // namespace orva::host
