#include "sdk/media/ffmpeg/ffmpeg_audio_resampler.h"

#include <string>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "sdk/base/logging.h"
#include "sdk/media/ffmpeg/ffmpeg_error.h"

namespace tarnel {
namespace audio {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"audio_resampler"};

constexpr int kFailed = -1;

bool ValidRate(int rate) {
  return rate >= FfmpegAudioResampler::kMinSampleRate &&
         rate <= FfmpegAudioResampler::kMaxSampleRate;
}

bool ValidChannels(int channels) { return channels == 1 || channels == 2; }

}  // namespace

FfmpegAudioResampler::~FfmpegAudioResampler() = default;

void FfmpegAudioResampler::Free() {
  swr_.reset();
  in_sample_rate_ = 0;
  in_channels_ = 0;
  out_sample_rate_ = 0;
  out_channels_ = 0;
}

int FfmpegAudioResampler::Configure(int in_sample_rate, int in_channels, int out_sample_rate,
                                    int out_channels) {
  if (swr_ && in_sample_rate == in_sample_rate_ && in_channels == in_channels_ &&
      out_sample_rate == out_sample_rate_ && out_channels == out_channels_) {
    return 0;
  }
  Free();
  if (!ValidRate(in_sample_rate) || !ValidRate(out_sample_rate) || !ValidChannels(in_channels) ||
      !ValidChannels(out_channels)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot convert " << in_sample_rate << " Hz, " << in_channels << " channels to "
        << out_sample_rate << " Hz, " << out_channels << " channels";
    return kFailed;
  }

  AVChannelLayout in_layout;
  AVChannelLayout out_layout;
  av_channel_layout_default(&in_layout, in_channels);
  av_channel_layout_default(&out_layout, out_channels);
  SwrContext* swr = nullptr;
  int ret = swr_alloc_set_opts2(&swr, &out_layout, AV_SAMPLE_FMT_S16, out_sample_rate, &in_layout,
                                AV_SAMPLE_FMT_S16, in_sample_rate, 0, nullptr);
  swr_.reset(swr);
  // swresample's own up-mix puts mono at -3 dB on each side (its down-mix to s16 happens
  // to come out as the average, after renormalising 1/sqrt(2) weights). Spell out both
  // so that levels do not depend on swresample's defaults.
  if (ret >= 0 && in_channels != out_channels) {
    static const double kStereoToMono[] = {0.5, 0.5};
    static const double kMonoToStereo[] = {1.0, 1.0};
    ret = in_channels == 2 ? swr_set_matrix(swr_.get(), kStereoToMono, 2)
                           : swr_set_matrix(swr_.get(), kMonoToStereo, 1);
  }
  if (ret >= 0) ret = swr_init(swr_.get());
  av_channel_layout_uninit(&in_layout);
  av_channel_layout_uninit(&out_layout);
  if (ret < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot set up " << in_sample_rate << " Hz x" << in_channels << " to " << out_sample_rate
        << " Hz x" << out_channels << ": " << FfmpegErrorText(ret);
    Free();
    return kFailed;
  }
  in_sample_rate_ = in_sample_rate;
  in_channels_ = in_channels;
  out_sample_rate_ = out_sample_rate;
  out_channels_ = out_channels;
  return 0;
}

int FfmpegAudioResampler::Fail(AudioFrame* output, const std::string& reason) {
  if (output != nullptr) output->SetData(nullptr, 0);
  if (!failure_logged_) {
    failure_logged_ = true;
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << reason;
  }
  return kFailed;
}

int FfmpegAudioResampler::Resample(const AudioFrame& input, AudioFrame* output) {
  if (output == nullptr) return Fail(output, "no output frame");
  if (!swr_) return Fail(output, "Resample before a successful Configure");
  if (input.GetAudioFrameFormat() != kPcm) return Fail(output, "input is not PCM");
  if ((input.GetSampleRate() != 0 && input.GetSampleRate() != in_sample_rate_) ||
      (input.GetChannels() != 0 && input.GetChannels() != in_channels_)) {
    return Fail(output, "input rate or channel count differs from the configured one");
  }
  const uint64_t bytes_per_sample = static_cast<uint64_t>(in_channels_) * sizeof(int16_t);
  if (input.GetSize() % bytes_per_sample != 0) {
    return Fail(output, "input ends in the middle of a sample");
  }
  const int in_samples = static_cast<int>(input.GetSize() / bytes_per_sample);

  // Enough room for everything buffered plus this input; swr_convert then consumes the
  // whole input and keeps only the filter's history. An empty input converts to nothing
  // (swr_convert with no input would flush the history and break the stream).
  int produced = 0;
  if (in_samples > 0) {
    const int capacity = swr_get_out_samples(swr_.get(), in_samples);
    if (capacity < 0) return Fail(output, "swr_get_out_samples failed");
    out_buffer_.resize(static_cast<size_t>(capacity) * out_channels_);
    uint8_t* out_planes[] = {reinterpret_cast<uint8_t*>(out_buffer_.data())};
    const uint8_t* in_planes[] = {input.GetData()};
    produced = swr_convert(swr_.get(), out_planes, capacity, in_planes, in_samples);
    if (produced < 0) return Fail(output, "swr_convert: " + FfmpegErrorText(produced));
  }
  failure_logged_ = false;

  output->SetData(reinterpret_cast<const uint8_t*>(out_buffer_.data()),
                  static_cast<uint64_t>(produced) * out_channels_ * sizeof(int16_t));
  output->SetSampleRate(out_sample_rate_);
  output->SetChannels(out_channels_);
  output->SetTimestampInMs(input.GetTimestampInMs());
  output->SetAudioFrameFormat(input.GetAudioFrameFormat());
  output->SetEncoderDelaySamples(0);
  return 0;
}

}  // namespace audio
}  // namespace tarnel
