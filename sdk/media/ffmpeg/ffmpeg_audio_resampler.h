// Sample-rate and channel conversion of s16 PCM on libswresample.
//
//   FfmpegAudioResampler resampler;
//   resampler.Configure(44100, 2, 48000, 1);
//   AudioFrame out;
//   for (each 10 ms frame `in` of the stream) resampler.Resample(in, &out);
//
// One converter serves one stream at a time: it keeps the filter history between
// calls, so consecutive frames join without clicks. The history also delays the output
// by the filter's length (well under 1 ms), so the first frame converts to slightly
// fewer samples than its duration asks; later frames make up for it. Not thread-safe.
#ifndef SDK_MEDIA_FFMPEG_FFMPEG_AUDIO_RESAMPLER_H_
#define SDK_MEDIA_FFMPEG_FFMPEG_AUDIO_RESAMPLER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "sdk/media/audio_frame.h"
#include "sdk/media/audio_resampler.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"

namespace tarnel {
namespace audio {

class FfmpegAudioResampler : public AudioResampleInterface {
 public:
  // Rates from 8000 to 96000 Hz, 1 or 2 channels, on either side.
  static constexpr int kMinSampleRate = 8000;
  static constexpr int kMaxSampleRate = 96000;

  FfmpegAudioResampler() = default;
  ~FfmpegAudioResampler() override;
  FfmpegAudioResampler(const FfmpegAudioResampler&) = delete;
  FfmpegAudioResampler& operator=(const FfmpegAudioResampler&) = delete;

  // The values in use keep the stream; new ones start a new stream. Stereo to mono
  // averages the channels; mono to stereo copies the channel to both at unity gain.
  // On failure the converter is left unconfigured.
  int Configure(int in_sample_rate, int in_channels, int out_sample_rate,
                int out_channels) override;

  // `input` must be PCM; when its rate or channel count is set (non-zero) it must be
  // the configured input's. `output` gets the samples this input produced (possibly
  // none), the configured output rate and channel count, and the input's timestamp.
  int Resample(const AudioFrame& input, AudioFrame* output) override;

 private:
  void Free();
  int Fail(AudioFrame* output, const std::string& reason);

  FfmpegPtr<SwrContext> swr_;
  int in_sample_rate_ = 0;
  int in_channels_ = 0;
  int out_sample_rate_ = 0;
  int out_channels_ = 0;
  std::vector<int16_t> out_buffer_;
  // Resample failures are logged once until the next success, not once per frame.
  bool failure_logged_ = false;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_FFMPEG_FFMPEG_AUDIO_RESAMPLER_H_
