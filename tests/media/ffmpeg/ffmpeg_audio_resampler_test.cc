#include "sdk/media/ffmpeg/ffmpeg_audio_resampler.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/log_capture.h"

namespace tarnel {
namespace audio {
namespace {

constexpr double kAmplitude = 16000;

AudioFrame Frame(const int16_t* samples, int count, int rate, int channels, uint32_t timestamp) {
  AudioFrame frame;
  frame.SetData(reinterpret_cast<const uint8_t*>(samples),
                static_cast<uint64_t>(count) * channels * sizeof(int16_t));
  frame.SetSampleRate(rate);
  frame.SetChannels(channels);
  frame.SetTimestampInMs(timestamp);
  return frame;
}

// A tone through the converter, as everywhere else in the recorder: 10 ms frames, with
// the same Configure before each. One second of 1 kHz at every rate and layout it sees
// keeps its pitch, level and length, and frames join without steps. One converter goes
// through all the cases: each new configuration starts a fresh stream.
TEST(FfmpegAudioResamplerTest, ToneKeepsPitchLevelAndLengthAcrossFrames) {
  struct Case {
    int in_rate;
    int in_channels;
    int out_rate;
    int out_channels;
  };
  FfmpegAudioResampler resampler;
  for (const Case& c :
       {Case{44100, 2, 48000, 1}, Case{44100, 2, 48000, 2}, Case{8000, 1, 48000, 2},
        Case{96000, 2, 48000, 2}, Case{48000, 1, 16000, 1}, Case{22050, 1, 48000, 2}}) {
    SCOPED_TRACE(testing::Message() << c.in_rate << "x" << c.in_channels << " -> " << c.out_rate
                                    << "x" << c.out_channels);
    // Input channel ch at 1 / (ch + 1): stereo mixes to the mean, mono copies to both.
    std::vector<int16_t> in(static_cast<size_t>(c.in_rate) * c.in_channels);
    for (size_t i = 0; i < in.size(); ++i) {
      in[i] = static_cast<int16_t>(
          std::lround(kAmplitude * std::sin(2 * M_PI * 1000 * (i / c.in_channels) / c.in_rate) /
                      (i % c.in_channels + 1)));
    }
    std::vector<int16_t> out;
    const int per_frame = c.in_rate / 100;
    for (int n = 0; n < 100; ++n) {
      ASSERT_EQ(resampler.Configure(c.in_rate, c.in_channels, c.out_rate, c.out_channels), 0);
      AudioFrame frame;
      ASSERT_EQ(resampler.Resample(Frame(&in[size_t(n) * per_frame * c.in_channels], per_frame,
                                         c.in_rate, c.in_channels, 1000 + n * 10),
                                   &frame),
                0);
      EXPECT_EQ(frame.GetTimestampInMs(), 1000u + n * 10);
      EXPECT_EQ(frame.GetAudioFrameFormat(), kPcm);
      EXPECT_EQ(frame.GetSampleRate(), c.out_rate);
      EXPECT_EQ(frame.GetChannels(), c.out_channels);
      const int16_t* data = reinterpret_cast<const int16_t*>(frame.GetData());
      out.insert(out.end(), data, data + frame.GetSize() / sizeof(int16_t));
    }
    // The filter (32 taps at the lower rate) holds back ~16 samples there; nothing flushes.
    const int length = static_cast<int>(out.size()) / c.out_channels;
    const int expected = static_cast<int>(per_frame * 100LL * c.out_rate / c.in_rate);
    EXPECT_LE(length, expected);
    EXPECT_GE(length, expected - 20 * c.out_rate / std::min(c.in_rate, c.out_rate));

    for (int ch = 0; ch < c.out_channels; ++ch) {
      const double gain = c.in_channels == 1 ? 1 : c.out_channels == 1 ? 0.75 : 1.0 / (ch + 1);
      // From 10 ms on (the tone's switch-on rings in the filter): positive-going zero
      // crossings, peak, and the largest step, which a sine never exceeds but a
      // discontinuity at a frame border would.
      int first = -1, last = -1, crossings = 0;
      double peak = 0, step = 0;
      for (int i = c.out_rate / 100; i < length; ++i) {
        const double x = out[size_t(i) * c.out_channels + ch];
        const double previous = out[size_t(i - 1) * c.out_channels + ch];
        if (previous < 0 && x >= 0) {
          first = first < 0 ? i : first;
          last = i;
          ++crossings;
        }
        peak = std::max(peak, std::fabs(x));
        step = std::max(step, std::fabs(x - previous));
      }
      EXPECT_NEAR((crossings - 1) * double(c.out_rate) / (last - first), 1000.0, 1.0) << ch;
      EXPECT_NEAR(peak, gain * kAmplitude, kAmplitude * 0.02) << ch;
      EXPECT_LE(step, 2 * M_PI * 1000 * gain * kAmplitude / c.out_rate * 1.02) << ch;
    }
  }
}

TEST(FfmpegAudioResamplerTest, RefusesWhatItCannotConvertAndLeavesNoData) {
  tarnel_test::ScopedLogCapture logs;
  const std::vector<int16_t> pcm(480 * 2, 1000);
  auto frame = [&](int rate) { return Frame(pcm.data(), 480, rate, 2, 0); };
  std::unique_ptr<AudioResampleInterface> resampler =
      AudioResampleInterface::Create(kAudioResamplerDefault);
  ASSERT_NE(resampler, nullptr);
  AudioFrame out = frame(48000);                          // Stale data that a refusal must clear.
  EXPECT_LT(resampler->Resample(frame(48000), &out), 0);  // Unconfigured.
  EXPECT_EQ(out.GetData(), nullptr);

  EXPECT_LT(resampler->Configure(7999, 1, 48000, 1), 0);
  EXPECT_LT(resampler->Configure(96001, 1, 48000, 1), 0);
  EXPECT_LT(resampler->Configure(48000, 3, 48000, 2), 0);
  EXPECT_LT(resampler->Configure(48000, 2, 48000, 0), 0);
  EXPECT_LT(resampler->Configure(48000, 2, 4000, 2), 0);
  EXPECT_FALSE(logs.MessagesAtLeast(tarn_logging::LS_ERROR).empty());

  ASSERT_EQ(resampler->Configure(48000, 2, 44100, 2), 0);
  for (int variant = 0; variant < 3; ++variant) {  // AAC, a torn stereo sample, another rate.
    AudioFrame bad = frame(variant == 2 ? 44100 : 48000);
    if (variant == 0) bad.SetAudioFrameFormat(kAac);
    if (variant == 1) bad.SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * 2 - 2);
    out = frame(48000);
    EXPECT_LT(resampler->Resample(bad, &out), 0) << variant;
    EXPECT_EQ(out.GetData(), nullptr) << variant;
  }
  EXPECT_EQ(resampler->Resample(frame(48000), &out), 0);  // Still usable.
  EXPECT_NE(out.GetData(), nullptr);

  EXPECT_EQ(AudioResampleInterface::Create(kAudioResamplerDefault + 1), nullptr);
  EXPECT_TRUE(logs.Contains("no audio resampler of type"));
}

}  // namespace
}  // namespace audio
}  // namespace tarnel
