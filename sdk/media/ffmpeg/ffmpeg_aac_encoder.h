// AAC-LC encoding on libavcodec's native "aac" encoder: the reference our own encoder
// (sdk/media/aac/) is measured against, and a fallback the factory can be set to.
//
//   FfmpegAacEncoder encoder(FfmpegAacEncoder::Coder::kTwoLoop);
//   AudioEncodeParams params;  params.channels = 2;  params.bitrate = 196608;
//   params.raw_access_units = 1;
//   if (!encoder.Init(params)) { ... }
//   std::shared_ptr<AudioFrame> au = encoder.Encode(pcm_piece);  // 1024 samples/channel
//
// Every Encode() returns exactly one access unit, from the first call on, stamped with
// the input piece's timestamp. Its encoder delay (AudioEncoder::GetPrimingSamples) is
// 2048: the audio a unit decodes to begins 2048 samples before its stamp.
#ifndef SDK_MEDIA_FFMPEG_FFMPEG_AAC_ENCODER_H_
#define SDK_MEDIA_FFMPEG_FFMPEG_AAC_ENCODER_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"

namespace tarnel {
namespace audio {

class FfmpegAacEncoder : public AudioEncoder {
 public:
  // The quantisation search of libavcodec's encoder ("aac_coder").
  //  kTwoLoop  libavcodec's default: ~42x real time for 48 kHz stereo at 192 kb/s here.
  //  kFast     ~2.4x cheaper, but perceptually worse on real music, and it clips loud
  //            tones (7-14 dB SNR on a -1 dBFS sine) whatever its bit use.
  enum class Coder { kTwoLoop, kFast };

  explicit FfmpegAacEncoder(Coder coder = Coder::kTwoLoop);
  ~FfmpegAacEncoder() override;
  FfmpegAacEncoder(const FfmpegAacEncoder&) = delete;
  FfmpegAacEncoder& operator=(const FfmpegAacEncoder&) = delete;

  // Accepts AAC-LC (aac_profile 2) of 1 or 2 channels of 16-bit PCM at any rate the
  // encoder supports (7350..96000 Hz, the MPEG-4 rate table), bit rate > 0. A second
  // Init() starts a new stream.
  bool Init(const AudioEncodeParams& params) override;

  int32_t GetSampleRate() const override { return sample_rate_; }
  int32_t GetChannels() const override { return channels_; }
  int32_t GetBitrate() const override { return bitrate_; }
  // 1024 samples x channels x 2 bytes once initialised, 0 before.
  int32_t GetInputSizeInBytes() const override;
  // libavcodec's encoder primes 1024 samples (its initial_padding), and Init() feeds
  // 1024 samples of silence ahead of the input so that every later send yields one
  // packet; both delay what a packet decodes to relative to the input piece it is
  // returned for: 2048 once initialised, 0 before.
  int32_t GetPrimingSamples() const override;

  // `input` must be PCM of GetInputSizeInBytes() bytes; when its sample rate or channel
  // count is set (non-zero) it must match Init's. Null on any failure, logged.
  std::shared_ptr<AudioFrame> Encode(std::shared_ptr<AudioFrame> input) override;

 private:
  void Close();
  // Sends frame_ (stamped next) to the encoder and moves every packet it makes into
  // pending_.
  bool SendInput();
  std::shared_ptr<AudioFrame> MakeOutput(const std::vector<uint8_t>& access_unit,
                                         uint32_t timestamp_ms) const;

  const Coder coder_;
  FfmpegPtr<AVCodecContext> context_;
  FfmpegPtr<AVFrame> frame_;
  FfmpegPtr<AVPacket> packet_;
  // Access units made but not yet handed out. After the silent pre-feed each send makes
  // exactly one, and Encode() hands out the oldest. Should the encoder ever make more
  // (it does not in FFmpeg 5.x), the extras wait here and go out with the next inputs'
  // timestamps, one piece late each.
  std::deque<std::vector<uint8_t>> pending_;
  int64_t next_pts_ = 0;  // In samples, the encoder's time base.
  int32_t sample_rate_ = 0;
  int32_t channels_ = 0;
  int32_t bitrate_ = 0;
  int32_t priming_samples_ = 0;
  bool adts_ = false;
  int sampling_frequency_index_ = 0;  // For ADTS headers.
  bool warned_extra_packets_ = false;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_FFMPEG_FFMPEG_AAC_ENCODER_H_
