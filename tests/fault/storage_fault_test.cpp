// Faults of the disk, at every operation on it that a script of writes, joins, clean-ups, reads and
// restarts makes. ORVA_FAULT_OPERATIONS says how long the script is.

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "fault/disk_model.h"
#include "fault/fault_vfs.h"
#include "fault/store_script.h"

namespace orva::sqlite::test {
namespace {

using Operation = FaultVfs::Operation;
using Fault = FaultVfs::Fault;
using Plan = FaultVfs::Plan;

constexpr std::uint64_t kSeed = 7;
constexpr int kShownProblems = 10;

int operations() {
  const char* const text = std::getenv("ORVA_FAULT_OPERATIONS");
  return text == nullptr ? 60 : std::atoi(text);
}

struct Case {
  const char* name;
  Operation operation;
  Fault fault;
  bool forEver;
};

void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }

// What is wrong when the n-th operation fails, with the log; empty when nothing is.
std::string problemOf(const Case& one, std::uint64_t nth, bool& struck) {
  const TemporaryFolder folder;
  FaultVfs vfs;
  vfs.arm({one.operation, one.fault, nth, one.forEver});
  StoreScript script(folder.path(), kSeed);
  const bool lies = one.operation == Operation::kRead && one.fault != Fault::kFail;
  if (lies) script.excuseMissing();
  script.run(operations());
  struck = vfs.struck() != 0;
  vfs.disarm();
  if (script.problem().empty()) script.recover();
  std::string problem = script.problem();
  if (problem.empty() && script.suffered() && !script.hasErrorLine())
    problem = "nothing is said of it";
  if (problem.empty() && !lies && script.toldOfDamage()) problem = "it was taken for damage";
  return problem.empty() ? problem : problem + "\n" + script.log();
}

std::uint64_t countOf(Operation operation) {
  const TemporaryFolder folder;
  FaultVfs vfs;
  StoreScript script(folder.path(), kSeed);
  script.run(operations());
  EXPECT_EQ(script.problem(), "");
  EXPECT_FALSE(script.suffered());
  EXPECT_FALSE(script.hasErrorLine()) << script.log();
  return vfs.count(operation);
}

class StorageFaultTest : public ::testing::TestWithParam<Case> {};

TEST_P(StorageFaultTest, EndsWithEverySampleWrittenOrCountedAndEveryReadTrueOrBad) {
  const std::uint64_t count = countOf(GetParam().operation);
  ASSERT_GT(count, 0U);
  int problems = 0;
  std::uint64_t strikes = 0;
  for (std::uint64_t nth = 1; nth <= count; ++nth) {
    bool struck = false;
    const std::string problem = problemOf(GetParam(), nth, struck);
    strikes += struck ? 1 : 0;
    if (problem.empty()) continue;
    if (++problems <= kShownProblems)
      ADD_FAILURE() << GetParam().name << " " << nth << ": " << problem;
  }
  EXPECT_EQ(problems, 0) << "of " << count;
  EXPECT_EQ(strikes, count);
  std::cout << GetParam().name << ": " << count << " places\n";
}

constexpr Case kCases[] = {
    {"ReadFails", Operation::kRead, Fault::kFail, false},
    {"ReadsFail", Operation::kRead, Fault::kFail, true},
    {"ReadIsShort", Operation::kRead, Fault::kShort, false},
    {"ReadsAreShort", Operation::kRead, Fault::kShort, true},
    {"ReadIsTorn", Operation::kRead, Fault::kTorn, false},
    {"ReadsAreTorn", Operation::kRead, Fault::kTorn, true},
    {"WriteFails", Operation::kWrite, Fault::kFail, false},
    {"WritesFail", Operation::kWrite, Fault::kFail, true},
    {"DiskIsFullOnce", Operation::kWrite, Fault::kFull, false},
    {"DiskIsFull", Operation::kWrite, Fault::kFull, true},
    {"WriteIsShort", Operation::kWrite, Fault::kShort, false},
    {"WritesAreShort", Operation::kWrite, Fault::kShort, true},
    {"WriteIsTorn", Operation::kWrite, Fault::kTorn, false},
    {"WritesAreTorn", Operation::kWrite, Fault::kTorn, true},
    {"SyncFails", Operation::kSync, Fault::kFail, false},
    {"SyncsFail", Operation::kSync, Fault::kFail, true},
    {"TruncateFails", Operation::kTruncate, Fault::kFail, false},
    {"TruncatesFail", Operation::kTruncate, Fault::kFail, true},
    {"OpenFails", Operation::kOpen, Fault::kFail, false},
    {"OpensFail", Operation::kOpen, Fault::kFail, true},
};
INSTANTIATE_TEST_SUITE_P(Faults, StorageFaultTest, ::testing::ValuesIn(kCases),
                         [](const auto& one) { return std::string(one.param.name); });

// ---- loss of power

class PowerLossTest : public ::testing::Test {
 protected:
  void check(StoreScript& script, const DiskModel::Files& files, const Moment& moment,
             const std::string& what) {
    const TemporaryFolder folder;
    DiskModel::store(files, folder.path());
    script.compareImage(folder.path(), moment);
    ++images_;
    if (script.problem().empty()) return;
    if (++problems_ <= kShownProblems) ADD_FAILURE() << what << ": " << script.problem();
    script.forgetProblem();
  }

  int images_ = 0;
  int problems_ = 0;
};

TEST_F(PowerLossTest, AtAnyMomentLeavesWhatWasCommittedAndNothingElse) {
  const TemporaryFolder folder;
  FaultVfs vfs;
  std::vector<Moment> moments;
  std::unique_ptr<StoreScript> script;
  vfs.record(true);
  vfs.beforeEvent = [&] { moments.push_back(script ? script->moment() : Moment{}); };
  script = std::make_unique<StoreScript>(folder.path(), kSeed);
  script->run(operations());
  ASSERT_EQ(script->problem(), "");
  script->close();
  const Moment last = script->moment();
  ASSERT_GT(last.committed, 0U);
  vfs.record(false);
  DiskModel disk;
  std::mt19937_64 random(kSeed);
  for (std::size_t i = 0; i < vfs.events().size(); ++i) {
    disk.apply(vfs.events()[i]);
    // What was confirmed before the next change must be there after this one.
    Moment moment = moments[i];
    moment.committed = i + 1 < moments.size() ? moments[i + 1].committed : last.committed;
    const std::string at = "after event " + std::to_string(i + 1);
    if (vfs.events()[i].kind == FileEvent::Kind::kSync) {
      check(*script, disk.synced(), moment, at + ", what was synced");
      continue;
    }
    check(*script, disk.everything(), moment, at + ", all of it");
    check(*script, disk.some(random), moment, at + ", some of it");
    check(*script, disk.tornAtTheEnd(), moment, at + ", torn");
  }
  EXPECT_EQ(problems_, 0);
  std::cout << vfs.events().size() << " changes of files, " << images_ << " images\n";
}

}  // namespace
}  // namespace orva::sqlite::test
