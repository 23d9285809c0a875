// Owners for FFmpeg's objects: std::unique_ptr with a deleter that calls the matching
// libav* free function, so that FFmpeg-backed classes release what they hold on every
// path without freeing by hand.
//
//   FfmpegPtr<AVCodecContext> context(avcodec_alloc_context3(codec));
//   FfmpegPtr<AVPacket> packet(av_packet_alloc());
//   if (!context || !packet) return false;
//   avcodec_open2(context.get(), codec, nullptr);
//
// For the functions that allocate through an out-parameter (swr_alloc_set_opts2,
// av_tx_init, avformat_alloc_output_context2), allocate into a plain pointer and hand
// it to the owner at once, failure or not.
//
// The FFmpeg structs are only declared here: headers of FFmpeg-backed classes hold
// owners without including libav* headers. Only ffmpeg/ folders (and tests that drive
// libav* directly) use this.
#ifndef SDK_MEDIA_FFMPEG_FFMPEG_PTR_H_
#define SDK_MEDIA_FFMPEG_FFMPEG_PTR_H_

#include <cstdint>
#include <memory>

struct AVBSFContext;
struct AVCodecContext;
struct AVCodecParserContext;
struct AVFormatContext;
struct AVFrame;
struct AVIOContext;
struct AVPacket;
struct AVTXContext;
struct SwrContext;

namespace tarnel {

struct FfmpegDeleter {
  void operator()(AVBSFContext* context) const;         // av_bsf_free
  void operator()(AVCodecContext* context) const;       // avcodec_free_context
  void operator()(AVCodecParserContext* parser) const;  // av_parser_close
  // avformat_free_context: for output contexts, whose pb (custom I/O) is owned apart.
  // A demuxer's context needs avformat_close_input instead: FfmpegInputPtr.
  void operator()(AVFormatContext* context) const;
  void operator()(AVFrame* frame) const;  // av_frame_free
  // avio_context_free, with the buffer (from av_malloc) that avio_alloc_context was
  // given: the context may have replaced it, so it is freed through the context.
  void operator()(AVIOContext* io) const;
  void operator()(AVPacket* packet) const;      // av_packet_free
  void operator()(AVTXContext* context) const;  // av_tx_uninit
  void operator()(SwrContext* context) const;   // swr_free
  void operator()(uint8_t* bytes) const;        // av_free: bytes from av_malloc
};

template <typename T>
using FfmpegPtr = std::unique_ptr<T, FfmpegDeleter>;

// A demuxer's context, from avformat_open_input: avformat_close_input.
struct FfmpegInputDeleter {
  void operator()(AVFormatContext* context) const;
};
using FfmpegInputPtr = std::unique_ptr<AVFormatContext, FfmpegInputDeleter>;

}  // namespace tarnel

#endif  // SDK_MEDIA_FFMPEG_FFMPEG_PTR_H_
