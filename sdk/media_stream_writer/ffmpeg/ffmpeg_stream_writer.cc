#include "sdk/media_stream_writer/ffmpeg/ffmpeg_stream_writer.h"

#include <algorithm>
#include <utility>

#include "sdk/base/file_path.h"
#include "sdk/base/logging.h"
#include "sdk/media_stream_writer/container_muxer.h"
#include "sdk/media_stream_writer/ffmpeg/codec_config.h"
#include "sdk/media_stream_writer/ffmpeg/ffmpeg_container_muxer.h"
#include "sdk/media_stream_writer/video_parser.h"

namespace tarnel {
namespace extensions {
namespace local_recording {
namespace {

constexpr tarn_logging::LogConfig kLogConfig{"media_stream_writer"};
// Duration of a lone video frame: nothing better is known.
constexpr int64_t kDefaultVideoFrameMs = 33;
// How long a segment stays open after a cut for audio up to the cut.
constexpr int64_t kCutAudioWaitMs = 250;

using media_stream_writer::Bytes;
using media_stream_writer::ContainerMuxer;
using media_stream_writer::MediaFormat;

const char* FormatName(MediaFormat format) {
  switch (format) {
    case media_stream_writer::kMp4:
      return "MP4";
    case media_stream_writer::kMkv:
      return "MKV";
    case media_stream_writer::kWav:
      return "WAV";
    case media_stream_writer::kM4a:
      return "M4A";
    case media_stream_writer::kAac:
      return "AAC (ADTS)";
  }
  return "unknown";
}

bool IsKnownFormat(uint32_t format) {
  return format >= media_stream_writer::kMp4 && format <= media_stream_writer::kAac;
}

bool CarriesVideo(MediaFormat format) {
  return format == media_stream_writer::kMp4 || format == media_stream_writer::kMkv;
}

// MP4 and M4A take negative timestamps (they become the edit list); the others would
// have FFmpeg shift every stream.
bool TakesNegativeTimestamps(MediaFormat format) {
  return format == media_stream_writer::kMp4 || format == media_stream_writer::kM4a;
}

ContainerMuxer::Container ContainerFor(MediaFormat format) {
  switch (format) {
    case media_stream_writer::kMp4:
      return ContainerMuxer::kMp4;
    case media_stream_writer::kMkv:
      return ContainerMuxer::kMkv;
    case media_stream_writer::kWav:
      return ContainerMuxer::kWav;
    case media_stream_writer::kM4a:
      return ContainerMuxer::kM4a;
    case media_stream_writer::kAac:
      return ContainerMuxer::kAdts;
  }
  return ContainerMuxer::kMp4;
}

Bytes ToBytes(const CopyOnWriteBuffer& buffer) {
  return buffer.empty() ? Bytes() : Bytes(buffer.data(), buffer.data() + buffer.size());
}

// A parameter set that is more than its NAL header: a bare header (the parser returns
// those too) describes nothing and counts as absent.
bool HasBody(const CopyOnWriteBuffer& set, bool hevc) { return set.size() > (hevc ? 2u : 1u); }

std::vector<Bytes> SetsWithBody(const std::vector<CopyOnWriteBuffer>& sets, bool hevc) {
  std::vector<Bytes> out;
  for (const CopyOnWriteBuffer& set : sets) {
    if (HasBody(set, hevc)) out.push_back(ToBytes(set));
  }
  return out;
}

// a / b rounded to nearest, for a >= 0, b > 0.
int64_t RoundDiv(int64_t a, int64_t b) { return (a + b / 2) / b; }

const char* AudioCodecName(bool aac) { return aac ? "AAC" : "PCM"; }

}  // namespace

FfmpegStreamWriter::FfmpegStreamWriter(LocalRecordingSegmentationWriter::Client* client)
    : client_(client) {}

FfmpegStreamWriter::~FfmpegStreamWriter() {
  if (running_) Stop();
}

void FfmpegStreamWriter::SetVideoMetaData(const media_stream_writer::VideoMetadata& metadata) {
  video_metadata_ = metadata;
  has_video_metadata_ = true;
}

void FfmpegStreamWriter::SetAudioMetaData(const audio::AudioMetadata& metadata) {
  audio_metadata_ = metadata;
  has_audio_metadata_ = true;
}

void FfmpegStreamWriter::PacketError(const std::string& message) {
  // A stream that goes wrong tends to go wrong for every packet: say it once, and how
  // often it happened when something else comes up.
  if (message == last_packet_error_) {
    ++repeated_packet_errors_;
    return;
  }
  TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
      << message
      << (repeated_packet_errors_ > 0 ? " (the previous error repeated " +
                                            std::to_string(repeated_packet_errors_) + " more times)"
                                      : std::string());
  last_packet_error_ = message;
  repeated_packet_errors_ = 0;
}

int FfmpegStreamWriter::Start(const std::string& path, MediaFormat format, LocalRecordingType type,
                              int segment_interval) {
  if (running_ || header_written_ || segment_number_ > 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "Start called twice";
    return -1;
  }
  if (!IsKnownFormat(format)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "unsupported media format " << static_cast<uint32_t>(format) << " for " << path
        << ": not one of MP4 (1), MKV (2), WAV (3), M4A (4), AAC (5)";
    return -1;
  }
  if (type != kAudioOnly && type != kVideoOnly && type != kAudioAndVideo) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "unknown record type " << static_cast<uint32_t>(type) << " for " << FormatName(format);
    return -1;
  }
  const bool wants_video = type != kAudioOnly;
  if (wants_video && !CarriesVideo(format)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << FormatName(format) << " cannot carry video, but record type "
        << static_cast<uint32_t>(type) << " asks for a video stream";
    return -1;
  }
  if (path.empty()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "empty output path";
    return -1;
  }

