// Both parameter-set parsers on arbitrary bytes. Every set they return must be a whole
// NAL unit of the input: non-empty, found right behind a start code and after the set
// before it, free of start codes, ending in a nonzero byte, with a header of the kind
// its type says.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "sdk/media_stream_writer/video_parser.h"

namespace {

using tarnel::video::ParameterSetList;

int32_t AvcType(const uint8_t* unit) {
  if (unit[0] & 0x80) return -1;
  switch (unit[0] & 0x1f) {
    case 7:
      return tarnel::video::kParameterSetSps;
    case 8:
      return tarnel::video::kParameterSetPps;
  }
  return -1;
}

int32_t HevcType(const uint8_t* unit) {
  if (unit[0] & 0x80) return -1;
  switch ((unit[0] >> 1) & 0x3f) {
    case 32:
      return tarnel::video::kParameterSetVps;
    case 33:
      return tarnel::video::kParameterSetSps;
    case 34:
      return tarnel::video::kParameterSetPps;
  }
  return -1;
}

bool HasStartCode(const uint8_t* p, size_t n) {
  for (size_t i = 2; i < n; ++i) {
    if (p[i] == 1 && p[i - 1] == 0 && p[i - 2] == 0) return true;
  }
  return false;
}

void Check(bool ok) {
  if (!ok) abort();
}

void CheckSets(const ParameterSetList& sets, const uint8_t* data, size_t size, size_t header,
               int32_t (*type_of)(const uint8_t*)) {
  size_t from = 0;  // Each set lies after the one before it.
  for (const auto& set : sets) {
    Check(set != nullptr);
    const uint8_t* unit = set->data.data();
    const size_t n = set->data.size();
    Check(n >= header && unit != nullptr);
    Check(type_of(unit) == set->type);
    Check(unit[n - 1] != 0);
    Check(!HasStartCode(unit, n));
    size_t at = from;
    while (at + n <= size && !(at >= 3 && data[at - 1] == 1 && data[at - 2] == 0 &&
                               data[at - 3] == 0 && std::memcmp(data + at, unit, n) == 0)) {
      ++at;
    }
    Check(at + n <= size);
    from = at + n;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of exactly `size` bytes, so reads past the input are caught.
  std::vector<uint8_t> input(data, data + size);
  const uint8_t* bytes = size ? input.data() : nullptr;

  tarnel::video::VideoAVCParser avc;
  CheckSets(avc.ParseParameterSets(bytes, size), bytes, size, 1, &AvcType);
  tarnel::video::VideoHEVCParser hevc;
  CheckSets(hevc.ParseParameterSets(bytes, size), bytes, size, 2, &HevcType);
  return 0;
}
