// AAC-LC encoding on libavcodec's native "aac" encoder.
//
//   FfmpegAacEncoder encoder;
//   AudioEncodeParams params;  params.channels = 2;  params.bitrate = 196608;
//   params.raw_access_units = 1;
//   if (!encoder.Init(params)) { ... }
//   std::shared_ptr<AudioFrame> au = encoder.Encode(pcm_piece);  // 1024 samples/channel
//
// Every Encode() returns exactly one access unit, from the first call on. The audio it
// decodes to begins GetPrimingSamples() (2048, or 4096 for the checked fast coder)
// samples before the input piece's timestamp it carries; the writer shifts it back.
#ifndef SDK_MEDIA_FFMPEG_FFMPEG_AAC_ENCODER_H_
#define SDK_MEDIA_FFMPEG_FFMPEG_AAC_ENCODER_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_frame.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace tarnel {
namespace audio {

class FfmpegAacEncoder : public AudioEncoder {
 public:
  // The quantisation search of libavcodec's encoder ("aac_coder").
  //  kTwoLoop      libavcodec's default: ~1.6% of a core for 48 kHz stereo music at
  //                196608 b/s, ~4.5% for speech.
  //  kFast         0.4-0.45x that CPU, and closer to the waveform on speech, a little
  //                further on music. But its rate control breaks down on loud, sparse
  //                spectra (a sine near full scale, a sweep): it cannot spend the bit
  //                budget, raises its quality target to the ceiling, and then clips
  //                what it quantises (a 1 kHz sine at -3 dBFS: ~13-26 dB SNR).
  //                Worse: it clips loud tones outright (8-14 dB SNR), budget or not.
  //  kFastChecked  kFast at 96 kb/s per channel and above (two-loop below), with every
  //                packet decoded and compared with its input. A loud frame that comes
  //                back badly while the coder starves, or three of the last eight loud
  //                frames clipped, are the breakdown: the packets not yet handed out
  //                (two are kept back) are re-made by a two-loop encoder, warmed up on
  //                the last eight inputs, which carries on for the rest of the stream.
  //                Checking adds ~7-13% to the fast coder's CPU (mostly the decoding).
  // See bench/aac_coder_benchmark.cc and bench/RESULTS.md for the measurements.
  enum class Coder { kTwoLoop, kFast, kFastChecked };
  static constexpr Coder kDefaultCoder = Coder::kFastChecked;

  explicit FfmpegAacEncoder(Coder coder = kDefaultCoder);
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
  // returned for: 2048 once initialised, 0 before. The checked fast coder keeps two more
  // packets back (4096).
  int32_t GetPrimingSamples() const override;

  // `input` must be PCM of GetInputSizeInBytes() bytes; when its sample rate or channel
  // count is set (non-zero) it must match Init's. Null on any failure, logged.
  std::shared_ptr<AudioFrame> Encode(std::shared_ptr<AudioFrame> input) override;

  // True once a kFastChecked stream has handed over to the two-loop coder.
  bool fell_back_to_two_loop() const { return fell_back_; }

 private:
  void Close();
  // Drains (and drops) what `*context` still holds, then frees it.
  void FreeEncoder(AVCodecContext** context);
  // Opens libavcodec's aac encoder with `coder` for the current parameters; null, logged,
  // on failure.
  AVCodecContext* OpenEncoder(Coder coder);
  // Hands `frame` to `context` and moves every packet it makes into `out`.
  bool SendAndDrain(AVCodecContext* context, AVFrame* frame, std::deque<std::vector<uint8_t>>* out);
  // kFastChecked: decodes the newest packet in pending_ and, once three frames are in,
  // compares what it completes (the frame two back) with that frame. On a
  // breakdown, swaps the packet for a two-loop one and hands the stream over; false only
  // when that hand-over fails.
  bool CheckPacket();
  // Re-makes the packets in pending_ with a two-loop encoder, which carries on.
  bool FallBackToTwoLoop();
  // Sends frame_ (stamped next) to the encoder, keeps a copy for the check, and checks
  // the packet it makes.
  bool SendInput();
  void CloseChecker();
  std::shared_ptr<AudioFrame> MakeOutput(const std::vector<uint8_t>& access_unit,
                                         uint32_t timestamp_ms) const;

  const Coder coder_;
  // What runs: coder_, or two-loop where kFastChecked does not apply or has handed over.
  Coder active_coder_ = kDefaultCoder;
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  // kFastChecked until the hand-over: the decoder that checks each packet, its output,
  // the last inputs as planar float (oldest first; each channel after the other) and
  // the sizes of the last packets.
  AVCodecContext* checker_ = nullptr;
  AVFrame* decoded_ = nullptr;
  std::deque<std::vector<float>> recent_inputs_;
  std::deque<int64_t> recent_packet_bits_;
  int64_t recent_packet_bits_sum_ = 0;
  std::deque<bool> recent_poor_frames_;  // Of the last frames checked: came back poorly.
  int poor_frame_count_ = 0;
  bool fell_back_ = false;
  AVPacket* packet_ = nullptr;
  // Access units made but not yet handed out: holdback_ of them between calls. After the
  // silent pre-feed each send makes exactly one, and Encode() hands out the oldest.
  // Should the encoder ever make more (it does not in FFmpeg 5.x), the extras wait here
  // and go out with the next inputs' timestamps, one piece late each.
  std::deque<std::vector<uint8_t>> pending_;
  int64_t next_pts_ = 0;  // In samples, the encoder's time base.
  int32_t sample_rate_ = 0;
  int32_t channels_ = 0;
  int32_t bitrate_ = 0;
  int32_t priming_samples_ = 0;
  bool adts_ = false;
  int sampling_frequency_index_ = 0;  // For ADTS headers.
  bool warned_extra_packets_ = false;
  size_t holdback_ = 0;  // Packets kept in pending_ between calls.
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_FFMPEG_FFMPEG_AAC_ENCODER_H_
