#include "orva_host/http_server.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <future>
#include <optional>
#include <thread>
#include <unordered_set>

#include "host/trace.h"
#include "orva_host/time_text.h"

namespace orva::host {
namespace {

namespace net = boost::asio;
namespace http = boost::beast::http;
using boost::beast::error_code;
using net::ip::tcp;
using std::chrono::milliseconds;

// How long a connection that is to be closed is read on: closing with unread bytes would reset it,
// and the peer might never see the reply.
constexpr milliseconds kDrainTime{1000};
// Connections beyond the limit that are told so at one time; more are just closed.
constexpr std::size_t kMostTurnedAway = 64;
constexpr int kQuickThreads = 2;

std::string lowerCase(boost::beast::string_view text) {
  std::string lower(text.data(), text.size());
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
  return lower;
}

HttpRequest requestOf(const http::request_header<>& header, const std::string& caller) {
  HttpRequest request;
  request.method = std::string(header.method_string());
  const std::string target(header.target());
  const std::size_t mark = target.find('?');
  request.path = target.substr(0, mark);
  if (mark != std::string::npos) request.query = target.substr(mark + 1);
  for (const auto& field : header) {
    request.headers[lowerCase(field.name_string())] = std::string(field.value());
  }
  request.caller = caller;
  return request;
}

// What to say about a request that could not be read; null when there is nobody to tell.
std::optional<HttpReply> replyTo(error_code error) {
  if (error == http::error::body_limit) return httpError(413, "the body is too large");
  if (error == http::error::header_limit || error == http::error::buffer_overflow) {
    return httpError(431, "the header is too large");
  }
  if (error == http::error::end_of_stream || error == http::error::partial_message) {
    return std::nullopt;
  }
  if (error.category() == make_error_code(http::error::bad_version).category()) {
    return httpError(400, "this is not HTTP: " + error.message());
  }
  return std::nullopt;
}

HttpReply served(const HttpRoute& route, const HttpRequest& request) {
  try {
    return route.handler(request);
  } catch (const std::exception& error) {
    OpcUa_Trace_Imp(kTraceError, "%s %s failed: %s\n", __FILE__, __LINE__, request.method.c_str(),
                    request.path.c_str(), error.what());
  } catch (...) {
    OpcUa_Trace_Imp(kTraceError, "%s %s failed\n", __FILE__, __LINE__, request.method.c_str(),
                    request.path.c_str());
  }
  return httpError(500, "the request failed", status::kBadOutOfMemory);
}

}  // namespace

// Everything of a running server. Only `router`, `handlersAtWork`, `replies` and the pools are used
// by other threads than the one that runs `io`, so nothing needs a lock.
struct HttpServer::State {
  HttpCfg cfg;
  HttpRouter router;
  net::io_context io{1};
  tcp::acceptor acceptor{io};
  net::steady_timer retry{io};
  std::unordered_set<std::shared_ptr<Session>> sessions;
  std::size_t turnedAway = 0;
  bool stopping = false;
  std::promise<void> allGone;  // set once, when stopping and no session is left
  bool saidAllGone = false;
  std::atomic<int> handlersAtWork{0};                   // queued or running
  std::array<std::atomic<std::uint64_t>, 5> replies{};  // by class of status
  std::optional<net::thread_pool> blocking;
  std::optional<net::thread_pool> quick;
  std::thread thread;
  std::uint16_t port = 0;

  std::string listen();
  void accept();
  void take(tcp::socket socket);
  void remove(const std::shared_ptr<Session>& session);
  void beginStop();
  void closeAll();
  void noteGone();
  void count(int status);
};

// One connection. Its functions run on the thread of `io`, one after the other.
class HttpServer::Session : public std::enable_shared_from_this<HttpServer::Session> {
 public:
  Session(State& server, tcp::socket socket, bool turnedAway)
      : server_(server), socket_(std::move(socket)), timer_(server.io), turnedAway_(turnedAway) {}

  bool turnedAway() const { return turnedAway_; }

  void run() {
    error_code error;
    const auto peer = socket_.remote_endpoint(error);
    if (!error) caller_ = peer.address().to_string() + ":" + std::to_string(peer.port());
    if (turnedAway_) {
      reply(httpError(429, "too many connections"), false);
    } else {
      waitForRequest(server_.cfg.limits.headerTimeMs);
    }
  }

  // Closes it unless a request is being served or answered.
  void closeIfIdle() {
    if (!busy_) close();
  }

  void close() {
    if (closed_) return;
    closed_ = true;
    error_code ignored;
    timer_.cancel();
    socket_.close(ignored);
    server_.remove(shared_from_this());
  }

 private:
  auto bound(void (Session::*function)(error_code)) {
    return [self = shared_from_this(), function](error_code error, auto&&...) {
      if (!self->closed_) (self.get()->*function)(error);
    };
  }

