#include "sdk/media/ffmpeg/ffmpeg_aac_encoder.h"

#include <cmath>
#include <cstring>
#include <string>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include "sdk/base/logging.h"
#include "sdk/media/aac/aac_syntax.h"
#include "sdk/media/ffmpeg/ffmpeg_error.h"

namespace tarnel {
namespace audio {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"aac_encoder"};

constexpr int32_t kAacLcObjectType = 2;
constexpr int kAdtsVariableRate = 0x7FF;  // buffer_fullness of a variable-rate stream.

// A writable frame of one 1024-sample piece in the native encoder's planar float, for
// `context`'s rate and channels; null when out of memory.
AVFrame* AllocInputFrame(const AVCodecContext* context) {
  AVFrame* frame = av_frame_alloc();
  if (frame == nullptr) return nullptr;
  frame->format = AV_SAMPLE_FMT_FLTP;
  frame->sample_rate = context->sample_rate;
  frame->nb_samples = kAacSamplesPerFrame;
  if (av_channel_layout_copy(&frame->ch_layout, &context->ch_layout) < 0 ||
      av_frame_get_buffer(frame, 0) < 0) {
    av_frame_free(&frame);
  }
  return frame;
}

const char* CoderName(FfmpegAacEncoder::Coder coder) {
  switch (coder) {
    case FfmpegAacEncoder::Coder::kTwoLoop:
      return "twoloop";
    case FfmpegAacEncoder::Coder::kFast:
      return "fast";
    case FfmpegAacEncoder::Coder::kFastChecked:
      return "fast, checked";
  }
  return "twoloop";
}

// What kFastChecked takes for the fast coder's breakdown, on frames loud enough to
// matter (mean square over all channels above -20 dBFS):
//  - a frame below 30 dB SNR while the packets of the last kCheckedWindow frames, all
//    loud, used under 70% of their share of the bit rate: its rate control starving on
//    a sparse spectrum (26-28 dB, falling). A working coder spends its budget, give or
//    take the bit reservoir's swings, so the starving is the evidence that this is no
//    passing frame (quiet frames do not count: after a pause any coder under-spends);
//  - kCheckedPoorFrames of the last kCheckedWindow frames below 17 dB SNR: a loud tone it
//    clips (7-14 dB measured, budget spent or not, though not on every frame). Working
//    streams' loud frames stay above ~19 dB (music 19-23, a square wave 21.6, speech
//    28), and a click (a phase jump, a cut) makes a single poor frame for any coder.
// A false alarm costs CPU (two-loop for the rest of the stream), never quality.
constexpr double kCheckedMinMeanSquare = 0.01;
constexpr double kCheckedMinSnrDb = 17.0;
constexpr double kCheckedMinSnrWhenStarvedDb = 30.0;
constexpr double kCheckedStarvedBudgetShare = 0.7;
// Below this bit rate per channel the fast coder is not used at all: its loud-tone
// clipping shows there without starving (mono at 71680 b/s: 26 dB on a -3 dBFS sine,
// two-loop 43 dB), and FFmpeg itself recommends it for high bit rates only.
constexpr int32_t kFastMinBitratePerChannel = 96000;
constexpr size_t kCheckedWindow = 8;
constexpr int kCheckedPoorFrames = 3;
// Inputs a two-loop encoder taking over is fed first (after a frame of silence): enough
// history for its psychoacoustic state and block switching to follow the signal by the
// time its packet joins the fast coder's previous one.
constexpr size_t kTakeOverWarmUpInputs = 8;
// Packets the checked coder keeps back: a breakdown is seen on the frame two inputs
// back, after up to three poor frames, so the hand-over re-makes those packets too.
constexpr size_t kCheckedHoldBack = 2;

}  // namespace

FfmpegAacEncoder::FfmpegAacEncoder(Coder coder) : coder_(coder) {}

FfmpegAacEncoder::~FfmpegAacEncoder() { Close(); }

