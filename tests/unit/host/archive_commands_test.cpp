// The commands of the older-style client, on a source in memory.

#include "orva_host/archive_commands.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "orva_host/variables.h"
#include "share/ticks.h"
#include "support/fake_archive_source.h"
#include "support/manual_clock.h"

namespace orva::host {
namespace {

using test::FakeArchiveSource;

constexpr int kNotFound = static_cast<int>(0x803E0000U);

class ArchiveCommandsTest : public testing::Test {
 protected:
  ArchiveCommandsTest() {
    clearInstallation();
    setVariable({1, "Plant/Load", OpcUaType_Double});
    setVariable({2, "Plant/Name", OpcUaType_String});
    setVariable({3, "Plant/Count", OpcUaType_Int16});
    EXPECT_TRUE(commands_.use(0));
  }
  ~ArchiveCommandsTest() override { clearInstallation(); }

  CommandResult execute(const std::string& line) { return commands_.execute(line); }
  // What the command prints; a failure of the test when it fails.
  std::string out(const std::string& line) {
    const CommandResult result = execute(line);
    EXPECT_EQ(result.error, "") << line;
    return result.out;
  }
  // Why the command fails; it must not have called the source.
  std::string usageError(const std::string& line) {
    const std::size_t calls = source_.calls.size();
    const CommandResult result = execute(line);
    EXPECT_EQ(result.out, "") << line;
    EXPECT_EQ(source_.calls.size(), calls) << line;
    return result.error;
  }
  std::string error(const std::string& line) { return execute(line).error; }
  std::string lastCall() const { return source_.calls.empty() ? "" : source_.calls.back(); }

