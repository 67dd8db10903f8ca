#include "support/http_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

namespace orva::test {
namespace {

std::string lowerCase(std::string text) {
  for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return text;
}

std::int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string HttpReply::field(const std::string& name) const {
  const std::string wanted = "\r\n" + lowerCase(name) + ": ";
  const std::size_t found = lowerCase(header).find(wanted);
  if (found == std::string::npos) return {};
  const std::size_t begin = found + wanted.size();
  return header.substr(begin, header.find("\r\n", begin) - begin);
}

HttpConnection::HttpConnection(std::uint16_t port)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connected_ = ::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

HttpConnection::~HttpConnection() { ::close(socket_); }

bool HttpConnection::send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

void HttpConnection::closeSending() { ::shutdown(socket_, SHUT_WR); }

bool HttpConnection::receiveSome(std::int64_t end) {
  const std::int64_t left = std::max<std::int64_t>(0, end - nowMs());
  pollfd waiting{socket_, POLLIN, 0};
  if (::poll(&waiting, 1, static_cast<int>(left)) <= 0) return false;
  char buffer[65536];
  const ssize_t count = ::recv(socket_, buffer, sizeof buffer, 0);
  ended_ = count <= 0;
  if (!ended_) received_.append(buffer, static_cast<std::size_t>(count));
  return !ended_;
}

HttpReply HttpConnection::receive(int timeoutMs) {
  const std::int64_t end = nowMs() + timeoutMs;
  std::size_t headerEnd = 0;
  while ((headerEnd = received_.find("\r\n\r\n")) == std::string::npos) {
    if (!receiveSome(end)) return {};
  }
  HttpReply reply;
  reply.header = received_.substr(0, headerEnd + 2);
  const std::size_t length = std::strtoul(reply.field("Content-Length").c_str(), nullptr, 10);
  while (received_.size() < headerEnd + 4 + length) {
    if (!receiveSome(end)) return {};
  }
  reply.status = std::atoi(reply.header.c_str() + std::min<std::size_t>(9, headerEnd));
  reply.body = received_.substr(headerEnd + 4, length);
  received_.erase(0, headerEnd + 4 + length);
  return reply;
}

bool HttpConnection::closedByPeer(int timeoutMs) {
  const std::int64_t end = nowMs() + timeoutMs;
  while (receiveSome(end)) received_.clear();
  return ended_;
}

std::string httpRequest(const std::string& method, const std::string& path, const std::string& body,
                        const std::string& extraHeaders) {
  return method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders +
         "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

std::string postRequest(const std::string& path, const std::string& body,
                        const std::string& extraHeaders) {
  return httpRequest("POST", path, body, extraHeaders);
}

HttpReply httpGet(std::uint16_t port, const std::string& path, const std::string& extraHeaders,
                  int timeoutMs) {
  HttpConnection connection(port);
  connection.send(httpRequest("GET", path, {}, "Connection: close\r\n" + extraHeaders));
  return connection.receive(timeoutMs);
}

HttpReply httpPost(std::uint16_t port, const std::string& path, const std::string& body,
                   const std::string& extraHeaders, int timeoutMs) {
  // Before there is a connection: a large one takes longer than a peer waits for a header.
  const std::string request = postRequest(path, body, "Connection: close\r\n" + extraHeaders);
  HttpConnection connection(port);
  // A peer that refuses the body stops taking it, but has replied.
  connection.send(request);
  return connection.receive(timeoutMs);
}

}  // namespace orva::test