  // Ends the operation in progress, with operation_aborted, when it takes longer.
  void limitTime(milliseconds limit) {
    expired_ = false;
    timer_.expires_after(limit);
    timer_.async_wait([self = shared_from_this(), round = ++round_](error_code error) {
      if (error || self->closed_ || round != self->round_) return;
      self->expired_ = true;
      error_code ignored;
      self->socket_.cancel(ignored);
    });
  }
  void endTimeLimit() {
    ++round_;
    timer_.cancel();
  }
  bool tooSlow(error_code error) const {
    return expired_ && error == net::error::operation_aborted;
  }

  void waitForRequest(int limitMs) {
    if (buffer_.size() != 0) return readHeader();
    limitTime(milliseconds(limitMs));
    socket_.async_wait(tcp::socket::wait_read, bound(&Session::onReadable));
  }
  void onReadable(error_code error) {
    // Nobody waits for an answer to a request that was not begun.
    if (error) return close();
    readHeader();
  }

  void readHeader() {
    const HttpLimits& limits = server_.cfg.limits;
    parser_.emplace();
    parser_->header_limit(limits.headerBytes);
    parser_->body_limit(limits.bodyBytes);
    limitTime(milliseconds(limits.headerTimeMs));
    http::async_read_header(socket_, buffer_, *parser_, bound(&Session::onHeader));
  }
  void onHeader(error_code error) {
    if (tooSlow(error)) return reply(httpError(408, "the header took too long"), false);
    if (error) return refuse(error);
    request_ = requestOf(parser_->get().base(), caller_);
    if (auto refusal = server_.router.refusal(request_)) {
      return reply(std::move(*refusal), parser_->is_done() && parser_->keep_alive());
    }
    limitTime(milliseconds(server_.cfg.limits.bodyTimeMs));
    if (lowerCase(parser_->get()[http::field::expect]) != "100-continue") return readBody({});
    static const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    net::async_write(socket_, net::buffer(kContinue, sizeof kContinue - 1),
                     bound(&Session::readBody));
  }

  void readBody(error_code error) {
    if (error) return close();
    http::async_read(socket_, buffer_, *parser_, bound(&Session::onBody));
  }
  void onBody(error_code error) {
    if (tooSlow(error)) return reply(httpError(408, "the body took too long"), false);
    if (error) return refuse(error);
    endTimeLimit();
    serve();
  }
  void refuse(error_code error) {
    if (auto explanation = replyTo(error)) {
      reply(std::move(*explanation), false);
    } else {
      close();
    }
  }

  void serve() {
    busy_ = true;
    request_.body = std::move(parser_->get().body());
    const bool keep = parser_->keep_alive();
    const HttpRoute* route = server_.router.find(request_);
    auto& pool = route->mayBlock ? server_.blocking : server_.quick;
    ++server_.handlersAtWork;
    net::post(*pool, [self = shared_from_this(), route, keep] {
      auto made = std::make_shared<HttpReply>(served(*route, self->request_));
      --self->server_.handlersAtWork;
      net::post(self->server_.io, [self, made, keep] {
        if (!self->closed_) self->reply(std::move(*made), keep);
      });
    });
  }

  void reply(HttpReply made, bool keep) {
    busy_ = true;
    response_ = {};
    response_.result(static_cast<unsigned>(made.status));
    server_.count(made.status);
    // What pages count their "now" from: a browser's clock may be another.
    response_.set("X-Orva-Time", std::to_string(unixMilliseconds()));
    response_.set(http::field::content_type, made.contentType);
    response_.set(http::field::cache_control, "no-store");
    response_.set("X-Content-Type-Options", "nosniff");
    for (const auto& [name, value] : made.headers) response_.set(name, value);
    response_.body() = std::move(made.body);
    if (parser_) response_.version(parser_->get().version() == 10 ? 10 : 11);
    response_.keep_alive(keep && !server_.stopping);
    response_.prepare_payload();
    // It tells of the body that the client has, which is not empty.
    if (made.status == 304) response_.content_length(boost::none);
    serializer_.emplace(response_);
    writeSome();
  }
  // In pieces: the limit is for a peer that takes nothing, not for a large reply.
  void writeSome() {
    limitTime(milliseconds(server_.cfg.limits.bodyTimeMs));
    http::async_write_some(socket_, *serializer_, bound(&Session::onWritten));
  }
  void onWritten(error_code error) {
    if (error) return close();
    if (!serializer_->is_done()) return writeSome();
    const bool keep = response_.keep_alive() && !server_.stopping;
    serializer_.reset();
    response_.body().clear();
    busy_ = false;
    if (keep) return waitForRequest(server_.cfg.limits.idleTimeMs);
    error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
    limitTime(kDrainTime);
    drain();
  }

  void drain() { socket_.async_read_some(net::buffer(scrap_), bound(&Session::onDrained)); }
  void onDrained(error_code error) {
    if (error) return close();
    drain();
  }

