#include "sdk/media/audio_resampler.h"

#include <utility>

#include "sdk/base/logging.h"
#include "sdk/media/ffmpeg/ffmpeg_audio_resampler.h"

namespace tarnel {
namespace audio {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"audio_resampler"};

// The factory a test installed, or empty.
tarn_base::OverrideSlot<AudioResampleInterface::FactoryFunction>& FactoryForTesting() {
  static auto* const slot = new tarn_base::OverrideSlot<AudioResampleInterface::FactoryFunction>();
  return *slot;
}

}  // namespace

// static
std::unique_ptr<AudioResampleInterface> AudioResampleInterface::Create(int type) {
  if (const FactoryFunction factory = FactoryForTesting().Get()) return factory(type);
  if (type == kAudioResamplerDefault) return std::make_unique<FfmpegAudioResampler>();
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, nullptr) << "no audio resampler of type " << type;
  return nullptr;
}

ScopedAudioResamplerFactoryForTesting::ScopedAudioResamplerFactoryForTesting(
    AudioResampleInterface::FactoryFunction factory)
    : override_(&FactoryForTesting(), std::move(factory)) {}

}  // namespace audio
}  // namespace tarnel
