#include "orva_cli/host_client.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdlib>

#include "orva_cli/failure.h"
#include "share/json.h"

namespace orva::cli {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::system::error_code;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

constexpr std::chrono::seconds kConnectTime(10);
constexpr std::chrono::seconds kAnswerTime(90);  // a host waits 60 s for a slow archive

// What the host says about a request that it does not serve.
std::string errorText(const std::string& body) {
  json::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(body.c_str(), body.size());
  if (document.HasParseError() || !document.IsObject()) return {};
  const json::Value& text = json::member(document, "error");
  return text.IsString() ? std::string(": ") + text.GetString() : std::string();
}

void expectServed(const Response& response, const std::string& url, bool hasToken) {
  if (response.result() == http::status::ok) return;
  if (response.result() == http::status::unauthorized) {
    throw Failure(hasToken
                      ? "the host at " + url + " refuses the token: check --token or ORVA_TOKEN"
                      : "the host at " + url + " wants a token: give it in ORVA_TOKEN");
  }
  throw Failure("the host at " + url + " answers " + std::to_string(response.result_int()) +
                errorText(response.body()));
}

}  // namespace

class HostClient::Connection {
 public:
  explicit Connection(const HostAddress& address) : stream_(context_) {
    error_code error;
    asio::ip::tcp::resolver resolver(context_);
    const auto found = resolver.resolve(address.name, address.port, error);
    if (error) throw boost::system::system_error(error);
    stream_.expires_after(kConnectTime);
    wait([&](auto done) { stream_.async_connect(found, done); });
  }

  Response exchange(const Request& request) {
    stream_.expires_after(kAnswerTime);
    wait([&](auto done) { http::async_write(stream_, request, done); });
    http::response_parser<http::string_body> parser;
    parser.body_limit(boost::none);
    wait([&](auto done) { http::async_read(stream_, buffer_, parser, done); });
    return parser.release();
  }

 private:
  // Runs one operation to its end; only these obey the stream's time limit.
  template <class Start>
  void wait(Start start) {
    error_code result;
    start([&result](error_code error, auto&&...) { result = error; });
    context_.restart();
    context_.run();
    if (result) throw boost::system::system_error(result);
  }

  asio::io_context context_;
  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
};

bool readHostUrl(const std::string& url, HostAddress& out) {
  const std::string scheme = "http://";
  if (url.compare(0, scheme.size(), scheme) != 0) return false;
  std::string rest = url.substr(scheme.size());
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (rest.find_first_of("/@?# \t\r\n") != std::string::npos) return false;
  const std::size_t bracket = rest.find(']');
  const std::size_t colon = rest.find(':', bracket == std::string::npos ? 0 : bracket);
  out = {};
  out.name = rest.substr(0, colon);
  if (colon != std::string::npos) out.port = rest.substr(colon + 1);
  if (out.name.size() > 2 && out.name.front() == '[' && out.name.back() == ']') {
    out.name = out.name.substr(1, out.name.size() - 2);
  }
  const bool isNumber = out.port.find_first_not_of("0123456789") == std::string::npos;
  return !out.name.empty() && isNumber && !out.port.empty() && out.port.size() <= 5 &&
         std::atoi(out.port.c_str()) <= 65535;
}

HostClient::HostClient(std::string url, std::string token)
    : url_(std::move(url)), token_(std::move(token)) {
  if (!readHostUrl(url_, address_)) {
    throw UsageError("\"" + url_ + "\" is no address of a host, such as http://127.0.0.1:8580");
  }
  for (const char c : token_) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte >= 0x7F) throw UsageError("the token has characters that none has");
  }
}

HostClient::~HostClient() = default;

HostReply HostClient::get(const std::string& target) { return request(false, target, {}); }

HostReply HostClient::post(const std::string& target, const std::string& body) {
  return request(true, target, body);
}

HostReply HostClient::request(bool isPost, const std::string& target, const std::string& body) {
  Request request(isPost ? http::verb::post : http::verb::get, target, 11);
  request.set(http::field::host, address_.name);
  if (!token_.empty()) request.set(http::field::authorization, "Bearer " + token_);
  if (isPost) request.set(http::field::content_type, "application/json");
  request.body() = body;
  request.prepare_payload();
  for (;;) {
    // The host closes what was idle for long; a request that only reads may be repeated.
    const bool isKept = connection_ != nullptr;
    try {
      if (!isKept) connection_ = std::make_unique<Connection>(address_);
      const Response response = connection_->exchange(request);
      if (!response.keep_alive()) connection_.reset();
      expectServed(response, url_, !token_.empty());
      HostReply reply;
      reply.timeMs = std::strtoll(std::string(response["X-Orva-Time"]).c_str(), nullptr, 10);
      reply.itemStatus = static_cast<StatusCode>(
          std::strtoul(std::string(response["X-Orva-Status"]).c_str(), nullptr, 16));
      reply.body = response.body();
      return reply;
    } catch (const boost::system::system_error& error) {
      connection_.reset();
      if (isKept && error.code() != beast::error::timeout) continue;
      throw Failure("cannot talk to a host at " + url_ + ": " + error.code().message() +
                    "; is it running? --host or ORVA_HOST names another");
    }
  }
}

}  // namespace orva::cli
