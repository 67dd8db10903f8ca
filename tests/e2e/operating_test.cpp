// What docs/operating.md says of backups, done to a host that is writing.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

#include "support/documentation.h"
#include "support/plant.h"

namespace orva::test {
namespace {

constexpr const char* kCounter = R"(
local count = ArchiveProc.new{Id = 1, Path = "Plant/Count"}
local n = 0
function cycle()
  for step = 1, 10 do
    n = n + 1
    count.Value = DataValue{Value = n, SourceTime = 1700000000000 + n}
    count()
  end
end
)";

PlantConfig counting() {
  PlantConfig config;
  config.variables = "[" + variable(1, "Plant/Count", "Double") + "]";
  config.programs = "[" + program("counter", "counter.lua", 5) + "]";
  return config;
}

bool exists(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0;
}

// The figure of a metric without labels but the archive's.
double written(const Plant& plant) {
  HttpConnection connection(plant.port());
  connection.send("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  const std::string body = connection.receive().body;
  const std::string name = "\norva_sqlite_written_samples_total{archive=\"store\"} ";
  const std::size_t at = body.find(name);
  return at == std::string::npos ? 0 : std::atof(body.c_str() + at + name.size());
}

// The command of the page.
std::string backupCommand() {
  const std::string page = repositoryFile("docs/operating.md");
  const std::string fence = "```sh backup\n";
  const std::size_t begin = page.find(fence);
  EXPECT_NE(begin, std::string::npos);
  const std::size_t start = begin + fence.size();
  return page.substr(start, page.find("```", start) - start);
}

class BackupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (runProgram({"/bin/sh", "-c", "command -v sqlite3"}).exitCode != 0) {
      GTEST_SKIP() << "there is no program sqlite3";
    }
    plant_.folder().write("counter.lua", kCounter);
    ASSERT_TRUE(plant_.start());
  }

  bool waitUntilWritten(double count) const {
    return waitUntil([&] { return written(plant_) >= count; }, 30'000);
  }

  Plant plant_{counting()};
};

TEST_F(BackupTest, ABackupOfARunningHostHasAllThatWasWritten) {
  ASSERT_TRUE(waitUntilWritten(3000));
  const double before = written(plant_);
  const ProgramResult backup =
      runProgram({"/bin/sh", "-c",
                  "cd " + plant_.folder().path("") + " && mkdir backup && " + backupCommand()});
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  ASSERT_TRUE(waitUntilWritten(before + 1000)) << "the host does not go on writing";

  PlantConfig other = counting();
  other.programs = "[]";
  other.dataArchive = R"({"archives": [{
    "connection": {"providerType": "sqlite", "location": ")" +
                      plant_.folder().path("backup") + R"("}, "limits": {}, "filter": {}}]})";
  Plant restored(other);
  ASSERT_TRUE(restored.start());
  const Samples samples = restored.client().readAll(restored.itemId("Plant/Count"));
  EXPECT_GE(samples.size(), static_cast<std::size_t>(before));
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const auto n = static_cast<std::int64_t>(i) + 1;
    ASSERT_EQ(samples[i], (Sample{1'700'000'000'000 + n, std::to_string(n) + ".0", 0}));
  }
  EXPECT_EQ(restored.host().stop(), 0);
}

TEST_F(BackupTest, AHostThatHasStoppedLeavesOneFile) {
  ASSERT_TRUE(waitUntilWritten(100));
  EXPECT_TRUE(exists(plant_.folder().path("store/archive.db-wal")));
  ASSERT_EQ(plant_.host().stop(), 0);
  EXPECT_TRUE(exists(plant_.folder().path("store/archive.db")));
  EXPECT_FALSE(exists(plant_.folder().path("store/archive.db-wal")));
}

TEST_F(BackupTest, ABackupTakesThePlaceOfTheFile) {
  ASSERT_TRUE(waitUntilWritten(500));
  const ProgramResult backup =
      runProgram({"/bin/sh", "-c",
                  "cd " + plant_.folder().path("") + " && mkdir backup && " + backupCommand()});
  ASSERT_EQ(backup.exitCode, 0) << backup.err;
  // Killed, so that there is a log of the file that goes.
  plant_.host().killNow();
  const ProgramResult restore =
      runProgram({"/bin/sh", "-c",
                  "cd " + plant_.folder().path("") +
                      " && cp backup/archive.db store/archive.db"
                      " && rm -f store/archive.db-wal store/archive.db-shm"});
  ASSERT_EQ(restore.exitCode, 0) << restore.err;
  PlantConfig reading = counting();
  reading.programs = "[]";
  plant_.configure(reading);
  ASSERT_TRUE(plant_.start());
  const Samples samples = plant_.client().readAll(plant_.itemId("Plant/Count"));
  EXPECT_GE(samples.size(), 500U);
  EXPECT_EQ(samples.back().value, std::to_string(samples.size()) + ".0");
}

TEST(LogRotationTest, ARenamedLogIsBegunAnewAtSighup) {
  PlantConfig config = counting();
  config.log = R"({"file": "host.log"})";
  Plant plant(config);
  plant.folder().write("counter.lua", kCounter);
  ASSERT_TRUE(plant.start());
  const std::string log = plant.folder().path("host.log");
  ASSERT_TRUE(exists(log));
  ASSERT_EQ(rename(log.c_str(), (log + ".1").c_str()), 0);
  plant.host().signal(SIGHUP);
  EXPECT_TRUE(waitUntil(
      [&] { return readFile(log).find("the configuration was read again") != std::string::npos; },
      10'000));
}

}  // namespace
}  // namespace orva::test
