#include "sdk/media_stream_writer/ffmpeg/codec_config.h"

#include "sdk/media/aac/aac_syntax.h"
#include "sdk/media/aac/aac_tables.h"

namespace tarnel {
namespace media_stream_writer {
namespace {

// Reads bits MSB first from an RBSP (emulation prevention removed). Reading past the
// end yields zeros and clears ok().
class BitReader {
 public:
  BitReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint32_t Bits(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
      value <<= 1;
      if (position_ >= size_ * 8) {
        ok_ = false;
        continue;
      }
      value |= (data_[position_ / 8] >> (7 - position_ % 8)) & 1;
      ++position_;
    }
    return value;
  }

  void Skip(int count) {
    while (count > 0) {
      const int step = count > 32 ? 32 : count;
      Bits(step);
      count -= step;
    }
  }

  // Unsigned Exp-Golomb code. Codes longer than 31 bits are malformed here.
  uint32_t Ue() {
    int zeros = 0;
    while (ok_ && Bits(1) == 0) {
      if (++zeros > 31) {
        ok_ = false;
        return 0;
      }
    }
    if (zeros == 0) return 0;
    return ((1u << zeros) - 1) + Bits(zeros);
  }

  bool ok() const { return ok_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
  bool ok_ = true;
};

// Drops the emulation-prevention byte of every 00 00 03 sequence.
Bytes Unescape(const Bytes& nal) {
  Bytes out;
  out.reserve(nal.size());
  int zeros = 0;
  for (uint8_t byte : nal) {
    if (zeros >= 2 && byte == 3) {
      zeros = 0;
      continue;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    out.push_back(byte);
  }
  return out;
}

void PutU16(Bytes* out, size_t value) {
  out->push_back(static_cast<uint8_t>(value >> 8));
  out->push_back(static_cast<uint8_t>(value));
}

struct AvcSpsInfo {
  uint8_t profile_idc = 0;
  uint8_t constraint_flags = 0;
  uint8_t level_idc = 0;
  uint32_t chroma_format_idc = 1;
  uint32_t bit_depth_luma_minus8 = 0;
  uint32_t bit_depth_chroma_minus8 = 0;
};

bool ParseAvcSps(const Bytes& sps, AvcSpsInfo* info) {
  if (sps.size() < 4) return false;
  const Bytes rbsp = Unescape(sps);
  if (rbsp.size() < 4) return false;
  BitReader reader(rbsp.data() + 1, rbsp.size() - 1);
  info->profile_idc = static_cast<uint8_t>(reader.Bits(8));
  info->constraint_flags = static_cast<uint8_t>(reader.Bits(8));
  info->level_idc = static_cast<uint8_t>(reader.Bits(8));
  reader.Ue();  // seq_parameter_set_id
  switch (info->profile_idc) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
    case 139:
    case 134:
    case 135:
      info->chroma_format_idc = reader.Ue();
      if (info->chroma_format_idc == 3) reader.Bits(1);  // separate_colour_plane_flag
      info->bit_depth_luma_minus8 = reader.Ue();
      info->bit_depth_chroma_minus8 = reader.Ue();
      break;
    default:
      break;
  }
  return reader.ok() && info->chroma_format_idc <= 3 && info->bit_depth_luma_minus8 <= 7 &&
         info->bit_depth_chroma_minus8 <= 7;
}

struct HevcSpsInfo {
  uint8_t profile_tier[12] = {};  // profile_space .. general_level_idc, as coded.
  uint32_t max_sub_layers_minus1 = 0;
  uint32_t temporal_id_nesting = 0;
  uint32_t chroma_format_idc = 0;
  uint32_t bit_depth_luma_minus8 = 0;
  uint32_t bit_depth_chroma_minus8 = 0;
};

bool ParseHevcSps(const Bytes& sps, HevcSpsInfo* info) {
  const Bytes rbsp = Unescape(sps);
  if (rbsp.size() < 2 + 1 + 12) return false;
  BitReader reader(rbsp.data() + 2, rbsp.size() - 2);
  reader.Bits(4);  // sps_video_parameter_set_id
  info->max_sub_layers_minus1 = reader.Bits(3);
  info->temporal_id_nesting = reader.Bits(1);
  if (info->max_sub_layers_minus1 > 6) return false;
  // general profile_space(2) tier(1) profile_idc(5), compatibility flags(32),
  // constraint indicator flags(48), level_idc(8): 12 bytes, byte-aligned here.
  for (uint8_t& byte : info->profile_tier) byte = static_cast<uint8_t>(reader.Bits(8));
  bool profile_present[8] = {};
  bool level_present[8] = {};
  for (uint32_t i = 0; i < info->max_sub_layers_minus1; ++i) {
    profile_present[i] = reader.Bits(1) != 0;
    level_present[i] = reader.Bits(1) != 0;
  }
  if (info->max_sub_layers_minus1 > 0) {
    for (uint32_t i = info->max_sub_layers_minus1; i < 8; ++i) reader.Bits(2);
  }
  for (uint32_t i = 0; i < info->max_sub_layers_minus1; ++i) {
    if (profile_present[i]) reader.Skip(88);
    if (level_present[i]) reader.Skip(8);
  }
  reader.Ue();  // sps_seq_parameter_set_id
  info->chroma_format_idc = reader.Ue();
  if (info->chroma_format_idc == 3) reader.Bits(1);  // separate_colour_plane_flag
  reader.Ue();                                       // pic_width_in_luma_samples
  reader.Ue();                                       // pic_height_in_luma_samples
  if (reader.Bits(1)) {                              // conformance_window_flag
    for (int i = 0; i < 4; ++i) reader.Ue();
  }
  info->bit_depth_luma_minus8 = reader.Ue();
  info->bit_depth_chroma_minus8 = reader.Ue();
  return reader.ok() && info->chroma_format_idc <= 3 && info->bit_depth_luma_minus8 <= 7 &&
         info->bit_depth_chroma_minus8 <= 7;
}

bool AllFit16(const std::vector<Bytes>& units) {
  if (units.empty() || units.size() > 0xffff) return false;
  for (const Bytes& unit : units) {
    if (unit.empty() || unit.size() > 0xffff) return false;
  }
  return true;
}

}  // namespace

Bytes AnnexBToLengthPrefixed(const uint8_t* data, size_t size) {
  const std::vector<NalUnitView> units = SplitAnnexB(data, size);
  size_t total = 0;
  for (const NalUnitView& unit : units) total += 4 + unit.size;
  Bytes out;
  out.reserve(total);
  for (const NalUnitView& unit : units) {
    const uint32_t length = static_cast<uint32_t>(unit.size);
    out.push_back(static_cast<uint8_t>(length >> 24));
    out.push_back(static_cast<uint8_t>(length >> 16));
    out.push_back(static_cast<uint8_t>(length >> 8));
    out.push_back(static_cast<uint8_t>(length));
    out.insert(out.end(), unit.data, unit.data + unit.size);
  }
  return out;
}

Bytes BuildAvcDecoderConfig(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps) {
  Bytes out;
  if (!AllFit16(sps) || !AllFit16(pps) || sps.size() > 31 || pps.size() > 255) return out;
  AvcSpsInfo info;
  if (!ParseAvcSps(sps.front(), &info)) return out;
  out.push_back(1);  // configurationVersion
  out.push_back(info.profile_idc);
  out.push_back(info.constraint_flags);
  out.push_back(info.level_idc);
  out.push_back(0xff);  // reserved(6) lengthSizeMinusOne(2) = 3
  out.push_back(static_cast<uint8_t>(0xe0 | sps.size()));
  for (const Bytes& unit : sps) {
    PutU16(&out, unit.size());
    out.insert(out.end(), unit.begin(), unit.end());
  }
  out.push_back(static_cast<uint8_t>(pps.size()));
  for (const Bytes& unit : pps) {
    PutU16(&out, unit.size());
    out.insert(out.end(), unit.begin(), unit.end());
  }
  if (info.profile_idc == 100 || info.profile_idc == 110 || info.profile_idc == 122 ||
      info.profile_idc == 144) {
    out.push_back(static_cast<uint8_t>(0xfc | info.chroma_format_idc));
    out.push_back(static_cast<uint8_t>(0xf8 | info.bit_depth_luma_minus8));
    out.push_back(static_cast<uint8_t>(0xf8 | info.bit_depth_chroma_minus8));
    out.push_back(0);  // numOfSequenceParameterSetExt
  }
  return out;
}

Bytes BuildHevcDecoderConfig(const std::vector<Bytes>& vps, const std::vector<Bytes>& sps,
                             const std::vector<Bytes>& pps) {
  Bytes out;
  if (!AllFit16(vps) || !AllFit16(sps) || !AllFit16(pps)) return out;
  HevcSpsInfo info;
  if (!ParseHevcSps(sps.front(), &info)) return out;
  out.push_back(1);  // configurationVersion
  out.insert(out.end(), info.profile_tier, info.profile_tier + sizeof(info.profile_tier));
  out.push_back(0xf0);  // reserved(4), min_spatial_segmentation_idc(12) = 0
  out.push_back(0x00);
  out.push_back(0xfc);  // reserved(6), parallelismType(2) = 0
  out.push_back(static_cast<uint8_t>(0xfc | info.chroma_format_idc));
  out.push_back(static_cast<uint8_t>(0xf8 | info.bit_depth_luma_minus8));
  out.push_back(static_cast<uint8_t>(0xf8 | info.bit_depth_chroma_minus8));
  PutU16(&out, 0);  // avgFrameRate
  // constantFrameRate(2) = 0, numTemporalLayers(3), temporalIdNested(1),
  // lengthSizeMinusOne(2) = 3.
  out.push_back(static_cast<uint8_t>(((info.max_sub_layers_minus1 + 1) << 3) |
                                     (info.temporal_id_nesting << 2) | 3));
  out.push_back(3);  // numOfArrays
  const struct {
    uint8_t type;
    const std::vector<Bytes>* units;
  } arrays[] = {{32, &vps}, {33, &sps}, {34, &pps}};
  for (const auto& array : arrays) {
    out.push_back(array.type);  // array_completeness(1) = 0, reserved(1), NAL_unit_type(6)
    PutU16(&out, array.units->size());
    for (const Bytes& unit : *array.units) {
      PutU16(&out, unit.size());
      out.insert(out.end(), unit.begin(), unit.end());
    }
  }
  return out;
}

bool StartsWithAdtsHeader(const uint8_t* data, size_t size) {
  return data != nullptr && size >= 7 && data[0] == 0xff && (data[1] & 0xf6) == 0xf0;
}

bool ParseAdtsHeader(const uint8_t* data, size_t size, AdtsHeader* header) {
  if (!StartsWithAdtsHeader(data, size)) return false;
  const bool protection_absent = data[1] & 0x01;
  header->header_size = protection_absent ? 7 : 9;
  header->object_type = ((data[2] >> 6) & 0x03) + 1;
  header->sample_rate_index = (data[2] >> 2) & 0x0f;
  header->channel_config = ((data[2] & 0x01) << 2) | ((data[3] >> 6) & 0x03);
  header->frame_size = ((data[3] & 0x03) << 11) | (data[4] << 3) | ((data[5] >> 5) & 0x07);
  header->raw_data_blocks = data[6] & 0x03;
  if (header->sample_rate_index >= audio::aac::kSamplingFrequencyCount) return false;
  header->sample_rate = audio::aac::kSamplingFrequencies[header->sample_rate_index];
  return header->frame_size >= header->header_size &&
         static_cast<size_t>(header->frame_size) <= size;
}

Bytes AudioSpecificConfigFromAdts(const AdtsHeader& header) {
  const int value =
      (header.object_type << 11) | (header.sample_rate_index << 7) | (header.channel_config << 3);
  return Bytes{static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes BuildAacLcAudioSpecificConfig(int sample_rate, int channels) {
  int channel_config;
  if (channels >= 1 && channels <= 6) {
    channel_config = channels;
  } else if (channels == 8) {
    channel_config = 7;
  } else {
    return Bytes();
  }
  if (sample_rate <= 0 || sample_rate >= (1 << 24)) return Bytes();
  constexpr int kAacLc = 2;
  const int index = audio::aac::SamplingFrequencyIndex(sample_rate);
  if (index >= 0) {
    uint8_t config[2];
    audio::aac::MakeAudioSpecificConfig(config, index, channel_config);
    return Bytes{config[0], config[1]};
  }
  // Escape index 15: object type(5) index(4) rate(24) channels(4) + 3 zero flag bits.
  const uint64_t bits = (static_cast<uint64_t>(kAacLc) << 35) | (uint64_t{15} << 31) |
                        (static_cast<uint64_t>(sample_rate) << 7) |
                        (static_cast<uint64_t>(channel_config) << 3);
  Bytes out;
  for (int shift = 32; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(bits >> shift));
  return out;
}

}  // namespace media_stream_writer
}  // namespace tarnel
