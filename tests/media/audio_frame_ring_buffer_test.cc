#include "sdk/media/audio_frame_ring_buffer.h"

#include <cstdint>
#include <memory>
#include <vector>

#include "gtest/gtest.h"

namespace tarnel {
namespace audio {
namespace {

// A PCM frame whose bytes count up from `first_byte`, so any piece shows where it came from.
std::unique_ptr<AudioFrame> MakeFrame(uint32_t timestamp_ms, int32_t sample_rate, int32_t channels,
                                      size_t size, uint8_t first_byte) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(first_byte + i);
  auto frame = std::make_unique<AudioFrame>();
  frame->SetData(bytes.data(), bytes.size());
  frame->SetTimestampInMs(timestamp_ms);
  frame->SetSampleRate(sample_rate);
  frame->SetChannels(channels);
  return frame;
}

std::vector<uint8_t> BytesOf(const AudioFrame& frame) {
  return std::vector<uint8_t>(frame.GetData(), frame.GetData() + frame.GetSize());
}

// Time of the byte `offset` bytes into a chunk, as the ring defines it.
uint32_t ByteTime(uint32_t chunk_ms, uint64_t offset, int32_t rate, int32_t channels) {
  return chunk_ms + static_cast<uint32_t>(offset * 1000 / (2ull * channels * rate));
}

TEST(AudioFrameRingBufferTest, PiecesCarryTheFormatAndTimeOfTheirFirstByte) {
  // 10 ms of 48 kHz stereo, then 20 ms of 16 kHz mono.
  std::unique_ptr<AudioFrame> a = MakeFrame(1000, 48000, 2, 1920, 0);
  std::unique_ptr<AudioFrame> b = MakeFrame(1010, 16000, 1, 640, 100);
  std::vector<uint8_t> all = BytesOf(*a);
  const std::vector<uint8_t> b_bytes = BytesOf(*b);
  all.insert(all.end(), b_bytes.begin(), b_bytes.end());

  AudioFrameRingBuffer ring;
  ring.Write(std::move(a));
  ring.Write(std::move(b));
  EXPECT_EQ(ring.GetSizeInBytes(), 1920 + 640);

  size_t consumed = 0;
  {
    std::unique_ptr<AudioFrame> p = ring.ReadInBytes(700);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->GetTimestampInMs(), 1000u);
    EXPECT_EQ(p->GetSampleRate(), 48000);
    EXPECT_EQ(p->GetChannels(), 2);
    EXPECT_EQ(p->GetAudioFrameFormat(), kPcm);
    EXPECT_EQ(BytesOf(*p), std::vector<uint8_t>(all.begin(), all.begin() + 700));
    consumed += 700;
  }
  {
    // First byte at a's byte 700; the piece runs into b but keeps a's format.
    std::unique_ptr<AudioFrame> p = ring.ReadInBytes(1400);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->GetTimestampInMs(), ByteTime(1000, 700, 48000, 2));
    EXPECT_GT(p->GetTimestampInMs(), 1000u);
    EXPECT_EQ(p->GetSampleRate(), 48000);
    EXPECT_EQ(p->GetChannels(), 2);
    EXPECT_EQ(BytesOf(*p), std::vector<uint8_t>(all.begin() + 700, all.begin() + 2100));
    consumed += 1400;
  }
  {
    // First byte at b's byte 2100 - 1920 = 180.
    std::unique_ptr<AudioFrame> p = ring.ReadInBytes(300);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->GetTimestampInMs(), ByteTime(1010, 180, 16000, 1));
    EXPECT_GT(p->GetTimestampInMs(), 1010u);
    EXPECT_EQ(p->GetSampleRate(), 16000);
    EXPECT_EQ(p->GetChannels(), 1);
    EXPECT_EQ(BytesOf(*p), std::vector<uint8_t>(all.begin() + 2100, all.begin() + 2400));
    consumed += 300;
  }
  EXPECT_EQ(ring.GetSizeInBytes(), static_cast<int32_t>(all.size() - consumed));
}

