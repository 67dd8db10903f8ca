// The registry of factories and sources of the older archive interface.

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "host/archive_source.h"
#include "support/fake_archive_source.h"
#include "support/trace_capture.h"

namespace orva::host {
namespace {

using test::FakeArchiveSource;

// Makes sources as the test says.
class Factory : public ArchiveSourceFactory {
 public:
  using Make = std::function<ArchiveSource*()>;
  explicit Factory(Make make) : make_(std::move(make)) {}
  ~Factory() override {
    if (destroyed != nullptr) ++*destroyed;
  }
  ArchiveSource* CreateArchiveSource() override { return make_(); }

  std::atomic<int>* destroyed = nullptr;

 private:
  Make make_;
};

FakeArchiveSource* newSource() { return new FakeArchiveSource; }

FakeArchiveSource* sourceOf(const std::string& type, int number = 0) {
  return static_cast<FakeArchiveSource*>(ArchiveAddin::GetArchiveSource(type, number));
}

// Sources live as long as the process, so every test has a type of its own.
int add(const std::string& type, Factory::Make make) {
  return ArchiveAddin::AddSourceFactory(type, new Factory(std::move(make)));
}

TEST(ArchiveAddinTest, ASourceIsMadeAndInitialisedOnTheFirstCall) {
  ASSERT_EQ(add("first call", newSource), 0);
  FakeArchiveSource* source = sourceOf("first call", 3);
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->calls, (std::vector<std::string>{"Init 3", "InitSource"}));
  EXPECT_EQ(sourceOf("first call", 3), source);
  EXPECT_EQ(source->calls.size(), 2U);
}

TEST(ArchiveAddinTest, TypeAndNumberTellSourcesApart) {
  ASSERT_EQ(add("apart", newSource), 0);
  ASSERT_EQ(add("apart too", newSource), 0);
  FakeArchiveSource* source = sourceOf("apart");
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(ArchiveAddin::GetArchiveSource("apart"), source) << "0 is the usual number";
  EXPECT_NE(sourceOf("apart", 1), source);
  EXPECT_NE(sourceOf("apart", -1), source);
  EXPECT_NE(sourceOf("apart too"), source);
}

TEST(ArchiveAddinTest, NewSourcesHaveTheDefaults) {
  ASSERT_EQ(add("defaults", newSource), 0);
  FakeArchiveSource* source = sourceOf("defaults");
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->Description(), "");
  EXPECT_EQ(source->limits.maxQueuedRequests, 0U);
  EXPECT_EQ(source->limits.maxRecordsPerRequest, 0U);
  EXPECT_EQ(source->limits.maxTime, 0);
  EXPECT_EQ(source->statistics.reads.value, 0);
  EXPECT_EQ(source->statistics.minReadTime.value, INT64_MAX);
  EXPECT_EQ(source->statistics.maxReadTime.value, INT64_MIN);
  source->SetDescription("memory");
  EXPECT_EQ(source->Description(), "memory");
}

TEST(ArchiveAddinTest, CountersAddUpAndExtremesAreKept) {
  ArchiveStatistics statistics;
  for (const std::int64_t time : {5, 3, 7}) {
    statistics.reads.Add(1);
    statistics.readTime.Add(time);
    statistics.minReadTime.Add(time);
    statistics.maxReadTime.Add(time);
  }
  EXPECT_EQ(statistics.reads.value, 3);
  EXPECT_EQ(statistics.readTime.value, 15);
  EXPECT_EQ(statistics.minReadTime.value, 3);
  EXPECT_EQ(statistics.maxReadTime.value, 7);
}

TEST(ArchiveAddinTest, TheHostKeepsNoQueueThatARequestCouldBeTakenFrom) {
  FakeArchiveSource source;
  ArchiveRequest request;
  EXPECT_EQ(source.RemoveRequest(&request), static_cast<int>(0x803E0000U));
  EXPECT_EQ(source.RemoveRequest(nullptr), static_cast<int>(0x803E0000U));
}

TEST(ArchiveAddinTest, AnUnknownTypeIsTraced) {
  const test::TraceCapture trace;
  EXPECT_EQ(ArchiveAddin::GetArchiveSource("unknown", 2), nullptr);
  EXPECT_EQ(trace.countContaining("archive source \"unknown\" 2: no add-in has"), 1);
}

TEST(ArchiveAddinTest, AFactoryNeedsATypeAndStaysTheCallersWithoutOne) {
  std::atomic<int> destroyed{0};
  {
    Factory factory(newSource);
    factory.destroyed = &destroyed;
    EXPECT_LT(ArchiveAddin::AddSourceFactory("", &factory), 0);
    EXPECT_EQ(destroyed, 0);
  }
  EXPECT_LT(ArchiveAddin::AddSourceFactory("no factory", nullptr), 0);
  EXPECT_EQ(ArchiveAddin::GetArchiveSource("no factory"), nullptr);
}