  video_ = VideoState();
  audio_ = AudioState();
  if (wants_video && has_video_metadata_) {
    const int32_t codec = video_metadata_.codec_type;
    if (codec != video::kCodecH264 && codec != video::kCodecH265) {
      TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
          << FormatName(format) << " cannot carry video codec " << codec
          << ": only H.264 and H.265";
      return -1;
    }
    video_.codec_known = true;
    video_.hevc = codec == video::kCodecH265;
    video_.width = static_cast<int>(video_metadata_.width);
    video_.height = static_cast<int>(video_metadata_.height);
    const bool has_sets = HasBody(video_metadata_.sps, video_.hevc) &&
                          HasBody(video_metadata_.pps, video_.hevc) &&
                          (!video_.hevc || HasBody(video_metadata_.vps, video_.hevc));
    if (has_sets) {
      const Bytes vps = ToBytes(video_metadata_.vps);
      video_.decoder_config =
          video_.hevc ? media_stream_writer::BuildHevcDecoderConfig(
                            {vps}, {ToBytes(video_metadata_.sps)}, {ToBytes(video_metadata_.pps)})
                      : media_stream_writer::BuildAvcDecoderConfig({ToBytes(video_metadata_.sps)},
                                                                   {ToBytes(video_metadata_.pps)});
      if (video_.decoder_config.empty()) {
        TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
            << "the metadata's parameter sets do not parse; waiting for a key frame's";
      }
    }
    video_.configured = !video_.decoder_config.empty() && video_.width > 0 && video_.height > 0;
  }

  format_ = format;
  expect_video_ = wants_video;
  expect_audio_ = type != kVideoOnly;
  segment_interval_ = std::max(segment_interval, 0);
  video_ticks_per_ms_ = format == media_stream_writer::kMp4 ? 90 : 1;
  path_ = path;

