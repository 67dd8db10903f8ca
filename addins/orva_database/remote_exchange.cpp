#include "orva_database/remote_exchange.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "host/trace.h"
#include "share/ticks.h"

namespace orva::archive {
namespace {

// Of paths in one request; the first item may be longer.
constexpr std::size_t kMostPathBytes = 32 * 1024;
// After so many good exchanges twice as many items are tried again.
constexpr unsigned kSuccessesToGrow = 16;
constexpr std::int64_t kFirstRest = kTicksPerSecond;
constexpr std::int64_t kLongestRest = 30 * kTicksPerSecond;
constexpr unsigned kLongestRestFrom = 6;  // failures
constexpr std::int64_t kReportTicks = kTicksPerMinute;

bool hasPassed(std::int64_t now, std::int64_t since, std::int64_t ticks) {
  return now - since >= ticks;
}

using ItemIdentity = std::tuple<std::string, std::int64_t, std::string>;

ItemIdentity identityOf(const RemoteSourceInfo& info) {
  return {info.remotePath, info.localId, info.localPath};
}

}  // namespace

RemoteExchange::RemoteExchange(std::int32_t controllerIndex, std::string methodPath)
    : index_(controllerIndex), methodPath_(std::move(methodPath)) {
  std::random_device device;
  std::seed_seq seed{device(), device(), device(), device()};
  random_.seed(seed);
}

void RemoteExchange::configure(const NLAddress& address, const std::list<RemoteSourceInfo>& items) {
  address_ = address;
  std::map<ItemIdentity, Member> before;
  for (Member& member : members_) before[identityOf(member.item->info())] = std::move(member);
  members_.clear();
  cursor_ = 0;
  std::set<ItemIdentity> configured;
  for (const RemoteSourceInfo& info : items) {
    if (!configured.insert(identityOf(info)).second) {
      OpcUa_Trace_Imp(kTraceWarning, "Remote item \"%s\" of controller %d is configured twice\n",
                      __FILE__, __LINE__, info.remotePath.c_str(), index_);
      continue;
    }
    const auto known = before.find(identityOf(info));
    Member member;
    if (known != before.end()) {
      member = std::move(known->second);
    } else {
      member.item = std::make_unique<RemoteItem>(info, counts_);
      member.wanted = hadRound_;
    }
    members_.push_back(std::move(member));
  }
}

void RemoteExchange::beginRoundIfDue(std::int64_t now, std::int64_t period) {
  if (hadRound_ && !hasPassed(now, roundBegan_, period)) return;
  hadRound_ = true;
  roundBegan_ = now;
  for (Member& member : members_) member.wanted = true;
}

bool RemoteExchange::mayTry(std::int64_t now) const {
  if (failures_ <= 1) return true;
  const unsigned doublings = std::min(failures_, kLongestRestFrom + 1) - 2;
  return hasPassed(now, triedAt_, std::min(kFirstRest << doublings, kLongestRest));
}

bool RemoteExchange::exchange(ControllerLink& link, int limitMs, const std::atomic<bool>& stop) {
  if (address_.port == 0) return false;
  const std::vector<std::size_t> chosen = chooseItems(stop);
  if (chosen.empty()) return false;
  const std::vector<RemoteQuestion> questions = questionsFor(chosen);
  NLWait wait;
  wait.limitMs = limitMs;
  wait.stop = &stop;
  std::string text;
  triedAt_ = Signal::elapsed();
  counters.remoteExchanges.add();
  const int result =
      link.exchange(address_, remoteRequest(methodPath_, ++reqId_, questions), wait, text);
  if (result == 0) {
    takeAnswer(chosen, questions, std::move(text));
  } else if (static_cast<StatusCode>(result) == status::kBadEncodingLimits) {
    tooLong(chosen);
  } else if (result != kNLCancelled) {
    failed();
  }
  return true;
}

// The next items that are wanted and can be asked for. The order goes round, so that the first ones
// do not use up every answer's room.
std::vector<std::size_t> RemoteExchange::chooseItems(const std::atomic<bool>& stop) {
  std::vector<std::size_t> chosen;
  std::size_t pathBytes = 0;
  lacksRoom_ = false;
  for (std::size_t i = 0; i < members_.size() && chosen.size() < atOnce_; ++i) {
    if (stop.load()) return {};
    const std::size_t at = (cursor_ + i) % members_.size();
    Member& member = members_[at];
    if (!member.wanted && !member.item->hasToStore()) continue;
    const bool prepared = member.item->prepare();
    lacksRoom_ = lacksRoom_ || member.item->lacksRoom();
    if (!prepared || !member.wanted) continue;
    pathBytes += member.item->info().remotePath.size();
    if (!chosen.empty() && pathBytes > kMostPathBytes) break;
    chosen.push_back(at);
  }
  return chosen;
}

std::vector<RemoteQuestion> RemoteExchange::questionsFor(const std::vector<std::size_t>& chosen) {
  std::vector<RemoteQuestion> questions;
  questions.reserve(chosen.size());
  for (const std::size_t at : chosen) {
    const RemoteItem& item = *members_[at].item;
    // Never 0, which is what a question without a number would be answered with.
    const auto randId = static_cast<std::int64_t>(random_() >> 1 | 1);
    questions.push_back({item.info().remotePath, randId, item.continuationPoint()});
  }
  return questions;
}

void RemoteExchange::takeAnswer(const std::vector<std::size_t>& chosen,
                                const std::vector<RemoteQuestion>& questions, std::string text) {
  RemoteAnswer answer(std::move(text));
  switch (answer.read(questions)) {
    case RemoteAnswer::Kind::good:
      if (takeItems(answer, chosen, questions)) {
        succeeded();
      } else {
        tooLong(chosen);
      }
      break;
    case RemoteAnswer::Kind::tooLong:
      tooLong(chosen);
      break;
    case RemoteAnswer::Kind::unparsable:
      // One item's JSON text may spoil the answer for all.
      askForFewer(chosen, "spoils its answers");
      failed();
      break;
    case RemoteAnswer::Kind::refused:
      failed();
      break;
  }
}

bool RemoteExchange::takeItems(const RemoteAnswer& answer, const std::vector<std::size_t>& chosen,
                               const std::vector<RemoteQuestion>& questions) {
  std::vector<std::size_t> hadNoRoom;
  for (std::size_t i = 0; i < chosen.size(); ++i) {
    Member& member = members_[chosen[i]];
    const RemoteItem::Next next = member.item->take(answer.item(i, questions[i]));
    member.wanted = next != RemoteItem::Next::nothing;
    if (next == RemoteItem::Next::again) {
      hadNoRoom.push_back(chosen[i]);
    } else {
      member.stuckTraced = false;
    }
    member.item->prepare();  // what came is stored at once
  }
  cursor_ = (hadNoRoom.empty() ? chosen.back() + 1 : hadNoRoom.front()) % members_.size();
  return hadNoRoom.size() < chosen.size();
}

void RemoteExchange::tooLong(const std::vector<std::size_t>& chosen) {
  failures_ = 0;  // it is there
  askForFewer(chosen, "has a record that fits no answer");
}

// A single item that stays the trouble is left for the next round, so that the others come to their
// turn.
void RemoteExchange::askForFewer(const std::vector<std::size_t>& chosen, const char* trouble) {
  if (chosen.size() != 1) {
    successes_ = 0;
    atOnce_ = chosen.size() / 2;
    return;
  }
  Member& member = members_[chosen.front()];
  member.wanted = false;
  cursor_ = (chosen.front() + 1) % members_.size();
  if (member.stuckTraced) return;
  member.stuckTraced = true;
  OpcUa_Trace_Imp(kTraceWarning, "Remote item \"%s\" of controller %d %s\n", __FILE__, __LINE__,
                  member.item->info().remotePath.c_str(), index_, trouble);
}

void RemoteExchange::succeeded() {
  if (failures_ > 1) {
    OpcUa_Trace_Imp(kTraceWarning, "Controller %d answers again\n", __FILE__, __LINE__, index_);
  }
  failures_ = 0;
  if (++successes_ < kSuccessesToGrow) return;
  successes_ = 0;
  atOnce_ = std::min(2 * atOnce_, kMostItems);
}

void RemoteExchange::failed() {
  counters.remoteFailures.add();
  // Dead for long: no need to count on.
  failures_ = std::min(failures_ + 1, 1000U);
  if (failures_ == 2) {
    OpcUa_Trace_Imp(kTraceWarning, "Controller %d does not answer\n", __FILE__, __LINE__, index_);
  }
}

void RemoteExchange::report(std::int64_t now) {
  const std::uint64_t lost = counts_.refused + counts_.skipped;
  if (lost == reported_) return;
  if (hasReported_ && !hasPassed(now, reportedAt_, kReportTicks)) return;
  OpcUa_Trace_Imp(kTraceWarning,
                  "Remote records of controller %d: %llu stored, %llu refused by the local write "
                  "filter, %llu that cannot be taken\n",
                  __FILE__, __LINE__, index_, static_cast<unsigned long long>(counts_.stored),
                  static_cast<unsigned long long>(counts_.refused),
                  static_cast<unsigned long long>(counts_.skipped));
  reported_ = lost;
  hasReported_ = true;
  reportedAt_ = now;
}

}  // namespace orva::archive