  State& server_;
  tcp::socket socket_;
  net::steady_timer timer_;
  const bool turnedAway_;
  std::string caller_;
  boost::beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  HttpRequest request_;
  http::response<http::string_body> response_;
  std::optional<http::response_serializer<http::string_body>> serializer_;
  char scrap_[16384];
  std::uint64_t round_ = 0;
  bool expired_ = false;
  bool busy_ = false;
  bool closed_ = false;
};

std::string HttpServer::State::listen() {
  error_code error;
  const auto address = net::ip::make_address(cfg.bind, error);
  if (error) return cfg.bind + ": " + error.message();
  const tcp::endpoint endpoint(address, cfg.port);
  acceptor.open(endpoint.protocol(), error);
  if (!error) acceptor.set_option(net::socket_base::reuse_address(true), error);
  if (!error) acceptor.bind(endpoint, error);
  if (!error) acceptor.listen(net::socket_base::max_listen_connections, error);
  if (error) return cfg.bind + ":" + std::to_string(cfg.port) + ": " + error.message();
  port = acceptor.local_endpoint().port();
  return {};
}

void HttpServer::State::accept() {
  acceptor.async_accept([this](error_code error, tcp::socket socket) {
    if (stopping) return;
    if (!error) {
      take(std::move(socket));
      return accept();
    }
    // Out of descriptors, most likely: some will come free.
    retry.expires_after(milliseconds(100));
    retry.async_wait([this](error_code cancelled) {
      if (!cancelled && !stopping) accept();
    });
  });
}

void HttpServer::State::take(tcp::socket socket) {
  const bool tooMany = sessions.size() - turnedAway >= cfg.limits.connections;
  if (tooMany && turnedAway >= kMostTurnedAway) return;
  error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  auto session = std::make_shared<Session>(*this, std::move(socket), tooMany);
  sessions.insert(session);
  turnedAway += tooMany ? 1 : 0;
  session->run();
}

void HttpServer::State::remove(const std::shared_ptr<Session>& session) {
  if (sessions.erase(session) != 0 && session->turnedAway()) --turnedAway;
  noteGone();
}

void HttpServer::State::noteGone() {
  if (!stopping || !sessions.empty() || saidAllGone) return;
  saidAllGone = true;
  allGone.set_value();
}

void HttpServer::State::count(int status) {
  const auto index = static_cast<std::size_t>(status / 100 - 1);
  if (index < replies.size()) replies[index].fetch_add(1, std::memory_order_relaxed);
}

void HttpServer::State::beginStop() {
  stopping = true;
  error_code ignored;
  acceptor.close(ignored);
  retry.cancel();
  const auto all = sessions;  // closing takes them out
  for (const auto& session : all) session->closeIfIdle();
  noteGone();
}

void HttpServer::State::closeAll() {
  const auto all = sessions;
  for (const auto& session : all) session->close();
}

HttpServer::HttpServer() : state_(std::make_unique<State>()) {}

HttpServer::~HttpServer() {
  stop(0);
  join();
}

void HttpServer::add(HttpRoute route) { state_->router.add(std::move(route)); }

std::string HttpServer::start(const HttpCfg& cfg) {
  state_->cfg = cfg;
  state_->router.setToken(cfg.token);
  if (std::string error = state_->listen(); !error.empty()) return error;
  state_->blocking.emplace(static_cast<std::size_t>(cfg.limits.threads));
  state_->quick.emplace(static_cast<std::size_t>(kQuickThreads));
  state_->accept();
  state_->thread = std::thread([state = state_.get()] {
    const auto work = net::make_work_guard(state->io);
    state->io.run();
  });
  return {};
}

std::uint16_t HttpServer::port() const { return state_->port; }

std::string HttpServer::address() const {
  const std::string& bind = state_->cfg.bind;
  const bool isV6 = bind.find(':') != std::string::npos;
  return "http://" + (isV6 ? "[" + bind + "]" : bind) + ":" + std::to_string(state_->port);
}

HttpServer::ReplyCounts HttpServer::replyCounts() const {
  ReplyCounts counts{};
  for (std::size_t i = 0; i < counts.size(); ++i) {
    counts[i] = state_->replies[i].load(std::memory_order_relaxed);
  }
  return counts;
}

void HttpServer::stop(int graceMs) {
  if (!state_->thread.joinable()) return;
  net::post(state_->io, [state = state_.get()] { state->beginStop(); });
  static_cast<void>(state_->allGone.get_future().wait_for(milliseconds(graceMs)));
  net::post(state_->io, [state = state_.get()] {
    state->closeAll();
    state->io.stop();
  });
  state_->thread.join();
}

bool HttpServer::joinWithin(int limitMs) {
  const auto end = std::chrono::steady_clock::now() + milliseconds(limitMs);
  while (state_->handlersAtWork != 0) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
  join();
  return true;
}

void HttpServer::join() {
  if (state_->blocking) state_->blocking->join();
  if (state_->quick) state_->quick->join();
}

}  // namespace orva::host
