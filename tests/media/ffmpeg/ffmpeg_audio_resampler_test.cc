#include "sdk/media/ffmpeg/ffmpeg_audio_resampler.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/audio_resampler.h"
#include "tests/support/log_capture.h"

namespace tarnel {
namespace audio {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kAmplitude = 16000;
// swresample's default filter is 32 taps, centred, at the lower of the two rates: it
// holds back about 16 samples at that rate until more input arrives. Allow a few more,
// in output samples.
int MaxHeldBack(int in_rate, int out_rate) { return 20 * out_rate / std::min(in_rate, out_rate); }

// Interleaved s16 sine of `frequency` at `rate`; channel c is scaled by `gains[c]`.
std::vector<int16_t> Sine(int rate, int channels, double frequency, int samples,
                          const std::vector<double>& gains = {1.0, 1.0}) {
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels);
  for (int i = 0; i < samples; ++i) {
    const double value = kAmplitude * std::sin(2 * kPi * frequency * i / rate);
    for (int c = 0; c < channels; ++c) {
      pcm[static_cast<size_t>(i) * channels + c] =
          static_cast<int16_t>(std::lround(value * gains[c]));
    }
  }
  return pcm;
}

AudioFrame Frame(const int16_t* samples, int count, int rate, int channels, uint32_t timestamp) {
  AudioFrame frame;
  frame.SetData(reinterpret_cast<const uint8_t*>(samples),
                static_cast<uint64_t>(count) * channels * sizeof(int16_t));
  frame.SetSampleRate(rate);
  frame.SetChannels(channels);
  frame.SetTimestampInMs(timestamp);
  return frame;
}

std::vector<int16_t> Samples(const AudioFrame& frame) {
  const int16_t* data = reinterpret_cast<const int16_t*>(frame.GetData());
  return std::vector<int16_t>(data, data + frame.GetSize() / sizeof(int16_t));
}

// Feeds `pcm` in 10 ms frames through `resampler` (configured by the caller) and joins the
// outputs; checks each output's metadata on the way.
std::vector<int16_t> ResampleIn10MsFrames(AudioResampleInterface* resampler,
                                          const std::vector<int16_t>& pcm, int in_rate,
                                          int in_channels, int out_rate, int out_channels) {
  std::vector<int16_t> joined;
  const int per_frame = in_rate / 100;
  const int frames = static_cast<int>(pcm.size() / in_channels / per_frame);
  for (int n = 0; n < frames; ++n) {
    const AudioFrame in = Frame(pcm.data() + static_cast<size_t>(n) * per_frame * in_channels,
                                per_frame, in_rate, in_channels, 1000 + n * 10);
    AudioFrame out;
    out.SetSampleRate(out_rate);
    out.SetChannels(out_channels);
    EXPECT_EQ(resampler->Resample(in, &out), 0) << n;
    EXPECT_EQ(out.GetTimestampInMs(), 1000u + n * 10);
    EXPECT_EQ(out.GetAudioFrameFormat(), kPcm);
    EXPECT_EQ(out.GetSampleRate(), out_rate);
    EXPECT_EQ(out.GetChannels(), out_channels);
    const std::vector<int16_t> samples = Samples(out);
    joined.insert(joined.end(), samples.begin(), samples.end());
  }
  return joined;
}

std::vector<double> Channel(const std::vector<int16_t>& pcm, int channels, int channel) {
  std::vector<double> out;
  for (size_t i = channel; i < pcm.size(); i += channels) out.push_back(pcm[i]);
  return out;
}

// Positive-going zero crossings per second, from `begin` on.
double FrequencyHz(const std::vector<double>& x, int rate, int begin) {
  int first = -1;
  int last = -1;
  int crossings = 0;
  for (size_t i = begin + 1; i < x.size(); ++i) {
    if (x[i - 1] < 0 && x[i] >= 0) {
      if (first < 0) first = static_cast<int>(i);
      last = static_cast<int>(i);
      ++crossings;
    }
  }
  return crossings < 2 ? 0 : (crossings - 1) * static_cast<double>(rate) / (last - first);
}

double Peak(const std::vector<double>& x, int begin) {
  double peak = 0;
  for (size_t i = begin; i < x.size(); ++i) peak = std::max(peak, std::fabs(x[i]));
  return peak;
}

// A sine of amplitude A at f Hz never moves more than 2 pi f A / rate between samples;
// a discontinuity at a frame border would. From `begin` on: the tone's own switch-on at
// sample 0 rings in the filter.
double MaxStep(const std::vector<double>& x, int begin) {
  double step = 0;
  for (size_t i = begin + 1; i < x.size(); ++i) {
    step = std::max(step, std::fabs(x[i] - x[i - 1]));
  }
  return step;
}

// One second of a 1 kHz tone through 10 ms frames keeps its pitch, level and length,
// and frames join without steps, for the rates and channel layouts the recorder sees.
TEST(FfmpegAudioResamplerTest, ToneKeepsPitchLevelAndLengthAcrossFrames) {
  struct Case {
    int in_rate;
    int in_channels;
    int out_rate;
    int out_channels;
  };
  for (const Case& c : {Case{44100, 2, 48000, 1}, Case{44100, 2, 48000, 2}, Case{8000, 1, 48000, 2},
                        Case{96000, 2, 48000, 2}, Case{48000, 1, 16000, 1}}) {
    SCOPED_TRACE(testing::Message() << c.in_rate << "x" << c.in_channels << " -> " << c.out_rate
                                    << "x" << c.out_channels);
    FfmpegAudioResampler resampler;
    ASSERT_EQ(resampler.Configure(c.in_rate, c.in_channels, c.out_rate, c.out_channels), 0);
    const std::vector<int16_t> in = Sine(c.in_rate, c.in_channels, 1000, c.in_rate);
    const std::vector<int16_t> out =
        ResampleIn10MsFrames(&resampler, in, c.in_rate, c.in_channels, c.out_rate, c.out_channels);

    // The filter holds back a few samples at the start and nothing is flushed.
    const int length = static_cast<int>(out.size()) / c.out_channels;
    EXPECT_LE(length, c.out_rate);
    EXPECT_GE(length, c.out_rate - MaxHeldBack(c.in_rate, c.out_rate));

    const double max_step = 2 * kPi * 1000 * kAmplitude / c.out_rate;
    for (int ch = 0; ch < c.out_channels; ++ch) {
      SCOPED_TRACE(ch);
      const std::vector<double> x = Channel(out, c.out_channels, ch);
      EXPECT_NEAR(FrequencyHz(x, c.out_rate, c.out_rate / 100), 1000.0, 1.0);
      EXPECT_NEAR(Peak(x, c.out_rate / 100), kAmplitude, kAmplitude * 0.02);
      EXPECT_LE(MaxStep(x, c.out_rate / 100), max_step * 1.02);
    }
  }
}

TEST(FfmpegAudioResamplerTest, MixesStereoToTheMeanAndMonoToBothChannels) {
  const int kRate = 48000;
  {
    FfmpegAudioResampler resampler;
    ASSERT_EQ(resampler.Configure(kRate, 2, kRate, 1), 0);
    const std::vector<int16_t> in = Sine(kRate, 2, 1000, kRate / 10, {1.0, 0.5});
    const std::vector<int16_t> out = ResampleIn10MsFrames(&resampler, in, kRate, 2, kRate, 1);
    EXPECT_NEAR(Peak(Channel(out, 1, 0), 480), 0.75 * kAmplitude, kAmplitude * 0.02);
  }
  {
    FfmpegAudioResampler resampler;
    ASSERT_EQ(resampler.Configure(kRate, 1, kRate, 2), 0);
    const std::vector<int16_t> in = Sine(kRate, 1, 1000, kRate / 10);
    const std::vector<int16_t> out = ResampleIn10MsFrames(&resampler, in, kRate, 1, kRate, 2);
    const std::vector<double> left = Channel(out, 2, 0);
    EXPECT_EQ(left, Channel(out, 2, 1));
    EXPECT_NEAR(Peak(left, 480), kAmplitude, kAmplitude * 0.02);
  }
}

TEST(FfmpegAudioResamplerTest, SameConfigurationKeepsTheStreamAndANewOneStartsOver) {
  const std::vector<int16_t> in = Sine(44100, 2, 1000, 44100 / 2);
  FfmpegAudioResampler reference;
  ASSERT_EQ(reference.Configure(44100, 2, 48000, 2), 0);
  const std::vector<int16_t> expected = ResampleIn10MsFrames(&reference, in, 44100, 2, 48000, 2);

  // Configure before every frame, as the recorder does: the output is the same stream.
  FfmpegAudioResampler reconfigured;
  std::vector<int16_t> joined;
  for (int n = 0; n < 50; ++n) {
    ASSERT_EQ(reconfigured.Configure(44100, 2, 48000, 2), 0);
    AudioFrame out;
    ASSERT_EQ(reconfigured.Resample(Frame(in.data() + n * 441 * 2, 441, 44100, 2, n * 10), &out),
              0);
    const std::vector<int16_t> samples = Samples(out);
    joined.insert(joined.end(), samples.begin(), samples.end());
  }
  EXPECT_EQ(joined, expected);

  // A new input rate: a fresh stream at the new ratio, with the same startup delay.
  ASSERT_EQ(reconfigured.Configure(22050, 1, 48000, 2), 0);
  const std::vector<int16_t> in22 = Sine(22050, 1, 1000, 22000);  // 100 frames of 220.
  const std::vector<int16_t> out22 = ResampleIn10MsFrames(&reconfigured, in22, 22050, 1, 48000, 2);
  const int length = static_cast<int>(out22.size()) / 2;
  const int expected_length = 22000 * 48000 / 22050;
  EXPECT_LE(length, expected_length);
  EXPECT_GE(length, expected_length - MaxHeldBack(22050, 48000));
  EXPECT_NEAR(FrequencyHz(Channel(out22, 2, 0), 48000, 480), 1000.0, 1.0);
  // Frames of the old rate are refused now.
  AudioFrame out;
  EXPECT_LT(reconfigured.Resample(Frame(in.data(), 441, 44100, 2, 0), &out), 0);
}

TEST(FfmpegAudioResamplerTest, RefusesWhatItCannotConvertAndLeavesNoData) {
  tarnel_test::ScopedLogCapture logs;
  const std::vector<int16_t> pcm = Sine(48000, 2, 1000, 480);
  auto stale_output = [&] {
    AudioFrame out = Frame(pcm.data(), 480, 48000, 2, 0);
    return out;
  };

  FfmpegAudioResampler resampler;
  AudioFrame out = stale_output();
  EXPECT_LT(resampler.Resample(Frame(pcm.data(), 480, 48000, 2, 0), &out), 0);  // Unconfigured.
  EXPECT_EQ(out.GetData(), nullptr);

  EXPECT_LT(resampler.Configure(7999, 1, 48000, 1), 0);
  EXPECT_LT(resampler.Configure(96001, 1, 48000, 1), 0);
  EXPECT_LT(resampler.Configure(48000, 3, 48000, 2), 0);
  EXPECT_LT(resampler.Configure(48000, 2, 48000, 0), 0);
  EXPECT_LT(resampler.Configure(48000, 2, 4000, 2), 0);
  EXPECT_FALSE(logs.MessagesAtLeast(tarn_logging::LS_ERROR).empty());

  ASSERT_EQ(resampler.Configure(48000, 2, 44100, 2), 0);
  AudioFrame aac = Frame(pcm.data(), 480, 48000, 2, 0);
  aac.SetAudioFrameFormat(kAac);
  out = stale_output();
  EXPECT_LT(resampler.Resample(aac, &out), 0);
  EXPECT_EQ(out.GetData(), nullptr);

  AudioFrame torn = Frame(pcm.data(), 480, 48000, 2, 0);
  // Half a stereo sample at the end.
  torn.SetData(reinterpret_cast<const uint8_t*>(pcm.data()), 480 * 2 * sizeof(int16_t) - 2);
  out = stale_output();
  EXPECT_LT(resampler.Resample(torn, &out), 0);
  EXPECT_EQ(out.GetData(), nullptr);

  // Still usable after the refusals.
  EXPECT_EQ(resampler.Resample(Frame(pcm.data(), 480, 48000, 2, 0), &out), 0);
  EXPECT_NE(out.GetData(), nullptr);
}

TEST(FfmpegAudioResamplerTest, BuiltInFactoryMakesIt) {
  std::unique_ptr<AudioResampleInterface> resampler =
      AudioResampleInterface::Create(kAudioResamplerDefault);
  ASSERT_NE(resampler, nullptr);
  EXPECT_EQ(resampler->Configure(44100, 2, 48000, 1), 0);
  tarnel_test::ScopedLogCapture logs;
  EXPECT_EQ(AudioResampleInterface::Create(kAudioResamplerDefault + 1), nullptr);
  EXPECT_TRUE(logs.Contains("no audio resampler of type"));
}

}  // namespace
}  // namespace audio
}  // namespace tarnel
