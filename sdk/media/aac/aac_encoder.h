// Our AAC-LC encoder: one access unit per 1024-sample input, from the first call.
//
//   AacEncoder encoder;
//   AudioEncodeParams params;  params.channels = 2;  params.bitrate = 196608;
//   params.raw_access_units = 1;
//   if (!encoder.Init(params)) { ... }
//   std::shared_ptr<AudioFrame> au = encoder.Encode(pcm_piece);  // 1024 samples/channel
//
// How a frame is made:
//  1. The newest block joins the previous one; a transient detector picks the window
//     sequence (long, start, eight short, stop). Without look-ahead, an attack in the
//     second half of a block switches the next frame to short windows; an attack early
//     in a block switches at once when the frame before coded nothing (silence), since
//     a decoder then has only zeros to overlap with, whatever window they had.
//  2. MDCT (libavutil's av_tx), then per scalefactor band the energy and a masking
//     threshold (psy_model.h); in a channel pair, mid/side per band where it needs
//     fewer bits for the same noise.
//  3. Each band's scalefactor follows in closed form from its threshold (the noise of
//     AAC's power-law quantiser grows as step^1.5 times the sum of sqrt|x|), plus one
//     offset common to all bands. The rate loop moves that offset, counting the exact
//     bits of each candidate, until the frame meets its share of the bit rate; usually
//     two or three counts.
//  4. A bit reservoir lets loud, dense or transient frames borrow from quiet ones
//     within the decoder's buffer (6144 bits a channel); fill elements pad what the
//     reservoir cannot hold, so the stream is constant-rate.
//
// The decoded audio lags the input by exactly one frame (GetPrimingSamples() = 1024):
// the first access unit decodes to silence and the frame stamped t decodes to the input
// stamped one frame before t. Nothing is held back. Not thread-safe: one encoder is used
// from one thread.
#ifndef SDK_MEDIA_AAC_AAC_ENCODER_H_
#define SDK_MEDIA_AAC_AAC_ENCODER_H_

#include <cstdint>
#include <memory>

#include "sdk/media/aac/aac_syntax.h"
#include "sdk/media/aac/mdct.h"
#include "sdk/media/aac/psy_model.h"
#include "sdk/media/audio_encoder.h"

namespace tarnel {
namespace audio {
namespace aac {

class AacEncoder : public AudioEncoder {
 public:
  AacEncoder();
  ~AacEncoder() override;
  AacEncoder(const AacEncoder&) = delete;
  AacEncoder& operator=(const AacEncoder&) = delete;

  // Accepts AAC-LC (aac_profile 2), 1 or 2 channels of 16-bit PCM, any MPEG-4 sample
  // rate, and a bit rate from 8 kb/s a channel up to what 6144 bits a channel per frame
  // allow (288 kb/s a channel at 48 kHz). A second Init() starts a new stream.
  bool Init(const AudioEncodeParams& params) override;

  int32_t GetSampleRate() const override { return sample_rate_; }
  int32_t GetChannels() const override { return channels_; }
  int32_t GetBitrate() const override { return bitrate_; }
  // 1024 samples x channels x 2 bytes once initialised, 0 before.
  int32_t GetInputSizeInBytes() const override;
  // 1024 once initialised, 0 before.
  int32_t GetPrimingSamples() const override;

  // `input` must be PCM of GetInputSizeInBytes() bytes; when its sample rate or channel
  // count is set (non-zero) it must match Init's. Null on any failure, logged.
  std::shared_ptr<AudioFrame> Encode(std::shared_ptr<AudioFrame> input) override;

  // The bit reservoir's fill after the last frame (after Init: at the start), in bits.
  int reservoir_bits() const { return reservoir_bits_; }

 private:
  struct State;
  struct ChannelPlan;

  // Picks the window sequence of the frame from both channels' attacks; tells whether an
  // attack (or an abrupt end) early in the block, or a sharp rise there, had to stay in a
  // long window.
  aac::WindowSequence ChooseWindowSequence(bool* early_attack, bool* early_rise);
  void Transform(int channel, aac::WindowSequence sequence);
  // Whether both blocks of every channel are all zero; then PlanSilence stands in for
  // the transform and the analysis: nothing to code, one window group.
  bool WindowIsSilent() const;
  void PlanSilence(int channel);
  void GroupShortWindows();
  void Analyze(int channel);
  // Temporal noise shaping of a long window holding an attack; adjusts the plan.
  void ShapeNoiseInTime(int channel);
  void ChooseMidSide();
  void PrepareQuantisation(int channel);
  // Quantises every channel at the common offset `offset` and returns the bits of the
  // frame's element (kNoFit when the syntax cannot carry it).
  // `uniform`: one scalefactor for every band, the last resort when neighbouring bands
  // are too far apart for the syntax.
  int QuantiseAll(int offset, bool uniform = false);
  void QuantiseChannel(int channel, int offset, bool uniform);
  int CountElementBits();
  // Bits this frame aims at, and the most it may use.
  void FrameBudget(bool transient, int* target, int* most) const;
  int Search(int target, int most);
  std::shared_ptr<AudioFrame> Emit(uint32_t timestamp_ms, int element_bits);

  std::unique_ptr<State> state_;
  std::unique_ptr<aac::Mdct> long_mdct_;
  std::unique_ptr<aac::Mdct> short_mdct_;
  int32_t sample_rate_ = 0;
  int32_t channels_ = 0;
  int32_t bitrate_ = 0;
  bool adts_ = false;
  int sampling_frequency_index_ = -1;
  // Bit budget: mean bits per frame as a fraction bits_per_frame_num_ / sample_rate_, the
  // remainder carried from frame to frame.
  int64_t bits_per_frame_num_ = 0;
  int64_t bits_remainder_ = 0;
  int mean_frame_bits_ = 0;
  int reservoir_bits_ = 0;
  int reservoir_max_ = 0;
  int previous_offset_ = 0;
  float mean_pe_ = 0.0f;
};

}  // namespace aac
}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AAC_AAC_ENCODER_H_
