// Sample-rate and channel-count conversion of PCM frames.
//
//   std::unique_ptr<AudioResampleInterface> resampler = AudioResampleInterface::Create(0);
//   AudioFrame out;  out.SetSampleRate(48000);  out.SetChannels(2);
//   resampler->Configure(44100, 1, 48000, 2);
//   resampler->Resample(in, &out);
#ifndef SDK_MEDIA_AUDIO_RESAMPLER_H_
#define SDK_MEDIA_AUDIO_RESAMPLER_H_

#include <functional>
#include <memory>

#include "sdk/base/scoped_override.h"
#include "sdk/media/audio_frame.h"

namespace tarnel {
namespace audio {

// Converter types for AudioResampleInterface::Create.
constexpr int kAudioResamplerDefault = 0;

// Converts interleaved s16 PCM between sample rates and channel counts. Keeps filter
// state between calls so that consecutive frames of one stream join without clicks.
// Not thread-safe.
class AudioResampleInterface {
 public:
  // A converter of `type`, or null when the type is unknown. Tests may install their
  // own factory with ScopedAudioResamplerFactoryForTesting.
  static std::unique_ptr<AudioResampleInterface> Create(int type);
  using FactoryFunction = std::function<std::unique_ptr<AudioResampleInterface>(int type)>;

  virtual ~AudioResampleInterface() = default;

  // Sets the conversion for the next Resample calls. Reconfiguring with the values in
  // use keeps the stream state. Returns 0 on success, negative when the conversion is
  // not supported.
  virtual int Configure(int in_sample_rate, int in_channels, int out_sample_rate,
                        int out_channels) = 0;

  // Converts the PCM of `input` into `output`, whose sample rate and channel count the
  // caller has set to the configured output. Returns 0 on success, negative on failure
  // (then `output` carries no data). The output's timestamp and format are the input's.
  virtual int Resample(const AudioFrame& input, AudioFrame* output) = 0;
};

// While alive, Create makes its converters with `factory` instead, on every thread;
// the factory in use before comes back when it goes.
class ScopedAudioResamplerFactoryForTesting {
 public:
  explicit ScopedAudioResamplerFactoryForTesting(AudioResampleInterface::FactoryFunction factory);

 private:
  tarn_base::ScopedOverride<AudioResampleInterface::FactoryFunction> override_;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AUDIO_RESAMPLER_H_
