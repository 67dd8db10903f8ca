#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_targets.h"
#include "share/archive_manager.h"
#include "share/json.h"
#include "support/history_service.h"

// The bytes are steps, each ended by a NUL. A step begins with a letter: of a method, whose body
// follows (i GetArchiveItems, h HistoryReadRaw, a HistoryReadRawAsync, p PublishHistoryData,
// n ReadNewRecords), 'r' for a whole request, 'b' for what is then called with as many bytes of
// room as the number behind it says, 's' for what the archive does from then on, 't' for the time
// that passes, 'w' for samples that come, 'c' for archives that are made anew. Three variables have
// samples; "$0", "$1" and "$2" in a body stand for their ids.

namespace orva::fuzz {
namespace {

constexpr int kVariables = 3;
constexpr int kMostSteps = 24;
constexpr std::size_t kMostElements = 2000;

const char* methodOf(char letter) {
  switch (letter) {
    case 'i':
      return "GetArchiveItems";
    case 'h':
      return "HistoryReadRaw";
    case 'a':
      return "HistoryReadRawAsync";
    case 'p':
      return "PublishHistoryData";
    case 'n':
      return "ReadNewRecords";
    default:
      return nullptr;
  }
}

std::string pathOf(int variable) { return "Plant/V" + std::to_string(variable); }

// How many elements of `list` the body has.
std::size_t elementsOf(const std::string& body, const char* list) {
  if (json::nestsTooDeep(body.data(), body.size())) return 0;
  json::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(body.c_str());
  const json::Value none;
  if (document.HasParseError() || !document.IsObject()) return 0;
  const json::Value& elements = json::member(document, list);
  return elements.IsArray() ? elements.Size() : 0;
}

// ---- what is promised of every reply

void demandValues(const json::Value& item) {
  const json::Value& values = json::member(item, "values");
  demand(values.IsArray(), "an item has values");
  std::int64_t before = INT64_MIN;
  for (const json::Value& sample : values.GetArray()) {
    demand(sample.IsArray() && sample.Size() == 3, "a sample has time, value and quality");
    demand(sample[0].IsInt64() && sample[2].IsUint(), "time and quality are numbers");
    demand(sample[0].GetInt64() >= before, "samples are in order of time");
    before = sample[0].GetInt64();
  }
  demand(json::member(item, "areMoreValues").IsBool(), "an item says whether there is more");
}

void demandItems(const json::Value& reply, const char* list, std::size_t count) {
  const json::Value& items = json::member(reply, list);
  demand(items.IsArray() && items.Size() == count, "each element has its answer");
  for (const json::Value& item : items.GetArray()) demandValues(item);
}

void demandReply(char letter, const std::string& body, const test::Reply& reply) {
  demand(reply.body.IsObject(), "a reply is a JSON object");
  const json::Value& code = json::member(reply.body, "code");
  demand(code.IsUint() && code.GetUint() == reply.status, "a reply says its status");
  if (reply.status != 0 || body.find('\0') != std::string::npos) return;
  if (letter == 'h') demandItems(reply.body, "data", elementsOf(body, "data"));
  if (letter == 'n') demandItems(reply.body, "items", elementsOf(body, "items"));
  if (letter == 'a') demand(json::member(reply.body, "requestId").IsInt64(), "ids are given back");
  if (letter == 'p') {
    const json::Value& data = json::member(reply.body, "data");
    demand(data.IsArray(), "what is published has data");
    for (const json::Value& item : data.GetArray()) demandValues(item);
  }
}

// ---- the steps

test::Script scriptOf(FuzzInput& in) {
  using test::When;
  const When whens[] = {When::now, When::held, When::never, When::dropped, When::throws};
  test::Script script;
  script.when = whens[in.below(5)];
  const std::uint8_t how = in.byte();
  script.twice = (how & 1) != 0;
  script.lateValue = (how & 2) != 0;
  script.outOfOrder = (how & 4) != 0;
  script.everything = (how & 8) != 0;
  script.silent = (how & 16) != 0;
  script.oneByOne = (how & 32) != 0;
  if ((how & 64) != 0) script.atMost = in.byte();
  if ((how & 128) != 0) script.fail = in.number<std::uint32_t>() | 0x80000000U;
  script.shift = static_cast<std::int8_t>(in.byte()) * test::kSecond;
  return script;
}

class World {
 public:
  World() {
    for (int variable = 0; variable < kVariables; ++variable) {
      const archive::ItemKey key{variable + 1, pathOf(variable)};
      ids_.push_back(service_.addItem(key.first, key.second));
      service_.archive().add(key, 0, test::steps(test::kT0 - 60 * test::kSecond, 50));
      service_.write(ids_.back(), test::steps(test::kT0, 20));
    }
    service_.write(ids_.back(), {test::word(test::kT0 + 30 * test::kSecond, "a\"b\n\xC3\xA9")});
  }

