// Output container formats.
#ifndef SDK_MEDIA_STREAM_WRITER_MEDIA_FORMAT_H_
#define SDK_MEDIA_STREAM_WRITER_MEDIA_FORMAT_H_

#include <cstdint>

namespace tarnel {
namespace media_stream_writer {

// The container a recording is written into. 0 is not a format and is refused.
enum MediaFormat : uint32_t {
  kMp4 = 1,  // H.264/H.265 + AAC (PCM input is encoded).
  kMkv = 2,  // Matroska: H.264/H.265 + audio as it arrives (PCM s16 or AAC).
  kWav = 3,  // PCM s16 only.
  kM4a = 4,  // Audio-only MP4, AAC (PCM input is encoded).
  kAac = 5,  // Raw AAC with ADTS headers (PCM input is encoded).
};

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_MEDIA_FORMAT_H_
