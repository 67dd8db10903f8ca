#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "orva_database/request_processor.h"
#include "share/archive_provider.h"
#include "share/json.h"
#include "support/manual_clock.h"
#include "support/scripted_provider.h"
#include "support/trace_capture.h"

namespace orva::test {

// A time to begin with, and the same in milliseconds since 1970.
constexpr std::int64_t kT0 = 133'604'064'000'000'000;
constexpr std::int64_t kMs0 = 1'715'932'800'000;
constexpr std::int64_t kSecond = 10'000'000;

// A reply of a JSON method.
struct Reply {
  StatusCode status = 0;
  std::string text;     // up to its length
  json::Document body;  // null if the text is no JSON

  // Element `index` of "items" or "data"; null if there is none. Lives in this reply.
  const json::Value& item(const char* list, unsigned index) const;
};

// The history service as its JSON clients see it: one scripted archive, whose filter takes every
// sample, and variables that are archived in its layer 0. One at a time. Time is manual, and
// passes by itself where the service waits.
class HistoryService {
 public:
  HistoryService();
  ~HistoryService();
  HistoryService(const HistoryService&) = delete;
  HistoryService& operator=(const HistoryService&) = delete;

  ManualClock clock;
  TraceCapture traces;

  // The one that is there now.
  ScriptedProvider& archive() { return factory_.last(); }

  // A variable the host knows.
  void addVariable(std::int64_t id, const std::string& path);
  // The same, in the cache; its cache id.
  std::int64_t addItem(std::int64_t id, const std::string& path);
  // Puts samples into the cache, as a writer does.
  void write(std::int64_t cacheId, const std::vector<PinPtr>& pins);

  // Runs a method, the reply in a stream, or in so many bytes.
  Reply call(const std::string& method, const std::string& body);
  Reply callBuffer(const std::string& method, const std::string& body, int capacity);

  RequestProcessor& processor() { return processor_; }

 private:
  ScriptedFactory factory_;
  RequestProcessor processor_;
};

// `count` samples, `step` ticks apart, with the values 0, 1, 2 ...
std::vector<PinPtr> steps(std::int64_t first, int count, std::int64_t step = kSecond);
PinPtr number(std::int64_t time, double value);
PinPtr word(std::int64_t time, const std::string& value);

}  // namespace orva::test
