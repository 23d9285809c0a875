#include "sdk/media/audio_encoder.h"

#include <atomic>

#include "sdk/base/logging.h"
#include "sdk/media/aac/aac_encoder.h"
#include "sdk/media/ffmpeg/ffmpeg_aac_encoder.h"

namespace tarnel {
namespace audio {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"audio_encoder"};

// The factory GetInstance() hands out instead of the built-in one; set by tests.
std::atomic<AudioEncoderFactory2*> g_factory_for_testing{nullptr};

class BuiltInAudioEncoderFactory : public AudioEncoderFactory2 {};

constexpr struct {
  AacEncoderKind kind;
  const char* name;
} kAacEncoderNames[] = {
    {AacEncoderKind::kBuiltIn, "tarnel"},
    {AacEncoderKind::kFfmpegTwoLoop, "twoloop"},
    {AacEncoderKind::kFfmpegFast, "fast"},
};

}  // namespace

const char* AacEncoderKindName(AacEncoderKind kind) {
  for (const auto& entry : kAacEncoderNames) {
    if (entry.kind == kind) return entry.name;
  }
  return "unknown";
}

bool ParseAacEncoderKind(const std::string& name, AacEncoderKind* kind) {
  for (const auto& entry : kAacEncoderNames) {
    if (name == entry.name) {
      *kind = entry.kind;
      return true;
    }
  }
  return false;
}

// static
AudioEncoderFactory2* AudioEncoderFactory2::GetInstance() {
  if (AudioEncoderFactory2* factory = g_factory_for_testing.load(std::memory_order_acquire)) {
    return factory;
  }
  static BuiltInAudioEncoderFactory* const built_in = new BuiltInAudioEncoderFactory();
  return built_in;
}

// static
void AudioEncoderFactory2::SetInstanceForTesting(AudioEncoderFactory2* factory) {
  g_factory_for_testing.store(factory, std::memory_order_release);
}

std::unique_ptr<AudioEncoder> CreateAacEncoder(AacEncoderKind kind) {
  switch (kind) {
    case AacEncoderKind::kFfmpegTwoLoop:
      return std::make_unique<FfmpegAacEncoder>(FfmpegAacEncoder::Coder::kTwoLoop);
    case AacEncoderKind::kFfmpegFast:
      return std::make_unique<FfmpegAacEncoder>(FfmpegAacEncoder::Coder::kFast);
    case AacEncoderKind::kBuiltIn:
      break;
  }
  return std::make_unique<AacEncoder>();
}

std::unique_ptr<AudioEncoder> AudioEncoderFactory2::CreateAudioEncoder(int type) {
  if (type == kAudioEncoderAac) return CreateAacEncoder(aac_encoder_kind());
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "no audio encoder of type " << type;
  return nullptr;
}

}  // namespace audio
}  // namespace tarnel
