// The test seam of AudioEncoderFactory2, apart from audio_encoder.h because applications
// include that header and tests alone need this one.
//
//   tarnel::audio::ScopedAudioEncoderFactoryForTesting fakes(
//       [](int type) { return std::make_unique<MyFakeEncoder>(); });
//   // Every recorder started now encodes with MyFakeEncoder.
#ifndef SDK_MEDIA_SCOPED_AUDIO_ENCODER_FACTORY_FOR_TESTING_H_
#define SDK_MEDIA_SCOPED_AUDIO_ENCODER_FACTORY_FOR_TESTING_H_

#include <functional>
#include <memory>

#include "sdk/base/scoped_override.h"
#include "sdk/media/audio_encoder.h"

namespace tarnel {
namespace audio {

// While alive, AudioEncoderFactory2::CreateAudioEncoder makes its encoders with
// `factory` instead, on every thread; the factory in use before comes back when it goes.
class ScopedAudioEncoderFactoryForTesting {
 public:
  // Makes an encoder of `type`, or null; called on the threads that create encoders.
  using Factory = std::function<std::unique_ptr<AudioEncoder>(int type)>;

  explicit ScopedAudioEncoderFactoryForTesting(Factory factory);

 private:
  tarn_base::ScopedOverride<Factory> override_;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_SCOPED_AUDIO_ENCODER_FACTORY_FOR_TESTING_H_
