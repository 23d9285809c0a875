#include "sdk/media_stream_writer/ffmpeg/codec_config.h"

#include <cstdint>
#include <random>
#include <vector>

#include "gtest/gtest.h"

namespace tarnel {
namespace media_stream_writer {
namespace {

// The units as offsets and sizes, found the slow, obvious way: every 00 00 01 starts a
// unit, which runs to the next one less that start code's zeros and its own trailing
// zeros.
std::vector<std::pair<size_t, size_t>> ReferenceSplit(const Bytes& data) {
  std::vector<size_t> starts;  // First byte after each 00 00 01.
  for (size_t i = 2; i < data.size(); ++i) {
    if (data[i] == 1 && data[i - 1] == 0 && data[i - 2] == 0) starts.push_back(i + 1);
  }
  std::vector<std::pair<size_t, size_t>> units;
  for (size_t k = 0; k < starts.size(); ++k) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : data.size();
    while (end > starts[k] && data[end - 1] == 0) --end;
    if (end > starts[k]) units.emplace_back(starts[k], end - starts[k]);
  }
  return units;
}

std::vector<std::pair<size_t, size_t>> Split(const Bytes& data) {
  std::vector<std::pair<size_t, size_t>> units;
  for (const NalUnitView& unit : SplitAnnexB(data.data(), data.size())) {
    units.emplace_back(static_cast<size_t>(unit.data - data.data()), unit.size);
  }
  return units;
}

// Start codes at the very start and end, 3- and 4-byte ones, runs of zeros, a lone 01
// after one zero, and random streams dense in 00 and 01 bytes: the splitter finds the
// units the obvious scan finds; the length-prefixed form carries each behind its size.
TEST(CodecConfigTest, SplitsAnnexBLikeTheByteByByteScan) {
  const std::vector<Bytes> fixed = {
      {},
      {0, 0, 1},
      {0, 0, 0, 1, 0x67, 0, 0, 1, 0x68, 0xee, 0, 0},
      {0x11, 0, 1, 0, 0, 1, 0x65, 1, 0, 1, 0, 0, 0, 0, 1, 0x41},
      {0, 0, 1, 0, 0, 1, 0, 0, 1},
  };
  for (const Bytes& data : fixed) EXPECT_EQ(Split(data), ReferenceSplit(data));

  std::mt19937 rng(3);
  for (int round = 0; round < 2000; ++round) {
    Bytes data(rng() % 64);
    for (uint8_t& byte : data) {
      const uint32_t r = rng() % 8;
      byte = r < 3 ? 0 : r < 5 ? 1 : static_cast<uint8_t>(rng());
    }
    ASSERT_EQ(Split(data), ReferenceSplit(data)) << round;
  }

  const Bytes au = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0, 0, 1, 0x65, 0x88, 0};
  EXPECT_EQ(AnnexBToLengthPrefixed(au.data(), au.size()),
            (Bytes{0, 0, 0, 2, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0, 0, 0, 2, 0x65, 0x88}));
}

}  // namespace
}  // namespace media_stream_writer
}  // namespace tarnel