  const std::string first_path = segmenting() ? SegmentPath(1) : path;
  muxer_ = ContainerMuxer::Create(ContainerFor(format), first_path);
  if (!muxer_) return -1;
  segment_number_ = 1;
  segment_base_ms_ = 0;
  segment_base_samples_ = 0;
  next_boundary_ms_ = int64_t{segment_interval_} * 1000;
  running_ = true;
  TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this)
      << "recording " << FormatName(format) << " to " << first_path << ", record type "
      << static_cast<uint32_t>(type) << ", segment interval " << segment_interval_ << " s";
  if (client_) client_->OnRecordingSegment(first_path);
  return 0;
}

int FfmpegStreamWriter::WriteVideoPacket(std::unique_ptr<video::VideoFrame> frame) {
  if (!frame || !running_) return -1;
  if (!expect_video_) return 1;  // Not part of this recording.
  if (frame->codec_type != video::kCodecH264 && frame->codec_type != video::kCodecH265) {
    PacketError(std::string(FormatName(format_)) + " cannot carry video codec " +
                std::to_string(frame->codec_type) + ": only H.264 and H.265");
    return -1;
  }
  const bool hevc = frame->codec_type == video::kCodecH265;
  if (video_.codec_known && hevc != video_.hevc) {
    PacketError(std::string("video codec changed to ") + (hevc ? "H.265" : "H.264") +
                " within the recording; frame dropped");
    return -1;
  }
  if (video_.given_up) {
    if (!logged_given_up_) {
      logged_given_up_ = true;
      TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
          << "video arrived after the file was started without it; dropped";
    }
    return 0;
  }
  if (frame->data.empty()) {
    PacketError("empty video frame");
    return -1;
  }
  if (!video_.seen_key_frame) {
    if (frame->frame_type != video::kKeyFrame) {
      if (!logged_dropped_delta_) {
        logged_dropped_delta_ = true;
        TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
            << "dropping video frames before the first key frame: they cannot be decoded";
      }
      return 1;
    }
    if (!video_.codec_known) {
      video_.codec_known = true;
      video_.hevc = hevc;
    }
    if (!video_.configured && !ConfigureVideoFromKeyFrame(*frame)) return -1;
    video_.seen_key_frame = true;
  }
  if (!header_written_) {
    PendingPacket packet;
    packet.time_ms = static_cast<int64_t>(frame->pts);
    packet.video = std::move(frame);
    return HoldUntilHeader(std::move(packet));
  }
  return WriteVideoNow(std::move(frame));
}

bool FfmpegStreamWriter::ConfigureVideoFromKeyFrame(const video::VideoFrame& frame) {
  if (video_.decoder_config.empty()) {
    const video::ParameterSetsByType sets =
        video::ExtractParameterSets(frame.codec_type, frame.data.data(), frame.data.size());
    const std::vector<Bytes> vps = SetsWithBody(sets.vps, video_.hevc);
    const std::vector<Bytes> sps = SetsWithBody(sets.sps, video_.hevc);
    const std::vector<Bytes> pps = SetsWithBody(sets.pps, video_.hevc);
    if (!sps.empty() && !pps.empty() && (!video_.hevc || !vps.empty())) {
      video_.decoder_config = video_.hevc
                                  ? media_stream_writer::BuildHevcDecoderConfig(vps, sps, pps)
                                  : media_stream_writer::BuildAvcDecoderConfig(sps, pps);
    }
    if (video_.decoder_config.empty()) {
      TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
          << "the key frame at " << frame.pts << " ms carries no usable "
          << (video_.hevc ? "VPS/SPS/PPS" : "SPS/PPS") << "; cannot describe the video";
      return false;
    }
  }
  if (video_.width <= 0 || video_.height <= 0) {
    video_.width = static_cast<int>(frame.width);
    video_.height = static_cast<int>(frame.height);
  }
  if ((video_.width <= 0 || video_.height <= 0) &&
      !media_stream_writer::ProbeVideoSize(video_.hevc, frame.data.data(), frame.data.size(),
                                           &video_.width, &video_.height)) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "the picture size is unknown: not in the metadata, the frame or its SPS";
    return false;
  }
  video_.configured = true;
  return true;
}

int FfmpegStreamWriter::WriteAudioPacket(std::unique_ptr<audio::AudioFrame> frame) {
  if (!frame || !running_) return -1;
  if (!expect_audio_) return 1;  // Not part of this recording.
  const audio::AudioCodecFormat codec = frame->GetAudioFrameFormat();
  if (codec != audio::kAac && codec != audio::kPcm) {
    PacketError(std::string(FormatName(format_)) + " cannot carry audio format " +
                std::to_string(static_cast<int>(codec)));
    return -1;
  }
  if (!audio_.configured && !ConfigureAudio(*frame)) return -1;
  const uint8_t* data = nullptr;
  size_t size = 0;
  int64_t samples = 0;
  if (!AudioPayload(*frame, &data, &size, &samples)) return -1;
  if (audio_.given_up) {
    if (!logged_given_up_) {
      logged_given_up_ = true;
      TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
          << "audio arrived after the file was started without it; dropped";
    }
    return 0;
  }
  if (!header_written_) {
    PendingPacket packet;
    packet.time_ms = frame->GetTimestampInMs();
    packet.audio = std::move(frame);
    return HoldUntilHeader(std::move(packet));
  }
  return WriteAudioNow(std::move(frame));
}

bool FfmpegStreamWriter::ConfigureAudio(const audio::AudioFrame& frame) {
  const bool aac = frame.GetAudioFrameFormat() == audio::kAac;
  if (!aac && (format_ == media_stream_writer::kMp4 || format_ == media_stream_writer::kM4a ||
               format_ == media_stream_writer::kAac)) {
    PacketError(std::string(FormatName(format_)) + " cannot carry PCM audio: it takes AAC only");
    return false;
  }
  if (aac && format_ == media_stream_writer::kWav) {
    PacketError("WAV cannot carry AAC audio: it takes PCM s16 only");
    return false;
  }
  int sample_rate = frame.GetSampleRate();
  int channels = frame.GetChannels();
  if (sample_rate <= 0 && has_audio_metadata_) sample_rate = audio_metadata_.sample_rate;
  if (channels <= 0 && has_audio_metadata_) channels = audio_metadata_.channels;
  Bytes config;
  if (aac) {
    media_stream_writer::AdtsHeader header;
    if (media_stream_writer::StartsWithAdtsHeader(frame.GetData(), frame.GetSize())) {
      if (!media_stream_writer::ParseAdtsHeader(frame.GetData(), frame.GetSize(), &header)) {
        PacketError("malformed ADTS header");
        return false;
      }
      sample_rate = header.sample_rate;
      if (header.channel_config > 0) {
        channels = header.channel_config == 7 ? 8 : header.channel_config;
        config = media_stream_writer::AudioSpecificConfigFromAdts(header);
      }
    }
    // Without ADTS (or with a channel layout given in-band), describe it as AAC-LC.
    if (config.empty()) {
      config = media_stream_writer::BuildAacLcAudioSpecificConfig(sample_rate, channels);
    }
    if (config.empty()) {
      PacketError("cannot describe AAC at " + std::to_string(sample_rate) + " Hz with " +
                  std::to_string(channels) + " channels");
      return false;
    }
  }
  if (sample_rate <= 0 || channels <= 0 || channels > 8) {
    PacketError("unusable audio: " + std::to_string(sample_rate) + " Hz, " +
                std::to_string(channels) + " channels");
    return false;
  }
  audio_.aac = aac;
  audio_.sample_rate = sample_rate;
  audio_.channels = channels;
  audio_.audio_specific_config = std::move(config);
  audio_.configured = true;
  return true;
}

