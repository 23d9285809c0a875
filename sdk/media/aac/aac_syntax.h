// The AAC-LC bitstream layer: normative tables, codebook choice and sectioning, bit
// counting and the raw_data_block syntax (ISO/IEC 14496-3, 4.4.2 and 4.6).
//
// The analysis side (transform, psychoacoustics, quantisation and rate control) fills a
// `ChannelData` per channel with quantised spectra and scalefactors; this layer picks the
// codebooks and sections, counts bits exactly and writes the syntax:
//
//   ChannelData left, right;                     // quant[], scalefactor[][], ics
//   ... quantise ...
//   int bits = PrepareChannel(&left) + PrepareChannel(&right);   // sections, max_sfb
//   BitWriter writer(buffer, capacity);
//   WriteChannelPairElement(&writer, left, right, ms);
//   WriteEnd(&writer);                           // ID_END and byte alignment
//
// Nothing here allocates or logs; every function is safe to call from any thread on
// distinct data.
#ifndef SDK_MEDIA_AAC_AAC_SYNTAX_H_
#define SDK_MEDIA_AAC_AAC_SYNTAX_H_

#include <cstddef>
#include <cstdint>

namespace tarnel {
namespace audio {
namespace aac {

constexpr int kFrameLength = 1024;       // Spectral lines of a long window.
constexpr int kShortWindowLength = 128;  // Spectral lines of each of the 8 short windows.
constexpr int kShortWindows = 8;
constexpr int kMaxLongBands = 51;   // Most scalefactor bands of a long window (any rate).
constexpr int kMaxShortBands = 15;  // Most scalefactor bands of a short window.
constexpr int kMaxBands = kMaxLongBands;
constexpr int kMaxQuantValue = 8191;      // Largest |quantised value| the syntax codes.
constexpr int kScalefactorOffset = 100;   // Gain of a band = 2^((sf - 100) / 4).
constexpr int kMaxScalefactorDelta = 60;  // Between consecutive coded scalefactors.

enum WindowSequence : uint8_t {
  kOnlyLong = 0,
  kLongStart = 1,
  kEightShort = 2,
  kLongStop = 3,
};

// Spectral codebook numbers; 1..11 code quantised values.
constexpr int kZeroCodebook = 0;
constexpr int kEscapeCodebook = 11;

// Scalefactor band layout of one sample rate.
struct BandLayout {
  int num_long_bands;             // At most kMaxLongBands.
  const uint16_t* long_offsets;   // num_long_bands + 1 entries, last = 1024.
  int num_short_bands;            // At most kMaxShortBands.
  const uint16_t* short_offsets;  // num_short_bands + 1 entries, last = 128.
};

// The layout for one of the 12 MPEG-4 sample rates 8000..96000 (also 7350); null for any
// other rate.
const BandLayout* BandLayoutForSampleRate(int sample_rate);

// Index of `sample_rate` in the MPEG-4 sampling-frequency table (0 = 96000 ... 12 =
// 7350), or -1.
int SamplingFrequencyIndex(int sample_rate);

// What one channel's individual_channel_stream carries, filled by the analysis side
// except where noted.
struct IcsInfo {
  WindowSequence window_sequence = kOnlyLong;
  uint8_t window_shape = 0;  // 0 sine, 1 Kaiser-Bessel-derived.
  // Bands coded (the rest are zero). Set by PrepareChannel(); for a channel pair with a
  // common window the caller must make both channels' max_sfb equal (the larger) before
  // writing, see PrepareChannelPair().
  uint8_t max_sfb = 0;
  // Short windows only: groups and the number of windows in each (summing to 8). Long
  // windows: one group of one window.
  uint8_t num_window_groups = 1;
  uint8_t window_group_length[kShortWindows] = {1};
};

// Temporal noise shaping filters of one channel, as tns_data() codes them. The encoder's
// analysis (tns.h) fills it; the writers send it as it is. Filters of a window cover
// bands from the top down: the first ends at the layout's last band and takes `length`
// bands below it, each further one the `length` bands below the one before. A decoder
// runs each filter only up to min(TNS_MAX_BANDS of the rate, max_sfb).
constexpr int kMaxTnsOrderLong = 12;  // AAC-LC.
constexpr int kMaxTnsOrderShort = 7;
constexpr int kMaxTnsFiltersLong = 3;  // n_filt of a long window: 2 bits.
constexpr int kMaxTnsFiltersShort = 1;

struct TnsFilter {
  uint8_t length = 0;     // Bands; < 64 (long), < 16 (short).
  uint8_t order = 0;      // 0 = these bands unfiltered; <= kMaxTnsOrderLong / Short.
  uint8_t direction = 0;  // 0: runs from low to high lines; 1: from high to low.
  // 1: each coefficient is sent with one bit less (it must fit the narrower range).
  uint8_t coef_compress = 0;
  // Quantised reflection coefficients, `order` of them, each within the signed range of
  // 3 + coef_res - coef_compress bits.
  int8_t coef[kMaxTnsOrderLong] = {};
};

struct TnsWindow {
  uint8_t n_filt = 0;    // <= kMaxTnsFiltersLong / Short.
  uint8_t coef_res = 1;  // 0: 3-bit coefficients, 1: 4-bit.
  TnsFilter filter[kMaxTnsFiltersLong];
};

struct TnsData {
  bool present = false;
  TnsWindow window[kShortWindows];  // Long windows: window[0] only.
};

struct ChannelData {
  IcsInfo ics;
  const BandLayout* layout = nullptr;  // Set by the analysis side.
  int num_bands = 0;                   // Bands of the window in use (layout->num_long/short_bands).
  // Quantised spectrum in natural order: long windows line k at [k]; short windows window
  // w line k at [w * 128 + k]. |value| <= kMaxQuantValue.
  int32_t quant[kFrameLength];
  // Scalefactor per group and band, in the global_gain domain (0..255). Only bands whose
  // codebook ends up nonzero are coded; consecutive coded ones may differ by at most
  // kMaxScalefactorDelta, and the first coded one is the global_gain.
  int16_t scalefactor[kShortWindows][kMaxBands];
  // Set by PrepareChannel(): the spectral codebook of each group and band (0 = all zero).
  // A caller may replace a band's codebook by any other that can hold its values (ZERO
  // only for all-zero bands) before counting with ChannelBits() and writing. An all-zero
  // band under a nonzero codebook is coded with the scalefactor of the coded band before
  // it (a difference of 0), whatever `scalefactor` holds for it.
  uint8_t codebook[kShortWindows][kMaxBands];
  // Sent when `tns.present`; counted by Prepare* and *Bits, which return kNoFit when a
  // field is out of the range the syntax codes.
  TnsData tns;
};

// Bits to code `count` quantised values (a multiple of 4) with spectral codebook
// `codebook` (1..11), sign bits and escapes included; kNoFit when a value exceeds what the
// codebook can code (|v| > 1, 2, 4, 7, 12 for codebooks 1-2, 3-4, 5-6, 7-8, 9-10).
constexpr int kNoFit = 1 << 28;
int SpectralBits(const int32_t* values, int count, int codebook);

// Chooses the codebook of every group and band of `channel` and the sections that cover
// them (fewest bits, section headers included), sets ics.max_sfb (one past the last band
// with a nonzero value in any group, 0 when all are zero) and returns the bits of the
// whole individual_channel_stream for a channel without a common window: global_gain,
// ics_info, section_data, scale_factor_data (with the scalefactors as they are), the
// pulse, TNS and gain-control flags, tns_data() when present, and spectral_data. Returns kNoFit
// when two consecutive coded scalefactors differ by more than kMaxScalefactorDelta or a scalefactor
// leaves 0..255.
int PrepareChannel(ChannelData* channel);

// For a channel pair that shares its window (same sequence, shape and grouping): makes
// both max_sfb equal, re-choosing what that changes, and returns the bits of the whole
// channel_pair_element with common_window = 1 and the given M/S mask (ms_used[g][b] for
// b < max_sfb; null for no M/S). kNoFit as above.
int PrepareChannelPair(ChannelData* left, ChannelData* right, const uint8_t (*ms_used)[kMaxBands]);

// The bits PrepareChannel() / PrepareChannelPair() would return for the codebooks and
// max_sfb the channels hold now, without choosing anything; kNoFit when a codebook cannot
// hold its band or the scalefactors are out of range as above.
int ChannelBits(const ChannelData& channel);
int ChannelPairBits(const ChannelData& left, const ChannelData& right,
                    const uint8_t (*ms_used)[kMaxBands]);

// Writes bits most significant first into a caller-owned buffer.
class BitWriter {
 public:
  BitWriter(uint8_t* buffer, size_t capacity_bytes);
  // Appends the low `count` bits of `value` (count <= 32). Past the capacity the writer
  // stops writing and overflowed() turns true.
  void Put(uint32_t value, int count);
  void AlignToByte();  // Zero bits up to the next byte boundary.
  size_t bit_count() const { return bits_; }
  size_t byte_count() const { return (bits_ + 7) / 8; }
  bool overflowed() const { return overflowed_; }

