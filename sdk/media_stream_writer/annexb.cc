#include "sdk/media_stream_writer/annexb.h"

#include <cstring>

namespace tarnel {
namespace media_stream_writer {
namespace {

// Position of the 0x01 ending the first 00 00 01 whose first zero lies at or after
// `from`, or `size`. Slice data holds a 0x01 about once in 256 bytes, so looking for
// those with memchr (vectorised in libc) and checking the two bytes before each is
// several times faster than testing every byte: the writer runs this over every access
// unit.
size_t FindStartCode(const uint8_t* data, size_t size, size_t from) {
  size_t i = from + 2;
  while (i < size) {
    const void* one = std::memchr(data + i, 1, size - i);
    if (one == nullptr) return size;
    const size_t k = static_cast<size_t>(static_cast<const uint8_t*>(one) - data);
    if (data[k - 1] == 0 && data[k - 2] == 0) return k;
    // The byte at k is nonzero, so the zeros of the next start code lie after it.
    i = k + 3;
  }
  return size;
}

}  // namespace

std::vector<NalUnitView> SplitAnnexB(const uint8_t* data, size_t size) {
  std::vector<NalUnitView> units;
  if (data == nullptr) return units;
  size_t start_code = FindStartCode(data, size, 0);
  while (start_code < size) {
    const size_t begin = start_code + 1;
    const size_t next = FindStartCode(data, size, begin);
    size_t end = next < size ? next - 2 : size;
    while (end > begin && data[end - 1] == 0) --end;
    if (end > begin) units.push_back({data + begin, end - begin});
    start_code = next;
  }
  return units;
}

bool StartsWithStartCode(const uint8_t* data, size_t size) {
  if (data == nullptr || size < 3 || data[0] != 0 || data[1] != 0) return false;
  return data[2] == 1 || (size >= 4 && data[2] == 0 && data[3] == 1);
}

}  // namespace media_stream_writer
}  // namespace tarnel
