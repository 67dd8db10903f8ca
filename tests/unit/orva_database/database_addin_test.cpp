#include "orva_database/database_addin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "host/request_dispatch.h"
#include "orva_database/remote_archive_source.h"
#include "orva_host/config_events.h"
#include "orva_host/config_sections.h"
#include "orva_host/lua_state.h"
#include "orva_host/requests.h"
#include "support/archive_fixture.h"
#include "support/trace_capture.h"

namespace orva::database_addin_test {
namespace {

using test::TraceCapture;
using Texts = std::vector<std::string>;

int noCallback(int, const void*, int, void*, int, int*) { return 0; }

class DataBaseAddinTest : public test::ArchiveFixture {
 protected:
  DataBaseAddinTest() {
    host::forgetRequestProcessors();
    host::setConfigSection("DataArchive", kOneArchive);
  }
  ~DataBaseAddinTest() override {
    host::refuseRequestProcessors(REQUEST_JSON_STREAM, false);
    host::refuseRequestProcessors(REQUEST_JSON, false);
    host::forgetRequestProcessors();
  }

  static DataBaseAddin& addin() { return DataBaseAddin::GetInstance(); }
  static int event(int mode) { return addin().OnConfigEvent(mode, nullptr); }

  static bool servesStream() {
    std::string reply;
    return host::dispatchToStream(kListItems, reply) == status::kGood;
  }
  static bool servesBuffer() {
    std::string reply(1000, '\0');
    int length = 0;
    return host::dispatchToBuffer(kListItems, reply.data(), 1000, length) == status::kGood;
  }

