#include "sdk/media_stream_writer/video_parser.h"

#include "sdk/media_stream_writer/annexb.h"

namespace tarnel {
namespace video {
namespace {

// A parameter set found in the access unit: [begin, end) of the input, start code
// excluded, header included.
struct UnitRange {
  size_t begin;
  size_t end;
  int32_t type;
};

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

// The parameter sets among the access unit's NAL units (media_stream_writer::SplitAnnexB).
//
// The sets are slices of one copy of the input span from the first set's first byte to
// the last set's last byte: one allocation for all of them, and, since encoders put the
// parameter sets in front of the slice data, a holder of the sets (the writer keeps them
// for the whole stream) pins a few dozen bytes rather than the whole key frame.
ParameterSetList ParseAnnexB(const uint8_t* data, size_t size, size_t header_size,
                             ClassifyFn classify) {
  ParameterSetList sets;
  std::vector<UnitRange> found;
  for (const media_stream_writer::NalUnitView& unit :
       media_stream_writer::SplitAnnexB(data, size)) {
    if (unit.size < header_size) continue;
    const int32_t type = classify(unit.data);
    if (type < 0) continue;
    const size_t begin = static_cast<size_t>(unit.data - data);
    found.push_back({begin, begin + unit.size, type});
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

ParameterSetsByType ExtractParameterSets(int32_t codec_type, const uint8_t* data, size_t size) {
  ParameterSetsByType by_type;
  ParameterSetList sets;
  if (codec_type == kCodecH264) {
    sets = VideoAVCParser().ParseParameterSets(data, size);
  } else if (codec_type == kCodecH265) {
    sets = VideoHEVCParser().ParseParameterSets(data, size);
  }
  for (const auto& set : sets) {
    switch (set->type) {
      case kParameterSetVps:
        by_type.vps.push_back(set->data);
        break;
      case kParameterSetSps:
        by_type.sps.push_back(set->data);
        break;
      case kParameterSetPps:
        by_type.pps.push_back(set->data);
        break;
      default:
        break;
    }
  }
  return by_type;
}

}  // namespace video
}  // namespace tarnel
