// Video encoder settings an application may hand to the recorder. Every field is
// optional; the recorder keeps a copy and does not act on it.
#ifndef SDK_MEDIA_ENCODE_PARAMS_H_
#define SDK_MEDIA_ENCODE_PARAMS_H_

#include <cstdint>
#include <optional>

namespace tarnel {
namespace video {

struct EncodeParams {
  std::optional<int32_t> width;
  std::optional<int32_t> height;
  std::optional<int32_t> frame_rate;
  std::optional<int32_t> target_bitrate_kbps;
  std::optional<int32_t> min_bitrate_kbps;
  std::optional<int32_t> max_bitrate_kbps;
  std::optional<int32_t> key_frame_interval_frames;
  std::optional<uint8_t> min_qp;
  std::optional<uint8_t> max_qp;
  std::optional<int64_t> max_key_frame_interval_ms;
};

}  // namespace video
}  // namespace tarnel

#endif  // SDK_MEDIA_ENCODE_PARAMS_H_
