// Audio encoding: the encoder interface, its parameters and the process-wide factory.
//
//   std::unique_ptr<AudioEncoder> encoder =
//       AudioEncoderFactory2::GetInstance()->CreateAudioEncoder(kAudioEncoderAac);
//   AudioEncodeParams params;  params.sample_rate = 48000;  params.channels = 2;
//   if (!encoder || !encoder->Init(params)) { ... }
//   while (have GetInputSizeInBytes() bytes of PCM) out = encoder->Encode(pcm_frame);
#ifndef SDK_MEDIA_AUDIO_ENCODER_H_
#define SDK_MEDIA_AUDIO_ENCODER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "sdk/media/audio_frame.h"

namespace tarnel {
namespace audio {

// Encoder types the factory knows.
constexpr int kAudioEncoderAac = 3;

// The AAC encoders the factory can make.
//  kBuiltIn        ours (sdk/media/aac/): the default. About a fifth of libavcodec's
//                  two-loop CPU at a noise-to-mask ratio at least as good; see
//                  bench/QUALITY.md.
//  kFfmpegTwoLoop  libavcodec's "aac" encoder with its default two-loop search.
//  kFfmpegFast     libavcodec's "aac" encoder with its fast coder: cheaper than
//                  two-loop, perceptually worse, and it clips loud tones.
enum class AacEncoderKind { kBuiltIn, kFfmpegTwoLoop, kFfmpegFast };

// "tarnel", "twoloop" and "fast", as tools and benchmarks spell the kinds.
const char* AacEncoderKindName(AacEncoderKind kind);
// False when `name` is none of those.
bool ParseAacEncoderKind(const std::string& name, AacEncoderKind* kind);

class AudioEncoder;
// A new AAC encoder of `kind`, whatever the factory is set to (benchmarks compare them).
std::unique_ptr<AudioEncoder> CreateAacEncoder(AacEncoderKind kind);

// How an encoder is configured. Defaults suit 48 kHz mono AAC-LC.
struct AudioEncodeParams {
  int32_t channels = 1;
  int32_t sample_rate = 48000;
  int32_t aac_profile = 2;       // MPEG-4 audio object type; 2 = AAC-LC.
  int32_t bits_per_sample = 16;  // Of the PCM input.
  int32_t bitrate = 64000;       // Bits per second.
  int32_t codec_format = kAac;   // AudioCodecFormat of the output.
  int32_t vbr = 0;               // Reserved for variable-bit-rate modes; 0 = constant.
  // 1: output frames are raw AAC access units; 0: each carries an ADTS header.
  int32_t raw_access_units = 0;
};

// Encodes PCM frames of exactly GetInputSizeInBytes() bytes. Not thread-safe: one
// encoder is used from one thread.
class AudioEncoder {
 public:
  virtual ~AudioEncoder() = default;

  // Configures the encoder; false when the parameters cannot be served.
  virtual bool Init(const AudioEncodeParams& params) = 0;

  virtual int32_t GetSampleRate() const = 0;
  virtual int32_t GetChannels() const = 0;
  virtual int32_t GetBitrate() const = 0;

  // PCM bytes that one Encode() call consumes (positive once initialised).
  virtual int32_t GetInputSizeInBytes() const = 0;

  // The encoder delay D, in samples per channel, 0 before Init: the access unit that
  // Encode() returns for the input stamped t decodes to audio that begins D samples
  // before t, so the first D samples decoded are the encoder's start-up (priming), not
  // input. Every frame Encode() returns carries D as
  // AudioFrame::GetEncoderDelaySamples(). The writer alone acts on it: it places each
  // access unit D samples before its stamp and keeps the start-up as decoder pre-roll
  // (docs/design.md, "AAC encoder delay, per container").
  virtual int32_t GetPrimingSamples() const = 0;

  // Encodes one input frame of GetInputSizeInBytes() bytes. Returns one encoded frame
  // whose timestamp is the input frame's (so encoded frames stay on the input's
  // timeline), or null when encoding failed.
  virtual std::shared_ptr<AudioFrame> Encode(std::shared_ptr<AudioFrame> input) = 0;

 protected:
  // For Encode(): true when the encoder is initialised and `input` is one piece of the
  // PCM it was set up for (a rate or channel count of 0 on the frame is taken as
  // matching); otherwise logs why and returns false.
  bool AcceptsInput(const AudioFrame* input) const;
};

// The process-wide source of audio encoders. (Tests put fakes behind it with
// ScopedAudioEncoderFactoryForTesting, scoped_audio_encoder_factory_for_testing.h.)
class AudioEncoderFactory2 {
 public:
  static AudioEncoderFactory2* GetInstance();

  // An encoder of `type` (kAudioEncoderAac), or null when the type is unknown or the
  // codec is not available.
  std::unique_ptr<AudioEncoder> CreateAudioEncoder(int type);

  // Which AAC encoder CreateAudioEncoder(kAudioEncoderAac) makes from now on, for every
  // recorder in the process; encoders already made keep theirs. Any thread.
  void SetAacEncoderKind(AacEncoderKind kind) { aac_kind_.store(kind); }
  AacEncoderKind aac_encoder_kind() const { return aac_kind_.load(); }

 private:
  AudioEncoderFactory2() = default;
  ~AudioEncoderFactory2() = default;

  std::atomic<AacEncoderKind> aac_kind_{AacEncoderKind::kBuiltIn};
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AUDIO_ENCODER_H_
