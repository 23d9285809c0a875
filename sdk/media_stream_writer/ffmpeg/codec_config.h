// Byte-level codec plumbing for the container writer, free of any library: Annex-B
// access units (split by annexb.h) to length-prefixed samples, the avcC / hvcC decoder
// configuration records that MP4 and Matroska carry as codec private data, and the AAC
// AudioSpecificConfig and ADTS header.
#ifndef SDK_MEDIA_STREAM_WRITER_FFMPEG_CODEC_CONFIG_H_
#define SDK_MEDIA_STREAM_WRITER_FFMPEG_CODEC_CONFIG_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sdk/media_stream_writer/annexb.h"

namespace tarnel {
namespace media_stream_writer {

using Bytes = std::vector<uint8_t>;

// The access unit as an MP4/Matroska sample: every NAL unit behind a 4-byte big-endian
// length. Empty when the input holds no NAL unit.
Bytes AnnexBToLengthPrefixed(const uint8_t* data, size_t size);

// AVCDecoderConfigurationRecord (the avcC box of ISO/IEC 14496-15) with 4-byte NAL lengths,
// including the chroma/bit-depth extension of the High profiles. Empty when the first
// SPS cannot be parsed or a list is empty.
Bytes BuildAvcDecoderConfig(const std::vector<Bytes>& sps, const std::vector<Bytes>& pps);

// HEVCDecoderConfigurationRecord (the hvcC box) with 4-byte NAL lengths.
// Profile, tier, level, chroma format, bit depths and temporal layering come from the
// first SPS. min_spatial_segmentation_idc and parallelismType are written as 0
// ("unknown"), which every reader accepts, and array_completeness as 0 because the
// samples may repeat the parameter sets in band (Matroska); the MP4 writer marks the
// arrays complete for its hvc1 entry. Empty when the SPS cannot be parsed
// or a list is empty.
Bytes BuildHevcDecoderConfig(const std::vector<Bytes>& vps, const std::vector<Bytes>& sps,
                             const std::vector<Bytes>& pps);

// A parsed ADTS fixed + variable header.
struct AdtsHeader {
  int header_size = 0;  // 7, or 9 with CRC.
  int frame_size = 0;   // Header included.
  int object_type = 0;  // Audio object type: profile + 1 (2 = AAC-LC).
  int sample_rate_index = 0;
  int sample_rate = 0;
  int channel_config = 0;
  int raw_data_blocks = 0;  // AAC frames in this ADTS frame, minus one.
};

// True when `data` starts with an ADTS syncword and layer 0.
bool StartsWithAdtsHeader(const uint8_t* data, size_t size);

// Parses the header at `data`. False when it is not an ADTS header, its sample rate
// index is reserved, or it claims more bytes than `size`.
bool ParseAdtsHeader(const uint8_t* data, size_t size, AdtsHeader* header);

// The 2-byte AudioSpecificConfig the header describes.
Bytes AudioSpecificConfigFromAdts(const AdtsHeader& header);

// An AudioSpecificConfig for AAC-LC at `sample_rate` with `channels` (1-6 or 8). A rate
// outside the ADTS table is written with the explicit 24-bit escape. Empty when the
// channel count has no channel configuration.
Bytes BuildAacLcAudioSpecificConfig(int sample_rate, int channels);

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_FFMPEG_CODEC_CONFIG_H_
