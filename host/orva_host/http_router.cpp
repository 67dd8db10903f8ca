#include "orva_host/http_router.h"

#include <algorithm>

#include "share/json.h"

namespace orva::host {
namespace {

bool isPrefix(const std::string& path) { return path.size() > 1 && path.back() == '/'; }

bool covers(const std::string& routed, const std::string& path) {
  if (!isPrefix(routed)) return routed == path;
  return path.size() > routed.size() && path.compare(0, routed.size(), routed) == 0;
}

// Takes as long for every text of one length, so its duration tells nothing about the secret.
bool equalInConstantTime(const std::string& given, const std::string& secret) {
  std::size_t difference = given.size() ^ secret.size();
  for (std::size_t i = 0; i < given.size(); ++i) {
    const char expected = secret[i % secret.size()];
    difference |= static_cast<unsigned char>(given[i] ^ expected);
  }
  return difference == 0;
}

bool startsWithBearer(const std::string& header) {
  const std::string scheme = "bearer ";
  if (header.size() < scheme.size()) return false;
  const auto sameLetter = [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + 32 : a) == b; };
  return std::equal(scheme.begin(), scheme.end(), header.begin(),
                    [&](char expected, char given) { return sameLetter(given, expected); });
}

}  // namespace

std::string HttpRequest::header(const std::string& lowerCaseName) const {
  const auto found = headers.find(lowerCaseName);
  return found == headers.end() ? std::string() : found->second;
}

HttpReply httpError(int status, const std::string& text, StatusCode code) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  writer.Key("code");
  writer.Uint(code);
  writer.Key("error");
  writer.String(text);
  writer.EndObject();
  HttpReply reply;
  reply.status = status;
  reply.body = buffer.GetString();
  return reply;
}

void HttpRouter::add(HttpRoute route) {
  const auto same = [&route](const HttpRoute& known) {
    return known.method == route.method && known.path == route.path;
  };
  routes_.erase(std::remove_if(routes_.begin(), routes_.end(), same), routes_.end());
  routes_.push_back(std::move(route));
}

const HttpRoute* HttpRouter::find(const HttpRequest& request) const {
  const HttpRoute* best = nullptr;
  for (const HttpRoute& route : routes_) {
    if (route.method != request.method || !covers(route.path, request.path)) continue;
    if (best == nullptr || route.path.size() > best->path.size()) best = &route;
  }
  return best;
}

std::string HttpRouter::allowedMethods(const HttpRequest& request) const {
  std::string methods;
  for (const HttpRoute& route : routes_) {
    if (covers(route.path, request.path)) methods += (methods.empty() ? "" : ", ") + route.method;
  }
  return methods;
}

bool HttpRouter::authorized(const HttpRequest& request) const {
  if (token_.empty()) return true;
  const std::string header = request.header("authorization");
  return startsWithBearer(header) && equalInConstantTime(header.substr(7), token_);
}

std::optional<HttpReply> HttpRouter::refusal(const HttpRequest& request) const {
  const HttpRoute* route = find(request);
  const bool isOpen = route != nullptr && route->open;
  if (!isOpen && !authorized(request)) {
    // Also for unknown paths: what exists is nobody's business without the token.
    HttpReply reply = httpError(401, "a token is needed", 0x801F0000);
    reply.headers.emplace_back("WWW-Authenticate", "Bearer");
    return reply;
  }
  if (route != nullptr) return std::nullopt;
  const std::string allowed = allowedMethods(request);
  if (allowed.empty()) return httpError(404, "there is nothing at this path", status::kBadNotFound);
  HttpReply reply = httpError(405, "this path is served for " + allowed + " only");
  reply.headers.emplace_back("Allow", allowed);
  return reply;
}

}  // namespace orva::host
