#include "unit/orva_sqlite/archive_fixture.h"

#include <sqlite3.h>

#include <algorithm>
#include <boost/smart_ptr/make_shared.hpp>
#include <cstdlib>
#include <filesystem>

namespace orva::sqlite::test {

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "orva_sqlite_XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) ADD_FAILURE() << "no temporary folder";
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

Answer ask(archive::IDataArchive& archive, const Question& question) {
  const auto request = boost::make_shared<archive::Request>();
  const archive::SharedItem item = request->addItem(1);
  item->numValuesPerNode = question.limit;
  const archive::SharedInterval interval =
      item->addInterval(question.layer, question.start, question.end);
  interval->setKind(question.kind);
  interval->setBounds({question.left, question.right});
  interval->setHandle(archive.itemHandle(question.key));
  archive.read(interval);
  return {interval->buffer(), interval->isFinal(), item->failure(), interval->wanted()};
}

void PlainList::add(const ItemKey& key, std::int32_t layer, const PinPtr& pin) {
  std::vector<PinPtr>& list = lists_[{key, layer}];
  const auto at =
      std::upper_bound(list.begin(), list.end(), pin->time,
                       [](std::int64_t time, const PinPtr& p) { return time < p->time; });
  list.insert(at, pin);
}

std::vector<PinPtr> PlainList::answer(const Question& question) const {
  const auto found = lists_.find({question.key, question.layer});
  std::vector<PinPtr> result;
  if (found == lists_.end()) return result;
  const std::int64_t from = question.start == 0 ? kEarliest : question.start;
  const std::int64_t to = question.end == 0 ? kLatest : question.end;
  if (from > to) return result;
  PinPtr before;
  PinPtr after;
  for (const PinPtr& pin : found->second) {
    if (pin->time < from) before = pin;
    if (pin->time > to && !after) after = pin;
    if (pin->time >= from && pin->time <= to) result.push_back(pin);
  }
  if (question.kind == Kind::oldest && result.size() > 1) result.resize(1);
  if (question.kind == Kind::newest && result.size() > 1)
    result.erase(result.begin(), result.end() - 1);
  if (question.kind != Kind::range) return result;
  if (question.left && question.start > 1 && before) result.insert(result.begin(), before);
  if (question.right && to != kLatest && after) result.push_back(after);
  return result;
}

::testing::AssertionResult answersLike(archive::IDataArchive& archive, const PlainList& list,
                                       const Question& question) {
  const Answer answer = ask(archive, question);
  const std::vector<PinPtr> right = list.answer(question);
  const auto fail = [&] {
    return ::testing::AssertionFailure()
           << "item (" << question.key.first << ", \"" << question.key.second << "\"), layer "
           << question.layer << ", " << question.start << ".." << question.end << ", kind "
           << static_cast<int>(question.kind) << ", bounds " << question.left << question.right
           << ", limit " << question.limit << ": ";
  };
  if (!answer.final) return fail() << "not finalised";
  if (answer.failure != 0) return fail() << "failed with " << std::hex << answer.failure;
  const std::uint64_t all = right.size();
  const std::uint64_t least = answer.wanted == 0 ? all : std::min(all, answer.wanted);
  if (answer.pushed.size() < least || answer.pushed.size() > right.size()) {
    return fail() << answer.pushed.size() << " samples instead of " << right.size() << ", " << least
                  << " at least";
  }
  for (std::size_t i = 0; i < answer.pushed.size(); ++i) {
    if (!sameSample(*answer.pushed[i], *right[i])) {
      return fail() << "sample " << i << " is " << describe(*answer.pushed[i]) << " instead of "
                    << describe(*right[i]);
    }
  }
  return ::testing::AssertionSuccess();
}

ArchiveTest::ArchiveTest() {
  connection_.location = folder_.path();
  // Nothing here loses power, and waiting for the disk is most of the time otherwise.
  connection_.parameters = "synchronous=OFF";
}

void ArchiveTest::open() {
  if (archive_) close();
  archive_ = std::make_unique<Archive>(limits_, connection_);
  archive_->open();
}

void ArchiveTest::close() {
  archive_->shutDown();
  archive_->close();
  archive_.reset();
}

void ArchiveTest::write(const ItemKey& key, std::int32_t layer, const PinPtr& pin) {
  const std::uint64_t before = counters().accepted;
  archive_->layerWriter(key, layer, 0).write(pin);
  if (counters().accepted != before) list_.add(key, layer, pin);
}

std::vector<double> ArchiveTest::values(const Question& question) {
  std::vector<double> numbers;
  for (const PinPtr& pin : ask(question).pushed) {
    double number = 0;
    EXPECT_TRUE(pin->value.GetDouble(number));
    numbers.push_back(number);
  }
  return numbers;
}

namespace {

class Look {
 public:
  Look(const std::string& file, const std::string& sql) {
    EXPECT_EQ(sqlite3_open(file.c_str(), &db_), SQLITE_OK);
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement_, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db_);
    const int code = sqlite3_step(statement_);
    EXPECT_TRUE(code == SQLITE_ROW || code == SQLITE_DONE) << sqlite3_errmsg(db_);
    hasRow = code == SQLITE_ROW;
  }
  ~Look() {
    sqlite3_finalize(statement_);
    sqlite3_close(db_);
  }
  sqlite3_stmt* statement() { return statement_; }
  bool hasRow = false;

 private:
  sqlite3* db_ = nullptr;
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace

std::int64_t ArchiveTest::inFile(const std::string& sql) {
  Look look(folder_ / "archive.db", sql);
  return look.hasRow ? sqlite3_column_int64(look.statement(), 0) : 0;
}

std::string ArchiveTest::textInFile(const std::string& sql) {
  Look look(folder_ / "archive.db", sql);
  const auto* text = look.hasRow
                         ? reinterpret_cast<const char*>(sqlite3_column_text(look.statement(), 0))
                         : nullptr;
  return text == nullptr ? "" : text;
}

void ArchiveTest::changeFile(const std::string& sql) { Look look(folder_ / "archive.db", sql); }

}  // namespace orva::sqlite::test
