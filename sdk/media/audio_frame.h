// One audio frame: PCM samples or one AAC access unit, with its timestamp.
//
//   auto frame = std::make_unique<tarnel::audio::AudioFrame>();
//   frame->SetSampleRate(44100);
//   frame->SetChannels(2);
//   frame->SetData(reinterpret_cast<const uint8_t*>(samples), 441 * 2 * sizeof(int16_t));
//   frame->SetTimestampInMs(20);
//   recorder->WriteAudioFrame(std::move(frame));
//
// PCM is interleaved signed 16-bit native-endian. An AAC frame is one AAC-LC access
// unit, raw or behind an ADTS header, of 1024 samples per channel. A frame owns its
// bytes; Clone() is the only way to copy one.
#ifndef SDK_MEDIA_AUDIO_FRAME_H_
#define SDK_MEDIA_AUDIO_FRAME_H_

#include <cstdint>
#include <vector>

namespace tarnel {
namespace audio {

enum AudioCodecFormat : int32_t {
  kAac = 10,
  kPcm = 99,
};

// Samples per channel in one AAC-LC access unit.
constexpr int kAacSamplesPerFrame = 1024;

class AudioFrameRingBuffer;

class AudioFrame {
 public:
  // An empty PCM frame: no data, timestamp 0, rate and channel count 0.
  AudioFrame() = default;
  AudioFrame(AudioFrame&& other) noexcept = default;
  AudioFrame& operator=(AudioFrame&& other) noexcept = default;
  AudioFrame(const AudioFrame&) = delete;
  AudioFrame& operator=(const AudioFrame&) = delete;
  ~AudioFrame() = default;

  // An independent copy: bytes, timestamp, sample rate, channel count and format.
  AudioFrame Clone() const;

  // Null when the frame carries no data. The bytes are writable.
  uint8_t* GetData() { return data_.empty() ? nullptr : data_.data(); }
  const uint8_t* GetData() const { return data_.empty() ? nullptr : data_.data(); }
  uint64_t GetSize() const { return data_.size(); }
  // Replaces the bytes with a copy of `size` bytes at `data`; keeps no reference.
  void SetData(const uint8_t* data, uint64_t size);

  int32_t GetSampleRate() const { return sample_rate_; }
  void SetSampleRate(int32_t sample_rate) { sample_rate_ = sample_rate; }
  int32_t GetChannels() const { return channels_; }
  void SetChannels(int32_t channels) { channels_ = channels; }

  uint32_t GetTimestampInMs() const { return timestamp_ms_; }
  void SetTimestampInMs(uint32_t timestamp_ms) { timestamp_ms_ = timestamp_ms; }

  AudioCodecFormat GetAudioFrameFormat() const { return format_; }
  void SetAudioFrameFormat(AudioCodecFormat format) { format_ = format; }

  // For encoded frames: the encoder delay D of the encoder that made the frame, as
  // AudioEncoder::GetPrimingSamples() defines it: the audio this frame decodes to
  // begins D samples (per channel) before its timestamp. Only the writer acts on it
  // (FfmpegStreamWriter). 0 for PCM and for AAC whose timestamps already mark where its
  // audio starts.
  int32_t GetEncoderDelaySamples() const { return encoder_delay_samples_; }
  void SetEncoderDelaySamples(int32_t samples) { encoder_delay_samples_ = samples; }

  // The frame's duration in ms, in single precision. PCM: size / (2 x channels x rate)
  // x 1000; AAC: 1024 x 1000 / rate. 0 when the rate (or, for PCM, the channel count)
  // is not positive or the format is neither.
  float GetFrameSizeInMs() const;

 private:
  // The ring buffer moves the bytes out of the frames it is given and assembles the
  // bytes of the frames it hands out in place, so queued audio is not copied twice.
  friend class AudioFrameRingBuffer;

  std::vector<uint8_t> data_;
  uint32_t timestamp_ms_ = 0;
  int32_t sample_rate_ = 0;
  int32_t channels_ = 0;
  AudioCodecFormat format_ = kPcm;
  int32_t encoder_delay_samples_ = 0;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AUDIO_FRAME_H_