void FfmpegAacEncoder::FreeEncoder(AVCodecContext** context) {
  if (*context != nullptr && packet_ != nullptr && avcodec_is_open(*context)) {
    // The last two pieces are still inside the encoder and have no caller to go to.
    // Draining them anyway keeps libavcodec from warning about frames left in its queue
    // on every close.
    if (avcodec_send_frame(*context, nullptr) >= 0) {
      while (avcodec_receive_packet(*context, packet_) >= 0) av_packet_unref(packet_);
    }
  }
  avcodec_free_context(context);
}

void FfmpegAacEncoder::Close() {
  FreeEncoder(&context_);
  av_frame_free(&frame_);
  av_packet_free(&packet_);
  CloseChecker();
  fell_back_ = false;
  pending_.clear();
  next_pts_ = 0;
  sample_rate_ = 0;
  channels_ = 0;
  bitrate_ = 0;
  priming_samples_ = 0;
  adts_ = false;
  sampling_frequency_index_ = 0;
  warned_extra_packets_ = false;
}

bool FfmpegAacEncoder::Init(const AudioEncodeParams& params) {
  Close();
  if (params.codec_format != kAac || params.aac_profile != kAacLcObjectType) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "only AAC-LC is served, asked for format " << params.codec_format << " profile "
        << params.aac_profile;
    return false;
  }
  if (params.channels != 1 && params.channels != 2) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot encode " << params.channels << " channels, only 1 or 2";
    return false;
  }
  if (params.bits_per_sample != 16) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "input must be 16-bit PCM, not " << params.bits_per_sample << "-bit";
    return false;
  }
  if (params.bitrate <= 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "bad bit rate " << params.bitrate;
    return false;
  }
  const int frequency_index = aac::SamplingFrequencyIndex(params.sample_rate);
  if (frequency_index < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "AAC has no sample rate " << params.sample_rate;
    return false;
  }

  sample_rate_ = params.sample_rate;
  channels_ = params.channels;
  bitrate_ = params.bitrate;
  packet_ = av_packet_alloc();
  if (packet_ == nullptr) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "out of memory";
    Close();
    return false;
  }
  active_coder_ = coder_;
  if (coder_ == Coder::kFastChecked &&
      params.bitrate / params.channels < kFastMinBitratePerChannel) {
    active_coder_ = Coder::kTwoLoop;
  }
  context_ = OpenEncoder(active_coder_ == Coder::kTwoLoop ? Coder::kTwoLoop : Coder::kFast);
  if (context_ == nullptr) {
    Close();
    return false;
  }
  if (active_coder_ == Coder::kFastChecked) {
    const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_AAC);
    checker_ = decoder != nullptr ? avcodec_alloc_context3(decoder) : nullptr;
    decoded_ = av_frame_alloc();
    int ret = checker_ != nullptr && decoded_ != nullptr ? 0 : AVERROR(ENOMEM);
    // Raw access units: the decoder learns the stream from the encoder's
    // AudioSpecificConfig.
    if (ret >= 0 && context_->extradata_size > 0) {
      checker_->extradata = static_cast<uint8_t*>(
          av_mallocz(static_cast<size_t>(context_->extradata_size) + AV_INPUT_BUFFER_PADDING_SIZE));
      if (checker_->extradata == nullptr) ret = AVERROR(ENOMEM);
      if (ret >= 0) {
        std::memcpy(checker_->extradata, context_->extradata,
                    static_cast<size_t>(context_->extradata_size));
        checker_->extradata_size = context_->extradata_size;
      }
    }
    if (ret >= 0) ret = avcodec_open2(checker_, decoder, nullptr);
    if (ret < 0) {
      TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
          << "cannot open the aac decoder that checks the fast coder: " << FfmpegErrorText(ret);
      Close();
      return false;
    }
  }

  frame_ = AllocInputFrame(context_);
  if (frame_ == nullptr) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "cannot allocate the input frame";
    Close();
    return false;
  }

  adts_ = params.raw_access_units == 0;
  sampling_frequency_index_ = frequency_index;

  // The encoder holds back the packet of its first frame (it needs the next frame's
  // look-ahead). One frame of silence now means the first real input already yields a
  // packet, and so does every one after it. That packet decodes to the encoder's
  // priming (initial_padding) and then the silence, hence the delay. The checked coder
  // also keeps its newest packets back (kCheckedHoldBack more frames of silence fill
  // that queue), so that a hand-over can re-make the ones around the breakdown.
  holdback_ = checker_ != nullptr ? kCheckedHoldBack : 0;
  av_samples_set_silence(frame_->data, 0, kAacSamplesPerFrame, channels_, AV_SAMPLE_FMT_FLTP);
  for (size_t i = 0; i <= holdback_; ++i) {
    if (!SendInput()) {
      Close();
      return false;
    }
  }
  // FFmpeg 5.x makes no packet for the first frame. A build that did would leave one more
  // queued, and each Encode() would still return the packet one frame behind: same delay.
  priming_samples_ =
      context_->initial_padding + static_cast<int32_t>(1 + holdback_) * kAacSamplesPerFrame;
  TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this)
      << "aac encoder open: " << sample_rate_ << " Hz, " << channels_ << " channels, " << bitrate_
      << " b/s, coder " << CoderName(active_coder_) << ", delay " << priming_samples_ << " samples"
      << (adts_ ? ", ADTS" : "");
  return true;
}

