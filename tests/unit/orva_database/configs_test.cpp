#include <gtest/gtest.h>

#include <string>

#include "share/archive_configs.h"
#include "support/trace_capture.h"

namespace orva::archive::configs_test {
namespace {

json::Document parsed(const std::string& source) {
  json::Document document;
  document.Parse(source.c_str());
  EXPECT_FALSE(document.HasParseError()) << source;
  return document;
}

ArchiveCfg limits(const std::string& source) {
  const json::Document document = parsed(source);
  return ArchiveCfg(document);
}

ConnectionCfg connection(const std::string& source, Type type = kDataArchive) {
  const json::Document document = parsed(source);
  return ConnectionCfg(document, type);
}

void expectDefaults(const ArchiveCfg& cfg, const std::string& what) {
  EXPECT_EQ(cfg.writeBufferSize, 10000U) << what;
  EXPECT_EQ(cfg.maxSize, 0U) << what;
  EXPECT_EQ(cfg.reserved, 0U) << what;
  EXPECT_EQ(cfg.maxWriteValues, 10000U) << what;
  EXPECT_EQ(cfg.maxDelValues, 100000U) << what;
  EXPECT_EQ(cfg.maxTime, 0) << what;
  EXPECT_EQ(cfg.writePeriod, 5'000'000) << what;
  EXPECT_EQ(cfg.cleanupPeriod, 0) << what;
}

void expectDefaults(const ConnectionCfg& cfg, const std::string& what) {
  EXPECT_EQ(cfg.location, "") << what;
  EXPECT_EQ(cfg.user, "") << what;
  EXPECT_EQ(cfg.pass, "") << what;
  EXPECT_EQ(cfg.host, "") << what;
  EXPECT_EQ(cfg.port, 0) << what;
  EXPECT_EQ(cfg.providerType, "") << what;
  EXPECT_EQ(cfg.parameters, "") << what;
  EXPECT_EQ(cfg.reconnectTimeout, 10'000'000) << what;
  EXPECT_EQ(cfg.connectionsCount, 0) << what;
}

const char* const kNoObjects[] = {"null", "5", "true", "\"text\"", "[]", R"([{"port":1}])"};
// Of a form that no numeric field accepts.
const char* const kNoIntegers[] = {"null", "true", "5.5", "[]", "{}", "[1]"};

TEST(ArchiveCfgTest, EverythingHasADefault) {
  expectDefaults(ArchiveCfg(), "no value at all");
  expectDefaults(limits("{}"), "empty object");
}

TEST(ArchiveCfgTest, ValueThatIsNoObjectGivesTheDefaultsAndIsTracedOnce) {
  for (const char* source : kNoObjects) {
    test::TraceCapture traces;
    expectDefaults(limits(source), source);
    EXPECT_EQ(traces.texts(), std::vector<std::string>{"<--Assert IsObject() failed\n"}) << source;
  }
}

TEST(ArchiveCfgTest, ReadsEveryKey) {
  const ArchiveCfg cfg =
      limits(R"({"writeBufferSize":1,"maxSize":2,"maxWriteValues":3,"maxDelValues":4294967295,)"
             R"("maxTime":5000000000,"writePeriod":6000000000,"cleanupPeriod":7000000000,)"
             R"("reserved":8})");
  EXPECT_EQ(cfg.writeBufferSize, 1U);
  EXPECT_EQ(cfg.maxSize, 2U);
  EXPECT_EQ(cfg.maxWriteValues, 3U);
  EXPECT_EQ(cfg.maxDelValues, 4294967295U);
  EXPECT_EQ(cfg.maxTime, 5'000'000'000);
  EXPECT_EQ(cfg.writePeriod, 6'000'000'000);
  EXPECT_EQ(cfg.cleanupPeriod, 7'000'000'000);
  EXPECT_EQ(cfg.reserved, 0U);
}

TEST(ArchiveCfgTest, NamesAreCaseSensitive) {
  expectDefaults(limits(R"({"MaxSize":5,"writebuffersize":6})"), "other case");
}

TEST(ArchiveCfgTest, TimesMayBeDecimalText) {
  const ArchiveCfg cfg =
      limits(R"({"maxTime":"-12x","writePeriod":"2000000","cleanupPeriod":" +9000000000 h"})");
  EXPECT_EQ(cfg.maxTime, -12);
  EXPECT_EQ(cfg.writePeriod, 2'000'000);
  EXPECT_EQ(cfg.cleanupPeriod, 9'000'000'000);
  EXPECT_EQ(limits(R"({"writePeriod":"soon"})").writePeriod, 0);
}

TEST(ArchiveCfgTest, WrongFormGivesZeroOrTheDefaultFieldByField) {
  for (const std::string value : kNoIntegers) {
    expectDefaults(limits(R"({"writeBufferSize":)" + value + "}"), value);
    expectDefaults(limits(R"({"maxSize":)" + value + "}"), value);
    expectDefaults(limits(R"({"maxWriteValues":)" + value + "}"), value);
    expectDefaults(limits(R"({"maxDelValues":)" + value + "}"), value);
    expectDefaults(limits(R"({"maxTime":)" + value + "}"), value);
    expectDefaults(limits(R"({"writePeriod":)" + value + "}"), value);
    expectDefaults(limits(R"({"cleanupPeriod":)" + value + "}"), value);
  }
}

TEST(ArchiveCfgTest, UnsignedFieldsAcceptNoTextNoNegativeAndNothingBeyond32Bits) {
  for (const std::string value : {"-1", "\"5\"", "4294967296"}) {
    expectDefaults(limits(R"({"writeBufferSize":)" + value + R"(,"maxSize":)" + value +
                          R"(,"maxWriteValues":)" + value + R"(,"maxDelValues":)" + value + "}"),
                   value);
  }
}

TEST(ConnectionCfgTest, EverythingHasADefault) {
  expectDefaults(ConnectionCfg(), "no value at all");
  expectDefaults(connection("{}"), "empty object");
  EXPECT_EQ(ConnectionCfg().type, kDataArchive);
}

TEST(ConnectionCfgTest, ValueThatIsNoObjectGivesTheDefaultsAndIsTracedOnce) {
  for (const char* source : kNoObjects) {
    test::TraceCapture traces;
    expectDefaults(connection(source), source);
    EXPECT_EQ(traces.texts(), std::vector<std::string>{"<--Assert IsObject() failed\n"}) << source;
  }
}

TEST(ConnectionCfgTest, KeepsTheTypeItIsGiven) {
  EXPECT_EQ(connection("{}", kEventsArchive).type, kEventsArchive);
  EXPECT_EQ(connection(R"({"type":1})").type, kDataArchive);
  EXPECT_EQ(connection("null", kEventsArchive).type, kEventsArchive);
}

TEST(ConnectionCfgTest, ReadsEveryKey) {
  const ConnectionCfg cfg = connection(
      R"({"location":"data/raw","user":"u","pass":"p","host":"h","port":-5,)"
      R"("providerType":"sqlite","parameters":"a\u0000b","reconnectTimeout":20000000000,)"
      R"("connectionsCount":3})");
  EXPECT_EQ(cfg.location, "data/raw");
  EXPECT_EQ(cfg.user, "u");
  EXPECT_EQ(cfg.pass, "p");
  EXPECT_EQ(cfg.host, "h");
  EXPECT_EQ(cfg.port, -5);
  EXPECT_EQ(cfg.providerType, "sqlite");
  EXPECT_EQ(cfg.parameters, std::string("a\0b", 3));
  EXPECT_EQ(cfg.reconnectTimeout, 20'000'000'000);
  EXPECT_EQ(cfg.connectionsCount, 3);
}

TEST(ConnectionCfgTest, ReconnectTimeoutMayBeDecimalText) {
  EXPECT_EQ(connection(R"({"reconnectTimeout":"15 s"})").reconnectTimeout, 15);
}

TEST(ConnectionCfgTest, WrongFormGivesEmptyTextZeroOrTheDefaultTimeout) {
  for (const std::string value : kNoIntegers) {
    expectDefaults(
        connection(R"({"location":)" + value + R"(,"user":)" + value + R"(,"pass":)" + value +
                   R"(,"host":)" + value + R"(,"port":)" + value + R"(,"providerType":)" + value +
                   R"(,"parameters":)" + value + R"(,"reconnectTimeout":)" + value +
                   R"(,"connectionsCount":)" + value + "}"),
        value);
  }
}

TEST(ConnectionCfgTest, SmallIntegersAcceptNoTextAndNothingBeyond32Bits) {
  for (const std::string value : {"\"502\"", "2147483648", "-2147483649"}) {
    const ConnectionCfg cfg =
        connection(R"({"port":)" + value + R"(,"connectionsCount":)" + value + "}");
    EXPECT_EQ(cfg.port, 0) << value;
    EXPECT_EQ(cfg.connectionsCount, 0) << value;
  }
}

TEST(ConnectionCfgTest, CopiesOwnTheirText) {
  ConnectionCfg copy;
  {
    const json::Document document = parsed(R"({"location":"here"})");
    const ConnectionCfg cfg(document, kEventsArchive);
    copy = cfg;
  }
  EXPECT_EQ(copy.location, "here");
  EXPECT_EQ(copy.type, kEventsArchive);
}

}  // namespace
}  // namespace orva::archive::configs_test
