#include "share/reply_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "share/reply_buffer.h"

namespace orva {
namespace {

std::string textOf(const FixedOutBuf& buffer) {
  return std::string(buffer.begin, static_cast<std::size_t>(buffer.cur - buffer.begin));
}

// Writes a bit of everything, the same to any writer.
template <class Writer>
void writeEverything(Writer& writer) {
  writer.StartObject();
  writer.Key("integers");
  writer.StartArray();
  for (const int v : {0, 1, -1, 2147483647, -2147483647 - 1}) writer.Int(v);
  for (const unsigned v : {0U, 4294967295U}) writer.Uint(v);
  for (const std::int64_t v : {INT64_MIN, INT64_MAX}) writer.Int64(v);
  writer.Uint64(UINT64_MAX);
  writer.EndArray();
  writer.Key("empty", 5);
  writer.StartObject();
  writer.EndObject();
  writer.Key("text");
  writer.String("a \"quoted\" word");
  writer.Key("more");
  writer.StartArray();
  writer.Double(2.5);
  writer.Bool(true);
  writer.Null();
  writer.StartArray();
  writer.EndArray();
  writer.String(std::string("\x01\x7F\xFF"));
  writer.EndArray();
  writer.EndObject();
}

std::string libraryText() {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writeEverything(writer);
  return buffer.GetString();
}

TEST(ReplyWriterTest, WritesWhatTheLibraryWrites) {
  char memory[1024];
  FixedOutBuf buffer(memory, sizeof memory);
  ReplyWriter writer(buffer);
  writeEverything(writer);
  EXPECT_EQ(textOf(buffer), libraryText());
  EXPECT_EQ(writer.length(), buffer.Length());
  EXPECT_TRUE(writer.IsComplete());
}

TEST(ReplyWriterTest, StringsOfAllBytesAndLengthsAreWrittenAsTheLibraryWritesThem) {
  std::mt19937 random(3);
  std::vector<char> memory(10'000);
  for (int round = 0; round < 2000; ++round) {
    std::string text(random() % 1500, ' ');
    for (char& c : text) {
      c = static_cast<char>(random() % 4 == 0 ? random() % 256 : 'a' + random() % 26);
    }
    rapidjson::StringBuffer expected;
    rapidjson::Writer<rapidjson::StringBuffer> library(expected);
    library.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    FixedOutBuf buffer(memory.data(), static_cast<int>(memory.size()));
    ReplyWriter writer(buffer);
    writer.String(text);
    ASSERT_EQ(textOf(buffer), expected.GetString());
  }
}

TEST(ReplyWriterTest, NumbersThatAreNotFiniteBecomeNull) {
  char memory[64];
  FixedOutBuf buffer(memory, sizeof memory);
  ReplyWriter writer(buffer);
  writer.StartArray();
  EXPECT_TRUE(writer.Double(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_TRUE(writer.Double(std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(writer.Double(-std::numeric_limits<double>::infinity()));
  writer.EndArray();
  EXPECT_EQ(textOf(buffer), "[null,null,null]");
}

TEST(ReplyWriterTest, RawTextIsAValueLikeAnyOther) {
  char memory[64];
  FixedOutBuf buffer(memory, sizeof memory);
  ReplyWriter writer(buffer);
  writer.StartObject();
  writer.Key("a");
  writer.RawText("[1, 2]", 6);
  writer.Key("b");
  writer.RawText("{}", 2);
  writer.EndObject();
  EXPECT_EQ(textOf(buffer), "{\"a\":[1, 2],\"b\":{}}");
}

TEST(ReplyWriterTest, NestsAsDeepAsAnyReply) {
  std::vector<char> memory(10'000);
  FixedOutBuf buffer(memory.data(), static_cast<int>(memory.size()));
  ReplyWriter writer(buffer);
  for (int i = 0; i < 1000; ++i) writer.StartArray();
  for (int i = 0; i < 1000; ++i) writer.EndArray();
  EXPECT_EQ(textOf(buffer), std::string(1000, '[') + std::string(1000, ']'));
}

TEST(FixedOutBufTest, StoresWhatFitsAndNotesTheRest) {
  char memory[4] = {'-', '-', '-', '-'};
  FixedOutBuf buffer(memory, 3);
  for (const char c : {'a', 'b', 'c'}) buffer.Put(c);
  EXPECT_FALSE(buffer.overflow_);
  buffer.Put('d');
  EXPECT_TRUE(buffer.overflow_);
  EXPECT_EQ(buffer.Length(), 3);
  buffer.Flush();
  EXPECT_EQ(std::string(memory, 4), "abc-");
}

TEST(FixedOutBufTest, ABulkWriteDoesWhatSinglePutsDo) {
  const std::string text = "0123456789";
  for (int capacity = -1; capacity <= 12; ++capacity) {
    for (std::size_t first = 0; first <= text.size(); ++first) {
      std::string one(12, '-');
      std::string other(12, '-');
      FixedOutBuf single(&one[0], capacity);
      for (const char c : text) single.Put(c);
      FixedOutBuf bulk(&other[0], capacity);
      bulk.Write(text.data(), first);
      bulk.Write(text.data() + first, text.size() - first);
      EXPECT_EQ(one, other);
      EXPECT_EQ(single.overflow_, bulk.overflow_) << capacity << ' ' << first;
      EXPECT_EQ(single.Length(), bulk.Length());
    }
  }
}

TEST(FixedOutBufTest, NoMemoryIsOverflowAtOnceButNotForNothing) {
  FixedOutBuf buffer(nullptr, 0);
  buffer.Write("", 0);
  EXPECT_FALSE(buffer.overflow_);
  buffer.Write("x", 1);
  EXPECT_TRUE(buffer.overflow_);
  EXPECT_EQ(buffer.Length(), 0);
}

TEST(FixedOutBufTest, AReplyCutAtAnyCapacityIsTheStartOfTheWholeOne) {
  const std::string whole = libraryText();
  for (std::size_t capacity = 0; capacity <= whole.size(); ++capacity) {
    std::string memory(whole.size() + 8, '-');
    FixedOutBuf buffer(&memory[0], static_cast<int>(capacity));
    ReplyWriter writer(buffer);
    writeEverything(writer);
    EXPECT_EQ(textOf(buffer), whole.substr(0, capacity));
    EXPECT_EQ(buffer.overflow_, capacity < whole.size());
    EXPECT_EQ(memory.substr(capacity), std::string(memory.size() - capacity, '-'));
  }
}

TEST(StreamOutBufTest, WritesBehindWhatTheStreamHolds) {
  std::ostringstream stream;
  stream << "head " << std::hex;
  StreamOutBuf buffer(&stream);
  buffer.Put('a');
  buffer.Write("bcd", 3);
  buffer.Flush();
  EXPECT_EQ(buffer.Length(), 9);
  EXPECT_EQ(stream.str(), "head abcd");
}

TEST(StreamOutBufTest, WritesTheSameReply) {
  std::ostringstream stream;
  StreamOutBuf buffer(&stream);
  ReplyWriter writer(buffer);
  writeEverything(writer);
  EXPECT_EQ(stream.str(), libraryText());
}

TEST(StreamOutBufTest, ANullStreamTakesNothing) {
  StreamOutBuf buffer(nullptr);
  buffer.Put('a');
  buffer.Write("bc", 2);
  buffer.Flush();
  EXPECT_EQ(buffer.Length(), -1);
}

}  // namespace
}  // namespace orva
