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
constexpr int kAdtsHeaderSize = 7;

const char* CoderName(FfmpegAacEncoder::Coder coder) {
  return coder == FfmpegAacEncoder::Coder::kFast ? "fast" : "twoloop";
}

}  // namespace

FfmpegAacEncoder::FfmpegAacEncoder(Coder coder) : coder_(coder) {}

FfmpegAacEncoder::~FfmpegAacEncoder() { Close(); }

void FfmpegAacEncoder::Close() {
  if (context_ && packet_ && avcodec_is_open(context_.get())) {
    // The last pieces are still inside the encoder and have no caller to go to. Draining
    // them anyway keeps libavcodec from warning about frames left in its queue.
    if (avcodec_send_frame(context_.get(), nullptr) >= 0) {
      while (avcodec_receive_packet(context_.get(), packet_.get()) >= 0) {
        av_packet_unref(packet_.get());
      }
    }
  }
  context_.reset();
  frame_.reset();
  packet_.reset();
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
  const AVCodec* codec = avcodec_find_encoder_by_name("aac");
  if (codec == nullptr) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "libavcodec was built without its aac encoder";
    return false;
  }
  sample_rate_ = params.sample_rate;
  channels_ = params.channels;
  bitrate_ = params.bitrate;
  context_.reset(avcodec_alloc_context3(codec));
  packet_.reset(av_packet_alloc());
  frame_.reset(av_frame_alloc());
  if (!context_ || !packet_ || !frame_) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "out of memory";
    Close();
    return false;
  }
  context_->sample_fmt = AV_SAMPLE_FMT_FLTP;
  context_->sample_rate = sample_rate_;
  av_channel_layout_default(&context_->ch_layout, channels_);
  context_->bit_rate = bitrate_;
  context_->profile = FF_PROFILE_AAC_LOW;
  context_->time_base = AVRational{1, sample_rate_};
  AVDictionary* options = nullptr;
  av_dict_set(&options, "aac_coder", CoderName(coder_), 0);
  int ret = avcodec_open2(context_.get(), codec, &options);
  av_dict_free(&options);
  if (ret < 0 || context_->frame_size != kAacSamplesPerFrame) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot open the aac encoder at " << sample_rate_ << " Hz, " << channels_
        << " channels, " << bitrate_ << " b/s: "
        << (ret < 0 ? FfmpegErrorText(ret) : "frame size " + std::to_string(context_->frame_size));
    Close();
    return false;
  }
  frame_->format = AV_SAMPLE_FMT_FLTP;
  frame_->sample_rate = sample_rate_;
  frame_->nb_samples = kAacSamplesPerFrame;
  if (av_channel_layout_copy(&frame_->ch_layout, &context_->ch_layout) < 0 ||
      av_frame_get_buffer(frame_.get(), 0) < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "cannot allocate the input frame";
    Close();
    return false;
  }
  adts_ = params.raw_access_units == 0;
  sampling_frequency_index_ = frequency_index;

  // The encoder holds back the packet of its first frame (it needs the next frame's
  // look-ahead). One frame of silence now means the first real input already yields a
  // packet, and so does every one after it. That packet decodes to the encoder's
  // priming (initial_padding) and then the silence, hence the delay.
  av_samples_set_silence(frame_->data, 0, kAacSamplesPerFrame, channels_, AV_SAMPLE_FMT_FLTP);
  if (!SendInput()) {
    Close();
    return false;
  }
  // FFmpeg 5.x makes no packet for the first frame. A build that did would leave one more
  // queued, and each Encode() would still return the packet one frame behind: same delay.
  priming_samples_ = context_->initial_padding + kAacSamplesPerFrame;
  TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this)
      << "aac encoder open: " << sample_rate_ << " Hz, " << channels_ << " channels, " << bitrate_
      << " b/s, coder " << CoderName(coder_) << ", delay " << priming_samples_ << " samples"
      << (adts_ ? ", ADTS" : "");
  return true;
}

int32_t FfmpegAacEncoder::GetInputSizeInBytes() const {
  return !context_ ? 0 : kAacSamplesPerFrame * channels_ * static_cast<int32_t>(sizeof(int16_t));
}

int32_t FfmpegAacEncoder::GetPrimingSamples() const { return priming_samples_; }

std::shared_ptr<AudioFrame> FfmpegAacEncoder::Encode(std::shared_ptr<AudioFrame> input) {
  if (!AcceptsInput(input.get())) return nullptr;

  // The encoder may still reference the previous frame's buffers.
  int ret = av_frame_make_writable(frame_.get());
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
  if (pending_.empty()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "the aac encoder made no packet for input at " << input->GetTimestampInMs() << " ms";
    return nullptr;
  }
  if (pending_.size() > 1 && !warned_extra_packets_) {
    warned_extra_packets_ = true;
    TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
        << "the aac encoder made " << pending_.size()
        << " packets for one input; the extras go out with later inputs";
  }
  std::shared_ptr<AudioFrame> output = MakeOutput(pending_.front(), input->GetTimestampInMs());
  pending_.pop_front();
  return output;
}

bool FfmpegAacEncoder::SendInput() {
  frame_->pts = next_pts_;
  next_pts_ += kAacSamplesPerFrame;
  int ret = avcodec_send_frame(context_.get(), frame_.get());
  if (ret < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "avcodec_send_frame: " << FfmpegErrorText(ret);
    return false;
  }
  // Draining after every send means send never meets a full encoder (EAGAIN).
  while ((ret = avcodec_receive_packet(context_.get(), packet_.get())) >= 0) {
    pending_.emplace_back(packet_->data, packet_->data + packet_->size);
    av_packet_unref(packet_.get());
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
    // Variable rate as far as the header goes (buffer fullness 0x7FF): libavcodec does
    // not tell its reservoir's state.
    std::vector<uint8_t> bytes(access_unit.size() + kAdtsHeaderSize);
    aac::WriteAdtsHeader(bytes.data(), sampling_frequency_index_, channels_,
                         static_cast<int>(access_unit.size()), 0x7FF);
    std::memcpy(bytes.data() + kAdtsHeaderSize, access_unit.data(), access_unit.size());
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
