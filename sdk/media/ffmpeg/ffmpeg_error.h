// Text for FFmpeg's negative error codes, for log messages at the libav* boundary: the
// one helper for both ffmpeg/ folders (the AAC encoder and resampler, the container
// muxer).
//
//   if (int ret = avcodec_open2(context, codec, nullptr); ret < 0) {
//     TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "open: " << FfmpegErrorText(ret);
//   }
//
// av_err2str() cannot be used from C++: it is a macro around a C99 compound literal.
#ifndef SDK_MEDIA_FFMPEG_FFMPEG_ERROR_H_
#define SDK_MEDIA_FFMPEG_FFMPEG_ERROR_H_

#include <string>

extern "C" {
#include <libavutil/error.h>
}

namespace tarnel {
namespace audio {

// av_strerror's text for `code`, plus the code itself so unknown codes stay traceable.
inline std::string FfmpegErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof(text));
  return std::string(text) + " (" + std::to_string(code) + ")";
}

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_FFMPEG_FFMPEG_ERROR_H_