  FakeArchiveSource source_;
  FakeArchiveSource second_;
  ArchiveCommands commands_{[this](int number) -> ArchiveSource* {
    if (number == 0) return &source_;
    return number == -1 ? &second_ : nullptr;
  }};
};

TEST_F(ArchiveCommandsTest, EmptyLinesAndCommentsDoNothing) {
  EXPECT_EQ(out(""), "");
  EXPECT_EQ(out("  # find 1"), "");
  EXPECT_TRUE(source_.calls.empty());
}

TEST_F(ArchiveCommandsTest, UnknownCommandsAreTold) {
  EXPECT_EQ(usageError("fetch 1"), "no command is called \"fetch\"");
  EXPECT_EQ(usageError("find \"1"), "a quote that does not end");
}

TEST_F(ArchiveCommandsTest, FindPrintsTheItem) {
  EXPECT_EQ(out("find 1"), "1\n");
  EXPECT_EQ(lastCall(), "FindArchiveItemId 1");
  EXPECT_EQ(out("find 4294967297"), "1\n");
  EXPECT_EQ(out("find -5"), "-5\n");
}

TEST_F(ArchiveCommandsTest, IdPrintsTheCacheId) {
  EXPECT_EQ(out("id 1 Plant/Load"), "1001\n");
  EXPECT_EQ(lastCall(), "GetArchiveItemId 1 Plant/Load");
  EXPECT_EQ(out("id 1 \"\""), "1001\n");
  EXPECT_EQ(lastCall(), "GetArchiveItemId 1 ");
}

TEST_F(ArchiveCommandsTest, WriteHandsOverASampleOfTheVariablesType) {
  out("find 1");
  EXPECT_EQ(out("write 1 1970-01-01T00:00:01Z 20.5"), "");
  EXPECT_EQ(out("write 1 12345 7 0x40000000"), "");
  EXPECT_EQ(out("write 1 12346 null 1073741824"), "");
  const std::vector<ArchiveRec>& written = source_.records[1];
  ASSERT_EQ(written.size(), 3U);
  EXPECT_EQ(written[0].time, kUnixEpochTicks + kTicksPerSecond);
  EXPECT_EQ(written[0].value.GetType(), OpcUaType_Double);
  EXPECT_EQ(written[0].value.Get().Value.Double, 20.5);
  EXPECT_EQ(written[0].status, 0U);
  EXPECT_EQ(written[1].time, 12345);
  EXPECT_EQ(written[1].value.GetType(), OpcUaType_Double);
  EXPECT_EQ(written[1].status, 0x40000000U);
  EXPECT_EQ(written[2].value.GetType(), OpcUaType_Null);
  EXPECT_EQ(written[2].status, 0x40000000U);
}

TEST_F(ArchiveCommandsTest, WriteTakesTextInQuotes) {
  out("find 2");
  out("write 2 1 \"two words # here\"");
  ASSERT_EQ(source_.records[2].size(), 1U);
  EXPECT_EQ(source_.records[2][0].value.GetString(), "two words # here");
}

TEST_F(ArchiveCommandsTest, NowIsTheTimeOfTheHostsClock) {
  const test::ManualClock clock;
  out("find 1");
  out("write 1 now 1");
  ASSERT_EQ(source_.records[1].size(), 1U);
  EXPECT_EQ(source_.records[1][0].time, clock.now());
}

TEST_F(ArchiveCommandsTest, AnItemThatNoVariableHasIsLeftToTheSource) {
  EXPECT_EQ(error("write 99 1 20.5"), "write: AddValue returns 0x803E0000 (not found)");
  EXPECT_EQ(lastCall(), "AddValue 99");
}

TEST_F(ArchiveCommandsTest, ValuesThatTheTypeDoesNotHaveAreRefused) {
  out("find 3");
  EXPECT_EQ(usageError("write 3 1 40000"),
            "write: VALUE: \"40000\" is none of the variable's type");
  EXPECT_EQ(usageError("write 1 1 high"), "write: VALUE: \"high\" is none of the variable's type");
}

TEST_F(ArchiveCommandsTest, FilterSetsWhatIsNamed) {
  out("find 1");
  EXPECT_EQ(out("filter 1 allValues=true"), "");
  EXPECT_EQ(lastCall(), "SetFilter 1 true - - - - -");
  out("filter 1 writeByChange=false blocksWrite=true");
  EXPECT_EQ(lastCall(), "SetFilter 1 - false - - - true");
  out("filter 1 maxWritePeriod=600000000 minWritePeriod=0 deadband=0.5");
  EXPECT_EQ(lastCall(), "SetFilter 1 - - 600000000 0 0.5 -");
  EXPECT_EQ(error("filter 7 allValues=true"), "filter: SetFilter returns 0x803E0000 (not found)");
}

TEST_F(ArchiveCommandsTest, FilterRefusesWhatItDoesNotKnow) {
  EXPECT_EQ(usageError("filter 1"), "filter: key=value is missing");
  EXPECT_EQ(usageError("filter 1 all=true"), "filter: a filter has no \"all\"");
  EXPECT_EQ(usageError("filter 1 allValues"), "filter: \"allValues\" is no key=value");
  EXPECT_EQ(usageError("filter 1 allValues=yes"),
            "filter: allValues: \"yes\" is neither true nor false");
  EXPECT_EQ(usageError("filter 1 deadband=nan"), "filter: deadband: \"nan\" is no number");
  EXPECT_EQ(usageError("filter 1 minWritePeriod=-1"),
            "filter: minWritePeriod: \"-1\" is no integer from 0 to 9223372036854775807");
}

TEST_F(ArchiveCommandsTest, WriteByChangeIsDisabledAndAskedFor) {
  out("find 1");
  EXPECT_EQ(out("disable-write-by-change 1"), "false\n");
  EXPECT_EQ(lastCall(), "GetDisableWriteByChange 1");
  EXPECT_EQ(out("disable-write-by-change 1 true"), "");
  EXPECT_EQ(lastCall(), "SetDisableWriteByChange 1 true");
  EXPECT_EQ(out("disable-write-by-change 1"), "true\n");
  EXPECT_EQ(error("disable-write-by-change 9 false"),
            "disable-write-by-change: SetDisableWriteByChange returns 0x803E0000 (not found)");
}

TEST_F(ArchiveCommandsTest, ReadPrintsSamples) {
  out("find 1");
  out("find 2");
  out("write 1 1970-01-01T00:00:01Z 20.5");
  out("write 1 1970-01-01T00:00:02.0000001Z -1 0x40000000");
  out("write 2 1970-01-01T00:00:03Z \"a \\\"b\\\"\"");
  EXPECT_EQ(out("read 2,1 0 0"),
            "2 1970-01-01T00:00:03.000Z \"a \\\"b\\\"\" 0x00000000\n"
            "1 1970-01-01T00:00:01.000Z 20.5 0x00000000\n"
            "1 1970-01-01T00:00:02.0000001Z -1 0x40000000\n");
  EXPECT_EQ(lastCall(), "AddRequest 2 1 0 0 0 0");
  EXPECT_EQ(out("read 1 1970-01-01T00:00:02Z 1970-01-02"),
            "1 1970-01-01T00:00:02.0000001Z -1 0x40000000\n");
  EXPECT_EQ(out("read 1 0 1"), "");
}

TEST_F(ArchiveCommandsTest, ReadHandsOverLimitAndInterval) {
  out("find 1");
  out("read 1 5 6 max=10 interval=0.5");
  EXPECT_EQ(lastCall(), "AddRequest 1 5 6 10 500000");
  out("read 1 5 6 max=4294967295");
  EXPECT_EQ(lastCall(), "AddRequest 1 5 6 4294967295 0");
}

TEST_F(ArchiveCommandsTest, EveryReadHasAnIdOfItsOwn) {
  std::vector<std::int64_t> ids;
  source_.onRequest = [&](ArchiveRequest& request) {
    ids.push_back(request.id);
    source_.answer(request);
  };
  out("read 1 0 0");
  out("read 1 0 0");
  EXPECT_EQ(ids, (std::vector<std::int64_t>{1, 2}));
}

TEST_F(ArchiveCommandsTest, ReadWaitsUntilTheAnswerIsThere) {
  out("find 1");
  out("write 1 5 20.5");
  std::thread answering;
  source_.onRequest = [&](ArchiveRequest& request) {
    answering = std::thread([this, &request] { source_.answer(request); });
  };
  EXPECT_EQ(out("read 1 0 0"), "1 1601-01-01T00:00:00.0000005Z 20.5 0x00000000\n");
  answering.join();
}

TEST_F(ArchiveCommandsTest, ReadPrintsWhatThereIsAlsoWhenItFails) {
  out("find 1");
  out("write 1 10000 20.5");
  source_.onRequest = [this](ArchiveRequest& request) {
    request.status = 0x800A0000;
    source_.answer(request);
  };
  const CommandResult result = execute("read 1 0 0");
  EXPECT_EQ(result.out, "1 1601-01-01T00:00:00.001Z 20.5 0x00000000\n");
  EXPECT_EQ(result.error, "read: the answer has the status 0x800A0000 (timed out)");
}

TEST_F(ArchiveCommandsTest, AReadThatIsNotTakenIsNotWaitedFor) {
  source_.failures["AddRequest"] = kNotFound;
  EXPECT_EQ(error("read 1 0 0"), "read: AddRequest returns 0x803E0000 (not found)");
}

TEST_F(ArchiveCommandsTest, WhatASourceThrowsFailsTheCommandOnly) {
  source_.onRequest = [](ArchiveRequest&) { throw std::runtime_error("out of memory"); };
  EXPECT_EQ(error("read 1 0 0"), "read: out of memory");
  source_.onRequest = [](ArchiveRequest&) { throw 1; };
  EXPECT_EQ(error("read 1 0 0"), "read: an exception of an unknown type");
  source_.onRequest = nullptr;
  EXPECT_EQ(out("read 1 0 0"), "");
}

TEST_F(ArchiveCommandsTest, ReadRefusesWhatItDoesNotKnow) {
  EXPECT_EQ(usageError("read"), "read: ITEM is missing");
  EXPECT_EQ(usageError("read 1"), "read: FROM is missing");
  EXPECT_EQ(usageError("read 1 0"), "read: TO is missing");
  EXPECT_EQ(usageError("read 1, 0 0"),
            "read: ITEM: \"\" is no integer from -2147483648 to 2147483647");
  EXPECT_EQ(usageError("read 1 soon 0"), "read: FROM: \"soon\" is no time");
  EXPECT_EQ(usageError("read 1 0 0 max=4294967296"),
            "read: max: \"4294967296\" is no integer from 0 to 4294967295");
  EXPECT_EQ(usageError("read 1 0 0 interval=-1"), "read: interval: a time span is not negative");
  EXPECT_EQ(usageError("read 1 0 0 limit=1"), "read: a read has no \"limit\"");
}

TEST_F(ArchiveCommandsTest, LastPrintsTheNewestTimeOrNone) {
  out("find 1");
  EXPECT_EQ(out("last 1"), "none\n");
  out("write 1 1970-01-01T00:00:01Z 20.5");
  EXPECT_EQ(out("last 1"), "1970-01-01T00:00:01.000Z\n");
  EXPECT_EQ(error("last 2"), "last: GetLastTime returns 0x803E0000 (not found)");
}

TEST_F(ArchiveCommandsTest, SourceChangesWhoIsAsked) {
  EXPECT_EQ(out("source -1"), "");
  out("find 1");
  EXPECT_EQ(second_.calls, (std::vector<std::string>{"FindArchiveItemId 1"}));
  EXPECT_TRUE(source_.calls.empty());
  EXPECT_EQ(usageError("source 5"), "source: there is no source 5");
  out("find 2");
  EXPECT_EQ(second_.calls.size(), 2U) << "the source stays";
}

TEST_F(ArchiveCommandsTest, ArgumentsAreCounted) {
  EXPECT_EQ(usageError("find"), "find: ID is missing");
  EXPECT_EQ(usageError("find 1 2"), "find: too many arguments: \"2\"");
  EXPECT_EQ(usageError("id 1"), "id: NAME is missing");
  EXPECT_EQ(usageError("write 1 2"), "write: VALUE is missing");
  EXPECT_EQ(usageError("write 1 2 3 4 5"), "write: too many arguments: \"5\"");
  EXPECT_EQ(usageError("last 1 2"), "last: too many arguments: \"2\"");
  EXPECT_EQ(usageError("disable-write-by-change 1 true 2"),
            "disable-write-by-change: too many arguments: \"2\"");
  EXPECT_EQ(usageError("help me"), "help: too many arguments: \"me\"");
}

TEST_F(ArchiveCommandsTest, NumbersOutOfRangeAreRefused) {
  EXPECT_EQ(usageError("find 9223372036854775808"),
            "find: ID: \"9223372036854775808\" is no integer from -9223372036854775808 to "
            "9223372036854775807");
  EXPECT_EQ(usageError("last 2147483648"),
            "last: ITEM: \"2147483648\" is no integer from -2147483648 to 2147483647");
  for (const char* status : {"x", "0x", "0x100000000", "4294967296", "-1", "0x1g"}) {
    EXPECT_EQ(usageError(std::string("write 1 2 3 ") + status),
              std::string("write: STATUS: \"") + status + "\" is no status code");
  }
}

TEST_F(ArchiveCommandsTest, HelpNamesEveryCommand) {
  const std::string help = out("help");
  EXPECT_EQ(help, ArchiveCommands::help());
  for (const char* name : {"find ID", "id ID NAME", "write ITEM", "filter ITEM",
                           "disable-write-by-change ITEM", "read ITEM", "last ITEM", "source"}) {
    EXPECT_NE(help.find(std::string("  ") + name), std::string::npos) << name;
  }
}

}  // namespace
}  // namespace orva::host