bool FfmpegStreamWriter::AudioPayload(const audio::AudioFrame& frame, const uint8_t** data,
                                      size_t* size, int64_t* samples) {
  const bool aac = frame.GetAudioFrameFormat() == audio::kAac;
  const char* problem = nullptr;
  if (aac != audio_.aac) problem = "audio codec changed within the recording";
  *data = frame.GetData();
  *size = frame.GetSize();
  // An ADTS header speaks for its frame; otherwise the frame's own fields do.
  const bool adts = aac && media_stream_writer::StartsWithAdtsHeader(*data, *size);
  if (!problem && !adts && frame.GetSampleRate() > 0 &&
      frame.GetSampleRate() != audio_.sample_rate) {
    problem = "audio sample rate changed within the recording";
  }
  if (!problem && !adts && frame.GetChannels() > 0 && frame.GetChannels() != audio_.channels) {
    problem = "audio channel count changed within the recording";
  }
  if (!problem && (*data == nullptr || *size == 0)) problem = "empty audio frame";
  if (!problem && aac) {
    *samples = audio::kAacSamplesPerFrame;
    if (adts) {
      media_stream_writer::AdtsHeader header;
      if (!media_stream_writer::ParseAdtsHeader(*data, *size, &header)) {
        problem = "malformed ADTS header";
      } else if (header.raw_data_blocks != 0) {
        problem = "ADTS frames holding several AAC frames are not supported";
      } else if (header.sample_rate != audio_.sample_rate) {
        problem = "audio sample rate changed within the recording";
      } else {
        *data += header.header_size;
        *size = static_cast<size_t>(header.frame_size - header.header_size);
        if (*size == 0) problem = "empty audio frame";
      }
    }
  } else if (!problem) {
    const size_t frame_bytes = 2 * static_cast<size_t>(audio_.channels);
    if (*size % frame_bytes != 0) problem = "PCM frame size is not a whole number of samples";
    *samples = static_cast<int64_t>(*size / frame_bytes);
  }
  if (problem) {
    PacketError(std::string(problem) + " (" + AudioCodecName(aac) + ", " +
                std::to_string(frame.GetSampleRate()) + " Hz, " +
                std::to_string(frame.GetChannels()) + " channels); frame dropped");
    return false;
  }
  return true;
}

int FfmpegStreamWriter::HoldUntilHeader(PendingPacket packet) {
  pending_.push_back(std::move(packet));
  if (!ReadyForHeader()) {
    if (!PendingOverLimit()) return 1;
    if (expect_video_ && !video_.configured) {
      video_.given_up = true;
      TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
          << "no usable video after " << pending_.size()
          << " packets; the file is written without video";
    }
    if (expect_audio_ && !audio_.configured) {
      audio_.given_up = true;
      TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
          << "no audio after " << pending_.size() << " packets; the file is written without audio";
    }
  }
  return WriteHeaderAndPending() ? 1 : 0;
}

bool FfmpegStreamWriter::ReadyForHeader() const {
  return (!expect_video_ || video_.configured) && (!expect_audio_ || audio_.configured);
}

bool FfmpegStreamWriter::PendingOverLimit() const {
  if (pending_.size() > kMaxPendingPackets) return true;
  int64_t first = pending_.front().time_ms;
  int64_t last = first;
  for (const PendingPacket& packet : pending_) {
    first = std::min(first, packet.time_ms);
    last = std::max(last, packet.time_ms);
  }
  return last - first > kMaxPendingMs;
}

bool FfmpegStreamWriter::AddStreams(ContainerMuxer* muxer) {
  video_stream_ = -1;
  audio_stream_ = -1;
  if (expect_video_ && video_.configured) {
    media_stream_writer::VideoStreamConfig config;
    config.hevc = video_.hevc;
    config.width = video_.width;
    config.height = video_.height;
    config.decoder_config = video_.decoder_config;
    config.time_base_den = static_cast<int>(1000 * video_ticks_per_ms_);
    video_stream_ = muxer->AddVideoStream(config);
    if (video_stream_ < 0) return false;
  }
  if (expect_audio_ && audio_.configured) {
    media_stream_writer::AudioStreamConfig config;
    config.aac = audio_.aac;
    config.sample_rate = audio_.sample_rate;
    config.channels = audio_.channels;
    config.audio_specific_config = audio_.audio_specific_config;
    audio_stream_ = muxer->AddAudioStream(config);
    if (audio_stream_ < 0) return false;
  }
  video_.in_file = video_stream_ >= 0;
  audio_.in_file = audio_stream_ >= 0;
  return video_.in_file || audio_.in_file;
}

bool FfmpegStreamWriter::WriteHeaderAndPending() {
  header_written_ = true;
  if (!muxer_ || !AddStreams(muxer_.get()) || !muxer_->WriteHeader()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot start " << (muxer_ ? muxer_->path() : path_) << "; " << pending_.size()
        << " packets lost";
    header_failed_ = true;
    pending_.clear();
    muxer_.reset();
    return false;
  }
  std::deque<PendingPacket> pending;
  pending.swap(pending_);
  bool ok = true;
  for (PendingPacket& packet : pending) {
    const int result = packet.video ? WriteVideoNow(std::move(packet.video))
                                    : WriteAudioNow(std::move(packet.audio));
    ok = ok && result > 0;
  }
  return ok;
}

