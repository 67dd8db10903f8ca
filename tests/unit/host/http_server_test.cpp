#include "orva_host/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <stdexcept>
#include <thread>

#include "orva_host/http_router.h"
#include "share/mutex.h"
#include "support/http_client.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

using Answer = test::HttpReply;
using test::httpRequest;

// One connection, with the exchange that most tests are made of.
class HttpConnection : public test::HttpConnection {
 public:
  using test::HttpConnection::HttpConnection;

  Answer exchange(const std::string& method, const std::string& path, const std::string& body = "",
                  const std::string& extraHeaders = "") {
    send(httpRequest(method, path, body, extraHeaders));
    return receive();
  }
};

Answer httpExchange(std::uint16_t port, const std::string& method, const std::string& path,
                    const std::string& body = "", const std::string& extraHeaders = "") {
  return HttpConnection(port).exchange(method, path, body, extraHeaders);
}

// Holds handlers until a test lets them go.
class Gate {
 public:
  void pass() {
    ++waiting_;
    while (!isOpen_) std::this_thread::yield();
  }
  void open() { isOpen_ = true; }
  void awaitWaiting(int count) const {
    while (waiting_ < count) std::this_thread::yield();
  }

 private:
  std::atomic<int> waiting_{0};
  std::atomic<bool> isOpen_{false};
};

class HttpServerTest : public testing::Test {
 protected:
  HttpServerTest() {
    cfg_.port = 0;
    add("GET", "/quick", [](const HttpRequest&) { return text("quick"); });
    add("POST", "/echo", [](const HttpRequest& request) { return text(request.body); });
  }
  ~HttpServerTest() override { gate_.open(); }

  static HttpReply text(const std::string& body) {
    HttpReply reply;
    reply.contentType = "text/plain";
    reply.body = body;
    return reply;
  }
  void add(const std::string& method, const std::string& path,
           std::function<HttpReply(const HttpRequest&)> handler, bool mayBlock = false) {
    HttpRoute route;
    route.method = method;
    route.path = path;
    route.handler = std::move(handler);
    route.mayBlock = mayBlock;
    server_.add(route);
  }
  void addGated() {
    add(
        "POST", "/gated",
        [this](const HttpRequest&) {
          gate_.pass();
          return text("through");
        },
        true);
  }
  std::uint16_t start() {
    EXPECT_EQ(server_.start(cfg_), "");
    return server_.port();
  }

  HttpCfg cfg_;
  Gate gate_;
  HttpServer server_;
};

const char kGetQuick[] = "GET /quick HTTP/1.1\r\nHost: x\r\n\r\n";

TEST_F(HttpServerTest, HandlerSeesTheRequestAndItsReplyGoesOut) {
  HttpRequest seen;
  add("POST", "/see", [&seen](const HttpRequest& request) {
    seen = request;
    HttpReply reply = text("{}");
    reply.status = 202;
    reply.contentType = "application/json";
    reply.headers.emplace_back("X-Extra", "1");
    return reply;
  });
  const Answer answer =
      httpExchange(start(), "POST", "/see?a=1&b=%20", "body", "X-Some-Thing: Value\r\n");
  EXPECT_EQ(answer.status, 202);
  EXPECT_EQ(answer.body, "{}");
  EXPECT_EQ(answer.field("content-type"), "application/json");
  EXPECT_EQ(answer.field("x-extra"), "1");
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.path, "/see");
  EXPECT_EQ(seen.query, "a=1&b=%20");
  EXPECT_EQ(seen.body, "body");
  EXPECT_EQ(seen.header("x-some-thing"), "Value");
  EXPECT_EQ(seen.caller.substr(0, 10), "127.0.0.1:");
}

TEST_F(HttpServerTest, AddressNamesThePortItGot) {
  start();
  EXPECT_NE(server_.port(), 0);
  EXPECT_EQ(server_.address(), "http://127.0.0.1:" + std::to_string(server_.port()));
}

TEST_F(HttpServerTest, PortInUseIsAnError) {
  HttpServer second;
  HttpCfg same = cfg_;
  same.port = start();
  EXPECT_EQ(second.start(same),
            "127.0.0.1:" + std::to_string(same.port) + ": Address already in use");
}

