#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "orva_database/controller_link.h"
#include "orva_database/remote_item.h"

namespace orva::archive {

// The exchanges with one other controller.
//
// Once a period a round begins: every item is asked for its new records, some items at a time, each
// page by page until there are no more. A failed exchange changes nothing, so its items are asked
// again; a controller that fails twice is given a rest, which doubles from one second to thirty.
//
// For one thread.
class RemoteExchange {
 public:
  // Items asked for at once, at most.
  static constexpr std::size_t kMostItems = 100;

  RemoteExchange(std::int32_t controllerIndex, std::string methodPath);
  RemoteExchange(const RemoteExchange&) = delete;
  RemoteExchange& operator=(const RemoteExchange&) = delete;

  // Takes on the configured items, in this order. Those that it had go on where they are.
  void configure(const NLAddress& address, const std::list<RemoteSourceInfo>& items);

  // What follows takes Signal::elapsed() as `now`.
  // Begins a round when `period` ticks have passed since the last one began.
  void beginRoundIfDue(std::int64_t now, std::int64_t period);
  // Whether the last exchange failed; such a controller is asked once in a pass.
  bool isFailing() const { return failures_ != 0; }
  bool mayTry(std::int64_t now) const;
  std::int64_t triedAt() const { return triedAt_; }
  // Whether items could not be asked for since the local archive has no room for more samples.
  bool lacksRoom() const { return lacksRoom_; }
  // One exchange of `limitMs` at most. False when there is nothing to ask for.
  bool exchange(ControllerLink& link, int limitMs, const std::atomic<bool>& stop);
  // Says in the log which samples were not stored, once a minute at most.
  void report(std::int64_t now);

  const RemoteCounts& counts() const { return counts_; }

 private:
  struct Member {
    std::unique_ptr<RemoteItem> item;
    bool wanted = false;       // in this round
    bool stuckTraced = false;  // that it stops every answer
  };

  std::vector<std::size_t> chooseItems(const std::atomic<bool>& stop);
  std::vector<RemoteQuestion> questionsFor(const std::vector<std::size_t>& chosen);
  void takeAnswer(const std::vector<std::size_t>& chosen,
                  const std::vector<RemoteQuestion>& questions, std::string text);
  // False when the answer had no room for any of them.
  bool takeItems(const RemoteAnswer& answer, const std::vector<std::size_t>& chosen,
                 const std::vector<RemoteQuestion>& questions);
  void tooLong(const std::vector<std::size_t>& chosen);
  void askForFewer(const std::vector<std::size_t>& chosen, const char* trouble);
  void succeeded();
  void failed();

  const std::int32_t index_;
  const std::string methodPath_;
  NLAddress address_;
  std::vector<Member> members_;
  bool lacksRoom_ = false;  // when items were last chosen
  std::size_t cursor_ = 0;  // where the next exchange begins to look for items
  std::size_t atOnce_ = kMostItems;
  unsigned successes_ = 0;  // since fewer items had to be asked for
  unsigned failures_ = 0;   // in a row
  std::int64_t triedAt_ = 0;
  bool hadRound_ = false;
  std::int64_t roundBegan_ = 0;
  std::int64_t reqId_ = 0;
  std::mt19937_64 random_;
  RemoteCounts counts_;
  std::uint64_t reported_ = 0;  // refused and skipped samples that the log knows of
  bool hasReported_ = false;
  std::int64_t reportedAt_ = 0;
};

}  // namespace orva::archive
