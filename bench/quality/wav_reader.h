// Reading RIFF/WAVE files into floating-point channels for the quality measures.
//
//   Audio audio;
//   std::string error;
//   if (!ReadWav("item.wav", &audio, &error)) { ... }
//   // audio.channels[c][n]: sample n of channel c, full scale 1.0.
#ifndef BENCH_QUALITY_WAV_READER_H_
#define BENCH_QUALITY_WAV_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarnel_bench {
namespace quality {

// De-interleaved PCM: one vector per channel, every channel the same length. Integer
// samples are scaled so that the most negative code maps to -1.0 (s16: x / 32768), which
// keeps 16-bit input exact and lets ToS16() give back the very same codes.
struct Audio {
  int sample_rate = 0;
  std::vector<std::vector<float>> channels;

  size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

// Reads PCM (8/16/24/32-bit integer) or IEEE float (32/64-bit) WAVE data, plain or
// WAVE_FORMAT_EXTENSIBLE, skipping chunks it does not know. A data chunk that claims more
// bytes than the file holds (a stream written by a pipe) is read to the end of the file.
// False, with `*error` set, on anything else.
bool ReadWav(const std::string& path, Audio* audio, std::string* error);

// Interleaved s16 of `audio` (rounded, clipped to the 16-bit range).
std::vector<int16_t> ToS16(const Audio& audio);

}  // namespace quality
}  // namespace tarnel_bench

#endif  // BENCH_QUALITY_WAV_READER_H_
