#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "share/status_codes.h"

namespace orva::cli {

// Where a host listens.
struct HostAddress {
  std::string name;  // or its number
  std::string port = "80";
};

// Reads "http://name:port", an optional "/" behind it. False for every other text.
bool readHostUrl(const std::string& url, HostAddress& out);

struct HostReply {
  std::string body;
  std::int64_t timeMs = 0;                // the host's clock since 1970; 0: it did not say
  StatusCode itemStatus = status::kGood;  // what is the matter with a history that is given
};

// Asks a running host over HTTP, on one connection that is kept. Failure tells what went wrong,
// with the host's address; the token is never part of it. For one thread.
class HostClient {
 public:
  // UsageError when the address is no URL, or the token holds what no header can.
  HostClient(std::string url, std::string token);
  ~HostClient();
  HostClient(const HostClient&) = delete;
  HostClient& operator=(const HostClient&) = delete;

  const std::string& url() const { return url_; }
  HostReply get(const std::string& target);
  HostReply post(const std::string& target, const std::string& body);

 private:
  class Connection;

  HostReply request(bool isPost, const std::string& target, const std::string& body);

  const std::string url_;
  const std::string token_;
  HostAddress address_;
  std::unique_ptr<Connection> connection_;  // null: none is open
};

}  // namespace orva::cli
