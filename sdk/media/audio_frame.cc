#include "sdk/media/audio_frame.h"

namespace tarnel {
namespace audio {

AudioFrame AudioFrame::Clone() const {
  AudioFrame copy;
  copy.data_ = data_;
  copy.timestamp_ms_ = timestamp_ms_;
  copy.sample_rate_ = sample_rate_;
  copy.channels_ = channels_;
  copy.format_ = format_;
  copy.encoder_delay_samples_ = encoder_delay_samples_;
  return copy;
}

void AudioFrame::SetData(const uint8_t* data, uint64_t size) {
  if (data == nullptr || size == 0) {
    data_.clear();
    return;
  }
  data_.assign(data, data + size);
}

float AudioFrame::GetFrameSizeInMs() const {
  if (sample_rate_ <= 0) return 0.0f;
  switch (format_) {
    case kPcm: {
      if (channels_ <= 0) return 0.0f;
      // Single precision in this order: callers derive timestamps, periods and counts
      // from it and truncate, so the rounding must not depend on the compiler.
      const float bytes_per_second =
          static_cast<float>(2 * channels_) * static_cast<float>(sample_rate_);
      return static_cast<float>(data_.size()) / bytes_per_second * 1000.0f;
    }
    case kAac:
      return static_cast<float>(kAacSamplesPerFrame * 1000) / static_cast<float>(sample_rate_);
  }
  return 0.0f;
}

}  // namespace audio
}  // namespace tarnel