AVCodecContext* FfmpegAacEncoder::OpenEncoder(Coder coder) {
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "libavcodec was built without its aac encoder";
    return nullptr;
  }
  AVCodecContext* context = avcodec_alloc_context3(codec);
  if (context == nullptr) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "out of memory";
    return nullptr;
  }
  context->sample_fmt = AV_SAMPLE_FMT_FLTP;
  context->sample_rate = sample_rate_;
  av_channel_layout_default(&context->ch_layout, channels_);
  context->bit_rate = bitrate_;
  context->profile = FF_PROFILE_AAC_LOW;
  context->time_base = AVRational{1, sample_rate_};

  AVDictionary* options = nullptr;
  av_dict_set(&options, "aac_coder", CoderName(coder), 0);
  const int ret = avcodec_open2(context, codec, &options);
  av_dict_free(&options);
  if (ret < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot open the aac encoder at " << sample_rate_ << " Hz, " << channels_
        << " channels, " << bitrate_ << " b/s: " << FfmpegErrorText(ret);
    avcodec_free_context(&context);
    return nullptr;
  }
  if (context->frame_size != kAacSamplesPerFrame) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "the aac encoder wants frames of " << context->frame_size << " samples";
    avcodec_free_context(&context);
    return nullptr;
  }
  return context;
}

void FfmpegAacEncoder::CloseChecker() {
  avcodec_free_context(&checker_);
  av_frame_free(&decoded_);
  recent_inputs_.clear();
  recent_packet_bits_.clear();
  recent_packet_bits_sum_ = 0;
  recent_poor_frames_.clear();
  poor_frame_count_ = 0;
}

