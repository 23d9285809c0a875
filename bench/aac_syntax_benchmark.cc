// The AAC bitstream layer on quantised spectra like a rate loop produces at 48 kHz: mostly
// small values falling off towards the high bands (about 600 nonzero lines of a long
// window), the odd large one, scalefactors wandering around 100.
//
//   PrepareChannel/long      codebooks and sections of one long-window channel
//   PrepareChannel/short     the same for eight short windows in groups of 3, 1 and 4
//   PrepareChannelPair/long  two long-window channels sharing max_sfb, M/S on every 2nd band
//   WriteChannel/long        writing the prepared channel (element and ID_END)
//   ApplyTns/long/attack     TNS analysis and filter of one long window holding a click
//                            (20 ms of silence, a decaying 3 kHz burst over noise)
//   ApplyTns/long/noise      the same on stationary noise: analysis only, no filter pays
//   ApplyTns/short/attack    eight short windows of the click
// Counters: bits (what Prepare returned) and nonzero (nonzero lines of the spectrum);
// for ApplyTns, filtered (share of calls that filtered). Each ApplyTns iteration first
// copies the 1024 unfiltered lines back (a few tens of nanoseconds).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "benchmark/benchmark.h"
#include "sdk/media/aac/aac_syntax.h"
#include "sdk/media/aac/mdct.h"
#include "sdk/media/aac/tns.h"

