#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orva_cli/status_text.h"
#include "share/json.h"

namespace orva::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kMetrics = R"(# HELP orva_host_uptime_seconds time
orva_host_build_info{version="0.1.0"} 1
orva_host_uptime_seconds 7200
orva_host_resident_bytes 13500000
orva_cache_items 2
orva_cache_blocks{queue="first_in"} 20
orva_cache_blocks{queue="main"} 7
orva_cache_capacity_blocks 1638
orva_cache_hits_total 3
orva_cache_misses_total 1
orva_samples_accepted_total{rule="first"} 2
orva_samples_accepted_total{rule="all_values"} 40
orva_samples_refused_total{rule="old_time"} 5
orva_reads_total 9
orva_sqlite_written_samples_total{archive="store"} 40
orva_sqlite_buffered_samples{archive="store"} 2
orva_sqlite_file_bytes{archive="store"} 2500000
orva_sqlite_dropped_samples_total{archive="store"} 0
orva_sqlite_written_samples_total{archive="bad \"one\""} 1
orva_sqlite_dropped_samples_total{archive="bad \"one\""} 3
orva_sqlite_failures_total{archive="bad \"one\""} 4
nonsense
)";

TEST(StatusTextTest, TheFiguresStandInWords) {
  const std::string text = statusText(hostStatus(readMetrics(kMetrics)), "http://station:1");
  EXPECT_THAT(text, HasSubstr("host      http://station:1, version 0.1.0, up for 2.0 h, 13.5 MB"));
  EXPECT_THAT(text, HasSubstr("cache     2 items, 27 of 1638 blocks, 75.0 %"));
  EXPECT_THAT(text, HasSubstr("accepted  42 new values: 40 all values, 2 first\n"));
  EXPECT_THAT(text, HasSubstr("refused   5 new values: 5 old time\n"));
  EXPECT_THAT(text, HasSubstr("archive   store: 40 values written, 2 waiting, 2.5 MB\n"));
}

TEST(StatusTextTest, LossesAreNamedOfTheArchiveThatHasThem) {
  const std::string text = statusText(hostStatus(readMetrics(kMetrics)), "http://station:1");
  const std::size_t bad = text.find("archive   bad \"one\": 1 values written");
  const std::size_t store = text.find("archive   store");
  ASSERT_LT(bad, store) << text;
  EXPECT_THAT(text.substr(bad, store - bad), HasSubstr("!       3 values lost"));
  EXPECT_THAT(text.substr(bad, store - bad), HasSubstr("!       4 writes failed"));
  EXPECT_THAT(text.substr(store), Not(HasSubstr("!")));
}

TEST(StatusTextTest, TheJsonHasTheFiguresAsTheyAre) {
  json::Document status;
  status.Parse(statusJson(hostStatus(readMetrics(kMetrics)), "http://station:1"));
  json::Document expected;
  expected.Parse(R"({"host": "http://station:1", "version": "0.1.0", "uptimeSeconds": 7200,
    "residentBytes": 13500000,
    "cache": {"items": 2, "blocks": 27, "capacityBlocks": 1638, "hits": 3, "misses": 1},
    "accepted": {"all_values": 40, "first": 2}, "refused": {"old_time": 5},
    "reads": {"served": 9, "waiting": 0, "givenUp": 0},
    "archives": [
      {"name": "bad \"one\"", "writtenSamples": 1, "bufferedSamples": 0, "fileBytes": 0,
       "failures": 4, "droppedSamples": 3, "damagedSegments": 0},
      {"name": "store", "writtenSamples": 40, "bufferedSamples": 2, "fileBytes": 2500000,
       "failures": 0, "droppedSamples": 0, "damagedSegments": 0}]})");
  ASSERT_FALSE(expected.HasParseError());
  EXPECT_EQ(status, expected);
}

}  // namespace
}  // namespace orva::cli