bool FfmpegAacEncoder::CheckPacket() {
  std::vector<uint8_t>* packet = &pending_.back();
  int ret = av_new_packet(packet_, static_cast<int>(packet->size()));
  if (ret >= 0) {
    std::memcpy(packet_->data, packet->data(), packet->size());
    ret = avcodec_send_packet(checker_, packet_);
    av_packet_unref(packet_);
  }
  bool decoded = false;
  while (ret >= 0 && avcodec_receive_frame(checker_, decoded_) >= 0) {
    decoded = decoded_->nb_samples == kAacSamplesPerFrame &&
              decoded_->format == AV_SAMPLE_FMT_FLTP &&
              decoded_->ch_layout.nb_channels == channels_;
    if (decoded && recent_inputs_.size() >= 3) break;
    av_frame_unref(decoded_);
  }
  if (ret < 0 || !decoded) {
    // The check is an extra; a stream it cannot follow goes on unchecked.
    TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
        << "the fast coder's check could not decode its packet ("
        << (ret < 0 ? FfmpegErrorText(ret) : std::string("no frame")) << "); unchecked from here";
    CloseChecker();
    return true;
  }
  if (recent_inputs_.size() < 3) return true;  // Still the encoder's priming.

  // The decoded frame completes the input two pieces back.
  const std::vector<float>& input = recent_inputs_[recent_inputs_.size() - 3];
  double signal = 0.0;
  double noise = 0.0;
  for (int ch = 0; ch < channels_; ++ch) {
    const float* in = input.data() + static_cast<size_t>(ch) * kAacSamplesPerFrame;
    const float* out = reinterpret_cast<const float*>(decoded_->data[ch]);
    for (int i = 0; i < kAacSamplesPerFrame; ++i) {
      signal += static_cast<double>(in[i]) * in[i];
      const double error = static_cast<double>(out[i]) - in[i];
      noise += error * error;
    }
  }
  av_frame_unref(decoded_);
  const double mean_square = signal / (kAacSamplesPerFrame * channels_);
  const bool loud = mean_square >= kCheckedMinMeanSquare;
  // Starving is judged on loud frames only: after a quiet stretch (a pause, filled
  // silence) the coder's packets are small for want of anything to code.
  if (loud) {
    recent_packet_bits_.push_back(static_cast<int64_t>(packet->size()) * 8);
    recent_packet_bits_sum_ += recent_packet_bits_.back();
    if (recent_packet_bits_.size() > kCheckedWindow) {
      recent_packet_bits_sum_ -= recent_packet_bits_.front();
      recent_packet_bits_.pop_front();
    }
  } else {
    recent_packet_bits_.clear();
    recent_packet_bits_sum_ = 0;
  }
  const double budget_bits = static_cast<double>(bitrate_) * kAacSamplesPerFrame / sample_rate_;
  const double bits = recent_packet_bits_.empty()
                          ? budget_bits
                          : static_cast<double>(recent_packet_bits_sum_) /
                                static_cast<double>(recent_packet_bits_.size());
  const bool starved = recent_packet_bits_.size() == kCheckedWindow &&
                       bits < kCheckedStarvedBudgetShare * budget_bits;
  auto below = [&](double floor_db) { return noise * std::pow(10.0, floor_db / 10.0) > signal; };
  const bool poor = loud && below(kCheckedMinSnrDb);
  recent_poor_frames_.push_back(poor);
  poor_frame_count_ += poor ? 1 : 0;
  if (recent_poor_frames_.size() > kCheckedWindow) {
    poor_frame_count_ -= recent_poor_frames_.front() ? 1 : 0;
    recent_poor_frames_.pop_front();
  }
  const bool starving = starved && loud && below(kCheckedMinSnrWhenStarvedDb);
  if (!starving && !(poor && poor_frame_count_ >= kCheckedPoorFrames)) return true;
  const double snr_db = noise > 0.0 ? 10.0 * std::log10(signal / noise) : 0.0;
  TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
      << "the fast aac coder lost a loud frame (" << static_cast<int>(snr_db) << " dB SNR, "
      << poor_frame_count_ << " of the last " << recent_poor_frames_.size() << " below "
      << kCheckedMinSnrDb << " dB; its last packets used "
      << static_cast<int>(100.0 * bits / budget_bits)
      << "% of the bit rate); two-loop from here on";
  return FallBackToTwoLoop();
}

