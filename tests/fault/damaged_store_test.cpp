// A store whose file is damaged, cut, gone or something else. ORVA_DAMAGE_STEP says how far apart
// the bytes are that are changed in turn; 1 is each of them.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "unit/orva_sqlite/archive_fixture.h"

namespace orva::sqlite::test {
namespace {

constexpr int kSamples = 40;
constexpr int kShownProblems = 10;

std::size_t stepBetweenBytes() {
  const char* const text = std::getenv("ORVA_DAMAGE_STEP");
  return text == nullptr ? 41 : static_cast<std::size_t>(std::max(1, std::atoi(text)));
}

// A store with three streams, and copies of it that come to harm.
class DamagedStoreTest : public ArchiveTest {
 protected:
  DamagedStoreTest() {
    file_ = folder_ / "archive.db";
    limits_.maxWriteValues = 15;
    open();
    for (int i = 0; i < kSamples; ++i) {
      const auto n = static_cast<double>(i);
      write({1, "a"}, 0, makePin(second(i), realValue(n)));
      write({1, "a"}, 1, makePin(second(i), realValue(1000 + n)));
      write({2, "b"}, 0, makePin(second(i), textValue("text " + std::to_string(i))));
    }
    close();
    std::ifstream in(file_, std::ios::binary);
    intact_.assign(std::istreambuf_iterator<char>(in), {});
    EXPECT_GT(intact_.size(), 20'000U);
  }

  void putFile(const std::string& content) {
    std::filesystem::remove_all(folder_.path());
    std::filesystem::create_directory(folder_.path());
    std::ofstream(file_, std::ios::binary)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
  }

  // Whether the log says that something of the store is lost or cannot be had.
  bool isSaid() {
    return trace_.countContaining("is damaged") + trace_.countContaining("was moved to") +
               trace_.countContaining("was an empty file") + trace_.countContaining("cannot be") +
               trace_.countContaining("failed") >
           0;
  }

  // Opens what stands there, reads all of it, writes on and reads that. What is wrong with it,
  // empty if nothing is. Counts the samples that were there.
  std::string problemOfStore() {
    trace_.clear();
    list_.all() = original_.all();
    open();
    std::size_t missing = 0;
    std::string problem;
    for (const auto& [key, layer] :
         {std::pair{ItemKey{1, "a"}, 0}, {ItemKey{1, "a"}, 1}, {ItemKey{2, "b"}, 0}}) {
      problem += problemOfStream({key, layer}, missing);
    }
    bool hides = missing > 0 && !isSaid();
    write({1, "a"}, 0, makePin(second(1000), realValue(-1)));
    write({1, "a"}, 0, makePin(second(10) + 1, realValue(-2)));  // older than what is there
    // Damage that this meets is set apart first, and a page that cannot be read needs a second try.
    for (int i = 0; i < 5 && !worker().writeAll(); ++i) clock_.advance(20 * kTicksPerSecond);
    for (const std::int64_t time : {second(1000), second(10) + 1}) {
      const Answer answer = ask({{1, "a"}, 0, time, time});
      hides = hides || (answer.pushed.size() != 1 && !isBad(answer.failure));
    }
    silent_ += hides ? 1 : 0;
    close();
    return problem.empty() ? problem : problem + "\n" + logText();
  }

  // A sample that was written, but to another item or layer.
  bool isOfAnother(const Question& question, const Pin& pin) {
    for (const auto& [key, samples] : original_.all()) {
      if (key == PlainList::Key{question.key, question.layer}) continue;
      for (const PinPtr& sample : samples) {
        if (sameSample(*sample, pin)) return true;
      }
    }
    return false;
  }

  std::string problemOfStream(const Question& question, std::size_t& missing) {
    const std::vector<PinPtr> right = original_.answer(question);
    const Answer answer = ask(question);
    std::size_t at = 0;
    std::size_t found = 0;
    for (const PinPtr& pin : answer.pushed) {
      if (isOfAnother(question, *pin)) {
        ++missing;
        continue;
      }
      while (at < right.size() && !sameSample(*right[at], *pin)) ++at;
      if (at == right.size()) return "invented, doubled or out of order: " + describe(*pin) + "\n";
      ++at;
      ++found;
    }
    read_ += found;
    const std::size_t lacking = right.size() - found;
    if (!isBad(answer.failure)) missing += lacking;
    return {};
  }

  std::string logText() {
    std::string all;
    for (const std::string& text : trace_.texts()) all += text;
    return all;
  }

  void check(const std::string& content, const std::string& what) {
    putFile(content);
    const std::string problem = problemOfStore();
    ++stores_;
    if (problem.empty()) return;
    if (++problems_ <= kShownProblems) ADD_FAILURE() << what << ": " << problem;
  }

  std::string file_;
  std::string intact_;
  PlainList original_;
  int stores_ = 0;
  int problems_ = 0;
  int silent_ = 0;  // stores that lacked or misplaced samples without a word
  std::size_t read_ = 0;
};

TEST_F(DamagedStoreTest, AChangedByteInventsNothingAndHidesNothingButBehindTheIndex) {
  original_ = list_;
  for (std::size_t at = 0; at < intact_.size(); at += at < 100 ? 1 : stepBetweenBytes()) {
    std::string changed = intact_;
    changed[at] = static_cast<char>(changed[at] ^ (at % 3 == 0 ? 0xFF : 1 << (at % 8)));
    check(changed, "byte " + std::to_string(at));
  }
  EXPECT_EQ(problems_, 0);
  // The bytes of samples have a checksum, SQLite's own pages have none: nobody misses a row that
  // the index leads past, or knows that it belongs to another item.
  EXPECT_LE(silent_, stores_ / 100);
  std::cout << silent_ << " of them lacked or misplaced samples without a word\n";
  std::cout << stores_ << " stores with a changed byte: " << read_ << " of "
            << stores_ * 3 * kSamples << " samples could be read\n";
}

TEST_F(DamagedStoreTest, ACutFileCostsNothingSilently) {
  original_ = list_;
  for (std::size_t size = 0; size < intact_.size(); size += stepBetweenBytes() * 7 + 1) {
    check(intact_.substr(0, size), "cut at " + std::to_string(size));
  }
  for (std::size_t size = 4096; size < intact_.size(); size += 4096) {
    check(intact_.substr(0, size), "cut at " + std::to_string(size));
  }
  EXPECT_EQ(problems_, 0);
  EXPECT_EQ(silent_, 0);
  std::cout << stores_ << " stores cut short: " << read_ << " of " << stores_ * 3 * kSamples
            << " samples could be read\n";
}

TEST_F(DamagedStoreTest, AnotherSchemaIsMovedAsideAndSaid) {
  original_ = list_;
  for (const char* const change :
       {"PRAGMA user_version=2", "PRAGMA user_version=0", "PRAGMA application_id=1",
        "DROP TABLE segment", "ALTER TABLE item RENAME TO things"}) {
    putFile(intact_);
    changeFile(change);
    EXPECT_EQ(problemOfStore(), "") << change;
    EXPECT_EQ(trace_.countContaining("it was moved to"), 1) << change;
  }
}

TEST_F(DamagedStoreTest, AFolderInTheFilesPlaceIsSaidAndWaitedFor) {
  original_ = list_;
  std::filesystem::remove_all(file_);
  std::filesystem::create_directory(file_);
  open();
  EXPECT_GT(trace_.countContaining("cannot be opened"), 0);
  write(second(2000), 7);
  EXPECT_EQ(ask({{1, "a"}, 0}).failure, 0x809E0000U);
  EXPECT_FALSE(worker().writeAll());
  std::filesystem::remove_all(file_);
  clock_.advance(60 * kTicksPerSecond);
  EXPECT_TRUE(worker().writeAll());
  const Answer answer = ask({{1, "a"}, 0});
  EXPECT_EQ(answer.failure, 0U);
  EXPECT_EQ(answer.pushed.size(), 1U);
}

}  // namespace
}  // namespace orva::sqlite::test
