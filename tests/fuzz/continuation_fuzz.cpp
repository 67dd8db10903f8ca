#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "model/truth.h"
#include "share/ticks.h"
#include "support/history_service.h"

// The bytes make a variable's history, of which the older part is in the archive alone, a range of
// it that is read page by page, and what stands in place of the continuation points. Each page must
// be what a plain list gives from that point on, and the pages of honest points joined the whole.

namespace orva::fuzz {
namespace {

using model::Query;
using model::Sample;
using model::Truth;

constexpr std::int64_t kVariable = 7;
constexpr const char* kPath = "Plant/Load";

// A page as its reader sees it: the values are the samples' numbers, which say all of them.
struct Page {
  StatusCode code = 0;
  std::vector<std::int64_t> values;
  bool more = false;
  bool hasPoint = false;
  std::string point;
};

std::int64_t nextTime(FuzzInput& in, std::int64_t time, bool repeats) {
  switch (in.below(4)) {
    case 0:
      return time + (repeats ? 0 : 1);
    case 1:
      return time + kTicksPerMillisecond;
    case 2:
      return time + 1 + in.byte();
    default:
      return time + kTicksPerSecond * (1 + in.byte());
  }
}

class History {
 public:
  explicit History(FuzzInput& in) {
    repeats = in.flag();
    id = service.addItem(kVariable, kPath);
    test::Script script;
    script.oneByOne = in.flag();
    script.everything = in.flag();
    service.archive().setScript(script);
    std::int64_t time = test::kT0;
    for (std::size_t count = in.below(120); count > 0; --count) {
      service.archive().add({kVariable, kPath}, 0, append(time));
      time = nextTime(in, time, repeats);
    }
    for (std::size_t count = in.below(120); count > 0; --count) {
      service.write(id, {append(time)});
      time = nextTime(in, time, repeats);
    }
  }

  test::HistoryService service;
  Truth truth;
  std::int64_t id = 0;
  bool repeats = false;  // some samples share a time

 private:
  PinPtr append(std::int64_t time) {
    const Sample sample{time, static_cast<std::int64_t>(truth.size())};
    truth.add(sample);
    return model::makeSample(sample, 0);
  }
};

// ---- HistoryReadRaw

std::int64_t millisecondsOf(std::int64_t ticks) {
  return ticks / kTicksPerMillisecond - kUnixEpochMilliseconds;
}

// An end of the range in milliseconds, near a sample or anywhere; 0 is open.
std::int64_t anyEnd(FuzzInput& in, const Truth& truth) {
  const std::size_t form = in.below(4);
  if (form == 0 || (form < 3 && truth.size() == 0)) return 0;
  if (form == 3) return in.number<std::int64_t>();
  return millisecondsOf(truth.samples()[in.byte() % truth.size()].time) + (form == 2 ? 1 : 0);
}

// As the service reads it.
std::int64_t ticksOf(std::int64_t milliseconds) {
  if (milliseconds == 0) return 0;
  std::int64_t ticks = 0;
  if (__builtin_add_overflow(milliseconds, kUnixEpochMilliseconds, &ticks) ||
      __builtin_mul_overflow(ticks, kTicksPerMillisecond, &ticks)) {
    return milliseconds < 0 ? INT64_MIN : INT64_MAX;
  }
  return ticks;
}

struct Range {
  std::int64_t startMs = 0;
  std::int64_t endMs = 0;
  bool bounds = false;
  std::uint32_t limit = 1;