  void take(const std::string& step) {
    if (step.empty()) return;
    FuzzInput in(reinterpret_cast<const std::uint8_t*>(step.data()) + 1, step.size() - 1);
    if (methodOf(step[0]) != nullptr) return call(step[0], in.rest());
    if (step[0] == 'r') return callWhole(in.rest());
    if (step[0] == 'b') return callIntoRoom(in);
    if (step[0] == 's') return changeScript(in);
    if (step[0] == 't') service_.clock.advance(in.number<std::uint32_t>() * std::int64_t{10'000});
    if (step[0] == 'w') write(in);
    if (step[0] == 'c') makeAnew();
  }

  // Reads that are not answered yet are: nobody may be left hanging.
  ~World() { service_.archive().releaseAll(); }
  World(const World&) = delete;
  World& operator=(const World&) = delete;

 private:
  std::string withIds(std::string body) const {
    for (std::size_t at = 0; (at = body.find('$', at)) != std::string::npos; ++at) {
      const std::size_t variable =
          at + 1 < body.size() ? static_cast<std::size_t>(body[at + 1] - '0') : ids_.size();
      if (variable < ids_.size()) body.replace(at, 2, std::to_string(ids_[variable]));
    }
    return body;
  }

  static bool isTooLong(const std::string& body) {
    return elementsOf(body, "data") > kMostElements || elementsOf(body, "items") > kMostElements;
  }

  void call(char letter, const std::string& text) {
    const std::string body = withIds(text);
    if (isTooLong(body)) return;
    demandReply(letter, body, service_.call(methodOf(letter), body));
  }

  void callIntoRoom(FuzzInput& in) {
    const int room = in.number<std::uint16_t>();
    const char letter = static_cast<char>(in.byte());
    if (methodOf(letter) == nullptr) return;
    const std::string body = withIds(in.rest());
    if (isTooLong(body)) return;
    const test::Reply reply = service_.callBuffer(methodOf(letter), body, room);
    demand(reply.text.size() <= static_cast<std::size_t>(room), "a reply stays in its room");
    if (reply.status == status::kBadEncodingLimits && !reply.body.IsObject()) return;
    demandReply(letter, body, reply);
  }

  void callWhole(const std::string& request) {
    if (isTooLong(request)) return;
    std::ostringstream out;
    std::ostream* const stream = &out;
    int length = -1;
    const int code = RequestProcessor::ProcessJSONRequestStream(
        &service_.processor(), 0, request.data(), static_cast<int>(request.size()), stream, 0,
        &length);
    const std::string text = out.str();
    if (text.empty()) return demand(code != 0, "what has no reply fails");
    demand(length == static_cast<int>(text.size()), "the length is that of the reply");
    json::Document reply;
    reply.Parse(text.c_str(), text.size());
    demand(!reply.HasParseError() && reply.IsObject(), "a reply is a JSON object");
  }

  void changeScript(FuzzInput& in) {
    service_.archive().releaseAll();
    service_.archive().setScript(scriptOf(in));
  }

  void write(FuzzInput& in) {
    const std::size_t variable = in.below(ids_.size());
    const std::int64_t time = test::kT0 + in.number<std::uint32_t>() * std::int64_t{100'000};
    service_.write(ids_[variable], test::steps(time, 1 + in.byte()));
  }

  void makeAnew() {
    auto& manager = archive::DataArchiveManager::instance();
    manager.clear();
    demand(manager.init() == 0, "archives can be made anew");
    for (int variable = 0; variable < kVariables; ++variable) {
      demand(manager.createPinCache({variable + 1, pathOf(variable)}) ==
                 ids_[static_cast<std::size_t>(variable)],
             "an item keeps its id");
    }
  }

  test::HistoryService service_;
  std::vector<std::int64_t> ids_;
};

}  // namespace

void requestEndpoint(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  World world;
  for (int steps = 0; steps < kMostSteps && !in.empty(); ++steps) world.take(in.upTo('\0'));
}

}  // namespace orva::fuzz
