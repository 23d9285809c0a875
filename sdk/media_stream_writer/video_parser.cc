#include "sdk/media_stream_writer/video_parser.h"

#include <cstring>

namespace tarnel {
namespace video {
namespace {

constexpr size_t kNotFound = static_cast<size_t>(-1);

// A NAL unit found in the access unit: [begin, end) of the input, start code excluded,
// header included.
struct UnitRange {
  size_t begin;
  size_t end;
  int32_t type;
};

// Position of the 0x01 of the first start code (0x00 0x00 0x01) whose first zero lies at
// or after `from`, or kNotFound. A 4-byte start code is found through its last three
// bytes; its leading zero is trimmed from the unit before it by the caller.
size_t FindStartCode(const uint8_t* data, size_t size, size_t from) {
  size_t i = from + 2;
  while (i < size) {
    const void* hit = std::memchr(data + i, 0x01, size - i);
    if (hit == nullptr) return kNotFound;
    const size_t k = static_cast<size_t>(static_cast<const uint8_t*>(hit) - data);
    if (data[k - 1] == 0 && data[k - 2] == 0) return k;
    // The byte at k is a one, so the next start code's zeros lie after it.
    i = k + 3;
  }
  return kNotFound;
}

// Parameter-set type of a NAL unit of at least `header_size` bytes, or -1 when it is
// another kind of unit or its forbidden_zero_bit is set.
using ClassifyFn = int32_t (*)(const uint8_t* unit);

int32_t ClassifyAvc(const uint8_t* unit) {
  if (unit[0] & 0x80) return -1;
  switch (unit[0] & 0x1f) {
    case 7:
      return kParameterSetSps;
    case 8:
      return kParameterSetPps;
    default:
      return -1;
  }
}

int32_t ClassifyHevc(const uint8_t* unit) {
  if (unit[0] & 0x80) return -1;
  switch ((unit[0] >> 1) & 0x3f) {
    case 32:
      return kParameterSetVps;
    case 33:
      return kParameterSetSps;
    case 34:
      return kParameterSetPps;
    default:
      return -1;
  }
}

// Walks the Annex-B units of the access unit and returns its parameter sets. Bytes
// before the first start code are not a unit; input without any start code has none.
//
// The sets are slices of one copy of the input span from the first set's first byte to
// the last set's last byte: one allocation for all of them, and, since encoders put the
// parameter sets in front of the slice data, a holder of the sets (the writer keeps them
// for the whole stream) pins a few dozen bytes rather than the whole key frame.
ParameterSetList ParseAnnexB(const uint8_t* data, size_t size, size_t header_size,
                             ClassifyFn classify) {
  ParameterSetList sets;
  if (data == nullptr || size == 0) return sets;

  std::vector<UnitRange> found;
  size_t start_code = FindStartCode(data, size, 0);
  while (start_code != kNotFound) {
    const size_t begin = start_code + 1;
    const size_t next = FindStartCode(data, size, begin);
    // The unit runs up to the next start code; zero bytes at its end are the leading
    // zero of a 4-byte start code or trailing_zero_8bits, never part of the unit (a NAL
    // unit ends with its nonzero stop byte).
    size_t end = next == kNotFound ? size : next - 2;
    while (end > begin && data[end - 1] == 0) --end;
    if (end - begin >= header_size) {
      const int32_t type = classify(data + begin);
      if (type >= 0) found.push_back({begin, end, type});
    }
    start_code = next;
  }
  if (found.empty()) return sets;

  const size_t span_begin = found.front().begin;
  const CopyOnWriteBuffer span(data + span_begin, found.back().end - span_begin);
  sets.reserve(found.size());
  for (const UnitRange& unit : found) {
    auto set = std::make_unique<ParameterSet>();
    set->type = unit.type;
    set->data = span.Slice(unit.begin - span_begin, unit.end - unit.begin);
    sets.push_back(std::move(set));
  }
  return sets;
}

}  // namespace

ParameterSetList VideoAVCParser::ParseParameterSets(const uint8_t* data, size_t size) {
  return ParseAnnexB(data, size, /*header_size=*/1, &ClassifyAvc);
}

ParameterSetList VideoHEVCParser::ParseParameterSets(const uint8_t* data, size_t size) {
  return ParseAnnexB(data, size, /*header_size=*/2, &ClassifyHevc);
}

}  // namespace video
}  // namespace tarnel