  static constexpr const char* kOneArchive =
      R"({"archives":[{"limits":{},"filter":{},"connection":{"providerType":"scripted"}}]})";
  static constexpr const char* kListItems = "/Methods/GetArchiveItems\ntest\n{}";
};

TEST_F(DataBaseAddinTest, ThereIsOneAddin) {
  EXPECT_EQ(&DataBaseAddin::GetInstance(), &DataBaseAddin::GetInstance());
}

TEST_F(DataBaseAddinTest, ArchiveInitDoesNothing) {
  EXPECT_EQ(archive::Init(nullptr), 0);
  EXPECT_EQ(archive::Init(noCallback), 0);
  EXPECT_FALSE(servesStream());
}

TEST_F(DataBaseAddinTest, InitRegistersBothHandlersAndAsksForEveryEvent) {
  EXPECT_EQ(addin().Init(noCallback), 0);
  EXPECT_TRUE(servesStream());
  EXPECT_TRUE(servesBuffer());
  host::deliverConfigEvent(2);
  EXPECT_EQ(factory.count(), 1U);
  host::deliverConfigEvent(9);
  EXPECT_EQ(archive().calls().back(), "stop");
  host::deliverConfigEvent(8);
  EXPECT_EQ(factory.count(), 2U);
}

TEST_F(DataBaseAddinTest, InitUsesNoCallback) { EXPECT_EQ(addin().Init(nullptr), 0); }

TEST_F(DataBaseAddinTest, FailedStreamRegistrationIsTracedTwiceAndEndsInit) {
  host::refuseRequestProcessors(REQUEST_JSON_STREAM, true);
  TraceCapture traces;
  EXPECT_EQ(static_cast<StatusCode>(addin().Init(noCallback)), status::kBadNotSupported);
  EXPECT_EQ(traces.texts(),
            Texts({"<--ReturnError: RegisterRequestProcessor(REQUEST_JSON_STREAM, "
                   "ProcessJSONRequestStream, this, NULL) returns 0x80750000\n",
                   "<--ReturnError: request_processor->Init() returns 0x80750000\n"}));
  for (const auto& line : traces.lines()) EXPECT_EQ(line.level, kTraceError);
  EXPECT_FALSE(servesBuffer());
}

TEST_F(DataBaseAddinTest, FailedBufferRegistrationIsTracedTwiceAndLeavesTheStream) {
  host::refuseRequestProcessors(REQUEST_JSON, true);
  TraceCapture traces;
  EXPECT_EQ(static_cast<StatusCode>(addin().Init(noCallback)), status::kBadNotSupported);
  EXPECT_EQ(traces.texts(),
            Texts({"<--ReturnError: RegisterRequestProcessor(REQUEST_JSON, ProcessJSONRequest, "
                   "this, NULL) returns 0x80750000\n",
                   "<--ReturnError: request_processor->Init() returns 0x80750000\n"}));
  EXPECT_TRUE(servesStream());
}

// One processor runs one method at a time, so a second one would show.
TEST_F(DataBaseAddinTest, SecondInitKeepsTheRequestProcessor) {
  clock.setAutoAdvance(false);
  ASSERT_EQ(addin().Init(noCallback), 0);
  event(2);
  const std::string readItem = "/Methods/HistoryReadRaw\ntest\n{\"data\":[{\"archiveItemId\":" +
                               std::to_string(makeItem(1)) + "}]}";
  archive().setScript({test::When::held});
  std::thread reader([&readItem] {
    std::string reply;
    EXPECT_EQ(host::dispatchToStream(readItem, reply), status::kGood);
  });
  ASSERT_TRUE(archive().waitForHeld(1));
  host::forgetRequestProcessors();
  ASSERT_EQ(addin().Init(noCallback), 0);
  std::atomic<bool> served{false};
  std::thread other([&served] { served = servesStream(); });
  for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
  EXPECT_FALSE(served);
  archive().releaseAll();
  reader.join();
  other.join();
  EXPECT_TRUE(served);
}

TEST_F(DataBaseAddinTest, EventTwoStartsTheArchives) {
  EXPECT_EQ(event(2), 0);
  ASSERT_EQ(factory.count(), 1U);
  EXPECT_EQ(archive().calls(), Texts({"loadFilter", "start"}));
}

TEST_F(DataBaseAddinTest, EventEightLeavesRunningArchivesAsTheyAre) {
  event(2);
  const std::int64_t cacheId = makeItem(1);
  EXPECT_EQ(event(8), 0);
  EXPECT_EQ(factory.count(), 1U);
  EXPECT_EQ(archive().calls(), Texts({"loadFilter", "start"}));
  EXPECT_EQ(manager().getCacheId(1, "Plant/Load"), cacheId);
}

TEST_F(DataBaseAddinTest, EventEightStartsArchivesWhenThereAreNone) {
  EXPECT_EQ(event(8), 0);
  EXPECT_EQ(factory.count(), 1U);
}

TEST_F(DataBaseAddinTest, EventNineEndsTheArchivesAndEventTwoStartsThemAnew) {
  event(2);
  makeItem(1);
  EXPECT_EQ(event(9), 0);
  EXPECT_EQ(archive(0).calls().back(), "stop");
  EXPECT_TRUE(manager().cachedItems().empty());
  EXPECT_EQ(event(2), 0);
  EXPECT_EQ(factory.count(), 2U);
}

TEST_F(DataBaseAddinTest, OtherEventsChangeNoArchive) {
  for (const int mode : {0, 1, 3, 4, 5, 6, 10, 1000, -1}) {
    EXPECT_EQ(event(mode), 0) << mode;
    EXPECT_EQ(factory.count(), 0U) << mode;
  }
  event(2);
  for (const int mode : {0, 1, 3, 4, 5, 6, 10, 1000, -1}) {
    EXPECT_EQ(event(mode), 0) << mode;
    EXPECT_EQ(archive().calls(), Texts({"loadFilter", "start"})) << mode;
  }
}

TEST_F(DataBaseAddinTest, Event3ConfiguresTheRemoteSource) {
  host::setConfigSection("RemoteData", R"({"requestPeriod":5,"items":[{"controllerIndex":2}]})");
  EXPECT_EQ(event(3), 0);
  EXPECT_EQ(archive::RemoteArchiveSource::Instance()->requestPeriod(), 5);
  EXPECT_EQ(archive::RemoteArchiveSource::Instance()->controllers().count(2), 1U);
  host::setConfigSection("RemoteData", "not JSON");
  EXPECT_EQ(event(3), 0);
  EXPECT_TRUE(archive::RemoteArchiveSource::Instance()->controllers().empty());
}

TEST_F(DataBaseAddinTest, Event8StopsTheRemoteSourceThatEvent7StartedAndStartsTheArchives) {
  clock.setAutoAdvance(false);
  const int before = clock.waiting();
  EXPECT_EQ(event(7), 0);
  while (clock.waiting() == before) std::this_thread::yield();
  EXPECT_EQ(event(8), 0);
  EXPECT_EQ(clock.waiting(), before);
  EXPECT_EQ(factory.count(), 1U);
}

TEST_F(DataBaseAddinTest, EventsAnswerZeroWhateverTheManagerDoes) {
  host::setConfigSection("DataArchive", "not JSON");
  TraceCapture traces;
  EXPECT_EQ(event(2), 0);
  EXPECT_EQ(event(8), 0);
  EXPECT_EQ(event(9), 0);
}

TEST_F(DataBaseAddinTest, AddinRegistersItsLuaLibrary) {
  addin();
  host::LuaState lua;
  std::string error;
  ASSERT_TRUE(lua.open(error)) << error;
  EXPECT_TRUE(lua.run("assert(ArchiveProc)", "test", error)) << error;
}

}  // namespace
}  // namespace orva::database_addin_test
