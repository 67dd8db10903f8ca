#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/smart_ptr/make_shared.hpp>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "model/model_options.h"
#include "model/random.h"
#include "model/silence.h"
#include "model/truth.h"
#include "orva_database/layer.h"
#include "share/ticks.h"
#include "support/archive_fixture.h"

// Archives that do anything wrong that an archive can do, behind the real manager: whatever they
// do, each request ends with an answer or with its time-out, on virtual time.

namespace orva::model {

using archive::ItemKey;
using archive::Request;
using archive::SharedItem;
using archive::SharedRequest;
using test::Script;
using test::When;

namespace {

constexpr StatusCode kWaiting = status::kBadWaiting;
constexpr long long kReadLimit = 60 * kTicksPerSecond;

struct FaultCounts {
  std::map<When, int> answered;  // reads by when they were to be answered
  int faulty = 0, complete = 0, timedOut = 0, compared = 0, cleared = 0, requests = 0;
};

}  // namespace

class ProviderFaultsTest : public test::ArchiveFixture {
 protected:
  struct Variable {
    ItemKey key;
    std::int64_t cacheId = 0;
    std::int64_t time = 1000;
    Truth truth;
    bool polluted = false;  // the cache may hold what an archive made up
  };
  struct Asked {
    SharedRequest request;
    std::vector<Variable*> variables;
    Query query;
    std::vector<std::size_t> sizes;
    bool faithful = true;
    boost::shared_ptr<std::atomic<int>> completions = boost::make_shared<std::atomic<int>>(0);
  };

  ProviderFaultsTest() {
    cache::Layer::limits.cachedFrom = 3;
    cache::Layer::limits.blockSamples = 5;
  }
  ~ProviderFaultsTest() override { cache::Layer::limits = cache::Layer::Limits(); }

  void runWorlds(bool synchronous);
  void runWorld(bool synchronous);
  void makeVariables(Random& random);
  void append(Random& random, Variable& variable);
  Script someScript(Random& random, bool& faithful, bool& pollutes);
  Asked ask(Random& random);
  void readAndWait(Random& random);
  void readAndPoll(Random& random);
  void check(const Asked& asked);
  void checkItem(const Asked& asked, std::size_t index);
  void fail(const std::string& what) { ADD_FAILURE() << "seed " << seed_ << ": " << what; }

