#include "orva_sqlite/segment_codec.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "orva_sqlite/crc32c.h"
#include "share/ticks.h"
#include "unit/orva_sqlite/samples.h"

namespace orva::sqlite {
namespace {

using namespace orva::sqlite::test;

constexpr std::int64_t kNow = 133'485'408'000'000'000;

Columns columnsOf(const std::vector<PinPtr>& pins) {
  Columns columns;
  for (const PinPtr& pin : pins) columns.add(*pin);
  return columns;
}

Bytes encoded(const std::vector<PinPtr>& pins) {
  static SegmentEncoder encoder;
  return encoder.encode(columnsOf(pins), 0, pins.size());
}

// Encodes, decodes and compares each sample bit for bit; returns the encoded size.
std::size_t roundTrip(const std::vector<PinPtr>& pins) {
  static SegmentDecoder decoder;
  const Bytes bytes = encoded(pins);
  Columns back;
  EXPECT_EQ(decoder.decode(bytes.data(), bytes.size(), back), Decoded::kGood);
  EXPECT_EQ(back.size(), pins.size());
  for (std::size_t i = 0; i < std::min(back.size(), pins.size()); ++i) {
    EXPECT_TRUE(sameSample(*back.pin(i), *pins[i]))
        << "at " << i << ": " << describe(*back.pin(i)) << " is not " << describe(*pins[i]);
    if (::testing::Test::HasFailure()) break;
  }
  return bytes.size();
}

std::vector<PinPtr> everySecond(const std::vector<OpcUa_VariantHlp>& values) {
  std::vector<PinPtr> pins;
  for (std::size_t i = 0; i < values.size(); ++i) {
    pins.push_back(makePin(kNow + static_cast<std::int64_t>(i) * kTicksPerSecond, values[i]));
  }
  return pins;
}

TEST(Crc32cTest, GivesThePublishedCheckValue) {
  EXPECT_EQ(crc32c(0, "123456789", 9), 0xE3069283U);
  EXPECT_EQ(crc32c(crc32c(0, "1234", 4), "56789", 5), 0xE3069283U);
}

TEST(ByteStreamTest, VarintsKeepTheirValuesAtTheEdges) {
  const std::uint64_t values[] = {0, 1, 127, 128, 16383, 16384, 1ULL << 63, UINT64_MAX};
  for (const std::uint64_t value : values) {
    Bytes bytes;
    ByteWriter(bytes).varint(value);
    EXPECT_EQ(bytes.size(), varintSize(value));
    ByteReader in(bytes.data(), bytes.size());
    EXPECT_EQ(in.varint(), value);
    EXPECT_FALSE(in.failed());
    EXPECT_EQ(fromZigzag(toZigzag(static_cast<std::int64_t>(value))),
              static_cast<std::int64_t>(value));
  }
}

TEST(ByteStreamTest, AVarintOfMoreThan64BitsFails) {
  const Bytes bytes(11, 0xFF);
  ByteReader in(bytes.data(), bytes.size());
  in.varint();
  EXPECT_TRUE(in.failed());
}

TEST(IntegerColumnTest, AnyNumbersComeBackWhateverTheirSize) {
  std::mt19937_64 random(4711);
  IntegerEncoder encoder;
  for (int round = 0; round < 3000; ++round) {
    const std::size_t count = below(random, 400);
    const unsigned width = static_cast<unsigned>(random() % 65);
    const int rareWidth = static_cast<int>(random() % 65);
    std::vector<std::int64_t> values(count);
    std::int64_t walk = static_cast<std::int64_t>(random());
    for (auto& value : values) {
      const unsigned bits = random() % 50 == 0 ? static_cast<unsigned>(rareWidth) : width;
      const std::uint64_t raw = bits == 0 ? 0 : random() >> (64 - bits);
      walk = static_cast<std::int64_t>(static_cast<std::uint64_t>(walk) + raw);
      value = round % 3 == 0 ? walk : static_cast<std::int64_t>(raw) * (round % 2 == 0 ? 1 : -1);
    }
    const auto orders = static_cast<Orders>(random() % 3);
    Bytes bytes;
    ByteWriter out(bytes);
    encoder.put(out, values.data(), count, orders);
    std::vector<std::int64_t> back(count);
    ByteReader in(bytes.data(), bytes.size());
    getIntegers(in, back.data(), count);
    ASSERT_FALSE(in.failed()) << "round " << round;
    ASSERT_EQ(in.left(), 0U);
    ASSERT_EQ(back, values) << "round " << round;
  }
}

TEST(IntegerColumnTest, ARegularSeriesTakesAFewBytes) {
  std::vector<std::int64_t> times(1000);
  for (std::size_t i = 0; i < times.size(); ++i) {
    times[i] = kNow + static_cast<std::int64_t>(i) * kTicksPerSecond;
  }
  Bytes bytes;
  ByteWriter out(bytes);
  IntegerEncoder().put(out, times.data(), times.size(), Orders::kToSecond);
  EXPECT_LE(bytes.size(), 48U);
}

TEST(SegmentCodecTest, EveryTypeKeepsItsExtremes) {
  std::vector<PinPtr> all;
  for (const OpcUa_VariantHlp& value : extremeValues()) {
    const std::vector<PinPtr> one = everySecond({value});
    roundTrip(one);
    all.push_back(makePin(kNow + static_cast<std::int64_t>(all.size()), value, 0x80000000U));
  }
  roundTrip(all);
}

TEST(SegmentCodecTest, EveryTypeKeepsItsExtremesInAColumnOfItsOwn) {
  std::map<int, std::vector<OpcUa_VariantHlp>> byType;
  for (const OpcUa_VariantHlp& value : extremeValues()) byType[value.GetType()].push_back(value);
  EXPECT_EQ(byType.size(), 15U);
  for (const auto& [type, values] : byType) {
    SCOPED_TRACE(type);
    roundTrip(everySecond(values));
  }
}

TEST(SegmentCodecTest, NumbersThatAreNoDecimalsMayStandBetweenDecimals) {
  std::vector<OpcUa_VariantHlp> values;
  for (int i = 0; i < 1000; ++i) {
    if (i % 100 == 7) {
      values.push_back(realValue(i % 200 == 7 ? std::nan("") : -0.0));
    } else {
      values.push_back(realValue(20.0 + (i % 37) / 100.0));
    }
  }
  EXPECT_LE(roundTrip(everySecond(values)), 1000U);
}

TEST(SegmentCodecTest, ASineOfTwoDecimalsTakesAboutAByteASample) {
  std::mt19937 random(1);
  std::uniform_real_distribution<double> noise(-0.1, 0.1);
  std::vector<OpcUa_VariantHlp> values;
  for (int i = 0; i < 1000; ++i) {
    const double v = std::sin(i * 2 * M_PI / 3600) + noise(random);
    values.push_back(realValue(std::round(v * 100) / 100));
  }
  const std::size_t size = roundTrip(everySecond(values));
  EXPECT_LE(size, 1000U) << "bytes for 1000 samples";
}

TEST(SegmentCodecTest, ConstantValuesTakeAlmostNothing) {
  EXPECT_LE(roundTrip(everySecond(std::vector<OpcUa_VariantHlp>(1000, realValue(3.14159265358)))),
            120U);
  EXPECT_LE(roundTrip(everySecond(std::vector<OpcUa_VariantHlp>(1000, textValue("running")))),
            120U);
}

TEST(SegmentCodecTest, TimesMayBeAnyAscendingTicks) {
  const std::int64_t lowest = std::numeric_limits<std::int64_t>::min();
  const std::int64_t highest = std::numeric_limits<std::int64_t>::max();
  std::vector<PinPtr> pins;
  for (const std::int64_t time : {lowest, lowest, lowest + 1, std::int64_t{-1}, std::int64_t{0},
                                  std::int64_t{0}, std::int64_t{1}, highest - 1, highest}) {
    pins.push_back(makePin(time, realValue(1)));
  }
  roundTrip(pins);
}

class RandomSegmentTest : public ::testing::TestWithParam<int> {};

TEST_P(RandomSegmentTest, ComesBackBitForBit) {
  std::mt19937_64 random(static_cast<std::uint64_t>(GetParam()));
  for (int round = 0; round < 60 && !HasFailure(); ++round) {
    roundTrip(randomSamples(random, kNow, 1 + below(random, 1500)));
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomSegmentTest, ::testing::Range(1, 9));

TEST(SegmentCodecTest, AnEmptySegmentIsDamage) {
  Columns out;
  SegmentDecoder decoder;
  EXPECT_EQ(decoder.decode("", 0, out), Decoded::kDamaged);
  EXPECT_EQ(decoder.decode("\x01\x00\x00\x00", 4, out), Decoded::kDamaged);
}

TEST(SegmentCodecTest, EachFlippedBitIsNoticed) {
  std::mt19937_64 random(5);
  const Bytes good = encoded(randomSamples(random, kNow, 40));
  SegmentDecoder decoder;
  for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
    Bytes bad = good;
    bad[bit / 8] = static_cast<std::uint8_t>(bad[bit / 8] ^ (1U << (bit % 8)));
    Columns out;
    ASSERT_NE(decoder.decode(bad.data(), bad.size(), out), Decoded::kGood) << "bit " << bit;
    ASSERT_TRUE(out.empty());
  }
}

TEST(SegmentCodecTest, EachCutIsNoticed) {
  std::mt19937_64 random(6);
  const Bytes good = encoded(randomSamples(random, kNow, 60));
  SegmentDecoder decoder;
  for (std::size_t size = 0; size < good.size(); ++size) {
    // A copy of just this size, so that a read beyond it is seen by a sanitizer.
    const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    Columns out;
    ASSERT_NE(decoder.decode(cut.data(), cut.size(), out), Decoded::kGood) << "size " << size;
  }
}

TEST(SegmentCodecTest, ALaterVersionIsToldFromDamage) {
  Bytes bytes = encoded(everySecond({realValue(1)}));
  bytes[0] = kSegmentVersion + 1;
  const std::uint32_t sum = crc32c(crc32c(0, bytes.data(), 1), bytes.data() + 5, bytes.size() - 5);
  std::memcpy(bytes.data() + 1, &sum, sizeof sum);
  Columns out;
  EXPECT_EQ(SegmentDecoder().decode(bytes.data(), bytes.size(), out), Decoded::kUnknownVersion);
}

// With the checksum made right again, the fields themselves are attacked.
TEST(SegmentCodecTest, WrongFieldsUnderARightChecksumDoNoHarm) {
  std::mt19937_64 random(7);
  SegmentDecoder decoder;
  std::size_t refused = 0;
  for (int round = 0; round < 6000; ++round) {
    Bytes bytes = encoded(randomSamples(random, kNow, 1 + below(random, 200)));
    for (std::uint64_t change = 0; change < 1 + random() % 4; ++change) {
      bytes[5 + below(random, bytes.size() - 5)] = static_cast<std::uint8_t>(random());
    }
    if (random() % 4 == 0) bytes.resize(5 + below(random, bytes.size() - 5));
    const std::uint32_t sum =
        crc32c(crc32c(0, bytes.data(), 1), bytes.data() + 5, bytes.size() - 5);
    std::memcpy(bytes.data() + 1, &sum, sizeof sum);
    Columns out;
    if (decoder.decode(bytes.data(), bytes.size(), out) != Decoded::kGood) {
      ++refused;
      EXPECT_TRUE(out.empty());
    } else {
      for (std::size_t i = 0; i < out.size(); ++i) out.pin(i);
    }
  }
  EXPECT_GT(refused, 1000U);
}

TEST(ColumnsTest, SortingKeepsEqualTimesInTheOrderOfArrival) {
  Columns columns;
  for (const auto& [time, value] :
       std::vector<std::pair<int, int>>{{5, 1}, {3, 2}, {5, 3}, {1, 4}, {3, 5}}) {
    columns.add(*makePin(time, realValue(value)));
  }
  columns.sortByTime();
  std::vector<double> order;
  for (std::size_t i = 0; i < columns.size(); ++i) {
    order.push_back(columns.pin(i)->value.Get().Value.Double);
  }
  EXPECT_EQ(order, (std::vector<double>{4, 2, 5, 1, 3}));
}

TEST(ColumnsTest, SortingMovesAllThatBelongsToASample) {
  const std::vector<PinPtr> sorted = {makePin(1, realValue(7), 0x80000000),
                                      makePin(2, textValue("two")),
                                      makePin(3, realValue(9), 0x40000000)};
  Columns columns = columnsOf({sorted[2], sorted[0], sorted[1]});
  columns.sortByTime();
  for (std::size_t i = 0; i < sorted.size(); ++i) {
    EXPECT_TRUE(sameSample(*columns.pin(i), *sorted[i])) << describe(*columns.pin(i));
  }
}

TEST(ColumnsTest, SegmentsAreCutAtAThousandSamplesOrAtMuchText) {
  Columns columns;
  for (int i = 0; i < 2500; ++i) columns.add(*makePin(i, realValue(i)));
  EXPECT_EQ(columns.segmentEnd(0), 1000U);
  EXPECT_EQ(columns.segmentEnd(2000), 2500U);

  const std::string text(100'000, 'x');
  const OpcUa_VariantHlp value = textValue(text);
  Columns texts;
  std::vector<PinPtr> pins;
  for (int i = 0; i < 6; ++i) pins.push_back(makePin(i, value));
  for (const PinPtr& pin : pins) texts.add(*pin);
  EXPECT_EQ(texts.segmentEnd(0), 2U);
  EXPECT_EQ(texts.segmentEnd(5), 6U);
}

TEST(ColumnsTest, OnlyScalarsOfTheKeptTypesAreStorable) {
  for (const OpcUa_VariantHlp& value : extremeValues()) EXPECT_TRUE(isStorable(value));
  OpcUa_VariantHlp array;
  const OpcUa_VariantHlp element = realValue(1);
  array.SetArray(OpcUaType_Double, &element, 1);
  EXPECT_FALSE(isStorable(array));
  for (const int type : {14, 15, 16, 17, 18, 19, 20, 21, 22, 24, 25}) {
    OpcUa_VariantHlp value;
    value.SetBytes(static_cast<OpcUa_BuiltInType>(type), "x", 1);
    EXPECT_FALSE(isStorable(value)) << type;
  }
  OpcUa_VariantHlp wrapped;
  wrapped.SetDataValue(realValue(1), 0, 0);
  EXPECT_FALSE(isStorable(wrapped));
  EXPECT_FALSE(isStorable(textValue(std::string(kMaxText + 1, 'x'))));
  EXPECT_TRUE(isStorable(textValue(std::string(kMaxText, 'x'))));
}

}  // namespace
}  // namespace orva::sqlite