bool FfmpegAacEncoder::FallBackToTwoLoop() {
  AVCodecContext* two_loop = OpenEncoder(Coder::kTwoLoop);
  if (two_loop == nullptr) return false;
  // Fed the last inputs up to input n, a fresh encoder's last packets cover the same
  // spans as the last packets in pending_ (the newest: inputs n-2 and n-1), so they take
  // the places of those not yet handed out, and the next input gets a packet that
  // continues seamlessly.
  AVFrame* frame = AllocInputFrame(two_loop);
  std::deque<std::vector<uint8_t>> packets;
  bool ok = frame != nullptr;
  // A frame of silence first, as Init() gives every stream: libavcodec's encoder keeps
  // something of how a stream begins, and one that begins loud stays coarser (a -1 dBFS
  // tone: ~34 dB SNR for good, against ~68 dB after silence).
  int64_t pts = 0;
  for (size_t i = 0; ok && i <= recent_inputs_.size(); ++i) {
    ok = av_frame_make_writable(frame) >= 0;
    if (!ok) break;
    if (i == 0) {
      av_samples_set_silence(frame->data, 0, kAacSamplesPerFrame, channels_, AV_SAMPLE_FMT_FLTP);
    } else {
      const std::vector<float>& input = recent_inputs_[i - 1];
      for (int ch = 0; ch < channels_; ++ch) {
        std::memcpy(frame->data[ch], input.data() + static_cast<size_t>(ch) * kAacSamplesPerFrame,
                    kAacSamplesPerFrame * sizeof(float));
      }
    }
    frame->pts = pts;
    pts += kAacSamplesPerFrame;
    ok = SendAndDrain(two_loop, frame, &packets);
  }
  av_frame_free(&frame);
  if (!ok || packets.size() != recent_inputs_.size()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "the two-loop coder could not take over (" << packets.size() << " packets)";
    avcodec_free_context(&two_loop);
    return false;
  }
  for (auto mine = pending_.rbegin(), theirs = packets.rbegin();
       mine != pending_.rend() && theirs != packets.rend(); ++mine, ++theirs) {
    *mine = std::move(*theirs);
  }
  // The fast encoder's last two inputs stay inside it, never to be wanted.
  FreeEncoder(&context_);
  context_ = two_loop;
  active_coder_ = Coder::kTwoLoop;
  next_pts_ = pts;
  CloseChecker();
  fell_back_ = true;
  return true;
}

int32_t FfmpegAacEncoder::GetInputSizeInBytes() const {
  return context_ == nullptr
             ? 0
             : kAacSamplesPerFrame * channels_ * static_cast<int32_t>(sizeof(int16_t));
}

int32_t FfmpegAacEncoder::GetPrimingSamples() const { return priming_samples_; }

std::shared_ptr<AudioFrame> FfmpegAacEncoder::Encode(std::shared_ptr<AudioFrame> input) {
  if (context_ == nullptr) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "Encode before a successful Init";
    return nullptr;
  }
  if (!input || input->GetAudioFrameFormat() != kPcm ||
      input->GetSize() != static_cast<uint64_t>(GetInputSizeInBytes())) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "input must be " << GetInputSizeInBytes() << " bytes of PCM, got "
        << (input ? input->GetSize() : 0) << " bytes of format "
        << (input ? input->GetAudioFrameFormat() : 0);
    return nullptr;
  }
  if ((input->GetSampleRate() != 0 && input->GetSampleRate() != sample_rate_) ||
      (input->GetChannels() != 0 && input->GetChannels() != channels_)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "input is " << input->GetSampleRate() << " Hz, " << input->GetChannels()
        << " channels; the encoder was set up for " << sample_rate_ << " Hz, " << channels_;
    return nullptr;
  }

  // The encoder may still reference the previous frame's buffers.
  int ret = av_frame_make_writable(frame_);
  if (ret < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot write the input frame: " << FfmpegErrorText(ret);
    return nullptr;
  }
  // Interleaved s16 to the planar float the native encoder takes (full scale = 1.0).
  const uint8_t* pcm = input->GetData();
  for (int ch = 0; ch < channels_; ++ch) {
    float* plane = reinterpret_cast<float*>(frame_->data[ch]);
    for (int i = 0; i < kAacSamplesPerFrame; ++i) {
      int16_t sample;
      std::memcpy(&sample, pcm + (static_cast<size_t>(i) * channels_ + ch) * sizeof(int16_t),
                  sizeof(sample));
      plane[i] = static_cast<float>(sample) * (1.0f / 32768.0f);
    }
  }
  if (!SendInput()) return nullptr;
  if (pending_.size() <= holdback_) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "the aac encoder made no packet for input at " << input->GetTimestampInMs() << " ms";
    return nullptr;
  }
  if (pending_.size() > holdback_ + 1 && !warned_extra_packets_) {
    warned_extra_packets_ = true;
    TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
        << "the aac encoder made " << pending_.size() - holdback_
        << " packets for one input; the extras go out with later inputs";
  }
  std::shared_ptr<AudioFrame> output = MakeOutput(pending_.front(), input->GetTimestampInMs());
  pending_.pop_front();
  return output;
}

