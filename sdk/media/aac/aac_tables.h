// Fixed data of the AAC-LC syntax: the Huffman codebooks of the spectral values and of
// the scalefactor differences, and the sampling-frequency table. The scalefactor-band
// layouts are reached through BandLayoutForSampleRate() in aac_syntax.h.
//
// Everything here is immutable and may be read from any thread.
#ifndef SDK_MEDIA_AAC_AAC_TABLES_H_
#define SDK_MEDIA_AAC_AAC_TABLES_H_

#include <cstdint>

namespace tarnel {
namespace audio {
namespace aac {

// One codeword, sent most significant bit first.
struct HuffmanCode {
  uint32_t codeword;
  uint8_t length;  // Bits, 1..19.
};

// A spectral codebook: `dimension` values (4 or 2) per codeword, each within
// [-largest, largest] (0..largest plus a sign bit per nonzero value when unsigned). The
// codeword of a tuple is `codes[index]` with the index built as
//   signed:   sum of (v_i + largest) * modulus^(dimension - 1 - i)
//   unsigned: sum of |v_i| * modulus^(dimension - 1 - i)
// Codebook 11 codes 0..15 directly and 16 as an escape followed by the escape sequence.
struct SpectralCodebook {
  const HuffmanCode* codes;
  int size;  // modulus^dimension.
  int dimension;
  bool is_signed;
  int largest;  // Largest |value| a codeword carries (16 = escape for codebook 11).
  int modulus;
};

// Indexed by codebook number 1..11; entry 0 is empty.
extern const SpectralCodebook kSpectralCodebooks[12];

// Scalefactor differences -60..60 at index difference + 60.
constexpr int kScalefactorCodeCount = 121;
constexpr int kScalefactorIndexOffset = 60;
extern const HuffmanCode kScalefactorCodes[kScalefactorCodeCount];

// Sample rate of each sampling-frequency index 0..12.
constexpr int kSamplingFrequencyCount = 13;
extern const int kSamplingFrequencies[kSamplingFrequencyCount];

}  // namespace aac
}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AAC_AAC_TABLES_H_
