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
                                      size_t size, uint8_t first_byte = 0) {
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

TEST(AudioFrameRingBufferTest, PiecesCarryTheFormatAndTimeOfTheirFirstByte) {
  // 10 ms of 48 kHz stereo (192 bytes/ms), then 20 ms of 16 kHz mono (32 bytes/ms).
  std::unique_ptr<AudioFrame> a = MakeFrame(1000, 48000, 2, 1920, 0);
  std::unique_ptr<AudioFrame> b = MakeFrame(1010, 16000, 1, 640, 100);
  std::vector<uint8_t> all = BytesOf(*a);
  const std::vector<uint8_t> b_bytes = BytesOf(*b);
  all.insert(all.end(), b_bytes.begin(), b_bytes.end());
  AudioFrameRingBuffer ring;
  ring.Write(std::move(a));
  ring.Write(std::move(b));

  // Size, timestamp, sample rate, channels.
  const int kPieces[][4] = {
      {700, 1000, 48000, 2},
      {1400, 1000 + 700 / 192, 48000, 2},  // Runs into b but keeps a's format.
      {300, 1010 + 180 / 32, 16000, 1},    // Starts at b's byte 2100 - 1920 = 180.
  };
  size_t consumed = 0;
  for (const auto& [size, timestamp_ms, sample_rate, channels] : kPieces) {
    std::unique_ptr<AudioFrame> p = ring.ReadInBytes(size);
    ASSERT_NE(p, nullptr) << consumed;
    EXPECT_EQ(p->GetTimestampInMs(), static_cast<uint32_t>(timestamp_ms)) << consumed;
    EXPECT_EQ(p->GetSampleRate(), sample_rate);
    EXPECT_EQ(p->GetChannels(), channels);
    EXPECT_EQ(p->GetAudioFrameFormat(), kPcm);
    EXPECT_EQ(BytesOf(*p),
              std::vector<uint8_t>(all.begin() + consumed, all.begin() + consumed + size));
    consumed += size;
  }
  EXPECT_EQ(ring.GetSizeInBytes(), static_cast<int32_t>(all.size() - consumed));
}

TEST(AudioFrameRingBufferTest, ReadsOnlyWhatIsHeldAndKeepsCopies) {
  AudioFrameRingBuffer ring;
  EXPECT_EQ(ring.ReadInBytes(1), nullptr);
  // Null and empty frames add nothing.
  ring.Write(nullptr);
  ring.Write(std::make_unique<AudioFrame>());
  ring.Write(AudioFrame());
  // Written by reference: the ring keeps a copy, so later changes do not reach it.
  std::unique_ptr<AudioFrame> frame = MakeFrame(5, 48000, 2, 1000);
  const std::vector<uint8_t> before = BytesOf(*frame);
  ring.Write(*frame);
  frame->GetData()[0] ^= 0xff;
  // Less than asked for: nothing is taken; the caller waits for more.
  for (int size : {1001, 0, -4}) EXPECT_EQ(ring.ReadInBytes(size), nullptr) << size;
  EXPECT_EQ(ring.GetSizeInBytes(), 1000);
  std::unique_ptr<AudioFrame> whole = ring.ReadInBytes(1000);
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(BytesOf(*whole), before);
  EXPECT_EQ(whole->GetTimestampInMs(), 5u);
}

TEST(AudioFrameRingBufferTest, TenMsStreamCutInto4096BytePiecesKeepsTheTimeline) {
  for (int32_t rate : {44100, 48000}) {
    SCOPED_TRACE(rate);
    constexpr int kPiece = 4096;
    const uint64_t bytes_per_second = 2ull * 2 * rate;
    const size_t frame_bytes = static_cast<size_t>(bytes_per_second / 100);
    AudioFrameRingBuffer ring;
    uint64_t read_bytes = 0;
    for (uint32_t i = 0; i < 1000; ++i) {
      // Alternate both Write overloads; the timeline must not care.
      std::unique_ptr<AudioFrame> frame = MakeFrame(i * 10, rate, 2, frame_bytes);
      if (i % 2) {
        ring.Write(*frame);
      } else {
        ring.Write(std::move(frame));
      }
      while (ring.GetSizeInBytes() >= kPiece) {
        std::unique_ptr<AudioFrame> piece = ring.ReadInBytes(kPiece);
        ASSERT_NE(piece, nullptr);
        // Frames start at exact multiples of 10 ms, so each piece's time is the exact
        // time of its first byte, truncated.
        ASSERT_EQ(piece->GetTimestampInMs(), read_bytes * 1000 / bytes_per_second);
        read_bytes += kPiece;
      }
    }
    EXPECT_EQ(read_bytes, 1000 * frame_bytes / kPiece * kPiece);
    EXPECT_EQ(static_cast<uint64_t>(ring.GetSizeInBytes()), 1000 * frame_bytes - read_bytes);
  }
}

}  // namespace
}  // namespace audio
}  // namespace tarnel
