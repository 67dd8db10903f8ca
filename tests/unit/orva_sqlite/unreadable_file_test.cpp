#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "orva_host/host_events.h"
#include "orva_sqlite/archive_status.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/archive_fixture.h"

// Files in use that turn out to be unreadable.

namespace orva::sqlite::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kPage = 4096;

class UnreadableFileTest : public ArchiveTest {
 protected:
  std::string file() const { return folder_ / "archive.db"; }

  // A file of some hundred pages, all of them on the disk, none in memory.
  void openLarge() {
    std::mt19937_64 random(1);
    limits_.maxWriteValues = 10;
    open();
    for (int i = 0; i < 600; ++i) {
      std::string text;
      for (int c = 0; c < 1500; ++c) text += static_cast<char>('!' + random() % 90);
      write({1, "a"}, 0, makePin(second(i), textValue(text)));
    }
    ASSERT_TRUE(worker().writeAll());
    worker().store().space().checkpoint();
    ASSERT_TRUE(worker().store().db().exec("PRAGMA shrink_memory"));
  }
  void overwrite(std::size_t from, std::size_t to) {
    std::fstream stream(file(), std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(static_cast<std::streamoff>(from));
    stream << std::string(to - from, '\x5A');
  }
  // What was stored is lost, which is said until the next start, and what comes is kept.
  void expectLostAndUsable() {
    EXPECT_TRUE(worker().ready());
    EXPECT_EQ(trace_.countContaining("it was moved to"), 1);
    const Answer old = ask({{1, "a"}, 0, second(0), second(599)});
    EXPECT_EQ(old.failure, status::kBadDataLost);
    EXPECT_TRUE(old.pushed.empty());
    list_ = PlainList();
    write({1, "a"}, 0, makePin(second(1000), realValue(1)));
    ASSERT_TRUE(worker().writeAll());
    EXPECT_EQ(inFile("SELECT count(*) FROM segment"), 1);
    EXPECT_TRUE(answers({{1, "a"}, 0, second(1000), 0}));
    open();
    EXPECT_TRUE(answers({}));
  }
};

TEST_F(UnreadableFileTest, OneWhoseHeadIsGoneWhenItIsOpenedAnewIsMovedAside) {
  openLarge();
  worker().interrupted();
  overwrite(0, kPage);
  worker().pass();
  expectLostAndUsable();
}

TEST_F(UnreadableFileTest, OneThatProvedWrongInUseIsCheckedWholeAndMovedAside) {
  openLarge();
  const std::size_t pages = static_cast<std::size_t>(fs::file_size(file())) / kPage;
  ASSERT_GT(pages, 100U);
  // Nothing that opening the file looks at.
  overwrite(20 * kPage, (pages - 20) * kPage);
  EXPECT_FALSE(worker().mergeAll());
  EXPECT_EQ(trace_.countContaining("joining segments failed: database disk image is malformed"), 1);
  clock_.advance(connection_.reconnectTimeout);
  worker().pass();
  expectLostAndUsable();
}

// Whoever moves files about puts the next one there at once.
class Spoiler final : public HostEventListener {
 public:
  explicit Spoiler(std::string file) : file_(std::move(file)) {
    attachHostEvents("spoiler of a test", *this);
  }
  ~Spoiler() override { detachHostEvents("spoiler of a test"); }
  void onEvent(const HostEvent& event, std::uint64_t) noexcept override {
    if (std::string(event.text).find("it was moved to") == std::string::npos) return;
    std::ofstream(file_) << std::string(10'000, 'y');
  }

 private:
  const std::string file_;
};

TEST_F(UnreadableFileTest, OneInThePlaceOfTheOneMovedAsideIsLeftUntilTheNextTry) {
  std::ofstream(file()) << std::string(10'000, 'x');
  {
    const Spoiler spoiler(file());
    open();
    EXPECT_FALSE(worker().ready());
    EXPECT_EQ(trace_.countContaining("it was moved to"), 1);
    EXPECT_EQ(trace_.countContaining("cannot be read\n"), 1);
    EXPECT_EQ(worker().pass(), connection_.reconnectTimeout);
  }
  write(second(1), 1);
  clock_.advance(connection_.reconnectTimeout);
  ASSERT_TRUE(worker().writeAll());
  EXPECT_EQ(trace_.countContaining("it was moved to"), 2);
  EXPECT_TRUE(answers({}));
}

}  // namespace
}  // namespace orva::sqlite::test