TEST_F(HttpServerTest, OneConnectionServesManyRequests) {
  HttpConnection connection(start());
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(connection.exchange("POST", "/echo", std::to_string(i)).body, std::to_string(i));
  }
  EXPECT_TRUE(connection.send(std::string(kGetQuick) + kGetQuick));
  EXPECT_EQ(connection.receive().body, "quick");
  EXPECT_EQ(connection.receive().body, "quick");
  EXPECT_EQ(connection.exchange("GET", "/quick", "", "Connection: close\r\n").status, 200);
  EXPECT_TRUE(connection.closedByPeer());
}

TEST_F(HttpServerTest, OldProtocolClosesAfterItsAnswer) {
  HttpConnection connection(start());
  connection.send("GET /quick HTTP/1.0\r\n\r\n");
  EXPECT_EQ(connection.receive().body, "quick");
  EXPECT_TRUE(connection.closedByPeer());
}

TEST_F(HttpServerTest, LargeRepliesArriveWhole) {
  const std::string large(20'000'000, 'x');
  add("GET", "/large", [&large](const HttpRequest&) { return text(large); });
  const Answer answer = httpExchange(start(), "GET", "/large");
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(answer.body == large);
}

TEST_F(HttpServerTest, UnknownPathsAndMethodsAreSaidToBe) {
  HttpConnection connection(start());
  const Answer unknown = connection.exchange("GET", "/none");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_EQ(unknown.body, "{\"code\":2151546880,\"error\":\"there is nothing at this path\"}");
  const Answer wrongMethod = connection.exchange("GET", "/echo");
  EXPECT_EQ(wrongMethod.status, 405);
  EXPECT_EQ(wrongMethod.field("allow"), "POST");
  EXPECT_EQ(connection.exchange("GET", "/quick").status, 200);
}

TEST_F(HttpServerTest, ThrowingHandlerIsAnsweredFor) {
  test::TraceCapture trace;
  add("GET", "/throw", [](const HttpRequest&) -> HttpReply { throw std::runtime_error("odd"); });
  HttpConnection connection(start());
  EXPECT_EQ(connection.exchange("GET", "/throw").status, 500);
  EXPECT_EQ(connection.exchange("GET", "/quick").status, 200);
  EXPECT_EQ(trace.count("GET /throw failed: odd\n"), 1);
}

TEST_F(HttpServerTest, BodyUpToTheLimitIsTakenAndNoMore) {
  cfg_.limits.bodyBytes = 1000;
  const std::uint16_t port = start();
  EXPECT_EQ(httpExchange(port, "POST", "/echo", std::string(1000, 'x')).body.size(), 1000U);
  EXPECT_EQ(httpExchange(port, "POST", "/echo", std::string(1001, 'x')).status, 413);
  EXPECT_EQ(httpExchange(port, "POST", "/echo", std::string(3'000'000, 'x')).status, 413);
  HttpConnection chunked(port);
  chunked.send("POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n3E9\r\n" +
               std::string(1001, 'x') + "\r\n0\r\n\r\n");
  EXPECT_EQ(chunked.receive().status, 413);
}

