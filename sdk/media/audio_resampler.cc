#include "sdk/media/audio_resampler.h"

#include <atomic>

#include "sdk/base/logging.h"
#include "sdk/media/ffmpeg/ffmpeg_audio_resampler.h"

namespace tarnel {
namespace audio {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"audio_resampler"};

std::atomic<AudioResampleInterface::FactoryFunction> g_factory_for_testing{nullptr};

}  // namespace

// static
std::unique_ptr<AudioResampleInterface> AudioResampleInterface::Create(int type) {
  if (FactoryFunction factory = g_factory_for_testing.load(std::memory_order_acquire)) {
    return factory(type);
  }
  if (type == kAudioResamplerDefault) return std::make_unique<FfmpegAudioResampler>();
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, nullptr) << "no audio resampler of type " << type;
  return nullptr;
}

// static
void AudioResampleInterface::SetFactoryForTesting(FactoryFunction factory) {
  g_factory_for_testing.store(factory, std::memory_order_release);
}

}  // namespace audio
}  // namespace tarnel
