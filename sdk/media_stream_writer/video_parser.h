// Finds the parameter sets (VPS, SPS, PPS) in an Annex-B access unit.
//
//   tarnel::video::ParameterSetsByType sets =
//       tarnel::video::ExtractParameterSets(frame.codec_type, au.data(), au.size());
//   if (!sets.sps.empty()) ...
//
// ExtractParameterSets is what the recorder (the stream metadata) and the writer (the
// decoder configuration of a key frame) use; the parser classes below do the work.
#ifndef SDK_MEDIA_STREAM_WRITER_VIDEO_PARSER_H_
#define SDK_MEDIA_STREAM_WRITER_VIDEO_PARSER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "sdk/media/copy_on_write_buffer.h"
#include "sdk/media/video_frame.h"

namespace tarnel {
namespace video {

// Values of ParameterSet::type.
constexpr int32_t kParameterSetPps = 0;
constexpr int32_t kParameterSetSps = 1;
constexpr int32_t kParameterSetVps = 2;

struct ParameterSet {
  int32_t type = kParameterSetPps;
  // The NAL unit with its header, without the start code; emulation-prevention bytes
  // are left in place.
  CopyOnWriteBuffer data;
};

using ParameterSetList = std::vector<std::unique_ptr<ParameterSet>>;

// Stateless and safe on any byte string: truncated units, missing start codes and
// garbage yield the sets that can be found, possibly none.
class VideoParser {
 public:
  virtual ~VideoParser() = default;
  // The parameter sets of the access unit, in stream order. `data` may be null when
  // `size` is 0.
  virtual ParameterSetList ParseParameterSets(const uint8_t* data, size_t size) = 0;
};

// H.264: SPS (NAL type 7) and PPS (8).
class VideoAVCParser : public VideoParser {
 public:
  ParameterSetList ParseParameterSets(const uint8_t* data, size_t size) override;
};

// H.265: VPS (NAL type 32), SPS (33) and PPS (34).
class VideoHEVCParser : public VideoParser {
 public:
  ParameterSetList ParseParameterSets(const uint8_t* data, size_t size) override;
};

// The parameter sets of one access unit, each type in stream order.
struct ParameterSetsByType {
  std::vector<CopyOnWriteBuffer> vps;  // H.265 only.
  std::vector<CopyOnWriteBuffer> sps;
  std::vector<CopyOnWriteBuffer> pps;
};

// The parameter sets of an H.264 (`codec_type` kCodecH264) or H.265 (kCodecH265)
// access unit, as ParseParameterSets finds them (bare NAL headers included). None for
// any other codec, whose bytes are not looked at.
ParameterSetsByType ExtractParameterSets(int32_t codec_type, const uint8_t* data, size_t size);

}  // namespace video
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_VIDEO_PARSER_H_