TEST_F(HttpServerTest, ChunkedBodyIsJoined) {
  HttpConnection connection(start());
  connection.send("POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n");
  connection.send("3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
  EXPECT_EQ(connection.receive().body, "abcde");
}

TEST_F(HttpServerTest, ClientThatAsksFirstIsToldToContinue) {
  HttpConnection connection(start());
  connection.send(
      "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 2\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(connection.receive().status, 100);
  connection.send("ab");
  EXPECT_EQ(connection.receive().body, "ab");
}

TEST_F(HttpServerTest, LargeHeaderIsRefused) {
  HttpConnection connection(start());
  connection.send("GET /quick HTTP/1.1\r\nX: " + std::string(10'000, 'x') + "\r\n\r\n");
  EXPECT_EQ(connection.receive().status, 431);
  EXPECT_TRUE(connection.closedByPeer());
}

TEST_F(HttpServerTest, WhatIsNoHttpIsRefused) {
  const std::uint16_t port = start();
  for (const char* nonsense : {"\r\n\x01\x02\r\n\r\n", "hello there\r\n\r\n",
                               "GET / HTTP/9.9\r\n\r\n", "GET /quick HTTP/1.1\r\nno colon\r\n\r\n",
                               "POST /echo HTTP/1.1\r\nContent-Length: x\r\n\r\n"}) {
    HttpConnection connection(port);
    connection.send(nonsense);
    EXPECT_EQ(connection.receive().status, 400) << nonsense;
    EXPECT_TRUE(connection.closedByPeer());
  }
  EXPECT_EQ(httpExchange(port, "GET", "/quick").status, 200);
}

TEST_F(HttpServerTest, SlowHeaderIsCutOff) {
  cfg_.limits.headerTimeMs = 100;
  HttpConnection connection(start());
  connection.send("GET /quick HT");
  const Answer answer = connection.receive();
  EXPECT_EQ(answer.status, 408);
  EXPECT_NE(answer.body.find("header"), std::string::npos);
  EXPECT_TRUE(connection.closedByPeer());
}

TEST_F(HttpServerTest, DrippingHeaderGainsNoTime) {
  cfg_.limits.headerTimeMs = 200;
  HttpConnection connection(start());
  std::thread dripper([&connection] {
    connection.send("GET /quick HTTP/1.1\r\nX: ");
    while (connection.send("x")) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  });
  EXPECT_EQ(connection.receive().status, 408);
  dripper.join();
}

TEST_F(HttpServerTest, SlowBodyIsCutOff) {
  cfg_.limits.bodyTimeMs = 100;
  HttpConnection connection(start());
  connection.send("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nabc");
  const Answer answer = connection.receive();
  EXPECT_EQ(answer.status, 408);
  EXPECT_NE(answer.body.find("body"), std::string::npos);
  EXPECT_TRUE(connection.closedByPeer());
}

TEST_F(HttpServerTest, SilentConnectionsAreClosed) {
  cfg_.limits.headerTimeMs = 100;
  cfg_.limits.idleTimeMs = 100;
  const std::uint16_t port = start();
  HttpConnection silent(port);
  EXPECT_TRUE(silent.closedByPeer());
  HttpConnection idle(port);
  EXPECT_EQ(idle.exchange("GET", "/quick").status, 200);
  EXPECT_TRUE(idle.closedByPeer());
}

TEST_F(HttpServerTest, ConnectionsBeyondTheLimitAreToldSo) {
  cfg_.limits.connections = 3;
  const std::uint16_t port = start();
  {
    std::deque<HttpConnection> taken;
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(taken.emplace_back(port).exchange("GET", "/quick").status, 200);
    }
    HttpConnection fourth(port);
    const Answer answer = fourth.exchange("GET", "/quick");
    EXPECT_EQ(answer.status, 429);
    EXPECT_EQ(answer.body, "{\"code\":2159411200,\"error\":\"too many connections\"}");
    EXPECT_TRUE(fourth.closedByPeer());
    EXPECT_EQ(taken.front().exchange("GET", "/quick").status, 200);
  }
  // Room comes back, soon after they are gone.
  int status = 0;
  for (int i = 0; i < 2000 && status != 200; ++i)
    status = httpExchange(port, "GET", "/quick").status;
  EXPECT_EQ(status, 200);
}

TEST_F(HttpServerTest, BlockedHandlersLeaveTheOthersResponsive) {
  cfg_.limits.threads = 2;
  addGated();
  const std::uint16_t port = start();
  std::deque<HttpConnection> blocked;
  for (int i = 0; i < 5; ++i) {
    blocked.emplace_back(port).send("POST /gated HTTP/1.1\r\nHost: x\r\n\r\n");
  }
  gate_.awaitWaiting(2);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(httpExchange(port, "GET", "/quick").body, "quick");
  gate_.open();
  for (HttpConnection& connection : blocked) EXPECT_EQ(connection.receive().body, "through");
}

TEST_F(HttpServerTest, TokenIsNeededOnceConfigured) {
  cfg_.token = "secret";
  HttpConnection connection(start());
  const Answer refused = connection.exchange("GET", "/quick");
  EXPECT_EQ(refused.status, 401);
  EXPECT_EQ(refused.field("www-authenticate"), "Bearer");
  for (const char* wrong : {"secre", "secret1", "", "secretsecret", "Secret"}) {
    const std::string header = std::string("Authorization: Bearer ") + wrong + "\r\n";
    EXPECT_EQ(connection.exchange("GET", "/quick", "", header).status, 401) << wrong;
  }
  EXPECT_EQ(connection.exchange("GET", "/quick", "", "Authorization: Basic secret\r\n").status,
            401);
  EXPECT_EQ(connection.exchange("GET", "/none").status, 401);
  EXPECT_EQ(connection.exchange("GET", "/quick", "", "Authorization: Bearer secret\r\n").status,
            200);
  EXPECT_EQ(connection.exchange("GET", "/quick", "", "authorization: bearer secret\r\n").status,
            200);
}

TEST_F(HttpServerTest, BodyWithoutTheTokenIsNotRead) {
  cfg_.token = "secret";
  HttpConnection connection(start());
  connection.send("POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\nxx");
  EXPECT_EQ(connection.receive().status, 401);
  EXPECT_TRUE(connection.closedByPeer());
}

TEST_F(HttpServerTest, OpenRoutesNeedNoToken) {
  cfg_.token = "secret";
  HttpRoute page;
  page.method = "GET";
  page.path = "/";
  page.handler = [](const HttpRequest&) { return text("page"); };
  page.open = true;
  server_.add(page);
  const std::uint16_t port = start();
  EXPECT_EQ(httpExchange(port, "GET", "/").body, "page");
  EXPECT_EQ(httpExchange(port, "GET", "/other").status, 401);
}

TEST_F(HttpServerTest, StopClosesOpenConnectionsAtOnce) {
  addGated();
  const std::uint16_t port = start();
  HttpConnection idle(port);
  EXPECT_EQ(idle.exchange("GET", "/quick").status, 200);
  HttpConnection half(port);
  half.send("GET /qui");
  HttpConnection blocked(port);
  blocked.send("POST /gated HTTP/1.1\r\nHost: x\r\n\r\n");
  gate_.awaitWaiting(1);
  const auto before = std::chrono::steady_clock::now();
  server_.stop(50);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
  EXPECT_TRUE(idle.closedByPeer());
  EXPECT_TRUE(half.closedByPeer());
  EXPECT_EQ(blocked.receive().status, 0);
  EXPECT_FALSE(HttpConnection(port).connected());
  EXPECT_FALSE(server_.joinWithin(10));
  gate_.open();
  EXPECT_TRUE(server_.joinWithin(60'000));
}

TEST_F(HttpServerTest, StopLetsRequestsInServiceEnd) {
  addGated();
  const std::uint16_t port = start();
  HttpConnection served(port);
  served.send("POST /gated HTTP/1.1\r\nHost: x\r\n\r\n");
  gate_.awaitWaiting(1);
  std::thread stopper([this] { server_.stop(60'000); });
  // Refused once the listener is closed.
  while (HttpConnection(port).connected()) std::this_thread::yield();
  gate_.open();
  const Answer answer = served.receive();
  EXPECT_EQ(answer.body, "through");
  EXPECT_EQ(answer.field("connection"), "close");
  stopper.join();
}

TEST_F(HttpServerTest, ManyClientsAtOnceAreServed) {
  const std::uint16_t port = start();
  std::atomic<int> good{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < 16; ++c) {
    clients.emplace_back([port, c, &good] {
      HttpConnection connection(port);
      for (int i = 0; i < 50; ++i) {
        const std::string body = std::to_string(c * 1000 + i);
        good += connection.exchange("POST", "/echo", body).body == body ? 1 : 0;
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(good, 16 * 50);
}

TEST(HttpRouterTest, LongestPathServes) {
  HttpRouter router;
  const auto add = [&router](const std::string& method, const std::string& path) {
    HttpRoute route;
    route.method = method;
    route.path = path;
    router.add(route);
  };
  add("GET", "/");
  add("POST", "/Methods/");
  add("GET", "/Methods/List");
  const auto served = [&router](const std::string& method, const std::string& path) {
    HttpRequest request;
    request.method = method;
    request.path = path;
    const HttpRoute* route = router.find(request);
    return route == nullptr ? std::string() : route->path;
  };
  EXPECT_EQ(served("GET", "/"), "/");
  EXPECT_EQ(served("GET", "/x"), "");
  EXPECT_EQ(served("POST", "/Methods/HistoryReadRaw"), "/Methods/");
  EXPECT_EQ(served("POST", "/Methods/a/b"), "/Methods/");
  EXPECT_EQ(served("POST", "/Methods/"), "");
  EXPECT_EQ(served("POST", "/Methods"), "");
  EXPECT_EQ(served("POST", "/methods/x"), "");
  EXPECT_EQ(served("GET", "/Methods/List"), "/Methods/List");
}

}  // namespace
}  // namespace orva::host
