// The index boxes of a finished MP4 where the numbers get large or the edits matter:
// files past 4 GiB, and the edit lists that hide decoder pre-roll.
#include "sdk/media_stream_writer/mp4/mp4_boxes.h"

#include <string>

#include "gtest/gtest.h"

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {
namespace {

// Where the 4 bytes of `type` first occur in `bytes`, or npos.
size_t FindType(const Bytes& bytes, const char* type) {
  const std::string text(bytes.begin(), bytes.end());
  return text.find(type);
}

uint32_t U32At(const Bytes& bytes, size_t at) {
  return (uint32_t{bytes[at]} << 24) | (uint32_t{bytes[at + 1]} << 16) |
         (uint32_t{bytes[at + 2]} << 8) | bytes[at + 3];
}

TrackIndex AudioTrack(int64_t first_offset) {
  TrackIndex track;
  track.track_id = 1;
  track.timescale = 48000;
  track.stsd = BuildAudioStsd(48000, 2, {0x11, 0x90});
  for (int i = 0; i < 4; ++i) {
    Sample sample;
    sample.offset = first_offset + 100 * i;  // Back to back: one chunk.
    sample.size = 100;
    sample.duration = 1024;
    sample.dts = -2048 + 1024 * i;  // Two packets of pre-roll before 0.
    track.samples.push_back(sample);
  }
  return track;
}

TEST(Mp4BoxesTest, FilesPast4GiBUse64BitFields) {
  // The mdat header: free + 32-bit mdat while it fits, one 64-bit header after.
  const Bytes small = BuildMdatHeader(36, 36 + 8 + 1000);
  ASSERT_EQ(small.size(), kPlaceholderSize);
  EXPECT_EQ(std::string(small.begin() + 4, small.begin() + 8), "free");
  EXPECT_EQ(U32At(small, 8), 1000u);
  const int64_t big_end = 36 + (int64_t{5} << 30);
  const Bytes big = BuildMdatHeader(36, big_end);
  ASSERT_EQ(big.size(), kPlaceholderSize);
  EXPECT_EQ(U32At(big, 0), 1u);
  EXPECT_EQ(std::string(big.begin() + 4, big.begin() + 8), "mdat");
  EXPECT_EQ((uint64_t{U32At(big, 8)} << 32) | U32At(big, 12), uint64_t(big_end - 36));

  for (const int64_t offset : {int64_t{1000}, int64_t{6} << 30}) {
    const TrackIndex track = AudioTrack(offset);
    const Bytes moov = BuildFinalMoov({&track}, 48000);
    const bool wide = offset > 0xffffffffLL;
    EXPECT_EQ(FindType(moov, "co64") != std::string::npos, wide) << offset;
    EXPECT_EQ(FindType(moov, "stco") != std::string::npos, !wide) << offset;
  }
}

// Pre-roll before 0 is hidden: the edit starts at media time 2048 (segment time 0) and
// presents the rest; a presentation end clips it; a track that starts late gets an
// empty edit first.
TEST(Mp4BoxesTest, EditListsPresentExactlyTheWindow) {
  struct Case {
    int64_t present_from;
    bool has_to;
    int64_t present_to;
    int64_t shift;  // Added to every dts.
    uint32_t entries;
    uint32_t first_duration, first_time, last_duration, last_time;
  };
  const Case cases[] = {
      {0, false, 0, 0, 1, 2048, 2048, 2048, 2048},
      {0, true, 1500, 0, 1, 1500, 2048, 1500, 2048},
      {100, false, 0, 0, 2, 100, 0xffffffff, 1948, 2148},
      {0, false, 0, 4096, 2, 2048, 0xffffffff, 4096, 0},  // Starts at 2048: late.
  };
  for (const Case& c : cases) {
    TrackIndex track = AudioTrack(1000);
    for (Sample& sample : track.samples) sample.dts += c.shift;
    track.present_from = c.present_from;
    track.has_present_to = c.has_to;
    track.present_to = c.present_to;
    const Bytes moov = BuildFinalMoov({&track}, 48000);
    const size_t elst = FindType(moov, "elst");
    ASSERT_NE(elst, std::string::npos);
    const size_t entries = elst + 8;
    EXPECT_EQ(U32At(moov, entries), c.entries);
    EXPECT_EQ(U32At(moov, entries + 4), c.first_duration);
    EXPECT_EQ(U32At(moov, entries + 8), c.first_time);
    const size_t last = entries + 4 + 12 * (c.entries - 1);
    EXPECT_EQ(U32At(moov, last), c.last_duration);
    EXPECT_EQ(U32At(moov, last + 4), c.last_time);
  }
}

}  // namespace
}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel
