#include "tools/tarnel_record/media_source.h"

#include <algorithm>
#include <deque>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "sdk/media/ffmpeg/ffmpeg_error.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"
#include "sdk/media_stream_writer/annexb.h"

namespace tarnel_record {

namespace {

// Source timestamps are shifted by this much so that B-frame dts before the first pts
// stays positive; the recorder rebases everything to 0 anyway.
constexpr int64_t kTimeLeadMs = 1000;

int64_t ToMs(int64_t ts, AVRational time_base) { return av_rescale_q(ts, time_base, {1, 1000}); }

class FfmpegSource : public MediaSource {
 public:
  ~FfmpegSource() override { av_channel_layout_uninit(&swr_layout_); }

  bool Init(const SourceOptions& options, std::string* error) {
    options_ = options;
    packet_.reset(av_packet_alloc());
    filtered_.reset(av_packet_alloc());
    frame_.reset(av_frame_alloc());
    live_ =
        options.url.find("://") != std::string::npos && options.url.compare(0, 7, "file://") != 0;

    const AVInputFormat* input_format = nullptr;
    if (!options.input_format.empty()) {
      input_format = av_find_input_format(options.input_format.c_str());
      if (!input_format) {
        *error = "unknown input format \"" + options.input_format + "\"";
        return false;
      }
    }
    AVDictionary* demuxer_options = nullptr;
    if (options.video_fps > 0) {
      av_dict_set(&demuxer_options, "framerate", std::to_string(options.video_fps).c_str(), 0);
    }
    if (options.pcm_sample_rate > 0) {
      av_dict_set_int(&demuxer_options, "sample_rate", options.pcm_sample_rate, 0);
    }
    if (options.pcm_channels > 0) {
      av_dict_set(&demuxer_options, "ch_layout", options.pcm_channels == 1 ? "mono" : "stereo", 0);
    }
    AVFormatContext* format = nullptr;
    int ret = avformat_open_input(&format, options.url.c_str(), input_format, &demuxer_options);
    format_.reset(format);
    av_dict_free(&demuxer_options);
    if (ret < 0) {
      *error = "cannot open " + options.url + ": " + tarnel::audio::FfmpegErrorText(ret);
      return false;
    }
    ret = avformat_find_stream_info(format_.get(), nullptr);
    if (ret < 0) {
      *error = "cannot read stream information of " + options.url + ": " +
               tarnel::audio::FfmpegErrorText(ret);
      return false;
    }
    if (format_->start_time != AV_NOPTS_VALUE) start_ms_ = format_->start_time / 1000;

    if (options.use_video) {
      video_index_ = av_find_best_stream(format_.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
      if (video_index_ >= 0 && !InitVideo(error)) return false;
    }
    if (options.use_audio) {
      audio_index_ = av_find_best_stream(format_.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
      if (audio_index_ >= 0 && !InitAudio(error)) return false;
    }
    if (video_index_ < 0 && audio_index_ < 0) {
      *error = options.url + " holds no usable video or audio stream";
      return false;
    }
    return true;
  }

  bool has_video() const override { return video_index_ >= 0; }
  bool has_audio() const override { return audio_index_ >= 0; }
  bool is_live() const override { return live_; }
  int audio_sample_rate() const override {
    return has_audio() ? format_->streams[audio_index_]->codecpar->sample_rate : 0;
  }
  int audio_channels() const override {
    return has_audio() ? format_->streams[audio_index_]->codecpar->ch_layout.nb_channels : 0;
  }

  std::string Describe() const override {
    std::string out;
    if (has_video()) {
      const AVCodecParameters* par = format_->streams[video_index_]->codecpar;
      out += std::string(avcodec_get_name(par->codec_id)) + " " + std::to_string(par->width) + "x" +
             std::to_string(par->height);
    }
    if (has_audio()) {
      const AVCodecParameters* par = format_->streams[audio_index_]->codecpar;
      if (!out.empty()) out += ", ";
      out += std::string(avcodec_get_name(par->codec_id)) + " " + std::to_string(par->sample_rate) +
             " Hz " + std::to_string(par->ch_layout.nb_channels) + " ch" +
             (options_.audio_passthrough ? " (passed through)" : " -> pcm s16");
    }
    return out;
  }

  bool Next(SourceFrame* out, std::string* error) override {
    while (ready_.empty()) {
      if (drained_) return false;
      const int ret = av_read_frame(format_.get(), packet_.get());
      if (ret == AVERROR_EOF) {
        Drain();
        continue;
      }
      if (ret < 0) {
        *error = "cannot read " + options_.url + ": " + tarnel::audio::FfmpegErrorText(ret);
        Drain();
        continue;
      }
      if (packet_->stream_index == video_index_) {
        FilterVideo(packet_.get());
      } else if (packet_->stream_index == audio_index_) {
        HandleAudio(packet_.get());
      }
      av_packet_unref(packet_.get());
    }
    *out = std::move(ready_.front());
    ready_.pop_front();
    return true;
  }

 private:
  bool InitVideo(std::string* error) {
    const AVStream* stream = format_->streams[video_index_];
    const AVCodecParameters* par = stream->codecpar;
    if (par->codec_id != AV_CODEC_ID_H264 && par->codec_id != AV_CODEC_ID_HEVC) {
      *error =
          std::string("video codec ") + avcodec_get_name(par->codec_id) + " is not H.264 or H.265";
      return false;
    }
    // MP4 and Matroska store length-prefixed samples with avcC/hvcC extradata; the
    // recorder takes Annex-B access units with the parameter sets in band on key frames,
    // which is what the mp4toannexb filters make. Raw streams already are Annex-B.
    if (par->extradata_size > 0 && !tarnel::media_stream_writer::StartsWithStartCode(
                                       par->extradata, static_cast<size_t>(par->extradata_size))) {
      const AVBitStreamFilter* filter = av_bsf_get_by_name(
          par->codec_id == AV_CODEC_ID_H264 ? "h264_mp4toannexb" : "hevc_mp4toannexb");
      AVBSFContext* bsf = nullptr;
      int ret = filter ? av_bsf_alloc(filter, &bsf) : AVERROR_BSF_NOT_FOUND;
      bsf_.reset(bsf);
      if (ret >= 0) ret = avcodec_parameters_copy(bsf_->par_in, par);
      if (ret >= 0) {
        bsf_->time_base_in = stream->time_base;
        ret = av_bsf_init(bsf_.get());
      }
      if (ret < 0) {
        *error = "cannot convert the video of " + options_.url +
                 " to Annex-B: " + tarnel::audio::FfmpegErrorText(ret);
        return false;
      }
    }
    return true;
  }

  bool InitAudio(std::string* error) {
    const AVStream* stream = format_->streams[audio_index_];
    const AVCodecParameters* par = stream->codecpar;
    if (options_.audio_passthrough) {
      if (par->codec_id != AV_CODEC_ID_AAC) {
        *error = std::string("--audio-passthrough needs AAC audio, the input has ") +
                 avcodec_get_name(par->codec_id);
        return false;
      }
      return true;
    }
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    if (!codec) {
      *error = std::string("no decoder for audio codec ") + avcodec_get_name(par->codec_id);
      return false;
    }
    decoder_.reset(avcodec_alloc_context3(codec));
    int ret = avcodec_parameters_to_context(decoder_.get(), par);
    if (ret >= 0) {
      decoder_->pkt_timebase = stream->time_base;
      ret = avcodec_open2(decoder_.get(), codec, nullptr);
    }
    if (ret < 0) {
      *error = "cannot open the audio decoder: " + tarnel::audio::FfmpegErrorText(ret);
      return false;
    }
    return true;
  }

  void Drain() {
    if (drained_) return;
    drained_ = true;
    if (bsf_.get()) FilterVideo(nullptr);
    if (decoder_.get()) DecodeAudio(nullptr);
  }

  void FilterVideo(AVPacket* packet) {
    if (!bsf_) {
      if (packet) EmitVideo(packet);
      return;
    }
    if (av_bsf_send_packet(bsf_.get(), packet) < 0) return;
    while (av_bsf_receive_packet(bsf_.get(), filtered_.get()) >= 0) {
      EmitVideo(filtered_.get());
      av_packet_unref(filtered_.get());
    }
  }

  void EmitVideo(const AVPacket* packet) {
    if (packet->size <= 0) return;
    const AVStream* stream = format_->streams[video_index_];
    int64_t pts = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    int64_t pts_ms;
    if (pts != AV_NOPTS_VALUE) {
      pts_ms = ToMs(pts, stream->time_base) - start_ms_;
    } else {
      // A raw stream without timing: number the pictures at the given frame rate.
      const double fps = options_.video_fps > 0 ? options_.video_fps : 25.0;
      pts_ms = static_cast<int64_t>(static_cast<double>(video_count_) * 1000.0 / fps);
    }
    ++video_count_;
    auto frame = std::make_unique<tarnel::video::VideoFrame>();
    frame->data = tarnel::CopyOnWriteBuffer(packet->data, static_cast<size_t>(packet->size));
    frame->pts = static_cast<uint64_t>(std::max<int64_t>(pts_ms + kTimeLeadMs, 0));
    frame->dts = packet->dts != AV_NOPTS_VALUE
                     ? static_cast<uint64_t>(std::max<int64_t>(
                           ToMs(packet->dts, stream->time_base) - start_ms_ + kTimeLeadMs, 1))
                     : 0;
    frame->frame_type =
        (packet->flags & AV_PKT_FLAG_KEY) ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
    frame->codec_type = stream->codecpar->codec_id == AV_CODEC_ID_HEVC ? tarnel::video::kCodecH265
                                                                       : tarnel::video::kCodecH264;
    frame->width = static_cast<uint32_t>(stream->codecpar->width);
    frame->height = static_cast<uint32_t>(stream->codecpar->height);
    SourceFrame item;
    item.time_ms = pts_ms;
    item.video = std::move(frame);
    ready_.push_back(std::move(item));
  }

  void HandleAudio(AVPacket* packet) {
    if (!options_.audio_passthrough) {
      DecodeAudio(packet);
      return;
    }
    const AVStream* stream = format_->streams[audio_index_];
    const int64_t time_ms = packet->pts != AV_NOPTS_VALUE
                                ? ToMs(packet->pts, stream->time_base) - start_ms_
                                : audio_samples_ * 1000 / stream->codecpar->sample_rate;
    audio_samples_ += tarnel::audio::kAacSamplesPerFrame;
    auto frame = std::make_unique<tarnel::audio::AudioFrame>();
    frame->SetData(packet->data, static_cast<uint64_t>(packet->size));
    frame->SetAudioFrameFormat(tarnel::audio::kAac);
    frame->SetSampleRate(stream->codecpar->sample_rate);
    frame->SetChannels(stream->codecpar->ch_layout.nb_channels);
    EmitAudio(std::move(frame), time_ms);
  }

  void DecodeAudio(const AVPacket* packet) {
    if (avcodec_send_packet(decoder_.get(), packet) < 0) return;
    while (avcodec_receive_frame(decoder_.get(), frame_.get()) >= 0) {
      ConvertAndEmit(frame_.get());
      av_frame_unref(frame_.get());
    }
  }

  // Decoded audio in whatever sample format to interleaved s16 at the input's own rate,
  // mono or stereo: the recorder does the rate conversion itself.
  void ConvertAndEmit(const AVFrame* decoded) {
    const int channels = decoded->ch_layout.nb_channels >= 2 ? 2 : 1;
    if (!swr_ || decoded->sample_rate != swr_rate_ || decoded->format != swr_format_ ||
        av_channel_layout_compare(&decoded->ch_layout, &swr_layout_) != 0) {
      swr_.reset();
      AVChannelLayout out_layout;
      av_channel_layout_default(&out_layout, channels);
      SwrContext* swr = nullptr;
      const int set = swr_alloc_set_opts2(
          &swr, &out_layout, AV_SAMPLE_FMT_S16, decoded->sample_rate,
          const_cast<AVChannelLayout*>(&decoded->ch_layout),
          static_cast<AVSampleFormat>(decoded->format), decoded->sample_rate, 0, nullptr);
      swr_.reset(swr);
      if (set < 0 || swr_init(swr_.get()) < 0) {
        swr_.reset();
        return;
      }
      swr_rate_ = decoded->sample_rate;
      swr_format_ = decoded->format;
      av_channel_layout_uninit(&swr_layout_);
      av_channel_layout_copy(&swr_layout_, &decoded->ch_layout);
    }
    std::vector<int16_t> pcm(static_cast<size_t>(decoded->nb_samples + 64) * channels);
    uint8_t* out[] = {reinterpret_cast<uint8_t*>(pcm.data())};
    const int samples =
        swr_convert(swr_.get(), out, decoded->nb_samples + 64,
                    const_cast<const uint8_t**>(decoded->extended_data), decoded->nb_samples);
    if (samples <= 0) return;
    const AVStream* stream = format_->streams[audio_index_];
    const int64_t ts = decoded->best_effort_timestamp;
    const int64_t time_ms = ts != AV_NOPTS_VALUE ? ToMs(ts, stream->time_base) - start_ms_
                                                 : audio_samples_ * 1000 / decoded->sample_rate;
    audio_samples_ += samples;
    auto frame = std::make_unique<tarnel::audio::AudioFrame>();
    frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()),
                   static_cast<uint64_t>(samples) * channels * sizeof(int16_t));
    frame->SetSampleRate(decoded->sample_rate);
    frame->SetChannels(channels);
    EmitAudio(std::move(frame), time_ms);
  }

