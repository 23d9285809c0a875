#include "sdk/media/audio_encoder.h"

#include <utility>

#include "sdk/base/logging.h"
#include "sdk/media/aac/aac_encoder.h"
#include "sdk/media/ffmpeg/ffmpeg_aac_encoder.h"
#include "sdk/media/scoped_audio_encoder_factory_for_testing.h"

namespace tarnel {
namespace audio {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"audio_encoder"};

// The factory a test installed, or empty.
tarn_base::OverrideSlot<ScopedAudioEncoderFactoryForTesting::Factory>& FactoryForTesting() {
  static auto* const slot =
      new tarn_base::OverrideSlot<ScopedAudioEncoderFactoryForTesting::Factory>();
  return *slot;
}

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
  static AudioEncoderFactory2* const instance = new AudioEncoderFactory2();
  return instance;
}

ScopedAudioEncoderFactoryForTesting::ScopedAudioEncoderFactoryForTesting(Factory factory)
    : override_(&FactoryForTesting(), std::move(factory)) {}

bool AudioEncoder::AcceptsInput(const AudioFrame* input) const {
  const int32_t size = GetInputSizeInBytes();
  if (size <= 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "Encode before a successful Init";
    return false;
  }
  if (input == nullptr || input->GetAudioFrameFormat() != kPcm ||
      input->GetSize() != static_cast<uint64_t>(size)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "input must be " << size << " bytes of PCM, got " << (input ? input->GetSize() : 0)
        << " bytes of format " << (input ? input->GetAudioFrameFormat() : 0);
    return false;
  }
  if ((input->GetSampleRate() != 0 && input->GetSampleRate() != GetSampleRate()) ||
      (input->GetChannels() != 0 && input->GetChannels() != GetChannels())) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "input is " << input->GetSampleRate() << " Hz, " << input->GetChannels()
        << " channels; the encoder was set up for " << GetSampleRate() << " Hz, " << GetChannels();
    return false;
  }
  return true;
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
  return std::make_unique<aac::AacEncoder>();
}

std::unique_ptr<AudioEncoder> AudioEncoderFactory2::CreateAudioEncoder(int type) {
  if (const auto factory = FactoryForTesting().Get()) return factory(type);
  if (type == kAudioEncoderAac) return CreateAacEncoder(aac_encoder_kind());
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "no audio encoder of type " << type;
  return nullptr;
}

}  // namespace audio
}  // namespace tarnel
