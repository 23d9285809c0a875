// The descriptions of the streams that the recorder hands to the writer before it
// starts the output.
#ifndef SDK_MEDIA_STREAM_WRITER_STREAM_METADATA_H_
#define SDK_MEDIA_STREAM_WRITER_STREAM_METADATA_H_

#include <cstdint>

#include "sdk/media/audio_frame.h"
#include "sdk/media/copy_on_write_buffer.h"
#include "sdk/media/video_frame.h"

namespace tarnel {
namespace media_stream_writer {

// The video codec, picture size and parameter sets, each set as one NAL unit with its
// header and without a start code. A set that was not found is an empty buffer.
struct VideoMetadata {
  CopyOnWriteBuffer vps;  // H.265 only.
  CopyOnWriteBuffer sps;
  CopyOnWriteBuffer pps;
  int32_t codec_type = video::kCodecH264;
  uint32_t width = 0;
  uint32_t height = 0;
};

}  // namespace media_stream_writer

namespace audio {

// The audio as the recorder holds it before any encoding.
struct AudioMetadata {
  int32_t sample_rate = 0;
  int32_t channels = 0;
  AudioCodecFormat codec_format = kPcm;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_STREAM_METADATA_H_
