#include "unit/orva_database/remote_fake.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "share/ticks.h"

namespace orva::test {
namespace {

constexpr std::uint16_t kFirstPort = 20'000;
constexpr long long kSilenceMs = 30'000;

void waitSilently(const NLWait& wait) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSilenceMs);
  while (!wait.stop->load() && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace

FakePeer& FakeNetwork::peer(std::int32_t index) {
  auto& peer = peers[index];
  if (!peer) peer = std::make_unique<FakePeer>();
  return *peer;
}

void FakePeer::add(const std::string& path, std::int64_t first, int count, std::int64_t step) {
  std::vector<RemoteRecord>& records = history[path];
  for (int i = 0; i < count; ++i) {
    records.push_back({first + i * step, std::to_string(i) + ".0", 0});
  }
}

std::string FakePeer::answerItem(const Asked& asked, std::size_t& left) const {
  std::string text = R"({"randID":)" + std::to_string(asked.randId);
  const auto known = history.find(asked.path);
  if (known == history.end()) text += R"(,"statusCode":-2143420416)";
  text += R"(,"values":[)";
  std::int64_t next = asked.point;
  bool more = false;
  if (known != history.end()) {
    const std::size_t most = tooLarge.count(asked.path) != 0 ? 0 : std::min(page, left);
    std::size_t given = 0;
    for (const RemoteRecord& record : known->second) {
      if (record.time < asked.point) continue;
      if (given == most) {
        more = true;
        break;
      }
      if (given++ != 0) text += ',';
      text += "[" + std::to_string(record.time / kTicksPerMillisecond - kUnixEpochMilliseconds) +
              "," + record.value + "," + std::to_string(record.quality) + "]";
      next = record.time + 1;
    }
    left -= given;
  }
  return text + R"(],"areMoreValues":)" + (more ? "true" : "false") + R"(,"continuationPoint":)" +
         std::to_string(next) + "}";
}

std::string FakePeer::answer(const std::string& request) {
  texts.push_back(request);
  requests.emplace_back();
  const std::size_t body = request.find('\n', request.find('\n') + 1) + 1;
  json::Document document;
  document.Parse(request.c_str() + body);
  const json::Value& items = document["items"];
  if (items.Size() > mostItems) return R"({"code":2148007936})";
  std::string text = R"({"items":[)";
  std::size_t left = room;
  for (const json::Value& item : items.GetArray()) {
    const Asked asked{item["path"].GetString(), item["continuationPoint"].GetInt64(),
                      item["randID"].GetInt64()};
    requests.back().push_back(asked);
    if (requests.back().size() != 1) text += ',';
    text += answerItem(asked, left);
  }
  text += R"(],"code":0})";
  return spoil ? spoil(text) : text;
}

int FakeLink::addresses(std::int32_t index, NLAddress& first) {
  first = NLAddress();
  if (network_.peers.count(index) == 0) return 0;
  first.ip[15] = 1;
  first.port = static_cast<std::uint16_t>(kFirstPort + index);
  return 1;
}

int FakeLink::exchange(const NLAddress& to, const std::string& request, const NLWait& wait,
                       std::string& answer) {
  const std::int32_t index = to.port - kFirstPort;
  FakePeer& peer = network_.peer(index);
  ++network_.exchanges;
  network_.limits.push_back(wait.limitMs);
  network_.order.push_back(index);
  if (wait.stop->load()) return kNLCancelled;
  if (peer.isSilent) {
    ++network_.inExchange;
    waitSilently(wait);
    --network_.inExchange;
    return wait.stop->load() ? kNLCancelled : kNLTimedOut;
  }
  answer = peer.answer(request);
  const int lost = network_.lose ? network_.lose(index) : 0;
  if (lost != 0) answer.clear();
  return lost;
}

}  // namespace orva::test