TEST(AudioFrameRingBufferTest, ReadsOnlyWhatIsHeld) {
  AudioFrameRingBuffer ring;
  EXPECT_EQ(ring.ReadInBytes(1), nullptr);

  ring.Write(MakeFrame(0, 48000, 2, 1000, 0));
  // Less than asked for: nothing is taken; the caller waits for more.
  EXPECT_EQ(ring.ReadInBytes(1001), nullptr);
  EXPECT_EQ(ring.ReadInBytes(0), nullptr);
  EXPECT_EQ(ring.ReadInBytes(-4), nullptr);
  EXPECT_EQ(ring.GetSizeInBytes(), 1000);

  ring.Write(MakeFrame(5, 48000, 2, 1000, 0));
  EXPECT_EQ(ring.GetSizeInBytes(), 2000);
  // Exactly what is held empties the ring.
  std::unique_ptr<AudioFrame> all = ring.ReadInBytes(2000);
  ASSERT_NE(all, nullptr);
  EXPECT_EQ(all->GetSize(), 2000u);
  EXPECT_EQ(ring.GetSizeInBytes(), 0);
  EXPECT_EQ(ring.ReadInBytes(1), nullptr);

  // Null and empty frames add nothing.
  ring.Write(nullptr);
  ring.Write(std::make_unique<AudioFrame>());
  ring.Write(AudioFrame());
  EXPECT_EQ(ring.GetSizeInBytes(), 0);

  // Still usable after being drained.
  ring.Write(MakeFrame(40, 48000, 2, 8, 0));
  std::unique_ptr<AudioFrame> again = ring.ReadInBytes(8);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->GetTimestampInMs(), 40u);
}

TEST(AudioFrameRingBufferTest, WriteByReferenceLeavesTheFrameIntact) {
  std::unique_ptr<AudioFrame> frame = MakeFrame(77, 44100, 2, 1764, 9);
  frame->SetAudioFrameFormat(kPcm);
  const std::vector<uint8_t> before = BytesOf(*frame);

  AudioFrameRingBuffer ring;
  ring.Write(*frame);
  EXPECT_EQ(BytesOf(*frame), before);
  EXPECT_EQ(frame->GetTimestampInMs(), 77u);
  EXPECT_EQ(frame->GetSampleRate(), 44100);
  EXPECT_EQ(frame->GetChannels(), 2);

  // The ring kept a copy: changing the frame afterwards does not reach it.
  frame->GetData()[0] ^= 0xff;
  std::unique_ptr<AudioFrame> piece = ring.ReadInBytes(1764);
  ASSERT_NE(piece, nullptr);
  EXPECT_EQ(BytesOf(*piece), before);
  EXPECT_EQ(piece->GetTimestampInMs(), 77u);
}

TEST(AudioFrameRingBufferTest, TenMsStreamCutInto4096BytePiecesKeepsTheTimeline) {
  for (int32_t rate : {44100, 48000}) {
    SCOPED_TRACE(rate);
    constexpr int32_t kChannels = 2;
    constexpr int kPiece = 4096;
    const uint64_t bytes_per_second = 2ull * kChannels * rate;
    const size_t frame_bytes = static_cast<size_t>(bytes_per_second / 100);

    AudioFrameRingBuffer ring;
    uint64_t read_bytes = 0;
    int64_t previous = -1;
    int pieces = 0;
    for (uint32_t i = 0; i < 1000; ++i) {
      // Alternate both Write overloads; the timeline must not care.
      std::unique_ptr<AudioFrame> frame = MakeFrame(i * 10, rate, kChannels, frame_bytes, 0);
      if (i % 2) {
        ring.Write(*frame);
      } else {
        ring.Write(std::move(frame));
      }
      while (ring.GetSizeInBytes() >= kPiece) {
        std::unique_ptr<AudioFrame> piece = ring.ReadInBytes(kPiece);
        ASSERT_NE(piece, nullptr);
        const int64_t ts = piece->GetTimestampInMs();
        EXPECT_GT(ts, previous);
        // Frames start at exact multiples of 10 ms, so each piece's time is the exact
        // time of its first byte, truncated.
        EXPECT_EQ(ts, static_cast<int64_t>(read_bytes * 1000 / bytes_per_second));
        previous = ts;
        read_bytes += kPiece;
        ++pieces;
      }
    }
    EXPECT_EQ(pieces, static_cast<int>(1000 * frame_bytes / kPiece));
    EXPECT_EQ(static_cast<uint64_t>(ring.GetSizeInBytes()), 1000 * frame_bytes - read_bytes);
  }
}

}  // namespace
}  // namespace audio
}  // namespace tarnel
