#include "sdk/media/ffmpeg/ffmpeg_ptr.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libavutil/tx.h>
#include <libswresample/swresample.h>
}

namespace tarnel {

void FfmpegDeleter::operator()(AVBSFContext* context) const { av_bsf_free(&context); }

void FfmpegDeleter::operator()(AVCodecContext* context) const { avcodec_free_context(&context); }

void FfmpegDeleter::operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }

void FfmpegDeleter::operator()(AVFormatContext* context) const { avformat_free_context(context); }

void FfmpegDeleter::operator()(AVFrame* frame) const { av_frame_free(&frame); }

void FfmpegDeleter::operator()(AVIOContext* io) const {
  av_freep(&io->buffer);
  avio_context_free(&io);
}

void FfmpegDeleter::operator()(AVPacket* packet) const { av_packet_free(&packet); }

void FfmpegDeleter::operator()(AVTXContext* context) const { av_tx_uninit(&context); }

void FfmpegDeleter::operator()(SwrContext* context) const { swr_free(&context); }

void FfmpegDeleter::operator()(uint8_t* bytes) const { av_free(bytes); }

void FfmpegInputDeleter::operator()(AVFormatContext* context) const {
  avformat_close_input(&context);
}

}  // namespace tarnel
