#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "share/status_codes.h"

namespace orva::host {

struct HttpRequest {
  std::string method;                          // "GET"
  std::string path;                            // "/api/items", as sent: nothing is decoded
  std::string query;                           // what follows the "?"
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  std::string caller;  // "127.0.0.1:40000"

  // Empty when there is no such header.
  std::string header(const std::string& lowerCaseName) const;
};

struct HttpReply {
  int status = 200;
  std::string contentType = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
};

// A reply {"code":<code>,"error":"<text>"}.
HttpReply httpError(int status, const std::string& text, StatusCode code = status::kBadRequest);

struct HttpRoute {
  std::string method;
  std::string path;  // one that ends in "/" stands for every longer path too
  std::function<HttpReply(const HttpRequest&)> handler;  // runs on several threads at a time
  bool mayBlock = false;  // has threads of its own, lest it holds up the others
  bool open = false;      // served without a token
};

// Knows which handler serves what. Routes are added before the first request; from then on it is
// unchanged and thread-safe.
class HttpRouter {
 public:
  // A later route of the same method and path replaces the earlier one.
  void add(HttpRoute route);
  // What every request that is not open has to show as "Authorization: Bearer <token>"; empty:
  // nothing.
  void setToken(const std::string& token) { token_ = token; }

  // Judges a request by its header: null, or why it is not served (401, 404, 405).
  std::optional<HttpReply> refusal(const HttpRequest& request) const;
  // The route that serves it, or null.
  const HttpRoute* find(const HttpRequest& request) const;

 private:
  bool authorized(const HttpRequest& request) const;
  // The methods under which the request's path is known.
  std::string allowedMethods(const HttpRequest& request) const;

  std::vector<HttpRoute> routes_;
  std::string token_;
};

}  // namespace orva::host