int FfmpegStreamWriter::WriteVideoNow(std::unique_ptr<video::VideoFrame> frame) {
  // The recording's one dts repair: a missing dts (0) is the pts, a dts past its pts is
  // the pts, and (below, in the stream's time base) a dts that does not increase is
  // moved just past the previous one.
  const int64_t pts = static_cast<int64_t>(frame->pts);
  int64_t dts = frame->dts == 0 ? pts : static_cast<int64_t>(frame->dts);
  if (dts > pts) dts = pts;
  const bool key = frame->frame_type == video::kKeyFrame;
  if (segmenting() && key && (!muxer_ || (segment_has_video_ && pts >= next_boundary_ms_))) {
    const int64_t base_samples = audio_.configured ? RoundDiv(pts * audio_.sample_rate, 1000) : 0;
    StartNextSegment(pts, base_samples);
  }
  if (closing_muxer_ && pts - closing_cut_ms_ >= kCutAudioWaitMs) {
    FinishMuxer(&closing_muxer_);  // The audio stopped short of the cut.
  }
  if (!muxer_ || video_stream_ < 0) return 0;

  const Bytes sample =
      media_stream_writer::AnnexBToLengthPrefixed(frame->data.data(), frame->data.size());
  if (sample.empty()) {
    PacketError("a video frame holds no NAL unit; frame dropped");
    return -1;
  }
  int64_t out_pts = (pts - segment_base_ms_) * video_ticks_per_ms_;
  int64_t out_dts = (dts - segment_base_ms_) * video_ticks_per_ms_;
  if (video_.has_last_dts && out_dts <= video_.last_dts) {
    if (!logged_dts_repair_) {
      logged_dts_repair_ = true;
      TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
          << "video dts " << dts << " ms does not increase; moved just past the previous one"
          << " (logged once)";
    }
    out_dts = video_.last_dts + 1;
    out_pts = std::max(out_pts, out_dts);
  }
  if (video_.has_last_dts) video_.last_interval = out_dts - video_.last_dts;
  video_.has_last_dts = true;
  video_.last_dts = out_dts;
  segment_has_video_ = true;
  const int64_t nominal =
      video_.last_interval > 0 ? video_.last_interval : kDefaultVideoFrameMs * video_ticks_per_ms_;
  return muxer_->WritePacket(video_stream_, sample.data(), sample.size(), out_pts, out_dts, nominal,
                             key)
             ? 1
             : 0;
}

