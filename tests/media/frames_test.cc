#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/copy_on_write_buffer.h"

namespace tarnel {
namespace {

const uint8_t kBytes[] = {1, 2, 3, 4, 5, 6, 7, 8};

std::vector<uint8_t> BytesOf(const CopyOnWriteBuffer& buffer) {
  return std::vector<uint8_t>(buffer.data(), buffer.data() + buffer.size());
}

TEST(CopyOnWriteBufferTest, ConstructionCopiesAndEqualityComparesBytes) {
  uint8_t source[] = {9, 8, 7};
  CopyOnWriteBuffer copy(source, sizeof(source));
  source[0] = 0;
  EXPECT_EQ(BytesOf(copy), (std::vector<uint8_t>{9, 8, 7}));
  EXPECT_EQ(BytesOf(CopyOnWriteBuffer(size_t{5})), std::vector<uint8_t>(5, 0));
  for (const CopyOnWriteBuffer& empty :
       {CopyOnWriteBuffer(), CopyOnWriteBuffer(nullptr, 4), CopyOnWriteBuffer(source, 0),
        CopyOnWriteBuffer(size_t{0})}) {
    EXPECT_EQ(empty.data(), nullptr);
    EXPECT_EQ(empty, CopyOnWriteBuffer());
  }
  EXPECT_EQ(CopyOnWriteBuffer(kBytes, 3), CopyOnWriteBuffer(kBytes, 3));
  EXPECT_NE(CopyOnWriteBuffer(kBytes, 3), CopyOnWriteBuffer(kBytes + 1, 3));
  EXPECT_NE(CopyOnWriteBuffer(kBytes, 3), CopyOnWriteBuffer(kBytes, 4));
}

TEST(CopyOnWriteBufferTest, CopiesShareTheStoreUntilWritten) {
  CopyOnWriteBuffer a(kBytes, sizeof(kBytes));
  const uint8_t* a_bytes = a.data();
  CopyOnWriteBuffer b = a;
  EXPECT_EQ(b.data(), a_bytes);
  EXPECT_TRUE(a.HasSharedStore());

  // Writing a shared buffer gives it a store of its own; the other keeps the bytes.
  uint8_t* written = b.MutableData();
  ASSERT_NE(written, a_bytes);
  written[0] = 42;
  EXPECT_EQ(a.data()[0], 1);
  EXPECT_FALSE(a.HasSharedStore());
  EXPECT_EQ(a.MutableData(), a_bytes);  // Writing a sole owner does not copy.

  CopyOnWriteBuffer& alias = a;
  a = alias;
  a = std::move(alias);
  EXPECT_EQ(a.data(), a_bytes);
  EXPECT_EQ(a.size(), sizeof(kBytes));
  EXPECT_FALSE(a.HasSharedStore());

  // Assigning over a shared buffer drops its reference: the other holder is alone again.
  CopyOnWriteBuffer holder = a;
  a = b;
  EXPECT_FALSE(holder.HasSharedStore());
  EXPECT_EQ(holder.data(), a_bytes);

  // Moving hands the store over and empties the source.
  CopyOnWriteBuffer moved = std::move(holder);
  EXPECT_EQ(moved.data(), a_bytes);
  EXPECT_FALSE(moved.HasSharedStore());
  EXPECT_TRUE(holder.empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(holder.data(), nullptr);
}

TEST(CopyOnWriteBufferTest, SliceSharesARangeOfTheStore) {
  const CopyOnWriteBuffer whole(kBytes, sizeof(kBytes));
  CopyOnWriteBuffer middle = whole.Slice(2, 4);
  EXPECT_EQ(middle.data(), whole.data() + 2);
  EXPECT_EQ(BytesOf(middle), (std::vector<uint8_t>{3, 4, 5, 6}));
  EXPECT_EQ(middle.Slice(1, 2).data(), whole.data() + 3);
  EXPECT_EQ(whole.Slice(0, sizeof(kBytes)), whole);

  // Writing a slice copies just its range.
  middle.MutableData()[0] = 99;
  EXPECT_EQ(BytesOf(middle), (std::vector<uint8_t>{99, 4, 5, 6}));
  EXPECT_EQ(whole.data()[2], 3);

  // Ranges outside the buffer, and empty ones, give an empty buffer.
  for (const auto& [offset, length] : std::vector<std::pair<size_t, size_t>>{
           {0, 9}, {8, 1}, {9, 0}, {4, 0}, {1, SIZE_MAX}, {SIZE_MAX, 2}}) {
    EXPECT_TRUE(whole.Slice(offset, length).empty()) << offset << "+" << length;
  }
  EXPECT_TRUE(CopyOnWriteBuffer().Slice(0, 0).empty());
}

TEST(AudioFrameTest, CloneIsAnIndependentCopyOfEveryField) {
  audio::AudioFrame frame;
  frame.SetData(kBytes, 3);
  frame.SetTimestampInMs(1234);
  frame.SetSampleRate(44100);
  frame.SetChannels(2);
  frame.SetAudioFrameFormat(audio::kAac);
  frame.SetEncoderDelaySamples(1024);

  audio::AudioFrame clone = frame.Clone();
  ASSERT_NE(clone.GetData(), frame.GetData());
  EXPECT_EQ(std::vector<uint8_t>(clone.GetData(), clone.GetData() + clone.GetSize()),
            (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(clone.GetTimestampInMs(), 1234u);
  EXPECT_EQ(clone.GetSampleRate(), 44100);
  EXPECT_EQ(clone.GetChannels(), 2);
  EXPECT_EQ(clone.GetAudioFrameFormat(), audio::kAac);
  EXPECT_EQ(clone.GetEncoderDelaySamples(), 1024);
  clone.GetData()[0] = 77;
  EXPECT_EQ(frame.GetData()[0], 1);

  frame.SetData(nullptr, 2);  // Null or zero empties.
  EXPECT_EQ(frame.GetData(), nullptr);
  frame.SetData(kBytes, 0);
  EXPECT_EQ(frame.GetSize(), 0u);
}

TEST(AudioFrameTest, FrameSizeInMs) {
  struct Case {
    audio::AudioCodecFormat format;
    int32_t sample_rate;
    int32_t channels;
    size_t bytes;
    float expected_ms;
  };
  const Case cases[] = {
      {audio::kPcm, 16000, 1, 320 * 3, 30.0f},
      {audio::kPcm, 44100, 2, 4096, 4096.0f / 176400.0f * 1000.0f},
      // The duration of an AAC frame does not depend on its channels or bytes.
      {audio::kAac, 48000, 2, 300, 1024.0f / 48000.0f * 1000.0f},
      {audio::kAac, 44100, 0, 0, 1024.0f / 44100.0f * 1000.0f},
      {audio::kPcm, 0, 2, 1920, 0.0f},
      {audio::kPcm, 48000, 0, 1920, 0.0f},
      {static_cast<audio::AudioCodecFormat>(5), 48000, 2, 1920, 0.0f},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.format << "/" << c.sample_rate << "/" << c.channels);
    audio::AudioFrame frame;
    const std::vector<uint8_t> bytes(c.bytes, 0x11);
    frame.SetData(bytes.data(), bytes.size());
    frame.SetAudioFrameFormat(c.format);
    frame.SetSampleRate(c.sample_rate);
    frame.SetChannels(c.channels);
    EXPECT_FLOAT_EQ(frame.GetFrameSizeInMs(), c.expected_ms);
  }
}

}  // namespace
}  // namespace tarnel
