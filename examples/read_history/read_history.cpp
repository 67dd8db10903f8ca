// A client of the JSON methods: prints the newest history of archived variables as people read it.
//
//   orva_read_history --port 8580 Plant/Load Plant/Pump
//
//   2024-05-17T08:09:10.123Z  Plant/Load  21.5  good

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "rapidjson/document.h"
#include "rapidjson/stringbuffer.h"
#include "rapidjson/writer.h"

namespace {

struct Settings {
  std::uint16_t port = 8580;
  std::string token;
  int seconds = 60;
  std::size_t most = 10;
  bool list = false;
  std::vector<std::string> paths;
};

struct ArchivedItem {
  std::string path;
  std::int64_t archiveItemId;
};

class Socket {
 public:
  explicit Socket(std::uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("nobody listens on port " + std::to_string(port));
    }
  }
  ~Socket() { close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  void send(const std::string& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) throw std::runtime_error("the connection broke");
      sent += static_cast<std::size_t>(count);
    }
  }
  std::string receiveAll() const {
    std::string received;
    char buffer[65536];
    for (ssize_t count = 0; (count = recv(fd_, buffer, sizeof buffer, 0)) > 0;) {
      received.append(buffer, static_cast<std::size_t>(count));
    }
    return received;
  }

 private:
  const int fd_;
};

// "Connection: close" makes the end of the connection the end of the reply.
rapidjson::Document request(const Settings& settings, const std::string& line,
                            const std::string& body) {
  std::string text = line + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
  if (!settings.token.empty()) text += "Authorization: Bearer " + settings.token + "\r\n";
  if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  const Socket socket(settings.port);
  socket.send(text + "\r\n" + body);
  const std::string reply = socket.receiveAll();
  const std::size_t headerEnd = reply.find("\r\n\r\n");
  if (headerEnd == std::string::npos || reply.compare(9, 4, "200 ") != 0) {
    throw std::runtime_error(line + ": the host answers \"" + reply.substr(0, reply.find("\r\n")) +
                             "\"");
  }
  rapidjson::Document document;
  document.Parse(reply.c_str() + headerEnd + 4);
  if (!document.IsObject()) throw std::runtime_error(line + ": the reply is no JSON object");
  return document;
}

std::string textOf(const rapidjson::Value& value) {
  rapidjson::StringBuffer text;
  rapidjson::Writer<rapidjson::StringBuffer> writer(text);
  value.Accept(writer);
  return text.GetString();
}

rapidjson::Document call(const Settings& settings, const std::string& method,
                         const rapidjson::Document& body) {
  return request(settings, "POST /Methods/" + method, textOf(body));
}

// All archived variables of the host's configuration.
std::vector<std::string> allPaths(const Settings& settings) {
  const rapidjson::Document reply = request(settings, "GET /api/items", "");
  std::vector<std::string> paths;
  for (const auto& item : reply["items"].GetArray()) {
    if (!item["layers"].ObjectEmpty()) paths.emplace_back(item["path"].GetString());
  }
  return paths;
}

// {"items": [{"path": ...}, ...]}
std::vector<ArchivedItem> archivedItems(const Settings& settings) {
  rapidjson::Document body(rapidjson::kObjectType);
  auto& memory = body.GetAllocator();
  rapidjson::Value items(rapidjson::kArrayType);
  for (const std::string& path : settings.paths.empty() ? allPaths(settings) : settings.paths) {
    rapidjson::Value item(rapidjson::kObjectType);
    item.AddMember("path", rapidjson::Value(path.c_str(), memory), memory);
    items.PushBack(item, memory);
  }
  body.AddMember("items", items, memory);
  const rapidjson::Document reply = call(settings, "GetArchiveItems", body);
  std::vector<ArchivedItem> found;
  for (const auto& item : reply["items"].GetArray()) {
    if (item["archiveItemId"].GetInt64() == -1) {
      throw std::runtime_error(std::string("\"") + item["path"].GetString() + "\" is not archived");
    }
    found.push_back({item["path"].GetString(), item["archiveItemId"].GetInt64()});
  }
  return found;
}

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// {"data": [{"archiveItemId": ...}], "parameters": {"startTime": ...}}
rapidjson::Document readNewest(const Settings& settings, const ArchivedItem& item) {
  rapidjson::Document body(rapidjson::kObjectType);
  auto& memory = body.GetAllocator();
  rapidjson::Value asked(rapidjson::kObjectType);
  asked.AddMember("archiveItemId", item.archiveItemId, memory);
  rapidjson::Value data(rapidjson::kArrayType);
  data.PushBack(asked, memory);
  rapidjson::Value parameters(rapidjson::kObjectType);
  parameters.AddMember("startTime", nowMs() - std::int64_t{1000} * settings.seconds, memory);
  body.AddMember("data", data, memory);
  body.AddMember("parameters", parameters, memory);
  return call(settings, "HistoryReadRaw", body);
}

