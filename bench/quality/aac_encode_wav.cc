// aac_encode_wav: encodes a WAV file to AAC-LC with ADTS headers through the
// AudioEncoder interface, as the recorder feeds it, and reports what the quality runs
// need to line the decoded audio up and to cost it.
//
//   aac_encode_wav --coder tarnel|twoloop|fast [--bitrate N] IN.wav OUT.aac
//
// The input (1 or 2 channels, a rate the encoder takes; read as s16) goes in as
// 1024-sample pieces, the last one padded with zeros, followed by enough silent pieces
// to push the encoder's priming out. Prints one JSON object: the coder, the bit rate,
// GetPrimingSamples() (the decoded audio is that many samples late), the pieces fed,
// the bytes written and the CPU time of this thread spent inside Encode().
// --bitrate defaults to the recorder's: 196608 b/s for stereo, the encoder's default
// (64000) for mono.
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/quality/wav_reader.h"
#include "sdk/base/logging.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_frame.h"

namespace {

using tarnel::audio::AacEncoderKind;
using tarnel::audio::AudioEncodeParams;
using tarnel::audio::AudioEncoder;
using tarnel::audio::AudioFrame;
using tarnel::audio::kAacSamplesPerFrame;

constexpr int kStereoBitrate = 196608;  // The recorder's stereo rate.

double ThreadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

int Usage() {
  std::fprintf(stderr,
               "usage: aac_encode_wav --coder tarnel|twoloop|fast [--bitrate N] IN.wav OUT.aac\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  bool have_coder = false;
  AacEncoderKind coder = AacEncoderKind::kBuiltIn;
  int bitrate = 0;
  std::string paths[2];
  int path_count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--coder" && i + 1 < argc) {
      have_coder = tarnel::audio::ParseAacEncoderKind(argv[++i], &coder);
      if (!have_coder) return Usage();
    } else if (arg == "--bitrate" && i + 1 < argc) {
      bitrate = std::atoi(argv[++i]);
    } else if (!arg.empty() && arg[0] != '-' && path_count < 2) {
      paths[path_count++] = arg;
    } else {
      return Usage();
    }
  }
  if (!have_coder || path_count != 2) return Usage();
  tarn_logging::SetMinSeverity(tarn_logging::LS_WARNING);

  tarnel_bench::quality::Audio audio;
  std::string error;
  if (!tarnel_bench::quality::ReadWav(paths[0], &audio, &error)) {
    std::fprintf(stderr, "aac_encode_wav: %s\n", error.c_str());
    return 1;
  }
  const int channels = static_cast<int>(audio.channels.size());
  AudioEncodeParams params;
  params.channels = channels;
  params.sample_rate = audio.sample_rate;
  params.raw_access_units = 0;  // ADTS.
  if (bitrate > 0) {
    params.bitrate = bitrate;
  } else if (channels == 2) {
    params.bitrate = kStereoBitrate;
  }
  std::unique_ptr<AudioEncoder> encoder = tarnel::audio::CreateAacEncoder(coder);
  if (!encoder->Init(params)) {
    std::fprintf(stderr, "aac_encode_wav: Init failed (%d ch, %d Hz, %d b/s)\n", channels,
                 params.sample_rate, params.bitrate);
    return 1;
  }
  FILE* out = std::fopen(paths[1].c_str(), "wb");
  if (!out) {
    std::fprintf(stderr, "aac_encode_wav: cannot write %s\n", paths[1].c_str());
    return 1;
  }

  std::vector<int16_t> pcm = tarnel_bench::quality::ToS16(audio);
  const size_t piece_values = static_cast<size_t>(kAacSamplesPerFrame) * channels;
  const size_t input_pieces = (audio.frames() + kAacSamplesPerFrame - 1) / kAacSamplesPerFrame;
  const int priming = encoder->GetPrimingSamples();
  const size_t pieces = input_pieces + (priming + kAacSamplesPerFrame - 1) / kAacSamplesPerFrame;
  pcm.resize(pieces * piece_values, 0);  // The padding and the flushing pieces: silence.

  double cpu_s = 0;
  size_t bytes = 0;
  for (size_t n = 0; n < pieces; ++n) {
    auto frame = std::make_shared<AudioFrame>();
    frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data() + n * piece_values),
                   piece_values * sizeof(int16_t));
    frame->SetSampleRate(audio.sample_rate);
    frame->SetChannels(channels);
    frame->SetTimestampInMs(
        static_cast<uint32_t>(n * 1000ULL * kAacSamplesPerFrame / audio.sample_rate));
    const double before = ThreadCpuSeconds();
    std::shared_ptr<AudioFrame> encoded = encoder->Encode(frame);
    cpu_s += ThreadCpuSeconds() - before;
    if (!encoded) {
      std::fprintf(stderr, "aac_encode_wav: Encode failed at piece %zu\n", n);
      std::fclose(out);
      return 1;
    }
    if (std::fwrite(encoded->GetData(), 1, encoded->GetSize(), out) != encoded->GetSize()) {
      std::fprintf(stderr, "aac_encode_wav: write failed\n");
      std::fclose(out);
      return 1;
    }
    bytes += encoded->GetSize();
  }
  if (std::fclose(out) != 0) {
    std::fprintf(stderr, "aac_encode_wav: write failed\n");
    return 1;
  }
  const double audio_s = static_cast<double>(audio.frames()) / audio.sample_rate;
  std::printf(
      "{\"coder\": \"%s\", \"channels\": %d, \"sample_rate\": %d, \"bitrate\": %d, "
      "\"priming_samples\": %d, \"input_samples\": %zu, \"pieces\": %zu, \"bytes\": %zu, "
      "\"encode_cpu_ms\": %.3f, \"encode_cpu_ms_per_audio_s\": %.3f}\n",
      tarnel::audio::AacEncoderKindName(coder), channels, audio.sample_rate, params.bitrate,
      priming, audio.frames(), pieces, bytes, cpu_s * 1000,
      audio_s > 0 ? cpu_s * 1000 / audio_s : 0.0);
  return 0;
}
