#pragma once

#include <cstdint>
#include <string>

namespace orva::test {

struct HttpReply {
  int status = 0;      // 0: there was none
  std::string header;  // the status line and all fields
  std::string body;

  // The value of a field, whatever the case of its name; empty when there is no such field.
  std::string field(const std::string& name) const;
};

// One connection to a listener on 127.0.0.1, for whatever bytes a test wants to send.
class HttpConnection {
 public:
  explicit HttpConnection(std::uint16_t port);
  ~HttpConnection();
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  bool connected() const { return connected_; }
  // False when the peer does not take them any more.
  bool send(const std::string& bytes);
  void closeSending();
  // The next reply; status 0 when none came whole within the time.
  HttpReply receive(int timeoutMs = 60'000);
  // Whether the peer closes the connection within the time; what it still sends is passed over.
  bool closedByPeer(int timeoutMs = 5'000);

 private:
  // Waits until `end`, on the steady clock in milliseconds, for more bytes.
  bool receiveSome(std::int64_t end);

  int socket_;
  bool connected_ = false;
  bool ended_ = false;
  std::string received_;  // and not yet given out
};

// A request text; `extraHeaders` are whole lines.
std::string httpRequest(const std::string& method, const std::string& path,
                        const std::string& body = {}, const std::string& extraHeaders = {});
std::string postRequest(const std::string& path, const std::string& body,
                        const std::string& extraHeaders = {});

// One exchange on a connection of its own.
HttpReply httpGet(std::uint16_t port, const std::string& path, const std::string& extraHeaders = {},
                  int timeoutMs = 60'000);
HttpReply httpPost(std::uint16_t port, const std::string& path, const std::string& body,
                   const std::string& extraHeaders = {}, int timeoutMs = 60'000);

}  // namespace orva::test