  void EmitAudio(std::unique_ptr<tarnel::audio::AudioFrame> frame, int64_t time_ms) {
    frame->SetTimestampInMs(static_cast<uint32_t>(std::max<int64_t>(time_ms + kTimeLeadMs, 1)));
    SourceFrame item;
    item.time_ms = time_ms;
    item.audio = std::move(frame);
    ready_.push_back(std::move(item));
  }

  SourceOptions options_;
  tarnel::FfmpegInputPtr format_;
  tarnel::FfmpegPtr<AVBSFContext> bsf_;
  tarnel::FfmpegPtr<AVCodecContext> decoder_;
  tarnel::FfmpegPtr<SwrContext> swr_;
  int swr_rate_ = 0;
  int swr_format_ = -1;
  AVChannelLayout swr_layout_ = {};
  tarnel::FfmpegPtr<AVPacket> packet_;
  tarnel::FfmpegPtr<AVPacket> filtered_;
  tarnel::FfmpegPtr<AVFrame> frame_;
  int video_index_ = -1;
  int audio_index_ = -1;
  int64_t start_ms_ = 0;
  int64_t video_count_ = 0;
  int64_t audio_samples_ = 0;
  bool live_ = false;
  bool drained_ = false;
  std::deque<SourceFrame> ready_;
};

}  // namespace

std::unique_ptr<MediaSource> MediaSource::Open(const SourceOptions& options, std::string* error) {
  static const bool network_ready = [] {
    avformat_network_init();
    return true;
  }();
  (void)network_ready;
  auto source = std::make_unique<FfmpegSource>();
  if (!source->Init(options, error)) return nullptr;
  return source;
}

}  // namespace tarnel_record
