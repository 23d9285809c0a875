// One compressed video access unit as the application hands it to the recorder.
//
//   auto frame = std::make_unique<tarnel::video::VideoFrame>();
//   frame->data = tarnel::CopyOnWriteBuffer(annexb_bytes, annexb_size);
//   frame->pts = frame->dts = 40;                    // milliseconds
//   frame->frame_type = tarnel::video::kKeyFrame;
//   frame->codec_type = tarnel::video::kCodecH264;
//   frame->width = 1280; frame->height = 720;
//   recorder->WriteVideoFrame(std::move(frame));
//
// `data` is one access unit as an Annex-B byte stream (each NAL unit behind a 3- or
// 4-byte start code); key frames carry their parameter sets (SPS/PPS, and VPS for
// H.265) in band. Frames travel by unique ownership and are never copied; the bytes are
// shared through CopyOnWriteBuffer.
#ifndef SDK_MEDIA_VIDEO_FRAME_H_
#define SDK_MEDIA_VIDEO_FRAME_H_

#include <cstdint>

#include "sdk/media/copy_on_write_buffer.h"

namespace tarnel {
namespace video {

// Values of VideoFrame::frame_type. Everything but kKeyFrame is a non-key frame.
constexpr int32_t kKeyFrame = 0;
constexpr int32_t kDeltaFrame = 1;

// Values of VideoFrame::codec_type.
constexpr int32_t kCodecH264 = 0;
constexpr int32_t kCodecH265 = 1;

// VideoFrame::reference_mode: the default, and the reference-picture-selection modes,
// whose frames reference pictures the recorder cannot keep track of.
constexpr int32_t kReferenceModeNormal = 0;
constexpr int32_t kFirstRpsReferenceMode = 11;
constexpr int32_t kLastRpsReferenceMode = 13;

inline bool IsRpsReferenceMode(int32_t mode) {
  return mode >= kFirstRpsReferenceMode && mode <= kLastRpsReferenceMode;
}

struct VideoFrame {
  CopyOnWriteBuffer data;  // The access unit, Annex-B.
  uint64_t pts = 0;        // Presentation time, ms.
  uint64_t dts = 0;        // Decoding time, ms; 0 when the frame has none.
  int32_t frame_type = kDeltaFrame;
  int32_t reference_mode = kReferenceModeNormal;
  int32_t codec_type = kCodecH264;
  uint32_t width = 0;  // Picture size in pixels.
  uint32_t height = 0;
  int32_t rotation = 0;  // Clockwise degrees a player should rotate by; informational.
};

}  // namespace video
}  // namespace tarnel

#endif  // SDK_MEDIA_VIDEO_FRAME_H_
