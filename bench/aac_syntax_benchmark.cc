// The AAC bitstream layer on quantised spectra like a rate loop produces at 48 kHz: mostly
// small values falling off towards the high bands (about 600 nonzero lines of a long
// window), the odd large one, scalefactors wandering around 100.
//
//   PrepareChannel/long      codebooks and sections of one long-window channel
//   PrepareChannel/short     the same for eight short windows in groups of 3, 1 and 4
//   PrepareChannelPair/long  two long-window channels sharing max_sfb, M/S on every 2nd band
//   WriteChannel/long        writing the prepared channel (element and ID_END)
// Counters: bits (what Prepare returned) and nonzero (nonzero lines of the spectrum).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "benchmark/benchmark.h"
#include "sdk/media/aac/aac_syntax.h"

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

BENCHMARK(BM_PrepareChannelLong);
BENCHMARK(BM_PrepareChannelShort);
BENCHMARK(BM_PrepareChannelPairLong);
BENCHMARK(BM_WriteChannelLong);

}  // namespace