bool FfmpegAacEncoder::SendInput() {
  frame_->pts = next_pts_;
  next_pts_ += kAacSamplesPerFrame;
  if (checker_ != nullptr) {
    // The oldest copy's buffer is reused once the history is full.
    std::vector<float> copy;
    if (recent_inputs_.size() == kTakeOverWarmUpInputs) {
      copy = std::move(recent_inputs_.front());
      recent_inputs_.pop_front();
    }
    copy.resize(static_cast<size_t>(kAacSamplesPerFrame) * channels_);
    for (int ch = 0; ch < channels_; ++ch) {
      std::memcpy(copy.data() + static_cast<size_t>(ch) * kAacSamplesPerFrame, frame_->data[ch],
                  kAacSamplesPerFrame * sizeof(float));
    }
    recent_inputs_.push_back(std::move(copy));
  }
  const size_t before = pending_.size();
  if (!SendAndDrain(context_, frame_, &pending_)) return false;
  return checker_ == nullptr || pending_.size() == before || CheckPacket();
}

bool FfmpegAacEncoder::SendAndDrain(AVCodecContext* context, AVFrame* frame,
                                    std::deque<std::vector<uint8_t>>* out) {
  int ret = avcodec_send_frame(context, frame);
  if (ret < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "avcodec_send_frame: " << FfmpegErrorText(ret);
    return false;
  }
  // Draining after every send means send never meets a full encoder (EAGAIN).
  while ((ret = avcodec_receive_packet(context, packet_)) >= 0) {
    out->emplace_back(packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_);
  }
  if (ret != AVERROR(EAGAIN)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "avcodec_receive_packet: " << FfmpegErrorText(ret);
    return false;
  }
  return true;
}

std::shared_ptr<AudioFrame> FfmpegAacEncoder::MakeOutput(const std::vector<uint8_t>& access_unit,
                                                         uint32_t timestamp_ms) const {
  auto output = std::make_shared<AudioFrame>();
  if (adts_) {
    // A 7-byte header without CRC, buffer fullness 0x7FF (variable rate). An AAC-LC frame
    // holds at most 6144 bits per channel, so two channels always fit the 13-bit length.
    std::vector<uint8_t> bytes(access_unit.size() + aac::kAdtsHeaderBytes);
    aac::WriteAdtsHeader(bytes.data(), sampling_frequency_index_, channels_,
                         static_cast<int>(access_unit.size()), kAdtsVariableRate);
    std::memcpy(bytes.data() + aac::kAdtsHeaderBytes, access_unit.data(), access_unit.size());
    output->SetData(bytes.data(), bytes.size());
  } else {
    output->SetData(access_unit.data(), access_unit.size());
  }
  output->SetTimestampInMs(timestamp_ms);
  output->SetSampleRate(sample_rate_);
  output->SetChannels(channels_);
  output->SetAudioFrameFormat(kAac);
  output->SetEncoderDelaySamples(priming_samples_);
  return output;
}

}  // namespace audio
}  // namespace tarnel