int FfmpegStreamWriter::WriteAudioNow(std::unique_ptr<audio::AudioFrame> frame) {
  const uint8_t* data = nullptr;
  size_t size = 0;
  int64_t samples = 0;
  if (!AudioPayload(*frame, &data, &size, &samples)) return -1;

  // Sample position in recording time. A frame within half a frame of where the last
  // one ended continues it, which absorbs the ms rounding of the timestamps.
  const int64_t time_ms = frame->GetTimestampInMs();
  // An encoder's output begins `delay` samples before its stamp: its first packets
  // decode to the encoder's start-up (priming), not to input audio. They become the
  // stream's decoder pre-roll, which only MP4/M4A keep (hidden by the edit list of the
  // finished file, so that the first input sample decodes in full); the rest is placed
  // `delay` samples earlier, so that decoded audio begins with the first input sample
  // in every player and container, also where no edit list is read (a fragmented MP4
  // left by a crash, Matroska, ADTS). There the first frame decodes without its
  // predecessor's overlap and fades in over ~21 ms.
  const int64_t delay = audio_.aac ? std::max<int64_t>(frame->GetEncoderDelaySamples(), 0) : 0;
  const int64_t stamped = RoundDiv(time_ms * audio_.sample_rate, 1000) - delay;
  if (!audio_.priming_known) {
    audio_.priming_known = true;
    audio_.priming_packets_left = samples > 0 ? delay / samples : 0;
    // The input audio begins where the first packet is stamped; the first packet after
    // the priming starts the part of the delay that is not a whole packet before it
    // (ms stamps would put it up to 1 ms off).
    if (audio_.priming_packets_left > 0 && !audio_.has_next) {
      audio_.has_next = true;
      audio_.next_position = stamped + delay - delay % samples;
      if (delay % samples != 0 && muxer_) {
        muxer_->SetPresentationStart(
            audio_stream_, stamped + delay - segment_base_samples_ + audio_.segment_shift);
      }
    }
  }
  if (audio_.priming_packets_left > 0) {
    --audio_.priming_packets_left;
    if (muxer_ && audio_stream_ >= 0) muxer_->AddPreroll(audio_stream_, data, size, samples);
    return 1;
  }
  int64_t position = stamped;
  if (audio_.has_next) {
    const int64_t offset = stamped - audio_.next_position;
    if (offset <= samples / 2) position = audio_.next_position;  // Continues, or overlaps.
    if (offset < -samples / 2 && !logged_audio_repair_) {
      logged_audio_repair_ = true;
      TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
          << "audio at " << time_ms << " ms overlaps the previous frame; placed after it"
          << " (logged once)";
    }
  }
  audio_.has_next = true;
  audio_.next_position = position + samples;

  if (segmenting() && !video_.in_file &&
      (!muxer_ || (audio_.segment_has_audio && time_ms >= next_boundary_ms_))) {
    StartNextSegment(time_ms, position);
  }

  bool written = true;
  if (closing_muxer_) {
    // The segment before the last cut takes the audio up to the cut; the packet that
    // straddles it goes to both, hidden past the cut in the old one and before it in
    // the new one, so that no sample is lost or doubled.
    const int64_t cut = closing_cut_samples_;
    const bool before_cut = position < cut;
    if (before_cut) {
      written = MuxAudio(closing_muxer_.get(), closing_base_samples_, &closing_shift_, data, size,
                         position, samples);
    }
    if (!before_cut || position + samples > cut) {
      if (muxer_ && has_last_audio_ && last_audio_position_ + last_audio_samples_ == position) {
        muxer_->AddPreroll(audio_stream_, last_audio_.data(), last_audio_.size(),
                           last_audio_samples_);
      }
      if (before_cut && muxer_) muxer_->AddPreroll(audio_stream_, data, size, samples);
      FinishMuxer(&closing_muxer_);
    }
    if (before_cut) {
      RememberAudio(data, size, position, samples);
      return written ? 1 : 0;
    }
  }
  if (!muxer_ || audio_stream_ < 0) return 0;
  audio_.segment_has_audio = true;
  written = MuxAudio(muxer_.get(), segment_base_samples_, &audio_.segment_shift, data, size,
                     position, samples);
  RememberAudio(data, size, position, samples);
  return written ? 1 : 0;
}

bool FfmpegStreamWriter::MuxAudio(ContainerMuxer* muxer, int64_t base_samples, int64_t* shift,
                                  const uint8_t* data, size_t size, int64_t position,
                                  int64_t samples) {
  int64_t out = position - base_samples + *shift;
  if (out < 0 && !TakesNegativeTimestamps(format_)) {
    // Only the first frame of a segment can land here (a few samples early through the
    // continuity rule); the segment's audio moves by that much to start at 0.
    *shift -= out;
    out = 0;
  }
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  Bytes swapped;
  if (!audio_.aac) {
    swapped.assign(data, data + size);
    for (size_t i = 0; i + 1 < swapped.size(); i += 2) std::swap(swapped[i], swapped[i + 1]);
    data = swapped.data();
  }
#endif
  return muxer->WritePacket(audio_stream_, data, size, out, out, samples, /*key=*/true);
}

void FfmpegStreamWriter::RememberAudio(const uint8_t* data, size_t size, int64_t position,
                                       int64_t samples) {
  if (!segmenting()) return;
  last_audio_.assign(data, data + size);
  last_audio_position_ = position;
  last_audio_samples_ = samples;
  has_last_audio_ = true;
}