 private:
  uint8_t* buffer_;
  size_t capacity_bits_;
  size_t bits_ = 0;
  // The last bits written, newest lowest; those of the byte not yet complete (bits_ % 8
  // of them) are also in the buffer already, so the buffer always holds every bit.
  uint64_t recent_ = 0;
  bool overflowed_ = false;
};

// Element writers. Each writes exactly the bits the matching Prepare* returned (plus the
// 3-bit element id and 4-bit instance tag, which Prepare* does not count).
void WriteSingleChannelElement(BitWriter* writer, const ChannelData& channel);
void WriteChannelPairElement(BitWriter* writer, const ChannelData& left, const ChannelData& right,
                             const uint8_t (*ms_used)[kMaxBands]);
// A fill element of exactly `bits` bits (>= 7; rounded down to the sizes the syntax
// allows: 7 + 8n bits), used to pad a frame up to the constant bit rate. Returns the bits
// written.
int WriteFillElement(BitWriter* writer, int bits);
// ID_END, then zero bits to the byte boundary.
void WriteEnd(BitWriter* writer);

// Element header bits (id_syn_ele + element_instance_tag).
constexpr int kElementHeaderBits = 7;
// ID_END.
constexpr int kEndBits = 3;

// The 7-byte ADTS header (no CRC) for one raw_data_block of `payload_bytes` bytes,
// profile AAC-LC; `buffer_fullness` is the ADTS field (0x7FF = variable rate).
constexpr int kAdtsHeaderBytes = 7;
void WriteAdtsHeader(uint8_t header[kAdtsHeaderBytes], int sampling_frequency_index, int channels,
                     int payload_bytes, int buffer_fullness);

// The two-byte AudioSpecificConfig for AAC-LC.
void MakeAudioSpecificConfig(uint8_t config[2], int sampling_frequency_index, int channels);

}  // namespace aac
}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AAC_AAC_SYNTAX_H_
