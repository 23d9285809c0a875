#include "sdk/media/aac/aac_encoder.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/aac_decode.h"

namespace tarnel {
namespace audio {
namespace aac {
namespace {

constexpr int kRate = 48000;
constexpr int kDelay = 1024;
constexpr int kStereoBitrate = 196608;
const int kMonoBitrate = AudioEncodeParams().bitrate;

// A signal as a function of (sample index, channel), in 16-bit PCM units.
using Signal = std::function<double(int, int)>;

std::vector<int16_t> Render(const Signal& signal, int samples, int channels) {
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels);
  for (int i = 0; i < samples; ++i) {
    for (int c = 0; c < channels; ++c) {
      pcm[static_cast<size_t>(i) * channels + c] =
          static_cast<int16_t>(std::lround(std::clamp(signal(i, c), -32768.0, 32767.0)));
    }
  }
  return pcm;
}

struct Encoded {
  std::vector<std::shared_ptr<AudioFrame>> units;
  tarnel_test::DecodedAudio decoded;
};

// Encodes `pcm` piece by piece (stamped 21, 42, ... ms) and decodes the result.
Encoded EncodeAndDecode(const std::vector<int16_t>& pcm, int channels, int bitrate, bool raw) {
  AacEncoder encoder;
  AudioEncodeParams params;
  params.channels = channels;
  params.bitrate = bitrate;
  params.raw_access_units = raw ? 1 : 0;
  Encoded out;
  EXPECT_TRUE(encoder.Init(params));
  const size_t piece = static_cast<size_t>(kAacSamplesPerFrame) * channels;
  for (size_t start = 0; start + piece <= pcm.size(); start += piece) {
    auto frame = std::make_shared<AudioFrame>();
    frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data() + start), piece * 2);
    frame->SetSampleRate(kRate);
    frame->SetChannels(channels);
    const uint32_t stamp = static_cast<uint32_t>(start / channels * 1000 / kRate);
    frame->SetTimestampInMs(stamp);
    out.units.push_back(encoder.Encode(frame));
    EXPECT_TRUE(out.units.back() != nullptr);
    if (!out.units.back()) return out;
    EXPECT_EQ(out.units.back()->GetTimestampInMs(), stamp);
    EXPECT_EQ(out.units.back()->GetEncoderDelaySamples(), kDelay);
  }
  out.decoded = tarnel_test::DecodeAac(out.units, kRate, channels, raw);
  EXPECT_EQ(out.decoded.errors, 0);
  EXPECT_EQ(out.decoded.frames, static_cast<int>(out.units.size()));
  return out;
}

// SNR in dB of the decoded channel `c` (advanced by the encoder delay) against the input,
// over samples [from, to).
double Snr(const std::vector<int16_t>& pcm, const std::vector<float>& decoded, int channels, int c,
           int from, int to) {
  double signal = 0, noise = 0;
  for (int i = from; i < to; ++i) {
    const double in = pcm[static_cast<size_t>(i) * channels + c];
    const double out = decoded[static_cast<size_t>(i + kDelay) * channels + c];
    signal += in * in;
    noise += (out - in) * (out - in);
  }
  return 10 * std::log10(std::max(signal, 1e-9) / std::max(noise, 1e-9));
}

// The lowest SNR of any 1024-sample frame of channel `c` after the first four (the
// onset from silence).
double WorstFrameSnr(const std::vector<int16_t>& pcm, const std::vector<float>& decoded,
                     int channels, int c) {
  const int frames = static_cast<int>(pcm.size() / channels) / 1024 - 2;
  double worst = 1000;
  for (int k = 4; k < frames; ++k) {
    worst = std::min(worst, Snr(pcm, decoded, channels, c, k * 1024, (k + 1) * 1024));
  }
  return worst;
}

TEST(AacEncoderTest, InitAcceptsWhatItCanEncodeAndRefusesTheRest) {
  AacEncoder encoder;
  EXPECT_EQ(encoder.GetInputSizeInBytes(), 0);
  EXPECT_EQ(encoder.GetPrimingSamples(), 0);
  EXPECT_EQ(encoder.Encode(nullptr), nullptr);
  struct Case {
    int channels, rate, bitrate, profile, bits;
    bool ok;
  } cases[] = {
      {1, 48000, kMonoBitrate, 2, 16, true},    {2, 48000, kStereoBitrate, 2, 16, true},
      {2, 44100, 128000, 2, 16, true},          {1, 16000, 32000, 2, 16, true},
      {2, 48000, 16000, 2, 16, true},           {2, 48000, 576000, 2, 16, true},
      {2, 48000, 577000, 2, 16, false},         {1, 48000, 7999, 2, 16, false},
      {3, 48000, kStereoBitrate, 2, 16, false}, {0, 48000, 64000, 2, 16, false},
      {1, 47000, 64000, 2, 16, false},          {1, 48000, 64000, 5, 16, false},
      {1, 48000, 64000, 2, 24, false},
  };
  for (const Case& c : cases) {
    AudioEncodeParams params;
    params.channels = c.channels;
    params.sample_rate = c.rate;
    params.bitrate = c.bitrate;
    params.aac_profile = c.profile;
    params.bits_per_sample = c.bits;
    EXPECT_EQ(encoder.Init(params), c.ok) << c.channels << " ch " << c.rate << " Hz " << c.bitrate;
    if (c.ok) {
      EXPECT_EQ(encoder.GetInputSizeInBytes(), 1024 * c.channels * 2);
      EXPECT_EQ(encoder.GetPrimingSamples(), 1024);
    } else {
      EXPECT_EQ(encoder.GetInputSizeInBytes(), 0);
    }
  }
  // Pieces of the wrong size, rate, channel count or format are refused.
  AudioEncodeParams params;
  params.channels = 2;
  params.bitrate = kStereoBitrate;
  ASSERT_TRUE(encoder.Init(params));
  std::vector<int16_t> pcm(2048);
  for (int variant = 0; variant < 4; ++variant) {
    auto frame = std::make_shared<AudioFrame>();
    frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), variant == 0 ? 2048 : 4096);
    frame->SetChannels(variant == 1 ? 1 : 2);
    frame->SetSampleRate(variant == 2 ? 44100 : kRate);
    frame->SetAudioFrameFormat(variant == 3 ? kAac : kPcm);
    EXPECT_EQ(encoder.Encode(frame), nullptr) << variant;
  }
}

// One access unit per piece from the first; decoded by libavcodec and advanced by exactly
// 1024 samples, the audio is the input: music-like chords with noise and plucks, mono and
// stereo, raw and ADTS. Loud tones anywhere in the band come back clean in every frame
// (no frame collapses), and so do the stereo extremes M/S coding must get right.
TEST(AacEncoderTest, DecodesToTheInputOneFrameLate) {
  constexpr int kSamples = 96 * 1024;
  std::mt19937 rng(7);
  std::normal_distribution<double> noise(0.0, 200.0);
  std::vector<double> hiss(kSamples * 2);
  for (double& h : hiss) h = noise(rng);
  const Signal music = [&](int i, int c) {
    const double t = double(i) / kRate;
    const double pluck = std::exp(-6 * std::fmod(t, 0.3));
    double v = 0;
    for (int h = 1; h <= 8; ++h) {
      v += std::sin(2 * M_PI * 196 * h * t + c) / h + 0.5 * std::sin(2 * M_PI * 293.7 * h * t) / h;
    }
    return 5000 * pluck * v + hiss[size_t(i) * 2 + c];
  };
  for (const int channels : {1, 2}) {
    for (const bool raw : {true, false}) {
      SCOPED_TRACE(testing::Message() << channels << " channels, raw " << raw);
      const std::vector<int16_t> pcm = Render(music, kSamples, channels);
      const Encoded e =
          EncodeAndDecode(pcm, channels, channels == 2 ? kStereoBitrate : kMonoBitrate, raw);
      ASSERT_EQ(e.decoded.samples.size(), pcm.size());
      for (int c = 0; c < channels; ++c) {
        // The decoded audio matches the input best at exactly the declared delay.
        double best = -1e9;
        int best_lag = 0;
        for (int lag = kDelay - 16; lag <= kDelay + 16; ++lag) {
          double dot = 0;
          for (int i = 2048; i < kSamples - 2048; ++i) {
            dot += double(pcm[size_t(i) * channels + c]) *
                   e.decoded.samples[size_t(i + lag) * channels + c];
          }
          if (dot > best) best = dot, best_lag = lag;
        }
        EXPECT_EQ(best_lag, kDelay) << c;
        EXPECT_GT(Snr(pcm, e.decoded.samples, channels, c, 2048, kSamples - 2048), 8) << c;
      }
    }
  }

  const double tones_hz[] = {100, 1000, 5000, 10000, 15000};
  for (const double hz : tones_hz) {
    SCOPED_TRACE(testing::Message() << hz << " Hz at -1 dBFS");
    const Signal tone = [hz](int i, int) { return 29204 * std::sin(2 * M_PI * hz * i / kRate); };
    for (const int channels : {1, 2}) {
      const std::vector<int16_t> pcm = Render(tone, 48 * 1024, channels);
      const Encoded e =
          EncodeAndDecode(pcm, channels, channels == 2 ? kStereoBitrate : kMonoBitrate, true);
      ASSERT_EQ(e.decoded.samples.size(), pcm.size());
      EXPECT_GT(WorstFrameSnr(pcm, e.decoded.samples, channels, 0), 25) << channels;
    }
  }

  const struct {
    const char* what;
    Signal signal;
  } stereo[] = {
      {"same in both", [&](int i, int) { return music(i, 0); }},
      {"opposite", [&](int i, int c) { return c == 0 ? music(i, 0) : -music(i, 0); }},
      {"left only", [&](int i, int c) { return c == 0 ? music(i, 0) : 0.0; }},
      {"right quiet", [&](int i, int c) { return c == 0 ? music(i, 0) : 0.01 * music(i, 1); }},
  };
  for (const auto& s : stereo) {
    SCOPED_TRACE(s.what);
    const std::vector<int16_t> pcm = Render(s.signal, 48 * 1024, 2);
    const Encoded e = EncodeAndDecode(pcm, 2, kStereoBitrate, true);
    ASSERT_EQ(e.decoded.samples.size(), pcm.size());
    for (int c = 0; c < 2; ++c) {
      double energy = 0;
      for (size_t i = c; i < pcm.size(); i += 2) energy += double(pcm[i]) * pcm[i];
      if (energy == 0) continue;
      EXPECT_GT(Snr(pcm, e.decoded.samples, 2, c, 2048, 46 * 1024), 8) << c;
    }
  }
}

// The stream is constant-rate: replaying the bit budget from outside, every frame spends
// at most the mean plus what the reservoir holds, the reservoir never exceeds what the
// decoder's 6144-bit-per-channel buffer allows (it starts full), and the ADTS buffer
// fullness reports it.
// Silence decodes to silence.
TEST(AacEncoderTest, KeepsTheDecoderBufferAndSilence) {
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);
  // Quiet passages (the reservoir fills), loud noise (it drains), clicks, silence.
  const Signal mixed = [&](int i, int) {
    const int second = i / kRate;
    if (second % 4 == 0) return 300 * uniform(rng);
    if (second % 4 == 1) return 30000 * uniform(rng);
    if (second % 4 == 2) return i % 4800 < 30 ? 25000.0 : 0.0;
    return 0.0;
  };
  for (const int channels : {1, 2}) {
    SCOPED_TRACE(testing::Message() << channels << " channels");
    const int bitrate = channels == 2 ? kStereoBitrate : kMonoBitrate;
    const std::vector<int16_t> pcm = Render(mixed, 8 * kRate, channels);
    const Encoded e = EncodeAndDecode(pcm, channels, bitrate, /*raw=*/false);
    AacEncoder fresh;
    AudioEncodeParams params;
    params.channels = channels;
    params.bitrate = bitrate;
    ASSERT_TRUE(fresh.Init(params));
    int64_t remainder = 0;
    int64_t reservoir = fresh.reservoir_bits();  // The stream starts with it full.
    const int64_t budget = 6144 * channels;
    for (size_t k = 0; k < e.units.size(); ++k) {
      const uint8_t* h = e.units[k]->GetData();
      const int64_t bits = int64_t(e.units[k]->GetSize() - 7) * 8;
      const int64_t mean = (remainder + int64_t(bitrate) * 1024) / kRate;
      remainder = (remainder + int64_t(bitrate) * 1024) % kRate;
      ASSERT_LE(bits, mean + reservoir) << k;
      ASSERT_LE(bits, budget) << k;
      reservoir += mean - bits;
      ASSERT_LE(reservoir, budget - mean) << k;
      const int fullness = ((h[5] & 0x1F) << 6) | (h[6] >> 2);
      EXPECT_EQ(fullness, std::min<int64_t>(reservoir / (32 * channels), 0x7FE)) << k;
    }
    // The last second is digital silence.
    const size_t from = size_t(7 * kRate + 2048) * channels;
    const size_t to = size_t(8 * kRate - 2048) * channels;
    EXPECT_TRUE(std::all_of(e.decoded.samples.begin() + from, e.decoded.samples.begin() + to,
                            [](float v) { return v == 0.0f; }));
  }
}

// A click or a castanet-like burst after silence, wherever it falls in a block: the
// noise that leaks ahead of the attack (pre-echo) stays far below the attack, where a
// long window alone spreads it up to 2048 samples ahead at ~-25 dB.
TEST(AacEncoderTest, ShortWindowsKeepPreEchoDown) {
  for (const int position : {100, 300, 500, 700, 900}) {
    SCOPED_TRACE(testing::Message() << "attack at " << position << " within its block");
    const int attack = 20 * 1024 + position;
    const Signal castanet = [attack](int i, int c) {
      if (i < attack) return 0.0;
      const double t = double(i - attack) / kRate;
      return 20000 * std::exp(-t / 0.004) * std::sin(2 * M_PI * (2500 + 300 * c) * t);
    };
    for (const int channels : {1, 2}) {
      const std::vector<int16_t> pcm = Render(castanet, 32 * 1024, channels);
      const Encoded e =
          EncodeAndDecode(pcm, channels, channels == 2 ? kStereoBitrate : kMonoBitrate, true);
      ASSERT_EQ(e.decoded.samples.size(), pcm.size());
      double ahead = 0, burst = 0;
      for (int i = attack - 2048; i < attack - 64; ++i) {
        const double v = e.decoded.samples[size_t(i + kDelay) * channels];
        ahead = std::max(ahead, std::fabs(v));
      }
      for (int i = attack; i < attack + 256; ++i) {
        burst = std::max(burst, std::fabs(double(pcm[size_t(i) * channels])));
      }
      EXPECT_LT(20 * std::log10(std::max(ahead, 1e-3) / burst), -40) << channels;
    }
  }
}

}  // namespace
}  // namespace aac
}  // namespace audio
}  // namespace tarnel
