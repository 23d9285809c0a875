#include "sdk/media_stream_writer/annexb.h"

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

namespace tarnel {
namespace media_stream_writer {
namespace {

using Bytes = std::vector<uint8_t>;
using Units = std::vector<std::pair<size_t, size_t>>;  // Offset and size of each unit.

// The units found the slow, obvious way: every 00 00 01 starts a unit, which runs to
// the next one less that start code's zeros and its own trailing zeros.
Units ReferenceSplit(const Bytes& data) {
  std::vector<size_t> starts;  // First byte after each 00 00 01.
  for (size_t i = 2; i < data.size(); ++i) {
    if (data[i] == 1 && data[i - 1] == 0 && data[i - 2] == 0) starts.push_back(i + 1);
  }
  Units units;
  for (size_t k = 0; k < starts.size(); ++k) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : data.size();
    while (end > starts[k] && data[end - 1] == 0) --end;
    if (end > starts[k]) units.emplace_back(starts[k], end - starts[k]);
  }
  return units;
}

Units Split(const Bytes& data) {
  Units units;
  for (const NalUnitView& unit : SplitAnnexB(data.empty() ? nullptr : data.data(), data.size())) {
    units.emplace_back(static_cast<size_t>(unit.data - data.data()), unit.size);
  }
  return units;
}

// Inputs at the edges of the search, with the units worked out by hand, then random
// streams dense in 00 and 01 bytes against the byte-by-byte scan.
TEST(AnnexBTest, SplitsAtEveryStartCodeAndTrimsZeros) {
  const struct {
    const char* name;
    Bytes data;
    Units units;
  } cases[] = {
      {"empty", {}, {}},
      {"a start code alone", {0, 0, 1}, {}},
      {"a 4-byte start code alone", {0, 0, 0, 1}, {}},
      {"no start code", {0x67, 0x42, 0, 1, 0x68}, {}},
      {"3-byte codes", {0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68}, {{3, 2}, {8, 1}}},
      {"4-byte codes: the leading zero ends no unit",
       {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68},
       {{4, 2}, {10, 1}}},
      {"a start code as the last bytes", {0, 0, 1, 0x65, 0x88, 0, 0, 1}, {{3, 2}}},
      {"a one-byte unit at the very end", {0, 0, 1, 0x65, 0, 0, 1, 0x41}, {{3, 1}, {7, 1}}},
      {"zero runs before, between and after",
       {0, 0, 0, 0, 0, 1, 0x67, 0, 0, 0, 0, 0, 1, 0x68, 0xee, 0, 0, 0},
       {{6, 1}, {13, 2}}},
      {"a unit ending in 01 before a 3-byte code",
       {0, 0, 1, 0x67, 1, 0, 0, 1, 0x68},
       {{3, 2}, {8, 1}}},
      {"00 01 is no start code", {0, 0, 1, 0x65, 0, 1, 0x41, 0, 0, 1, 0x41}, {{3, 4}, {10, 1}}},
      {"back-to-back codes make no empty unit", {0, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0x09}, {{10, 1}}},
      {"a 01 right after a code's 01 starts the unit",
       {0, 0, 1, 1, 0, 0, 1, 0x41},
       {{3, 1}, {7, 1}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Split(c.data), c.units);
    EXPECT_EQ(ReferenceSplit(c.data), c.units);  // The reference agrees on the edges.
  }
  EXPECT_TRUE(SplitAnnexB(nullptr, 16).empty());

  std::mt19937 rng(3);
  size_t units = 0;
  for (int round = 0; round < 4000; ++round) {
    Bytes data(rng() % 64);
    for (uint8_t& byte : data) {
      const uint32_t r = rng() % 8;
      byte = r < 3 ? 0 : r < 5 ? 1 : static_cast<uint8_t>(rng());
    }
    const Units expected = ReferenceSplit(data);
    ASSERT_EQ(Split(data), expected) << round;
    units += expected.size();
  }
  EXPECT_GT(units, 2000u);  // Or the streams held too few start codes to test anything.
}

TEST(AnnexBTest, StartsWithStartCodeTellsAnnexBFromAvcC) {
  const Bytes annexb3 = {0, 0, 1, 0x67}, annexb4 = {0, 0, 0, 1, 0x67};
  const Bytes avcc = {0x01, 0x64, 0x00, 0x1f}, zeros = {0, 0, 0, 0}, short_code = {0, 0};
  EXPECT_TRUE(StartsWithStartCode(annexb3.data(), annexb3.size()));
  EXPECT_TRUE(StartsWithStartCode(annexb4.data(), annexb4.size()));
  EXPECT_FALSE(StartsWithStartCode(avcc.data(), avcc.size()));
  EXPECT_FALSE(StartsWithStartCode(zeros.data(), zeros.size()));
  EXPECT_FALSE(StartsWithStartCode(short_code.data(), short_code.size()));
  EXPECT_FALSE(StartsWithStartCode(annexb4.data(), 3));  // 00 00 00: not yet a code.
  EXPECT_FALSE(StartsWithStartCode(nullptr, 4));
}

}  // namespace
}  // namespace media_stream_writer
}  // namespace tarnel
