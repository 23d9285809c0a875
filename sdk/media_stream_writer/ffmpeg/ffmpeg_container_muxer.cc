#include "sdk/media_stream_writer/ffmpeg/ffmpeg_container_muxer.h"

#include <cstring>
#include <utility>

#include "sdk/base/logging.h"
#include "sdk/media/ffmpeg/ffmpeg_error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace tarnel {
namespace media_stream_writer {
namespace {

constexpr tarn_logging::LogConfig kLogConfig{"media_stream_writer"};
constexpr int kIoBufferSize = 64 * 1024;

const char* MuxerName(ContainerMuxer::Container container) {
  switch (container) {
    case ContainerMuxer::kMp4:
    case ContainerMuxer::kM4a:
      break;  // Mp4Muxer's.
    case ContainerMuxer::kMkv:
      return "matroska";
    case ContainerMuxer::kWav:
      return "wav";
    case ContainerMuxer::kAdts:
      return "adts";
  }
  return "";
}

int WriteToFile(void* opaque, uint8_t* data, int size) {
  const int result = static_cast<OutputFile*>(opaque)->Write(data, static_cast<size_t>(size));
  return result < 0 ? AVERROR(-result) : result;
}

int64_t SeekInFile(void* opaque, int64_t offset, int whence) {
  auto* file = static_cast<OutputFile*>(opaque);
  if (whence & AVSEEK_SIZE) return file->size();
  const int64_t result = file->Seek(offset, whence & ~AVSEEK_FORCE);
  return result < 0 ? AVERROR(static_cast<int>(-result)) : result;
}

bool SetExtradata(AVCodecParameters* parameters, const Bytes& bytes) {
  if (bytes.empty()) return true;
  parameters->extradata =
      static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (parameters->extradata == nullptr) return false;
  std::memcpy(parameters->extradata, bytes.data(), bytes.size());
  parameters->extradata_size = static_cast<int>(bytes.size());
  return true;
}

}  // namespace

struct FfmpegContainerMuxer::StreamState {
  AVStream* stream = nullptr;
  AVRational input_time_base{1, 1000};
  FfmpegPtr<AVPacket> held;  // Valid when has_held.
  bool has_held = false;
  int64_t held_nominal_duration = 0;
  int64_t muxed = 0;
};

bool ProbeVideoSize(bool hevc, const uint8_t* data, size_t size, int* width, int* height) {
  FfmpegPtr<AVCodecParserContext> parser(
      av_parser_init(hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264));
  FfmpegPtr<AVCodecContext> codec(avcodec_alloc_context3(nullptr));
  bool found = false;
  if (parser && codec) {
    codec->codec_type = AVMEDIA_TYPE_VIDEO;
    codec->codec_id = hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    // The parser reads up to AV_INPUT_BUFFER_PADDING_SIZE bytes past the input.
    Bytes padded(data, data + size);
    padded.resize(size + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    uint8_t* out = nullptr;
    int out_size = 0;
    av_parser_parse2(parser.get(), codec.get(), &out, &out_size, padded.data(),
                     static_cast<int>(size), AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    found = parser->width > 0 && parser->height > 0;
    if (found) {
      *width = parser->width;
      *height = parser->height;
    }
  }
  return found;
}

std::unique_ptr<FfmpegContainerMuxer> FfmpegContainerMuxer::Create(Container container,
                                                                   const std::string& path) {
  std::unique_ptr<FfmpegContainerMuxer> muxer(new FfmpegContainerMuxer(container, path));
  if (!muxer->Open()) return nullptr;
  return muxer;
}

FfmpegContainerMuxer::FfmpegContainerMuxer(Container container, std::string path)
    : ContainerMuxer(std::move(path)), container_(container) {}

FfmpegContainerMuxer::~FfmpegContainerMuxer() {
  if (!finished_) Discard();
}

bool FfmpegContainerMuxer::Open() {
  AVFormatContext* context = nullptr;
  const int result =
      avformat_alloc_output_context2(&context, nullptr, MuxerName(container_), path().c_str());
  context_.reset(context);
  if (result < 0 || !context_) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "no " << MuxerName(container_) << " muxer: " << audio::FfmpegErrorText(result);
    return false;
  }
  file_ = OutputFile::Create(path());
  if (!file_) return false;
  FfmpegPtr<uint8_t> buffer(static_cast<uint8_t*>(av_malloc(kIoBufferSize)));
  if (buffer) {
    io_.reset(avio_alloc_context(buffer.get(), kIoBufferSize, /*write_flag=*/1, file_.get(),
                                 nullptr, &WriteToFile, &SeekInFile));
    if (io_) buffer.release();  // io_ frees it.
  }
  if (!io_) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "out of memory opening " << path();
    return false;
  }
  context_->pb = io_.get();
  context_->flags |= AVFMT_FLAG_CUSTOM_IO;
  return true;
}

int FfmpegContainerMuxer::AddStream(int time_base_den) {
  if (header_written_ || !context_) return -1;
  AVStream* stream = avformat_new_stream(context_.get(), nullptr);
  auto state = std::make_unique<StreamState>();
  state->held.reset(av_packet_alloc());
  if (stream == nullptr || !state->held) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "out of memory adding a stream";
    return -1;
  }
  state->stream = stream;
  state->input_time_base = AVRational{1, time_base_den};
  stream->time_base = state->input_time_base;
  streams_.push_back(std::move(state));
  return stream->index;
}

int FfmpegContainerMuxer::AddVideoStream(const VideoStreamConfig& config) {
  const int index = AddStream(config.time_base_den);
  if (index < 0) return -1;
  AVCodecParameters* parameters = streams_.back()->stream->codecpar;
  parameters->codec_type = AVMEDIA_TYPE_VIDEO;
  parameters->codec_id = config.hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
  parameters->width = config.width;
  parameters->height = config.height;
  if (!SetExtradata(parameters, config.decoder_config)) return -1;
  return index;
}