TEST(ArchiveAddinTest, ALaterFactoryMakesTheSourcesToCome) {
  std::atomic<int> destroyed{0};
  auto* former = new Factory(newSource);
  former->destroyed = &destroyed;
  ASSERT_EQ(ArchiveAddin::AddSourceFactory("replaced", former), 0);
  FakeArchiveSource* source = sourceOf("replaced");
  auto* second = newSource();
  ASSERT_EQ(add("replaced", [second] { return second; }), 0);
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(sourceOf("replaced"), source);
  EXPECT_EQ(sourceOf("replaced", 1), second);
}

TEST(ArchiveAddinTest, AFactoryThatIsAtWorkOutlivesItsReplacement) {
  std::atomic<int> destroyed{0};
  auto* former = new Factory([&destroyed] {
    EXPECT_EQ(add("at work", newSource), 0);
    EXPECT_EQ(destroyed, 0);
    return newSource();
  });
  former->destroyed = &destroyed;
  ASSERT_EQ(ArchiveAddin::AddSourceFactory("at work", former), 0);
  EXPECT_NE(sourceOf("at work"), nullptr);
  EXPECT_EQ(destroyed, 1);
}

TEST(ArchiveAddinTest, AnAddinThatThrowsCostsItsOwnSourceOnly) {
  const test::TraceCapture trace;
  ASSERT_EQ(add("throws", []() -> ArchiveSource* { throw std::runtime_error("no disk"); }), 0);
  EXPECT_EQ(sourceOf("throws"), nullptr);
  EXPECT_EQ(trace.countContaining("archive source \"throws\" 0: no disk"), 1);
  ASSERT_EQ(add("throws a number", []() -> ArchiveSource* { throw 1; }), 0);
  EXPECT_EQ(sourceOf("throws a number"), nullptr);
  EXPECT_EQ(trace.countContaining("archive source \"throws a number\" 0"), 1);
}

// Notes its end.
class MortalSource : public FakeArchiveSource {
 public:
  explicit MortalSource(int& ended) : ended_(ended) {}
  ~MortalSource() override { ++ended_; }

 private:
  int& ended_;
};

TEST(ArchiveAddinTest, ASourceThatCannotBeInitialisedIsGivenUpAndTriedAgain) {
  const test::TraceCapture trace;
  int ended = 0;
  std::string failing = "Init";
  const auto make = [&] {
    auto* source = new MortalSource(ended);
    if (!failing.empty()) source->failures[failing] = static_cast<int>(0x800A0000U);
    return source;
  };
  ASSERT_EQ(add("refuses", make), 0);
  EXPECT_EQ(sourceOf("refuses"), nullptr);
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(trace.countContaining("archive source \"refuses\" 0: Init returns 0x800A0000"), 1);
  failing = "InitSource";
  EXPECT_EQ(sourceOf("refuses"), nullptr);
  EXPECT_EQ(ended, 2);
  EXPECT_EQ(trace.countContaining("archive source \"refuses\" 0: InitSource returns"), 1);
  failing.clear();
  EXPECT_NE(sourceOf("refuses"), nullptr);
  EXPECT_EQ(ended, 2);
}

TEST(ArchiveAddinTest, AFactoryThatMakesNothingIsTraced) {
  const test::TraceCapture trace;
  ASSERT_EQ(add("nothing", []() -> ArchiveSource* { return nullptr; }), 0);
  EXPECT_EQ(sourceOf("nothing"), nullptr);
  EXPECT_EQ(trace.countContaining("archive source \"nothing\" 0: the factory made none"), 1);
}

TEST(ArchiveAddinTest, ASourceMayAskForOthersWhileItIsMadeButNotForItself) {
  const test::TraceCapture trace;
  ASSERT_EQ(add("asked by another", newSource), 0);
  ArchiveSource* itself = newSource();
  ASSERT_EQ(add("asks",
                [&itself] {
                  delete itself;
                  itself = ArchiveAddin::GetArchiveSource("asks");
                  EXPECT_NE(ArchiveAddin::GetArchiveSource("asked by another"), nullptr);
                  return newSource();
                }),
            0);
  EXPECT_NE(sourceOf("asks"), nullptr);
  EXPECT_EQ(itself, nullptr);
  EXPECT_EQ(trace.countContaining("is asked for while it is being made"), 1);
}

TEST(ArchiveAddinTest, ThreadsThatAskAtOnceGetOneSource) {
  std::atomic<int> made{0};
  ASSERT_EQ(add("at once",
                [&made] {
                  ++made;
                  std::this_thread::yield();
                  return newSource();
                }),
            0);
  std::vector<std::thread> threads;
  std::vector<ArchiveSource*> got(8);
  for (ArchiveSource*& one : got) {
    threads.emplace_back([&one] { one = ArchiveAddin::GetArchiveSource("at once"); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made, 1);
  for (const ArchiveSource* one : got) EXPECT_EQ(one, got[0]);
  EXPECT_NE(got[0], nullptr);
}

}  // namespace
}  // namespace orva::host
