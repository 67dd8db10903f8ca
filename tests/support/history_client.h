#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/http_client.h"

namespace orva::test {

// A sample as a reply carries it.
struct Sample {
  std::int64_t timeMs = 0;  // since 1970
  std::string value;        // its JSON text
  std::uint32_t quality = 0;

  bool operator==(const Sample& other) const {
    return timeMs == other.timeMs && value == other.value && quality == other.quality;
  }
};
using Samples = std::vector<Sample>;
std::ostream& operator<<(std::ostream& out, const Sample& sample);

// One item of a reply.
struct ItemReply {
  std::int64_t archiveItemId = 0;
  std::uint32_t statusCode = 0;
  bool areMoreValues = false;
  std::optional<std::int64_t> continuationPoint;
  Samples values;
};

// The reply of a method; code is -1 when there was none that can be read.
struct HistoryReply {
  std::int64_t code = -1;
  std::vector<ItemReply> items;
  std::string text;

  // The only item; an empty one when the reply has not just one.
  const ItemReply& item() const;
};

// Calls the history methods of the host that listens on `port`, each on a connection of its own.
// What goes wrong shows in the reply.
class HistoryClient {
 public:
  explicit HistoryClient(std::uint16_t port) : port_(port) {}

  std::uint16_t port() const { return port_; }
  HttpReply call(const std::string& method, const std::string& body) const;

  // -1 when the path is not archived.
  std::int64_t archiveItemId(const std::string& path) const;
  // `parameters` is the text of the object's members, without braces.
  HistoryReply readRaw(std::int64_t archiveItemId, const std::string& parameters,
                       std::int64_t continuationPoint = 0) const;
  HistoryReply readNewRecords(const std::string& path, std::int64_t continuationPoint) const;
  // The whole history of an item, page by page.
  Samples readAll(std::int64_t archiveItemId, const std::string& parameters = {}) const;

 private:
  std::uint16_t port_;
};

HistoryReply parseHistoryReply(const std::string& text);

}  // namespace orva::test