  Query query(std::int64_t point) const {
    Query query;
    query.start = ticksOf(startMs);
    query.end = ticksOf(endMs);
    query.bounds = bounds;
    query.limit = limit;
    if (point != 0) query.point = point;
    return query;
  }
};

Page pageOf(const json::Value& item) {
  Page page;
  const json::Value& values = json::member(item, "values");
  demand(values.IsArray(), "an item has values");
  for (const json::Value& sample : values.GetArray()) {
    demand(sample.IsArray() && sample.Size() == 3 && sample[1].IsInt64(), "a sample has its form");
    page.values.push_back(sample[1].GetInt64());
  }
  page.more = json::member(item, "areMoreValues").IsTrue();
  const json::Value& point = json::member(item, "continuationPoint");
  page.hasPoint = point.IsInt64();
  if (page.hasPoint) page.point = std::to_string(point.GetInt64());
  return page;
}

// `point` is JSON text.
Page read(History& history, const Range& range, const std::string& point) {
  const std::string body = R"({"data":[{"archiveItemId":)" + std::to_string(history.id) +
                           R"(,"continuationPoint":)" + point +
                           R"(}],"parameters":{"numValuesPerNode":)" + std::to_string(range.limit) +
                           R"(,"startTime":)" + std::to_string(range.startMs) + R"(,"endTime":)" +
                           std::to_string(range.endMs) + R"(,"returnBounds":)" +
                           (range.bounds ? "true" : "false") + "}}";
  const test::Reply reply = history.service.call("HistoryReadRaw", body);
  demand(reply.body.IsObject(), "a reply is an object");
  if (reply.status == 0 && reply.item("data", 0).IsObject()) return pageOf(reply.item("data", 0));
  Page refused;
  refused.code = reply.status;
  return refused;
}

std::vector<std::int64_t> valuesOf(const std::vector<Sample>& samples) {
  std::vector<std::int64_t> values;
  for (const Sample& sample : samples) values.push_back(sample.value);
  return values;
}

// The page from a known point on is that of the plain list.
Page readChecked(History& history, const Range& range, std::int64_t point) {
  Page page = read(history, range, std::to_string(point));
  demand(page.code == 0, "a read succeeds");
  const std::size_t all = history.truth.size();
  Query query = range.query(point);
  demand(page.values == valuesOf(history.truth.answer(query, all)), "a page is the plain list's");
  query.limit = 0;
  const std::size_t left = history.truth.answer(query, all).size();
  demand(page.more || left <= range.limit, "a page that leaves samples says so");
  demand(!page.more || page.hasPoint, "a page that leaves samples has a point");
  return page;
}

// From a point to the end. Joined, the pages are what one big page from there on holds.
void readPages(History& history, const Range& range, std::int64_t point) {
  Range whole = range;
  whole.limit = 1'000'000;
  const Page big = readChecked(history, whole, point);
  demand(!big.more, "a big page holds all");
  std::vector<std::int64_t> joined;
  for (std::size_t pages = 0; pages < history.truth.size() + 4; ++pages) {
    const Page page = readChecked(history, range, point);
    joined.insert(joined.end(), page.values.begin(), page.values.end());
    if (!page.more) {
      demand(history.repeats || joined == big.values, "pages joined are the whole");
      return;
    }
    const std::int64_t next = std::stoll(page.point);
    demand(next > point, "a point moves on");
    point = next;
  }
  demand(false, "pages come to an end");
}

// The number that the text is as a continuation point; false when it is no JSON value of its own.
bool readToken(const std::string& token, std::int64_t& point) {
  if (token.find('\0') != std::string::npos) return false;
  if (json::nestsTooDeep(token.data(), token.size())) return false;
  json::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(token.c_str());
  point = 0;
  if (document.HasParseError()) return false;
  json::readInt64(document, point);
  return true;
}

void readFromAnything(History& history, const Range& range, const std::string& token) {
  std::int64_t point = 0;
  if (!readToken(token, point)) {
    static_cast<void>(read(history, range, token));
    return;
  }
  const Page page = read(history, range, token);
  demand(page.code == 0, "a point of any type is one, or none");
  const Page same = readChecked(history, range, point);
  demand(page.values == same.values && page.more == same.more && page.point == same.point,
         "what is no number is no point");
}

// ---- ReadNewRecords

// Pages that are cut by the room of the reply. What they hold is everything from the point on, each
// sample once; only where many share one time may a page be too small for them.
void follow(History& history, std::int64_t point, int room) {
  const auto& samples = history.truth.samples();
  const std::size_t all = samples.size();
  std::size_t next = point > 0 ? history.truth.notBelow(point, all) : 0;
  for (std::size_t pages = 0; pages < all + 4; ++pages) {
    const test::Reply reply = history.service.callBuffer(
        "ReadNewRecords",
        R"({"reqID":1,"items":[{"path":")" + std::string(kPath) +
            R"(","randID":5,"continuationPoint":)" + std::to_string(point) + "}]}",
        room);
    if (reply.status != 0) {
      demand(reply.status == status::kBadEncodingLimits, "a reply that does not fit says so");
      return;
    }
    const Page page = pageOf(reply.item("items", 0));
    demand(page.hasPoint, "new records always have a point");
    const std::int64_t stop = std::stoll(page.point);
    for (const std::int64_t value : page.values) {
      demand(next < all && value == samples[next].value, "records come once, in order");
      ++next;
    }
    if (page.values.empty() && page.more) return;  // there is no room for a single one
    demand(stop >= point, "a point never goes back");
    point = stop;
    if (history.repeats) next = point > 0 ? history.truth.notBelow(point, all) : 0;
    if (!page.more) {
      demand(next == all, "the last page ends with the newest record");
      return;
    }
  }
  demand(false, "pages come to an end");
}

std::int64_t anyPoint(FuzzInput& in, const Truth& truth) {
  if (truth.size() == 0 || in.flag()) return in.number<std::int64_t>();
  const Sample& near = truth.samples()[in.byte() % truth.size()];
  return near.time + static_cast<std::int8_t>(in.byte());
}

}  // namespace

void continuation(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  History history(in);
  Range range;
  range.limit = static_cast<std::uint32_t>(1 + in.below(50));
  range.bounds = in.flag();
  range.startMs = anyEnd(in, history.truth);
  range.endMs = anyEnd(in, history.truth);
  readPages(history, range, 0);
  for (int steps = 0; steps < 6 && !in.empty(); ++steps) {
    const std::size_t form = in.below(3);
    if (form == 0) {
      readFromAnything(history, range, in.upTo('\0'));
    } else if (form == 1) {
      readPages(history, range, anyPoint(in, history.truth));
    } else {
      const int room = 100 + in.number<std::uint16_t>() % 4000;
      follow(history, anyPoint(in, history.truth), room);
    }
  }
}

}  // namespace orva::fuzz