  std::uint64_t seed_ = 0;
  std::vector<Variable> variables_;
  FaultCounts counts_;
};

void ProviderFaultsTest::makeVariables(Random& random) {
  describeLayer(0, true);
  variables_.assign(3, {});
  for (std::size_t i = 0; i < variables_.size(); ++i) {
    Variable& variable = variables_[i];
    variable.key = {static_cast<std::int64_t>(i) + 1, "Plant/" + std::to_string(i)};
    for (int k = random.pick({0, 5, 60}); k > 0; --k) {
      variable.time += random.between(1, 5);
      const double value = static_cast<double>(variable.time);
      archive().add(variable.key, 0, test::realPin(variable.time, value));
      variable.truth.add({variable.time, variable.time});
    }
    variable.cacheId = makeItem(variable.key.first, variable.key.second);
  }
}

void ProviderFaultsTest::append(Random& random, Variable& variable) {
  variable.time += random.between(1, 5);
  variable.truth.add({variable.time, variable.time});
  *pin(variable.cacheId) << test::realPin(variable.time, static_cast<double>(variable.time));
}

Script ProviderFaultsTest::someScript(Random& random, bool& faithful, bool& pollutes) {
  Script script;
  script.when = random.pick({When::now, When::now, When::now, When::later, When::held, When::never,
                             When::dropped, When::throws});
  ++counts_.answered[script.when];
  faithful = script.when != When::throws;
  pollutes = false;
  if (random.chance(.4)) return script;
  ++counts_.faulty;
  script.oneByOne = random.chance(.3);
  script.lateValue = random.chance(.2);
  script.everything = random.chance(.2);
  script.outOfOrder = random.chance(.1);
  script.twice = random.chance(.1);
  script.silent = random.chance(.1);
  if (random.chance(.1)) script.atMost = random.below(4);
  if (random.chance(.1)) script.fail = 0x80050000;
  if (random.chance(.1)) script.shift = random.between(-20, 20);
  // Times are unique, so the order of a range hardly matters; what is missing or there twice does.
  pollutes = script.twice;
  faithful = faithful && !script.twice && !script.silent && !script.outOfOrder &&
             script.atMost == SIZE_MAX && script.fail == 0 && script.shift == 0;
  return script;
}

ProviderFaultsTest::Asked ProviderFaultsTest::ask(Random& random) {
  ++counts_.requests;
  Asked asked;
  asked.request = boost::make_shared<Request>();
  Query& query = asked.query;
  query.start = random.between(0, 1300);
  query.end = random.chance(.3) ? 0 : query.start + random.between(1, 200);
  query.bounds = random.chance(.3);
  query.firstLast = random.chance(.15);
  query.limit = random.pick({0U, 1U, 3U, 10U, 100U});
  if (random.chance(.2)) query.point = random.between(-5, 1300);
  Request::Options& options = asked.request->options;
  options.startTime = query.start;
  options.endTime = query.end;
  options.returnBounds = query.bounds;
  options.returnFirstLastValue = query.firstLast;
  const auto completions = asked.completions;
  asked.request->setCompletion([completions](const SharedRequest&) { ++*completions; });
  for (std::uint64_t count = random.below(4); count > 0; --count) {
    Variable& variable = variables_[random.below(variables_.size())];
    const bool known = random.chance(.95);
    const SharedItem item = asked.request->addItem(known ? variable.cacheId : 1'000'000'000'000);
    item->numValuesPerNode = query.limit;
    item->setContinuationPoint(query.point);
    asked.variables.push_back(known ? &variable : nullptr);
    asked.sizes.push_back(variable.truth.size());
  }
  bool faithful = true;
  bool pollutes = false;
  archive().setScript(someScript(random, faithful, pollutes));
  const bool holds = !random.chance(.03);
  archive().setHolds(holds);
  archive().setHandleThrows(random.chance(.03));  // fails the item
  asked.faithful = faithful && holds;
  for (Variable* variable : asked.variables) {
    if (pollutes && variable != nullptr) variable->polluted = true;
  }
  return asked;
}

void ProviderFaultsTest::readAndWait(Random& random) {
  const Asked asked = ask(random);
  const long long began = clock.now();
  manager().syncRead(asked.request);
  const StatusCode code = asked.request->status();
  if (code == status::kBadTimeout) {
    ++counts_.timedOut;
    if (clock.now() - began < kReadLimit) fail("timed out before its time");
    for (const SharedItem& item : asked.request->items()) {
      if (!item->closed()) fail("an item open after its reader gave up");
    }
  } else if (code != status::kGood) {
    fail("a synchronous read that ended with status " + std::to_string(code));
  } else if (clock.now() - began > kReadLimit + kTicksPerSecond) {
    fail("answered after its time");
  }
  check(asked);
}

void ProviderFaultsTest::readAndPoll(Random& random) {
  const Asked asked = ask(random);
  const int timeoutMs = random.pick({0, 99, 100, 250});
  manager().addRequest(asked.request, timeoutMs);
  for (int pass = 0; pass <= timeoutMs / 100; ++pass) {
    if (random.chance(.5)) archive().release();
    workerPass();
  }
  if (asked.request->status() == kWaiting) fail("an asynchronous read that still waits");
  counts_.timedOut += !asked.request->complete();
  check(asked);
}

void ProviderFaultsTest::check(const Asked& asked) {
  const bool complete = asked.request->complete();
  counts_.complete += complete;
  if (*asked.completions > 1) fail("completed more than once");
  if (!complete && *asked.completions != 0) fail("told of a completion that is none");
  for (std::size_t i = 0; i < asked.request->items().size(); ++i) {
    const SharedItem& item = asked.request->items()[i];
    if (complete && !item->isFinal()) fail("complete with an item that is not final");
    if (item->isFinal()) checkItem(asked, i);
  }
}

void ProviderFaultsTest::checkItem(const Asked& asked, std::size_t index) {
  const SharedItem& item = asked.request->items()[index];
  Variable* const variable = asked.variables[index];
  std::vector<Sample> got;
  for (const PinPtr& pin : item->values()) {
    got.push_back({pin->time, static_cast<std::int64_t>(pin->value.Get().Value.Double)});
  }
  if (variable == nullptr) {
    if (item->failure() != status::kBadNotFound || !got.empty())
      fail("an unknown item that is not");
    return;
  }
  const auto descends = [](const Sample& a, const Sample& b) { return a.time > b.time; };
  if (std::adjacent_find(got.begin(), got.end(), descends) != got.end()) {
    fail("not in time order: " + text(got));
  }
  if (asked.query.limit != 0 && got.size() > asked.query.limit) fail("more than the limit");
  if (!asked.faithful || variable->polluted || item->failure() != 0) return;
  ++counts_.compared;
  const std::size_t size = asked.sizes[index];
  if (!variable->truth.allows(asked.query, got, item->status(), item->cut(), size, size)) {
    fail("answer " + text(got) + ", expected " + text(variable->truth.answer(asked.query, size)));
  }
}

void ProviderFaultsTest::runWorlds(bool synchronous) {
  Silence silence;
  // A world costs as much as some 10,000 operations of the plain model.
  const std::uint64_t worlds = std::clamp<std::uint64_t>(modelOptions().operations / 60'000, 3, 30);
  for (std::uint64_t i = 0; i < worlds; ++i) {
    factory.forget();
    seed_ = modelOptions().seed + i;
    runWorld(synchronous);
  }
  std::printf(
      "  %d requests, %d behind faulty archives: %d complete, %d timed out, %d released at "
      "the end, %d answers compared\n",
      counts_.requests, counts_.faulty, counts_.complete, counts_.timedOut, counts_.cleared,
      counts_.compared);
  for (const When when :
       {When::now, When::later, When::held, When::never, When::dropped, When::throws}) {
    EXPECT_GT(counts_.answered[when], 0);
  }
  EXPECT_GT(counts_.faulty, 0);
  EXPECT_GT(counts_.complete, 0);
  EXPECT_GT(counts_.timedOut, 0);
  EXPECT_GT(counts_.compared, counts_.requests / 50);  // how many, the threads decide
}

void ProviderFaultsTest::runWorld(bool synchronous) {
  Random random(seed_);
  start();
  makeVariables(random);
  for (int operation = 0; operation < 60; ++operation) {
    for (int left = random.pick({0, 1, 12}); left > 0; --left) {
      append(random, variables_[random.below(variables_.size())]);
    }
    if (synchronous) {
      readAndWait(random);
    } else {
      readAndPoll(random);
    }
    archive().releaseAll();
  }
  // Those that would wait for long are released when the archives end.
  std::vector<Asked> left;
  for (int i = 0; i < 5; ++i) {
    left.push_back(ask(random));
    manager().addRequest(left.back().request, 3'600'000);
  }
  manager().clear();
  for (const Asked& asked : left) {
    ++counts_.cleared;
    if (asked.request->status() == kWaiting) fail("a read that waits for archives that ended");
  }
}

// The clock runs through each wait of a reader.
TEST_F(ProviderFaultsTest, EachSynchronousReadEndsWithAnAnswerOrAfterItsTime) { runWorlds(true); }

TEST_F(ProviderFaultsTest, EachAsynchronousReadEndsWithAnAnswerOrItsTimeOut) {
  holdWorker();
  runWorlds(false);
}

}  // namespace orva::model
