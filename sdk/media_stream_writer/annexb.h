// Annex-B byte streams: the one start-code search, and the NAL units it finds. The
// parameter-set parser, the avcC/hvcC sample conversion and the benchmarks' input
// splitter all walk access units through SplitAnnexB.
//
//   for (const NalUnitView& unit : SplitAnnexB(au.data(), au.size())) {
//     const int type = unit.data[0] & 0x1f;  // H.264 nal_unit_type
//   }
#ifndef SDK_MEDIA_STREAM_WRITER_ANNEXB_H_
#define SDK_MEDIA_STREAM_WRITER_ANNEXB_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarnel {
namespace media_stream_writer {

// One NAL unit inside a caller's buffer: header included, start code excluded.
struct NalUnitView {
  const uint8_t* data;
  size_t size;
};

// The NAL units of an Annex-B byte stream, in order. A unit starts after each
// 00 00 01 (a 4-byte start code is found through its last three bytes) and runs up to
// the next start code's first zero. Bytes before the first start code are not a unit;
// zero bytes at a unit's end (the next 4-byte start code's leading zero,
// trailing_zero_8bits) are not part of it, since a NAL unit ends in its nonzero stop
// byte; units left empty are skipped. Safe on any input, `data` null included.
std::vector<NalUnitView> SplitAnnexB(const uint8_t* data, size_t size);

// Whether `data` begins with a 3- or 4-byte start code: Annex-B, as opposed to the
// length-prefixed form and the avcC/hvcC records of MP4 and Matroska.
bool StartsWithStartCode(const uint8_t* data, size_t size);

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_ANNEXB_H_