int FfmpegContainerMuxer::AddAudioStream(const AudioStreamConfig& config) {
  const int index = AddStream(config.sample_rate);
  if (index < 0) return -1;
  AVCodecParameters* parameters = streams_.back()->stream->codecpar;
  parameters->codec_type = AVMEDIA_TYPE_AUDIO;
  parameters->sample_rate = config.sample_rate;
  av_channel_layout_default(&parameters->ch_layout, config.channels);
  if (config.aac) {
    parameters->codec_id = AV_CODEC_ID_AAC;
    parameters->profile = FF_PROFILE_AAC_LOW;
    parameters->frame_size = 1024;
    if (!SetExtradata(parameters, config.audio_specific_config)) return -1;
  } else {
    parameters->codec_id = AV_CODEC_ID_PCM_S16LE;
    parameters->bits_per_coded_sample = 16;
    parameters->block_align = 2 * config.channels;
    parameters->bit_rate = int64_t{16} * config.sample_rate * config.channels;
  }
  return index;
}

bool FfmpegContainerMuxer::WriteHeader() {
  if (header_written_ || !context_ || streams_.empty()) return false;
  AVDictionary* options = nullptr;
  switch (container_) {
    case kMp4:
    case kM4a:
      break;
    case kMkv:
      av_dict_set(&options, "cluster_time_limit", "250", 0);      // ms
      av_dict_set(&options, "cluster_size_limit", "2097152", 0);  // bytes
      break;
    case kWav:
    case kAdts:
      break;
  }
  const int result = avformat_write_header(context_.get(), &options);
  av_dict_free(&options);
  if (result < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot write the " << MuxerName(container_) << " header of " << path() << ": "
        << audio::FfmpegErrorText(result);
    return false;
  }
  header_written_ = true;
  // Bytes the disk refused are kept for retry; only a broken file is a failure here.
  FlushToDisk();
  return !file_->broken();
}

bool FfmpegContainerMuxer::WritePacket(int stream_index, const uint8_t* data, size_t size,
                                       int64_t pts, int64_t dts, int64_t nominal_duration,
                                       bool key) {
  if (!header_written_ || finished_ || stream_index < 0 ||
      stream_index >= static_cast<int>(streams_.size())) {
    return false;
  }
  StreamState* stream = streams_[static_cast<size_t>(stream_index)].get();
  file_->Drain();
  bool ok = true;
  if (stream->has_held) ok = MuxHeld(stream, dts);

  AVPacket* packet = stream->held.get();
  if (av_new_packet(packet, static_cast<int>(size)) < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "out of memory for a packet";
    return false;
  }
  if (size > 0) std::memcpy(packet->data, data, size);
  packet->pts = pts;
  packet->dts = dts;
  packet->stream_index = stream_index;
  if (key) packet->flags |= AV_PKT_FLAG_KEY;
  stream->has_held = true;
  stream->held_nominal_duration = nominal_duration;
  return ok && !file_->has_backlog() && !file_->broken();
}

bool FfmpegContainerMuxer::MuxHeld(StreamState* stream, int64_t next_dts) {
  AVPacket* packet = stream->held.get();
  stream->has_held = false;
  if (file_->broken()) {
    av_packet_unref(packet);
    return false;
  }
  packet->duration = next_dts != AV_NOPTS_VALUE && next_dts > packet->dts
                         ? next_dts - packet->dts
                         : stream->held_nominal_duration;
  av_packet_rescale_ts(packet, stream->input_time_base, stream->stream->time_base);
  const int result = av_write_frame(context_.get(), packet);
  av_packet_unref(packet);
  if (result < 0) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot write a packet of stream " << stream->stream->index << " to " << path() << ": "
        << audio::FfmpegErrorText(result);
  } else {
    ++stream->muxed;
  }
  if (!first_unit_cut_ && result >= 0) {
    // Cut the first cluster as soon as every stream has a packet in it, so that the
    // file plays from now on.
    bool all = true;
    for (const auto& state : streams_) all = all && state->muxed > 0;
    if (all) {
      first_unit_cut_ = true;
      av_write_frame(context_.get(), nullptr);
    }
  }
  return FlushToDisk() && result >= 0;
}

bool FfmpegContainerMuxer::FlushToDisk() {
  avio_flush(io_.get());
  if (file_->has_backlog() || file_->broken()) return false;
  file_->Commit();
  return true;
}

int64_t FfmpegContainerMuxer::Finish() {
  if (finished_) return -1;
  if (!header_written_) {
    Discard();
    return -1;
  }
  for (const auto& stream : streams_) {
    if (stream->has_held) MuxHeld(stream.get(), AV_NOPTS_VALUE);
  }
  if (!file_->Drain()) file_->Break();
  if (!file_->broken()) {
    const int result = av_write_trailer(context_.get());
    avio_flush(io_.get());
    if (result < 0) {
      TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
          << "cannot finish " << path() << ": " << audio::FfmpegErrorText(result);
    }
    if (result < 0 || !file_->Drain()) file_->Break();
  }
  const bool ok = !file_->broken();
  finished_ = true;
  Close();
  const int64_t size = file_->Close(/*remove_if_empty=*/false);
  return ok ? size : -1;
}

void FfmpegContainerMuxer::Discard() {
  finished_ = true;
  Close();
  if (file_) file_->Close(/*remove_if_empty=*/true);
}

void FfmpegContainerMuxer::Close() {
  if (context_) context_->pb = nullptr;  // io_ is ours.
  context_.reset();
  io_.reset();
  streams_.clear();
}

}  // namespace media_stream_writer
}  // namespace tarnel
