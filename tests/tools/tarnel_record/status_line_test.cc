#include "tools/tarnel_record/status_line.h"

#include "gtest/gtest.h"

namespace tarnel_record {
namespace {

RecordingStatus Status(int64_t media_ms, int64_t bytes, double wall_seconds,
                       int64_t dropped_frames = 0) {
  RecordingStatus status;
  status.media_ms = media_ms;
  status.bytes = bytes;
  status.wall_seconds = wall_seconds;
  status.dropped_frames = dropped_frames;
  return status;
}

TEST(TarnelRecordStatusLineTest, ShowsTimeSizeBitRateSpeedAndDrops) {
  // 10 MiB in 80 s of media is 1048.576 kbit/s; 80 s written in 40 s is twice real time.
  EXPECT_EQ(FormatStatusLine(Status(80000, 10 << 20, 40.0)),
            "time=00:01:20.00 size= 10.00 MiB bitrate=  1048.6kbit/s speed=  2.00x drop=0");
  // Hours, and the hundredths truncated rather than rounded up into the next second.
  EXPECT_EQ(FormatStatusLine(Status(12345678, 1536, 12345.678)),
            "time=03:25:45.67 size=   1.5 KiB bitrate=     0.0kbit/s speed=  1.00x drop=0");
  // A burst far faster than real time, with frames dropped.
  EXPECT_EQ(FormatStatusLine(Status(600000, 150 << 20, 12.0, 4321)),
            "time=00:10:00.00 size=150.00 MiB bitrate=  2097.2kbit/s speed= 50.00x drop=4321");
}

TEST(TarnelRecordStatusLineTest, NothingToDivideByYetReadsNotAvailable) {
  EXPECT_EQ(FormatStatusLine(Status(0, 0, 0)),
            "time=00:00:00.00 size=   0.0 KiB bitrate=           N/A speed=    N/A drop=0");
  // Rewritten in place, the first line and later ones have the same width.
  EXPECT_EQ(FormatStatusLine(Status(0, 0, 0)).size(),
            FormatStatusLine(Status(3723450, 99 << 20, 3000.5)).size());
}

TEST(TarnelRecordStatusLineTest, HumanSizeSwitchesToMebibytesAtOne) {
  EXPECT_EQ(HumanSize(0), "0.0 KiB");
  EXPECT_EQ(HumanSize(1024 * 1024 - 1), "1024.0 KiB");
  EXPECT_EQ(HumanSize(1024 * 1024), "1.00 MiB");
  EXPECT_EQ(HumanSize(int64_t{5} << 30), "5120.00 MiB");
}

}  // namespace
}  // namespace tarnel_record
