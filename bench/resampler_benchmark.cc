// Per-frame cost of the recorder's PCM conversion: one 10 ms frame through the built-in
// converter, for the common capture formats that differ from the 48 kHz recording rate.
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "benchmark/benchmark.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/audio_resampler.h"

namespace {

using tarnel::audio::AudioFrame;
using tarnel::audio::AudioResampleInterface;

// A second of a 1 kHz tone, cut into 10 ms frames and fed round and round.
void BM_Resample10MsFrame(benchmark::State& state, int in_rate, int in_channels, int out_rate,
                          int out_channels) {
  const int per_frame = in_rate / 100;
  std::vector<int16_t> pcm(static_cast<size_t>(in_rate) * in_channels);
  for (size_t i = 0; i < pcm.size(); ++i) {
    pcm[i] = static_cast<int16_t>(
        std::lround(12000 * std::sin(2 * 3.14159265358979 * 1000 * (i / in_channels) / in_rate)));
  }
  std::vector<AudioFrame> frames(100);
  for (int n = 0; n < 100; ++n) {
    frames[n].SetData(reinterpret_cast<const uint8_t*>(pcm.data() + n * per_frame * in_channels),
                      static_cast<uint64_t>(per_frame) * in_channels * sizeof(int16_t));
    frames[n].SetSampleRate(in_rate);
    frames[n].SetChannels(in_channels);
  }
  std::unique_ptr<AudioResampleInterface> resampler =
      AudioResampleInterface::Create(tarnel::audio::kAudioResamplerDefault);
  if (!resampler || resampler->Configure(in_rate, in_channels, out_rate, out_channels) != 0) {
    state.SkipWithError("no converter for this configuration");
    return;
  }
  AudioFrame out;
  out.SetSampleRate(out_rate);
  out.SetChannels(out_channels);
  int n = 0;
  for (auto _ : state) {
    // The recorder configures before every frame; with unchanged values that is a compare.
    resampler->Configure(in_rate, in_channels, out_rate, out_channels);
    if (resampler->Resample(frames[n], &out) != 0) {
      state.SkipWithError("Resample failed");
      return;
    }
    benchmark::DoNotOptimize(out.GetData());
    n = (n + 1) % 100;
  }
}

BENCHMARK_CAPTURE(BM_Resample10MsFrame, stereo_44100_to_stereo_48000, 44100, 2, 48000, 2);
BENCHMARK_CAPTURE(BM_Resample10MsFrame, stereo_44100_to_mono_48000, 44100, 2, 48000, 1);
BENCHMARK_CAPTURE(BM_Resample10MsFrame, mono_16000_to_mono_48000, 16000, 1, 48000, 1);
BENCHMARK_CAPTURE(BM_Resample10MsFrame, stereo_96000_to_stereo_48000, 96000, 2, 48000, 2);

}  // namespace