std::string FfmpegStreamWriter::SegmentPath(int number) const {
  return tarn_base::FilePath::FromUTF8Unsafe(path_)
      .InsertBeforeExtension("_" + std::to_string(number))
      .value();
}

std::unique_ptr<ContainerMuxer> FfmpegStreamWriter::OpenMuxer(const std::string& path) {
  std::unique_ptr<ContainerMuxer> muxer = ContainerMuxer::Create(ContainerFor(format_), path);
  if (!muxer) return nullptr;
  if (!AddStreams(muxer.get()) || !muxer->WriteHeader()) {
    muxer->Discard();
    return nullptr;
  }
  return muxer;
}

bool FfmpegStreamWriter::StartNextSegment(int64_t base_ms, int64_t base_samples) {
  if (muxer_ && video_.in_file && audio_.in_file) {
    // The old segment ends at the cut; it stays open for the audio up to there.
    FinishMuxer(&closing_muxer_);
    muxer_->SetPresentationEnd(video_stream_, (base_ms - segment_base_ms_) * video_ticks_per_ms_);
    muxer_->SetPresentationEnd(audio_stream_,
                               base_samples - segment_base_samples_ + audio_.segment_shift);
    closing_muxer_ = std::move(muxer_);
    closing_cut_ms_ = base_ms;
    closing_cut_samples_ = base_samples;
    closing_base_samples_ = segment_base_samples_;
    closing_shift_ = audio_.segment_shift;
  } else {
    FinishMuxer(&muxer_);
  }
  const int number = segment_number_ + 1;
  const std::string path = SegmentPath(number);
  std::unique_ptr<ContainerMuxer> muxer = OpenMuxer(path);
  if (!muxer) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot open segment " << path << "; retrying at the next cut point";
    return false;
  }
  muxer_ = std::move(muxer);
  segment_number_ = number;
  segment_base_ms_ = base_ms;
  segment_base_samples_ = base_samples;
  next_boundary_ms_ = base_ms + int64_t{segment_interval_} * 1000;
  segment_has_video_ = false;
  video_.has_last_dts = false;
  audio_.segment_shift = 0;
  audio_.segment_has_audio = false;
  if (audio_.in_file) {
    // The audio before the cut that reaches the new file only primes the decoder.
    muxer_->SetPresentationStart(audio_stream_, 0);
    if (!video_.in_file && has_last_audio_ &&
        last_audio_position_ + last_audio_samples_ == base_samples) {
      muxer_->AddPreroll(audio_stream_, last_audio_.data(), last_audio_.size(),
                         last_audio_samples_);
    }
  }
  TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this)
      << "segment " << number << " starts at " << base_ms << " ms: " << path;
  if (client_) client_->OnRecordingSegment(path);
  return true;
}

void FfmpegStreamWriter::FinishMuxer(std::unique_ptr<ContainerMuxer>* muxer) {
  if (!*muxer) return;
  const int64_t size = (*muxer)->Finish();
  if (size < 0) {
    last_finish_failed_ = true;
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "finishing " << (*muxer)->path() << " failed";
  } else {
    last_finish_failed_ = false;
    finished_bytes_ += size;
  }
  muxer->reset();
}

int64_t FfmpegStreamWriter::Stop() {
  if (!running_) return 0;
  running_ = false;
  if (!header_written_) {
    if (pending_.empty()) {
      // Nothing ever arrived: the file we created stays empty and goes away.
      if (muxer_) muxer_->Discard();
      muxer_.reset();
      TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this) << "stopped before any packet";
      return 0;
    }
    if (expect_video_ && !video_.configured) video_.given_up = true;
    if (expect_audio_ && !audio_.configured) audio_.given_up = true;
    WriteHeaderAndPending();
  }
  if (header_failed_ && segment_number_ <= 1) return -1;
  FinishMuxer(&closing_muxer_);
  if (!muxer_) return finished_bytes_;
  FinishMuxer(&muxer_);
  return last_finish_failed_ ? -1 : finished_bytes_;
}

}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel
