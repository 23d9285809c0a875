// The quality measures on signals whose answers are known: exact floors and scales,
// NMR that follows the noise level dB for dB, the threshold of hearing and masking by a
// tone, alignment, and WAV files as other tools write them.
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench/quality/audio_quality.h"
#include "bench/quality/fft.h"
#include "bench/quality/wav_reader.h"
#include "bench/support/bench_input.h"
#include "gtest/gtest.h"

namespace tarnel_bench {
namespace quality {
namespace {

constexpr int kRate = 48000;

Audio MonoAudio(std::vector<float> samples) {
  Audio audio;
  audio.sample_rate = kRate;
  audio.channels.push_back(std::move(samples));
  return audio;
}

// The first four seconds of the bench's stereo music-like PCM (two chords).
Audio Music() {
  const std::vector<int16_t> pcm = MakeMusicLoop();
  const size_t frames = 4 * kRate;
  Audio audio;
  audio.sample_rate = kRate;
  audio.channels.assign(2, std::vector<float>(frames));
  for (size_t n = 0; n < 2 * frames; ++n) audio.channels[n % 2][n / 2] = pcm[n] / 32768.0f;
  return audio;
}

std::vector<float> WhiteNoise(size_t samples, double rms, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> normal(0.0, rms);
  std::vector<float> noise(samples);
  for (float& v : noise) v = static_cast<float>(normal(rng));
  return noise;
}

// Noise of the given RMS with its spectrum flat in [low_hz, high_hz] and empty elsewhere;
// `samples` must be a power of two.
std::vector<float> BandNoise(size_t samples, double low_hz, double high_hz, double rms,
                             uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> phase(0, 2 * M_PI);
  std::vector<std::complex<double>> spectrum(samples);
  for (size_t k = 1; k < samples / 2; ++k) {
    const double hz = static_cast<double>(k) * kRate / samples;
    if (hz < low_hz || hz > high_hz) continue;
    spectrum[k] = std::polar(1.0, phase(rng));
    spectrum[samples - k] = std::conj(spectrum[k]);
  }
  Fft(&spectrum, /*inverse=*/true);
  double power = 0;
  for (const auto& v : spectrum) power += v.real() * v.real();
  const double gain = rms / std::sqrt(power / samples);
  std::vector<float> noise(samples);
  for (size_t n = 0; n < samples; ++n) noise[n] = static_cast<float>(spectrum[n].real() * gain);
  return noise;
}

QualityReport Measure(const Audio& reference, const Audio& decoded, std::optional<int> lag = 0,
                      NmrModel::NoiseSpectrum noise = NmrModel::NoiseSpectrum::kComplexDifference) {
  QualityOptions options;
  options.lag = lag;
  options.noise = noise;
  QualityReport report;
  std::string error;
  EXPECT_TRUE(MeasureQuality(reference, decoded, options, &report, &error)) << error;
  return report;
}

Audio Plus(const Audio& a, const Audio& b) {
  Audio sum = a;
  for (size_t c = 0; c < sum.channels.size(); ++c) {
    for (size_t n = 0; n < sum.frames(); ++n) sum.channels[c][n] += b.channels[c][n];
  }
  return sum;
}

TEST(QualityMeasureTest, FloorsCeilingsAndSnrScale) {
  const Audio music = Music();
  QualityReport same = Measure(music, music);
  EXPECT_EQ(same.nmr_total_db, kFloorDb);
  EXPECT_EQ(same.nmr_p99_db, kFloorDb);
  EXPECT_EQ(same.nmr_max_db, kFloorDb);
  EXPECT_EQ(same.blocks_above_0db, 0);
  EXPECT_EQ(same.snr_db, kCeilingDb);
  EXPECT_EQ(same.segmental_snr_db.value_or(0), kSegmentalHighDb);
  // 4 s stereo: 187 frames a channel, all but the quietest loud.
  EXPECT_GT(same.loud_frames, 250);

  Audio half = music;
  for (auto& channel : half.channels) {
    for (float& v : channel) v *= 0.5f;
  }
  const QualityReport halved = Measure(music, half);
  EXPECT_NEAR(halved.snr_db, 6.0206, 1e-3);
  EXPECT_NEAR(halved.segmental_snr_db.value_or(0), 6.0206, 1e-3);
  EXPECT_NEAR(halved.min_loud_frame_snr_db.value_or(0), 6.0206, 1e-3);
  // An error in phase with the reference is the same noise to PEAQ's magnitude difference;
  // a polarity flip is no noise to it, but twice the signal (16x the halved error) as a waveform.
  const QualityReport halved_magnitude =
      Measure(music, half, 0, NmrModel::NoiseSpectrum::kMagnitudeDifference);
  EXPECT_NEAR(halved_magnitude.nmr_total_db, halved.nmr_total_db, 1e-6);
  Audio inverted = music;
  for (auto& channel : inverted.channels) {
    for (float& v : channel) v = -v;
  }
  EXPECT_EQ(Measure(music, inverted, 0, NmrModel::NoiseSpectrum::kMagnitudeDifference).nmr_total_db,
            kFloorDb);
  const QualityReport flipped = Measure(music, inverted);
  EXPECT_NEAR(flipped.snr_db, -6.0206, 1e-3);
  EXPECT_NEAR(flipped.nmr_total_db - halved.nmr_total_db, 20 * std::log10(4.0), 1e-6);

  // Digital silence against itself, and against itself shorter than one block.
  for (size_t length : {size_t{48000}, size_t{300}}) {
    const Audio silence = MonoAudio(std::vector<float>(length, 0.0f));
    const QualityReport quiet = Measure(silence, silence, std::nullopt);
    EXPECT_EQ(quiet.lag_found, 0);
    EXPECT_EQ(quiet.nmr_total_db, kFloorDb);
    EXPECT_EQ(quiet.snr_db, kCeilingDb);
    EXPECT_FALSE(quiet.segmental_snr_db.has_value());
    EXPECT_FALSE(quiet.min_loud_frame_snr_db.has_value());
    EXPECT_GE(quiet.blocks.size(), 1u);
  }
}

TEST(QualityMeasureTest, NmrFollowsTheNoiseLevel) {
  const Audio music = Music();
  Audio noise;
  noise.sample_rate = kRate;
  noise.channels = {WhiteNoise(music.frames(), 1e-3, 1), WhiteNoise(music.frames(), 1e-3, 2)};
  Audio louder = noise;
  for (auto& channel : louder.channels) {
    for (float& v : channel) v *= static_cast<float>(std::sqrt(10.0));
  }
  const QualityReport quiet = Measure(music, Plus(music, noise));
  const QualityReport loud = Measure(music, Plus(music, louder));
  // The error itself has to be measured, not the float rounding of signal + noise.
  EXPECT_NEAR(loud.nmr_total_db - quiet.nmr_total_db, 10.0, 0.05);
  EXPECT_NEAR(loud.nmr_p99_db - quiet.nmr_p99_db, 10.0, 0.05);
  EXPECT_NEAR(loud.nmr_max_db - quiet.nmr_max_db, 10.0, 0.05);
  EXPECT_NEAR(quiet.snr_db - loud.snr_db, 10.0, 0.05);
  EXPECT_LT(quiet.nmr_total_db, loud.nmr_total_db);
  ASSERT_EQ(quiet.blocks.size(), loud.blocks.size());
  for (size_t b = 0; b < quiet.blocks.size(); b += 23) {
    EXPECT_NEAR(loud.blocks[b].nmr_db - quiet.blocks[b].nmr_db, 10.0, 0.05) << b;
  }
}

TEST(QualityMeasureTest, ThresholdOfHearingAndMaskingByATone) {
  const size_t samples = 1 << 16;
  const Audio silence = MonoAudio(std::vector<float>(samples, 0.0f));
  // At 92 dB SPL for full scale, -120 dBFS white noise is at -28 dB SPL: far below the
  // threshold of hearing in every band. -30 dBFS (62 dB SPL) over silence is plainly heard.
  EXPECT_LT(Measure(silence, MonoAudio(WhiteNoise(samples, 1e-6, 3))).nmr_total_db, -30);
  const QualityReport heard = Measure(silence, MonoAudio(WhiteNoise(samples, 0.03, 3)));
  EXPECT_GT(heard.nmr_total_db, 20);
  EXPECT_EQ(heard.blocks_above_0db, 1.0);

  // A 1 kHz tone at -6 dBFS, and the same noise power next to it or two octaves higher.
  std::vector<float> tone(samples);
  for (size_t n = 0; n < samples; ++n) tone[n] = 0.5f * std::sin(2 * M_PI * 1000.0 * n / kRate);
  const Audio reference = MonoAudio(tone);
  auto with_noise = [&](double low_hz, double high_hz) {
    const std::vector<float> noise = BandNoise(samples, low_hz, high_hz, 0.003, 4);
    std::vector<float> decoded = tone;
    for (size_t n = 0; n < samples; ++n) decoded[n] += noise[n];
    return Measure(reference, MonoAudio(decoded));
  };
  const QualityReport near_tone = with_noise(950, 1050);
  const QualityReport far_away = with_noise(3900, 4100);
  EXPECT_LT(near_tone.nmr_total_db, -10);  // Masked.
  EXPECT_GT(far_away.nmr_total_db, 0);     // Heard.
  EXPECT_GT(far_away.nmr_total_db - near_tone.nmr_total_db, 20);
  // SNR cannot tell the two apart.
  EXPECT_NEAR(near_tone.snr_db, far_away.snr_db, 0.5);
}

TEST(QualityMeasureTest, FindsTheLagAndCompareOnlyTheOverlap) {
  const std::vector<float> noise = WhiteNoise(kRate, 0.1, 5);
  const Audio reference = MonoAudio(noise);
  for (int lag : {1234, -300, 0, 4096}) {
    std::vector<float> shifted(noise.size() + 5000, 0.0f);
    for (size_t n = 0; n < noise.size(); ++n) {
      const int64_t at = static_cast<int64_t>(n) + lag;
      if (at >= 0 && at < static_cast<int64_t>(shifted.size())) shifted[at] = noise[n];
    }
    const QualityReport found = Measure(reference, MonoAudio(shifted), std::nullopt);
    EXPECT_EQ(found.lag_found, lag);
    EXPECT_EQ(found.lag, lag);
    EXPECT_EQ(found.snr_db, kCeilingDb) << lag;
    EXPECT_EQ(found.compared_samples, static_cast<int64_t>(noise.size()) - (lag < 0 ? -lag : 0));
    // A lag that is given is used, and the one found is still reported.
    const QualityReport given = Measure(reference, MonoAudio(shifted), lag + 1);
    EXPECT_EQ(given.lag, lag + 1);
    EXPECT_EQ(given.lag_found, lag);
    EXPECT_LT(given.snr_db, 3);
  }
  QualityReport report;
  std::string error;
  EXPECT_FALSE(MeasureQuality(reference, Music(), QualityOptions(), &report, &error));
  EXPECT_FALSE(error.empty());
}

// Bytes of a little-endian WAVE file with the given fmt body and data, a LIST chunk of odd
// size (padded) between them.
std::vector<uint8_t> WaveBytes(const std::vector<uint8_t>& fmt, const std::vector<uint8_t>& data,
                               uint32_t data_size_field) {
  std::vector<uint8_t> out;
  auto tag = [&](const char* s) { out.insert(out.end(), s, s + 4); };
  auto u32 = [&](uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  };
  tag("RIFF");
  u32(0);  // Readers of piped output must not trust it.
  tag("WAVE");
  tag("fmt ");
  u32(static_cast<uint32_t>(fmt.size()));
  out.insert(out.end(), fmt.begin(), fmt.end());
  tag("LIST");
  u32(3);
  out.insert(out.end(), {'a', 'b', 'c', 0});
  tag("data");
  u32(data_size_field);
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

std::vector<uint8_t> Fmt(uint16_t format, uint16_t channels, uint16_t bits, bool extensible) {
  std::vector<uint8_t> f;
  auto u16 = [&](uint16_t v) { f.insert(f.end(), {uint8_t(v), uint8_t(v >> 8)}); };
  auto u32 = [&](uint32_t v) { u16(uint16_t(v)), u16(uint16_t(v >> 16)); };
  u16(extensible ? 0xfffe : format);
  u16(channels);
  u32(kRate);
  u32(kRate * channels * bits / 8);
  u16(static_cast<uint16_t>(channels * bits / 8));
  u16(bits);
  if (extensible) {
    u16(22);
    u16(bits);
    u32(0);
    u16(format);  // Then the rest of the sub-format GUID.
    f.insert(f.end(), {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xaa, 0, 0x38, 0x9b, 0x71});
  }
  return f;
}

std::string WriteTemp(const std::vector<uint8_t>& bytes, const char* name) {
  const std::string path = ::testing::TempDir() + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  EXPECT_NE(f, nullptr);
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
  return path;
}

TEST(QualityMeasureTest, ReadsWaveFilesAsToolsWriteThem) {
  // s16 stereo: -32768, 32767 | 1, -1 | 16384, 0.
  const std::vector<int16_t> pcm = {-32768, 32767, 1, -1, 16384, 0};
  std::vector<uint8_t> data(pcm.size() * 2);
  std::memcpy(data.data(), pcm.data(), data.size());
  Audio audio;
  std::string error;
  ASSERT_TRUE(ReadWav(WriteTemp(WaveBytes(Fmt(1, 2, 16, false), data, data.size()), "/s16.wav"),
                      &audio, &error))
      << error;
  ASSERT_EQ(audio.channels.size(), 2u);
  ASSERT_EQ(audio.frames(), 3u);
  EXPECT_EQ(audio.sample_rate, kRate);
  EXPECT_EQ(audio.channels[0][0], -1.0f);
  EXPECT_EQ(audio.channels[1][2], 0.0f);
  EXPECT_EQ(audio.channels[0][2], 0.5f);
  EXPECT_EQ(ToS16(audio), pcm);  // Codes survive the round trip.

  // Float, extensible, mono, with a data size a pipe left at its maximum.
  const std::vector<float> values = {0.25f, -1.5f, 1e-6f};
  data.resize(values.size() * 4);
  std::memcpy(data.data(), values.data(), data.size());
  ASSERT_TRUE(ReadWav(WriteTemp(WaveBytes(Fmt(3, 1, 32, true), data, 0xffffffff), "/f32.wav"),
                      &audio, &error))
      << error;
  ASSERT_EQ(audio.channels.size(), 1u);
  EXPECT_EQ(audio.channels[0], values);
  EXPECT_EQ(ToS16(audio), (std::vector<int16_t>{8192, -32768, 0}));

  // A-law is not read, nor is a file that is no WAVE.
  EXPECT_FALSE(
      ReadWav(WriteTemp(WaveBytes(Fmt(6, 1, 8, false), data, 4), "/alaw.wav"), &audio, &error));
  EXPECT_FALSE(ReadWav(WriteTemp(data, "/junk.wav"), &audio, &error));
}

}  // namespace
}  // namespace quality
}  // namespace tarnel_bench