namespace {

using tarnel::audio::aac::BandLayoutForSampleRate;
using tarnel::audio::aac::BitWriter;
using tarnel::audio::aac::ChannelData;
using tarnel::audio::aac::kEightShort;
using tarnel::audio::aac::kFrameLength;
using tarnel::audio::aac::kMaxBands;
using tarnel::audio::aac::kOnlyLong;
using tarnel::audio::aac::kShortWindowLength;
using tarnel::audio::aac::kShortWindows;
using tarnel::audio::aac::Mdct;
using tarnel::audio::aac::TnsData;
using tarnel::audio::aac::WindowSequence;

constexpr int kVariants = 16;  // Different spectra cycled through, so no branch is learnt.

// One channel's quantised spectrum. Long: a Laplacian-like envelope 10 * exp(-3k/1024)
// gives ~600 nonzero lines.
void Fill(ChannelData* channel, bool is_short, std::mt19937* random) {
  channel->layout = BandLayoutForSampleRate(48000);
  channel->ics.window_sequence = is_short ? kEightShort : kOnlyLong;
  channel->num_bands =
      is_short ? channel->layout->num_short_bands : channel->layout->num_long_bands;
  if (is_short) {
    channel->ics.num_window_groups = 3;
    channel->ics.window_group_length[0] = 3;
    channel->ics.window_group_length[1] = 1;
    channel->ics.window_group_length[2] = 4;
  }
  std::exponential_distribution<double> magnitude(1.0);
  const int length = is_short ? kShortWindowLength : kFrameLength;
  for (int i = 0; i < kFrameLength; ++i) {
    const int k = i % length;
    double v = magnitude(*random) * 10.0 * std::exp(-3.0 * k / length) - 0.5;
    if ((*random)() % 211 == 0) v *= 40;
    const int q = v <= 0 ? 0 : static_cast<int>(std::lround(v));
    channel->quant[i] = std::min(q, 8191) * ((*random)() % 2 ? 1 : -1);
  }
  int sf = 100;
  std::uniform_int_distribution<int> step(-2, 2);
  for (int g = 0; g < kShortWindows; ++g) {
    for (int b = 0; b < kMaxBands; ++b) {
      sf = std::clamp(sf + step(*random), 80, 120);
      channel->scalefactor[g][b] = static_cast<int16_t>(sf);
    }
  }
}

std::vector<ChannelData> Spectra(bool is_short) {
  std::mt19937 random(is_short ? 2 : 1);
  std::vector<ChannelData> spectra(kVariants);
  for (ChannelData& channel : spectra) Fill(&channel, is_short, &random);
  return spectra;
}

int Nonzero(const ChannelData& channel) {
  return static_cast<int>(std::count_if(std::begin(channel.quant), std::end(channel.quant),
                                        [](int32_t v) { return v != 0; }));
}

void PrepareChannel(benchmark::State& state, bool is_short) {
  std::vector<ChannelData> spectra = Spectra(is_short);
  int64_t bits = 0;
  int64_t nonzero = 0;
  size_t i = 0;
  for (auto _ : state) {
    ChannelData& channel = spectra[i++ % spectra.size()];
    const int result = tarnel::audio::aac::PrepareChannel(&channel);
    benchmark::DoNotOptimize(result);
    bits += result;
  }
  for (const ChannelData& channel : spectra) nonzero += Nonzero(channel);
  state.counters["bits"] = static_cast<double>(bits) / static_cast<double>(state.iterations());
  state.counters["nonzero"] = static_cast<double>(nonzero) / static_cast<double>(spectra.size());
}

void BM_PrepareChannelLong(benchmark::State& state) { PrepareChannel(state, false); }
void BM_PrepareChannelShort(benchmark::State& state) { PrepareChannel(state, true); }

void BM_PrepareChannelPairLong(benchmark::State& state) {
  std::vector<ChannelData> left = Spectra(false);
  std::vector<ChannelData> right = Spectra(false);
  std::rotate(right.begin(), right.begin() + 1, right.end());
  uint8_t ms_used[kShortWindows][kMaxBands] = {};
  for (int b = 0; b < kMaxBands; b += 2) ms_used[0][b] = 1;
  int64_t bits = 0;
  size_t i = 0;
  for (auto _ : state) {
    const size_t k = i++ % left.size();
    const int result = tarnel::audio::aac::PrepareChannelPair(&left[k], &right[k], ms_used);
    benchmark::DoNotOptimize(result);
    bits += result;
  }
  state.counters["bits"] = static_cast<double>(bits) / static_cast<double>(state.iterations());
}

void BM_WriteChannelLong(benchmark::State& state) {
  std::vector<ChannelData> spectra = Spectra(false);
  for (ChannelData& channel : spectra) tarnel::audio::aac::PrepareChannel(&channel);
  std::vector<uint8_t> buffer(8192);
  size_t i = 0;
  for (auto _ : state) {
    BitWriter writer(buffer.data(), buffer.size());
    tarnel::audio::aac::WriteSingleChannelElement(&writer, spectra[i++ % spectra.size()]);
    tarnel::audio::aac::WriteEnd(&writer);
    benchmark::DoNotOptimize(buffer.data());
  }
}

// MDCT spectra (16-bit PCM scale) of sine-windowed 48 kHz audio: low noise at -60 dBFS,
// and with `attack` a -6 dBFS 3 kHz burst decaying with 4 ms that starts at a different
// point of each variant's window (the short ones' attack lands in windows 1 to 6).
std::vector<std::vector<float>> TnsSpectra(bool attack, bool is_short) {
  std::mt19937 random(attack ? 5 : 6);
  std::normal_distribution<float> noise(0.0f, 32.0f);
  const int length = is_short ? kShortWindowLength : kFrameLength;
  std::unique_ptr<Mdct> mdct = Mdct::Create(length);
  alignas(32) float windowed[2 * kFrameLength];
  alignas(32) float lines[kFrameLength];
  std::vector<std::vector<float>> spectra;
  for (int v = 0; v < kVariants; ++v) {
    std::vector<float> pcm(2 * kFrameLength);
    const int onset = is_short ? 448 + 128 + v * 768 / kVariants : 200 + v * 1600 / kVariants;
    for (int i = 0; i < 2 * kFrameLength; ++i) {
      pcm[i] = noise(random);
      if (attack && i >= onset) {
        const float t = static_cast<float>(i - onset) / 48000.0f;
        pcm[i] += 16384.0f * std::exp(-t / 0.004f) * std::sin(2.0f * 3.14159265f * 3000.0f * t);
      }
    }
    std::vector<float> spectrum(kFrameLength);
    const int windows = is_short ? kShortWindows : 1;
    for (int w = 0; w < windows; ++w) {
      const float* in = pcm.data() + (is_short ? 448 + w * kShortWindowLength : 0);
      for (int i = 0; i < 2 * length; ++i) {
        windowed[i] = in[i] * std::sin(3.14159265f * (static_cast<float>(i) + 0.5f) /
                                       static_cast<float>(2 * length));
      }
      mdct->Forward(windowed, lines);
      std::copy(lines, lines + length, spectrum.begin() + w * length);
    }
    spectra.push_back(spectrum);
  }
  return spectra;
}

void ApplyTns(benchmark::State& state, bool attack, bool is_short) {
  const std::vector<std::vector<float>> spectra = TnsSpectra(attack, is_short);
  const tarnel::audio::aac::BandLayout* layout = BandLayoutForSampleRate(48000);
  const WindowSequence sequence = is_short ? kEightShort : kOnlyLong;
  const int coded_bands = is_short ? layout->num_short_bands : layout->num_long_bands;
  alignas(32) float spectrum[kFrameLength];
  TnsData tns;
  int64_t filtered = 0;
  size_t i = 0;
  for (auto _ : state) {
    const std::vector<float>& source = spectra[i++ % spectra.size()];
    std::copy(source.begin(), source.end(), spectrum);
    filtered +=
        tarnel::audio::aac::ApplyTns(spectrum, sequence, *layout, 48000, coded_bands, &tns) ? 1 : 0;
    benchmark::DoNotOptimize(spectrum);
  }
  state.counters["filtered"] =
      static_cast<double>(filtered) / static_cast<double>(state.iterations());
}

void BM_ApplyTnsLongAttack(benchmark::State& state) { ApplyTns(state, true, false); }
void BM_ApplyTnsLongNoise(benchmark::State& state) { ApplyTns(state, false, false); }
void BM_ApplyTnsShortAttack(benchmark::State& state) { ApplyTns(state, true, true); }

BENCHMARK(BM_PrepareChannelLong);
BENCHMARK(BM_PrepareChannelShort);
BENCHMARK(BM_PrepareChannelPairLong);
BENCHMARK(BM_WriteChannelLong);
BENCHMARK(BM_ApplyTnsLongAttack);
BENCHMARK(BM_ApplyTnsLongNoise);
BENCHMARK(BM_ApplyTnsShortAttack);

}  // namespace