std::string isoTime(std::int64_t ms) {
  const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  char text[48];
  std::snprintf(text, sizeof text, "%s.%03dZ", date, static_cast<int>(ms % 1000));
  return text;
}

// OPC UA status codes: the top two bits are the severity.
std::string qualityText(std::uint32_t quality) {
  if (quality == 0) return "good";
  if (quality == 0x00A80000) return "good (last value before shutdown)";
  const char* const severities[] = {"good", "uncertain", "bad", "bad"};
  char text[32];
  std::snprintf(text, sizeof text, "%s (0x%08" PRIX32 ")", severities[quality >> 30], quality);
  return text;
}

// Six digits of a number with a fraction are enough to read.
std::string valueText(const rapidjson::Value& value) {
  if (!value.IsDouble()) return textOf(value);
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value.GetDouble());
  return text;
}

void printItem(const Settings& settings, const ArchivedItem& item, int pathWidth) {
  const rapidjson::Document reply = readNewest(settings, item);
  const rapidjson::Value& data = reply["data"][0];
  if (data.HasMember("statusCode")) {
    const auto code = static_cast<std::uint32_t>(data["statusCode"].GetInt64());
    std::printf("%-24s  %-*s  cannot be read: %s\n", "-", pathWidth, item.path.c_str(),
                qualityText(code).c_str());
  }
  const rapidjson::Value& values = data["values"];
  const std::size_t count = std::min<std::size_t>(settings.most, values.Size());
  for (auto at = values.End() - count; at != values.End(); ++at) {
    const rapidjson::Value& sample = *at;
    std::printf("%s  %-*s  %12s  %s\n", isoTime(sample[0].GetInt64()).c_str(), pathWidth,
                item.path.c_str(), valueText(sample[1]).c_str(),
                qualityText(sample[2].GetUint()).c_str());
  }
}

void printAll(const Settings& settings) {
  const std::vector<ArchivedItem> items = archivedItems(settings);
  std::size_t pathWidth = 4;
  for (const ArchivedItem& item : items) pathWidth = std::max(pathWidth, item.path.size());
  const int width = static_cast<int>(pathWidth);
  std::printf("%-24s  %-*s  %12s  %s\n", "time (UTC)", width, "path", "value", "quality");
  for (const ArchivedItem& item : items) printItem(settings, item, width);
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  CLI::App app("Prints the newest history of archived variables of a host on this machine.");
  app.add_option("--port", settings.port, "port of the host's HTTP listener")
      ->capture_default_str();
  app.add_option("--token", settings.token, "the token that the host asks for");
  app.add_option("--seconds", settings.seconds, "how far back")->capture_default_str();
  app.add_option("--most", settings.most, "how many samples of each variable, the newest")
      ->capture_default_str();
  app.add_flag("--list", settings.list, "only list the archived variables");
  app.add_option("PATH", settings.paths, "paths of variables; none: all that are archived");
  CLI11_PARSE(app, argc, argv);
  try {
    if (settings.list) {
      for (const std::string& path : allPaths(settings)) std::printf("%s\n", path.c_str());
    } else {
      printAll(settings);
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "orva_read_history: %s\n", e.what());
    return 1;
  }
  return 0;
}
