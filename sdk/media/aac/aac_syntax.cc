#include "sdk/media/aac/aac_syntax.h"

#include <algorithm>
#include <cstdlib>

#include "sdk/media/aac/aac_tables.h"

namespace tarnel {
namespace audio {
namespace aac {

namespace {

// Syntax element ids and field widths of the raw_data_block.
constexpr uint32_t kIdSce = 0;
constexpr uint32_t kIdCpe = 1;
constexpr uint32_t kIdFil = 6;
constexpr uint32_t kIdEnd = 7;
constexpr int kGlobalGainBits = 8;
constexpr int kLongIcsInfoBits =
    1 + 2 + 1 + 6 + 1;  // reserved, sequence, shape, max_sfb, predictor
constexpr int kShortIcsInfoBits =
    1 + 2 + 1 + 4 + 7;            // reserved, sequence, shape, max_sfb, grouping
constexpr int kToolFlagBits = 3;  // pulse, TNS and gain control flags.
constexpr int kCodebookBits = 4;
constexpr int kMsMaskPresentBits = 2;
constexpr int kEscapeCodebookLargest = 16;  // The index value of codebook 11 that escapes.
constexpr int kAlwaysGlobalGain = 100;      // global_gain of a channel without coded bands.
constexpr int kInfinite = kNoFit;

// The codebooks come in pairs that share their index layout and range (1-2, 3-4, 5-6,
// 7-8, 9-10). A pair's lengths are packed into one word, the first book's in the low
// half, so that one pass over a band sums both. Sign bits of the unsigned books are
// included; the sums of any band stay far below 2^16.
constexpr int kPairCount = 5;
constexpr int kLargestPairTable = 169;

struct LengthTables {
  uint32_t pair[kPairCount][kLargestPairTable];
  uint16_t escape_book[289];  // Codebook 11 with sign bits, escape sequences excluded.
  uint8_t zero_tuple[12];     // Length of the all-zero tuple of each codebook.

  LengthTables() {
    for (int p = 0; p < kPairCount; ++p) {
      const SpectralCodebook& first = kSpectralCodebooks[2 * p + 1];
      const SpectralCodebook& second = kSpectralCodebooks[2 * p + 2];
      for (int index = 0; index < first.size; ++index) {
        const int signs = first.is_signed ? 0 : NonzeroValues(first, index);
        pair[p][index] = static_cast<uint32_t>(first.codes[index].length + signs) |
                         static_cast<uint32_t>(second.codes[index].length + signs) << 16;
      }
    }
    const SpectralCodebook& escape = kSpectralCodebooks[kEscapeCodebook];
    for (int index = 0; index < escape.size; ++index) {
      escape_book[index] =
          static_cast<uint16_t>(escape.codes[index].length + NonzeroValues(escape, index));
    }
    zero_tuple[0] = 0;
    for (int cb = 1; cb <= kEscapeCodebook; ++cb) {
      const SpectralCodebook& book = kSpectralCodebooks[cb];
      int index = 0;
      if (book.is_signed) {
        for (int i = 0; i < book.dimension; ++i) index = index * book.modulus + book.largest;
      }
      zero_tuple[cb] = book.codes[index].length;
    }
  }

  static int NonzeroValues(const SpectralCodebook& book, int index) {
    int count = 0;
    for (int i = 0; i < book.dimension; ++i, index /= book.modulus)
      count += index % book.modulus != 0;
    return count;
  }
};

const LengthTables& Lengths() {
  static const LengthTables tables;
  return tables;
}

inline int Abs(int32_t v) { return v < 0 ? -v : v; }

inline int SignedQuadIndex(const int32_t* v) { return 27 * v[0] + 9 * v[1] + 3 * v[2] + v[3] + 40; }
inline int UnsignedQuadIndex(const int32_t* v) {
  return 27 * Abs(v[0]) + 9 * Abs(v[1]) + 3 * Abs(v[2]) + Abs(v[3]);
}
inline int SignedPairIndex(const int32_t* v) { return 9 * v[0] + v[1] + 40; }
inline int UnsignedPairIndex(const int32_t* v, int modulus) {
  return modulus * Abs(v[0]) + Abs(v[1]);
}
inline int EscapePairIndex(const int32_t* v) {
  return 17 * std::min(Abs(v[0]), kEscapeCodebookLargest) +
         std::min(Abs(v[1]), kEscapeCodebookLargest);
}

// The prefix length N of the escape sequence of |value| >= 16: 2^(N+4) <= |value|.
inline int EscapePrefix(int magnitude) { return 31 - __builtin_clz(magnitude) - 4; }
// Bits of the escape sequence: N ones, a zero and an N+4-bit word.
inline int EscapeBits(int magnitude) {
  return magnitude < kEscapeCodebookLargest ? 0 : 2 * EscapePrefix(magnitude) + 5;
}

// Packed lengths of pair `p` over `count` values (a multiple of 4).
uint32_t PairRunBits(const LengthTables& t, int p, const int32_t* v, int count) {
  const uint32_t* lengths = t.pair[p];
  uint32_t sum = 0;
  switch (p) {
    case 0:
      for (int i = 0; i < count; i += 4) sum += lengths[SignedQuadIndex(v + i)];
      break;
    case 1:
      for (int i = 0; i < count; i += 4) sum += lengths[UnsignedQuadIndex(v + i)];
      break;
    case 2:
      for (int i = 0; i < count; i += 2) sum += lengths[SignedPairIndex(v + i)];
      break;
    case 3:
      for (int i = 0; i < count; i += 2) sum += lengths[UnsignedPairIndex(v + i, 8)];
      break;
    default:
      for (int i = 0; i < count; i += 2) sum += lengths[UnsignedPairIndex(v + i, 13)];
      break;
  }
  return sum;
}

int EscapeRunBits(const LengthTables& t, const int32_t* v, int count) {
  int sum = 0;
  for (int i = 0; i < count; i += 2) {
    sum +=
        t.escape_book[EscapePairIndex(v + i)] + EscapeBits(Abs(v[i])) + EscapeBits(Abs(v[i + 1]));
  }
  return sum;
}

// Largest |value| a codebook holds.
inline int Capacity(int codebook) {
  return codebook == kEscapeCodebook ? kMaxQuantValue : kSpectralCodebooks[codebook].largest;
}

// The window layout of a channel, resolved from its IcsInfo and band layout.
struct Shape {
  bool is_short;
  int num_bands;
  const uint16_t* offsets;
  int num_groups;
  int group_start[kShortWindows];  // First window of each group.
  int group_length[kShortWindows];
  int section_bits;    // Width of a section length field.
  int section_escape;  // The length value that continues the field.
};

bool MakeShape(const ChannelData& channel, Shape* shape) {
  if (channel.layout == nullptr) return false;
  const IcsInfo& ics = channel.ics;
  shape->is_short = ics.window_sequence == kEightShort;
  const int layout_bands =
      shape->is_short ? channel.layout->num_short_bands : channel.layout->num_long_bands;
  shape->num_bands = channel.num_bands > 0 ? channel.num_bands : layout_bands;
  if (shape->num_bands > layout_bands) return false;
  shape->offsets = shape->is_short ? channel.layout->short_offsets : channel.layout->long_offsets;
  if (shape->is_short) {
    if (ics.num_window_groups < 1 || ics.num_window_groups > kShortWindows) return false;
    shape->num_groups = ics.num_window_groups;
    int window = 0;
    for (int g = 0; g < shape->num_groups; ++g) {
      if (ics.window_group_length[g] < 1) return false;
      shape->group_start[g] = window;
      shape->group_length[g] = ics.window_group_length[g];
      window += ics.window_group_length[g];
    }
    if (window != kShortWindows) return false;
    shape->section_bits = 3;
  } else {
    shape->num_groups = 1;
    shape->group_start[0] = 0;
    shape->group_length[0] = 1;
    shape->section_bits = 5;
  }
  shape->section_escape = (1 << shape->section_bits) - 1;
  return true;
}

// Calls `visit(values, count)` for each window's run of band `b` of group `g`, in the
// order spectral_data sends them.
template <typename Visit>
inline void ForEachRun(const ChannelData& channel, const Shape& shape, int g, int b,
                       Visit&& visit) {
  const int start = shape.offsets[b];
  const int count = shape.offsets[b + 1] - start;
  const int stride = shape.is_short ? kShortWindowLength : 0;
  const int32_t* values = channel.quant + shape.group_start[g] * stride + start;
  for (int w = 0; w < shape.group_length[g]; ++w, values += stride) visit(values, count);
}

int BandPeak(const ChannelData& channel, const Shape& shape, int g, int b) {
  int peak = 0;
  ForEachRun(channel, shape, g, b, [&peak](const int32_t* v, int count) {
    for (int i = 0; i < count; ++i) peak = std::max(peak, Abs(v[i]));
  });
  return peak;
}

int BandLines(const Shape& shape, int g, int b) {
  return (shape.offsets[b + 1] - shape.offsets[b]) * shape.group_length[g];
}

inline int SectionLengthBits(const Shape& shape, int bands) {
  return shape.section_bits * (bands / shape.section_escape + 1);
}

int IcsInfoBits(const Shape& shape) {
  return shape.is_short ? kShortIcsInfoBits : kLongIcsInfoBits;
}

// Field widths of tns_data() for long and short windows.
struct TnsWidths {
  int windows;
  int n_filt;
  int length;
  int order;
  int max_order;
};

TnsWidths TnsFieldWidths(bool is_short) {
  return is_short ? TnsWidths{kShortWindows, 1, 4, 3, kMaxTnsOrderShort}
                  : TnsWidths{1, 2, 6, 5, kMaxTnsOrderLong};
}

// Bits of tns_data() (0 when absent), or kInfinite when a field is out of its range.
int TnsBits(const TnsData& tns, const Shape& shape) {
  if (!tns.present) return 0;
  const TnsWidths widths = TnsFieldWidths(shape.is_short);
  int bits = 0;
  for (int w = 0; w < widths.windows; ++w) {
    const TnsWindow& window = tns.window[w];
    bits += widths.n_filt;
    if (window.n_filt == 0) continue;
    if (window.n_filt >= 1 << widths.n_filt || window.coef_res > 1) return kInfinite;
    bits += 1;  // coef_res
    for (int f = 0; f < window.n_filt; ++f) {
      const TnsFilter& filter = window.filter[f];
      if (filter.length >= 1 << widths.length || filter.order > widths.max_order) return kInfinite;
      bits += widths.length + widths.order;
      if (filter.order == 0) continue;
      if (filter.direction > 1 || filter.coef_compress > 1) return kInfinite;
      const int coef_bits = 3 + window.coef_res - filter.coef_compress;
      const int lowest = -(1 << (coef_bits - 1));
      for (int i = 0; i < filter.order; ++i) {
        if (filter.coef[i] < lowest || filter.coef[i] > -lowest - 1) return kInfinite;
      }
      bits += 2 + filter.order * coef_bits;  // direction, coef_compress, coef[]
    }
  }
  return bits;
}

// Band peaks of every group and band, and one past the last band with a nonzero value.
struct Peaks {
  int value[kShortWindows][kMaxBands];
  int max_sfb;
};

void FindPeaks(const ChannelData& channel, const Shape& shape, Peaks* peaks) {
  peaks->max_sfb = 0;
  for (int g = 0; g < shape.num_groups; ++g) {
    for (int b = 0; b < shape.num_bands; ++b) {
      const int peak = BandPeak(channel, shape, g, b);
      peaks->value[g][b] = peak;
      if (peak != 0) peaks->max_sfb = std::max(peaks->max_sfb, b + 1);
    }
  }
}

// Bits of the scalefactor differences of the bands that carry values, checking their
// range; all-zero bands under a nonzero codebook (1 bit each) are counted by the caller.
int NonzeroScalefactorBits(const ChannelData& channel, const Shape& shape, const Peaks& peaks,
                           int max_sfb) {
  int bits = 0;
  int last = -1;
  for (int g = 0; g < shape.num_groups; ++g) {
    for (int b = 0; b < max_sfb; ++b) {
      if (peaks.value[g][b] == 0) continue;
      const int sf = channel.scalefactor[g][b];
      if (sf < 0 || sf > 255) return kInfinite;
      if (last >= 0) {
        const int delta = sf - last;
        if (delta < -kMaxScalefactorDelta || delta > kMaxScalefactorDelta) return kInfinite;
        bits += kScalefactorCodes[delta + kScalefactorIndexOffset].length;
      } else {
        bits += kScalefactorCodes[kScalefactorIndexOffset].length;
      }
      last = sf;
    }
  }
  return bits;
}

int ZeroDeltaBits() { return kScalefactorCodes[kScalefactorIndexOffset].length; }

// Chooses the codebooks of `channel` for `max_sfb` bands and returns the bits of its
// individual_channel_stream (ics_info included unless `common_window`).
int ChooseCodebooks(ChannelData* channel, const Shape& shape, const Peaks& peaks, int max_sfb,
                    bool common_window) {
  const LengthTables& t = Lengths();
  channel->ics.max_sfb = static_cast<uint8_t>(max_sfb);
  const int sf_bits = NonzeroScalefactorBits(*channel, shape, peaks, max_sfb);
  const int tns_bits = TnsBits(channel->tns, shape);
  if (sf_bits >= kInfinite || tns_bits >= kInfinite) return kNoFit;
  int total = kGlobalGainBits + (common_window ? 0 : IcsInfoBits(shape)) + kToolFlagBits +
              tns_bits + sf_bits;
  const int new_section = kCodebookBits + shape.section_bits;

  for (int g = 0; g < shape.num_groups; ++g) {
    // cost[b][cb]: spectral bits of band b in codebook cb (plus the repeated scalefactor
    // of an all-zero band under a nonzero codebook), kInfinite where it does not fit or
    // was not tried.
    int cost[kMaxBands][kEscapeCodebook + 1];
    for (int b = 0; b < max_sfb; ++b) {
      int* c = cost[b];
      const int peak = peaks.value[g][b];
      if (peak == 0) {
        const int lines = BandLines(shape, g, b);
        c[0] = 0;
        for (int cb = 1; cb <= kEscapeCodebook; ++cb) {
          c[cb] = lines / kSpectralCodebooks[cb].dimension * t.zero_tuple[cb] + ZeroDeltaBits();
        }
        continue;
      }
      if (peak > kMaxQuantValue) return kNoFit;
      std::fill(c, c + kEscapeCodebook + 1, kInfinite);
      // The cheapest books that hold the peak are in its pair or the next one; codebook 11
      // is always tried so that a band can join a neighbouring escape section.
      const int first_pair = peak <= 1 ? 0 : peak <= 2 ? 1 : peak <= 4 ? 2 : peak <= 7 ? 3 : 4;
      const int last_pair = peak <= 12 ? std::min(first_pair + 1, kPairCount - 1) : -1;
      for (int p = first_pair; p <= last_pair; ++p) {
        uint32_t packed = 0;
        ForEachRun(*channel, shape, g, b,
                   [&](const int32_t* v, int count) { packed += PairRunBits(t, p, v, count); });
        c[2 * p + 1] = static_cast<int>(packed & 0xFFFF);
        c[2 * p + 2] = static_cast<int>(packed >> 16);
      }
      int escape_bits = 0;
      ForEachRun(*channel, shape, g, b,
                 [&](const int32_t* v, int count) { escape_bits += EscapeRunBits(t, v, count); });
      c[kEscapeCodebook] = escape_bits;
    }

    // Sections by dynamic programming over (band, codebook of the section holding it):
    // a band either extends the section of the band before or opens a new one after the
    // cheapest state of that band. The running length of each state's section prices the
    // escapes of the length field exactly along the chosen path.
    int best[kEscapeCodebook + 1];
    int run[kEscapeCodebook + 1];
    uint16_t continued[kMaxBands];
    uint8_t previous_best[kMaxBands];
    if (max_sfb == 0) break;
    for (int cb = 0; cb <= kEscapeCodebook; ++cb) {
      best[cb] = cost[0][cb] >= kInfinite ? kInfinite : cost[0][cb] + new_section;
      run[cb] = 1;
    }
    continued[0] = 0;
    previous_best[0] = 0;
    for (int b = 1; b < max_sfb; ++b) {
      int arg = 0;
      for (int cb = 1; cb <= kEscapeCodebook; ++cb) {
        if (best[cb] < best[arg]) arg = cb;
      }
      const int open_cost = best[arg] + new_section;
      previous_best[b] = static_cast<uint8_t>(arg);
      uint16_t mask = 0;
      for (int cb = 0; cb <= kEscapeCodebook; ++cb) {
        if (cost[b][cb] >= kInfinite) {
          best[cb] = kInfinite;
          continue;
        }
        int extend_cost = kInfinite;
        if (best[cb] < kInfinite) {
          extend_cost =
              best[cb] + ((run[cb] + 1) % shape.section_escape == 0 ? shape.section_bits : 0);
        }
        if (extend_cost <= open_cost) {
          best[cb] = extend_cost + cost[b][cb];
          ++run[cb];
          mask |= static_cast<uint16_t>(1u << cb);
        } else {
          best[cb] = open_cost + cost[b][cb];
          run[cb] = 1;
        }
      }
      continued[b] = mask;
    }
    int cb = 0;
    for (int k = 1; k <= kEscapeCodebook; ++k) {
      if (best[k] < best[cb]) cb = k;
    }
    total += best[cb];
    for (int b = max_sfb - 1; b >= 0; --b) {
      channel->codebook[g][b] = static_cast<uint8_t>(cb);
      if (b > 0 && (continued[b] >> cb & 1) == 0) cb = previous_best[b];
    }
  }
  return total;
}

// Bits of the individual_channel_stream of `channel` with the codebooks it holds.
int CountChannel(const ChannelData& channel, const Shape& shape, bool common_window) {
  Peaks peaks;
  FindPeaks(channel, shape, &peaks);
  const int max_sfb = channel.ics.max_sfb;
  if (max_sfb > shape.num_bands || max_sfb < peaks.max_sfb) return kNoFit;
  const int sf_bits = NonzeroScalefactorBits(channel, shape, peaks, max_sfb);
  const int tns_bits = TnsBits(channel.tns, shape);
  if (sf_bits >= kInfinite || tns_bits >= kInfinite) return kNoFit;
  int total = kGlobalGainBits + (common_window ? 0 : IcsInfoBits(shape)) + kToolFlagBits +
              tns_bits + sf_bits;
  for (int g = 0; g < shape.num_groups; ++g) {
    int run = 0;
    for (int b = 0; b < max_sfb; ++b) {
      const int cb = channel.codebook[g][b];
      if (cb > kEscapeCodebook) return kNoFit;
      ++run;
      if (b + 1 == max_sfb || channel.codebook[g][b + 1] != cb) {
        total += kCodebookBits + SectionLengthBits(shape, run);
        run = 0;
      }
      if (cb == kZeroCodebook) {
        if (peaks.value[g][b] != 0) return kNoFit;
        continue;
      }
      if (peaks.value[g][b] > Capacity(cb)) return kNoFit;
      if (peaks.value[g][b] == 0) total += ZeroDeltaBits();
      ForEachRun(channel, shape, g, b,
                 [&](const int32_t* v, int count) { total += SpectralBits(v, count, cb); });
    }
  }
  return total;
}

bool SameWindow(const IcsInfo& a, const IcsInfo& b) {
  if (a.window_sequence != b.window_sequence || a.window_shape != b.window_shape) return false;
  if (a.window_sequence != kEightShort) return true;
  if (a.num_window_groups != b.num_window_groups) return false;
  for (int g = 0; g < a.num_window_groups && g < kShortWindows; ++g) {
    if (a.window_group_length[g] != b.window_group_length[g]) return false;
  }
  return true;
}

// ms_mask_present: 0 none, 1 a mask per band, 2 every band.
int MsMaskMode(const Shape& shape, int max_sfb, const uint8_t (*ms_used)[kMaxBands]) {
  if (ms_used == nullptr || max_sfb == 0) return 0;
  bool any = false;
  bool all = true;
  for (int g = 0; g < shape.num_groups; ++g) {
    for (int b = 0; b < max_sfb; ++b) {
      any |= ms_used[g][b] != 0;
      all &= ms_used[g][b] != 0;
    }
  }
  return all ? 2 : any ? 1 : 0;
}

int MsMaskBits(const Shape& shape, int max_sfb, const uint8_t (*ms_used)[kMaxBands]) {
  const int mode = MsMaskMode(shape, max_sfb, ms_used);
  return kMsMaskPresentBits + (mode == 1 ? shape.num_groups * max_sfb : 0);
}

// ----- Writing -----

inline void PutCode(BitWriter* writer, const HuffmanCode& code) {
  writer->Put(code.codeword, code.length);
}

void PutEscape(BitWriter* writer, int magnitude) {
  if (magnitude < kEscapeCodebookLargest) return;
  const int prefix = EscapePrefix(magnitude);
  // N ones and a zero, then the word below 2^(N+4).
  writer->Put(((1u << prefix) - 1) << 1, prefix + 1);
  writer->Put(static_cast<uint32_t>(magnitude) - (1u << (prefix + 4)), prefix + 4);
}

void PutRun(BitWriter* writer, const int32_t* v, int count, int codebook) {
  const SpectralCodebook& book = kSpectralCodebooks[codebook];
  for (int i = 0; i < count; i += book.dimension) {
    const int32_t* tuple = v + i;
    int index;
    switch (codebook) {
      case 1:
      case 2:
        index = SignedQuadIndex(tuple);
        break;
      case 3:
      case 4:
        index = UnsignedQuadIndex(tuple);
        break;
      case 5:
      case 6:
        index = SignedPairIndex(tuple);
        break;
      case kEscapeCodebook:
        index = EscapePairIndex(tuple);
        break;
      default:
        index = UnsignedPairIndex(tuple, book.modulus);
        break;
    }
    // The codeword and the sign bits (1 = negative) of an unsigned book in one go: at most
    // 16 + 4 bits.
    uint32_t bits = book.codes[index].codeword;
    int length = book.codes[index].length;
    if (!book.is_signed) {
      for (int k = 0; k < book.dimension; ++k) {
        if (tuple[k] != 0) {
          bits = bits << 1 | (tuple[k] < 0 ? 1u : 0u);
          ++length;
        }
      }
    }
    writer->Put(bits, length);
    if (codebook == kEscapeCodebook) {
      PutEscape(writer, Abs(tuple[0]));
      PutEscape(writer, Abs(tuple[1]));
    }
  }
}

bool BandIsZero(const ChannelData& channel, const Shape& shape, int g, int b) {
  bool zero = true;
  ForEachRun(channel, shape, g, b, [&zero](const int32_t* v, int count) {
    for (int i = 0; i < count && zero; ++i) zero = v[i] == 0;
  });
  return zero;
}

void PutIcsInfo(BitWriter* writer, const ChannelData& channel, const Shape& shape) {
  const IcsInfo& ics = channel.ics;
  writer->Put(0, 1);  // ics_reserved_bit
  writer->Put(ics.window_sequence, 2);
  writer->Put(ics.window_shape, 1);
  if (shape.is_short) {
    writer->Put(ics.max_sfb, 4);
    // One bit per window 1..7: set when it joins the group of the window before.
    uint32_t grouping = 0;
    for (int g = 0; g < shape.num_groups; ++g) {
      for (int w = shape.group_start[g]; w < shape.group_start[g] + shape.group_length[g]; ++w) {
        if (w > 0) grouping = grouping << 1 | (w != shape.group_start[g] ? 1 : 0);
      }
    }
    writer->Put(grouping, 7);
  } else {
    writer->Put(ics.max_sfb, 6);
    writer->Put(0, 1);  // predictor_data_present
  }
}

void PutTns(BitWriter* writer, const TnsData& tns, const Shape& shape) {
  const TnsWidths widths = TnsFieldWidths(shape.is_short);
  for (int w = 0; w < widths.windows; ++w) {
    const TnsWindow& window = tns.window[w];
    writer->Put(window.n_filt, widths.n_filt);
    if (window.n_filt == 0) continue;
    writer->Put(window.coef_res, 1);
    for (int f = 0; f < window.n_filt; ++f) {
      const TnsFilter& filter = window.filter[f];
      writer->Put(filter.length, widths.length);
      writer->Put(filter.order, widths.order);
      if (filter.order == 0) continue;
      writer->Put(filter.direction, 1);
      writer->Put(filter.coef_compress, 1);
      const int coef_bits = 3 + window.coef_res - filter.coef_compress;
      // Two's complement in coef_bits bits.
      for (int i = 0; i < filter.order; ++i) {
        writer->Put(static_cast<uint32_t>(filter.coef[i]), coef_bits);
      }
    }
  }
}

void PutIcs(BitWriter* writer, const ChannelData& channel, bool common_window) {
  Shape shape;
  if (!MakeShape(channel, &shape)) return;
  const int max_sfb = channel.ics.max_sfb;

  // global_gain: the scalefactor of the first band that carries values.
  int global_gain = -1;
  for (int g = 0; g < shape.num_groups && global_gain < 0; ++g) {
    for (int b = 0; b < max_sfb; ++b) {
      if (channel.codebook[g][b] != kZeroCodebook && !BandIsZero(channel, shape, g, b)) {
        global_gain = channel.scalefactor[g][b];
        break;
      }
    }
  }
  if (global_gain < 0) global_gain = kAlwaysGlobalGain;
  writer->Put(static_cast<uint32_t>(global_gain), kGlobalGainBits);
  if (!common_window) PutIcsInfo(writer, channel, shape);

  // section_data
  for (int g = 0; g < shape.num_groups; ++g) {
    int b = 0;
    while (b < max_sfb) {
      const int cb = channel.codebook[g][b];
      int end = b + 1;
      while (end < max_sfb && channel.codebook[g][end] == cb) ++end;
      writer->Put(static_cast<uint32_t>(cb), kCodebookBits);
      int length = end - b;
      while (length >= shape.section_escape) {
        writer->Put(static_cast<uint32_t>(shape.section_escape), shape.section_bits);
        length -= shape.section_escape;
      }
      writer->Put(static_cast<uint32_t>(length), shape.section_bits);
      b = end;
    }
  }

  // scale_factor_data
  int last = global_gain;
  for (int g = 0; g < shape.num_groups; ++g) {
    for (int b = 0; b < max_sfb; ++b) {
      if (channel.codebook[g][b] == kZeroCodebook) continue;
      int delta = 0;
      if (!BandIsZero(channel, shape, g, b)) {
        delta = channel.scalefactor[g][b] - last;
        last = channel.scalefactor[g][b];
      }
      PutCode(writer, kScalefactorCodes[delta + kScalefactorIndexOffset]);
    }
  }

  writer->Put(0, 1);  // pulse_data_present
  writer->Put(channel.tns.present ? 1 : 0, 1);
  if (channel.tns.present) PutTns(writer, channel.tns, shape);
  writer->Put(0, 1);  // gain_control_data_present

  // spectral_data: per group, per band, per window of the group.
  for (int g = 0; g < shape.num_groups; ++g) {
    for (int b = 0; b < max_sfb; ++b) {
      const int cb = channel.codebook[g][b];
      if (cb == kZeroCodebook) continue;
      ForEachRun(channel, shape, g, b,
                 [&](const int32_t* v, int count) { PutRun(writer, v, count, cb); });
    }
  }
}

}  // namespace

int SpectralBits(const int32_t* values, int count, int codebook) {
  if (codebook < 1 || codebook > kEscapeCodebook) return kNoFit;
  const int capacity = Capacity(codebook);
  for (int i = 0; i < count; ++i) {
    if (Abs(values[i]) > capacity) return kNoFit;
  }
  const LengthTables& t = Lengths();
  if (codebook == kEscapeCodebook) return EscapeRunBits(t, values, count);
  const uint32_t packed = PairRunBits(t, (codebook - 1) / 2, values, count);
  return static_cast<int>(codebook % 2 == 1 ? packed & 0xFFFF : packed >> 16);
}

int PrepareChannel(ChannelData* channel) {
  Shape shape;
  if (!MakeShape(*channel, &shape)) return kNoFit;
  Peaks peaks;
  FindPeaks(*channel, shape, &peaks);
  return ChooseCodebooks(channel, shape, peaks, peaks.max_sfb, false);
}

int PrepareChannelPair(ChannelData* left, ChannelData* right, const uint8_t (*ms_used)[kMaxBands]) {
  Shape left_shape;
  Shape right_shape;
  if (!MakeShape(*left, &left_shape) || !MakeShape(*right, &right_shape) ||
      !SameWindow(left->ics, right->ics) || left_shape.num_bands != right_shape.num_bands) {
    return kNoFit;
  }
  Peaks left_peaks;
  Peaks right_peaks;
  FindPeaks(*left, left_shape, &left_peaks);
  FindPeaks(*right, right_shape, &right_peaks);
  const int max_sfb = std::max(left_peaks.max_sfb, right_peaks.max_sfb);
  const int left_bits = ChooseCodebooks(left, left_shape, left_peaks, max_sfb, true);
  const int right_bits = ChooseCodebooks(right, right_shape, right_peaks, max_sfb, true);
  if (left_bits >= kNoFit || right_bits >= kNoFit) return kNoFit;
  return 1 + IcsInfoBits(left_shape) + MsMaskBits(left_shape, max_sfb, ms_used) + left_bits +
         right_bits;
}

int ChannelBits(const ChannelData& channel) {
  Shape shape;
  if (!MakeShape(channel, &shape)) return kNoFit;
  return CountChannel(channel, shape, false);
}

int ChannelPairBits(const ChannelData& left, const ChannelData& right,
                    const uint8_t (*ms_used)[kMaxBands]) {
  Shape shape;
  Shape right_shape;
  if (!MakeShape(left, &shape) || !MakeShape(right, &right_shape) ||
      !SameWindow(left.ics, right.ics) || left.ics.max_sfb != right.ics.max_sfb) {
    return kNoFit;
  }
  const int left_bits = CountChannel(left, shape, true);
  const int right_bits = CountChannel(right, right_shape, true);
  if (left_bits >= kNoFit || right_bits >= kNoFit) return kNoFit;
  return 1 + IcsInfoBits(shape) + MsMaskBits(shape, left.ics.max_sfb, ms_used) + left_bits +
         right_bits;
}

BitWriter::BitWriter(uint8_t* buffer, size_t capacity_bytes)
    : buffer_(buffer), capacity_bits_(capacity_bytes * 8) {}

void BitWriter::Put(uint32_t value, int count) {
  if (count <= 0) return;
  if (overflowed_ || bits_ + static_cast<size_t>(count) > capacity_bits_) {
    overflowed_ = true;
    return;
  }
  if (count < 32) value &= (1u << count) - 1;
  // At most 7 pending bits and 32 new ones: the 64-bit register never loses what a byte
  // still needs.
  recent_ = (recent_ << count) | value;
  int pending = static_cast<int>(bits_ & 7) + count;
  uint8_t* out = buffer_ + (bits_ >> 3);
  while (pending >= 8) {
    pending -= 8;
    *out++ = static_cast<uint8_t>(recent_ >> pending);
  }
  if (pending > 0) *out = static_cast<uint8_t>(recent_ << (8 - pending));
  bits_ += static_cast<size_t>(count);
}

void BitWriter::AlignToByte() { Put(0, static_cast<int>((8 - (bits_ & 7)) & 7)); }

void WriteSingleChannelElement(BitWriter* writer, const ChannelData& channel) {
  writer->Put(kIdSce, 3);
  writer->Put(0, 4);  // element_instance_tag
  PutIcs(writer, channel, false);
}

void WriteChannelPairElement(BitWriter* writer, const ChannelData& left, const ChannelData& right,
                             const uint8_t (*ms_used)[kMaxBands]) {
  Shape shape;
  if (!MakeShape(left, &shape)) return;
  const int max_sfb = left.ics.max_sfb;
  writer->Put(kIdCpe, 3);
  writer->Put(0, 4);  // element_instance_tag
  writer->Put(1, 1);  // common_window
  PutIcsInfo(writer, left, shape);
  const int mode = MsMaskMode(shape, max_sfb, ms_used);
  writer->Put(static_cast<uint32_t>(mode), kMsMaskPresentBits);
  if (mode == 1) {
    for (int g = 0; g < shape.num_groups; ++g) {
      for (int b = 0; b < max_sfb; ++b) writer->Put(ms_used[g][b] != 0 ? 1 : 0, 1);
    }
  }
  PutIcs(writer, left, true);
  PutIcs(writer, right, true);
}

int WriteFillElement(BitWriter* writer, int bits) {
  // An element of n payload bytes takes 7 + 8n bits: 3-bit id and 4-bit count for n < 15;
  // from 15 bytes on the count is 15 and an 8-bit escape adds (its value - 1), the escape
  // byte counting as one of the n.
  constexpr int kMostBytes = 15 + 255 - 1 + 1;
  int written = 0;
  while (bits - written >= kElementHeaderBits) {
    const int bytes = std::min((bits - written - kElementHeaderBits) / 8, kMostBytes);
    writer->Put(kIdFil, 3);
    int payload = bytes;
    if (bytes < 15) {
      writer->Put(static_cast<uint32_t>(bytes), 4);
    } else {
      payload = bytes - 1;
      writer->Put(15, 4);
      writer->Put(static_cast<uint32_t>(payload - 14), 8);
    }
    if (payload > 0) {
      writer->Put(0, 8);  // extension_type EXT_FILL and its fill nibble
      for (int i = 1; i < payload; ++i) writer->Put(0xA5, 8);
    }
    written += kElementHeaderBits + 8 * bytes;
  }
  return written;
}

void WriteEnd(BitWriter* writer) {
  writer->Put(kIdEnd, 3);
  writer->AlignToByte();
}

void WriteAdtsHeader(uint8_t header[kAdtsHeaderBytes], int sampling_frequency_index, int channels,
                     int payload_bytes, int buffer_fullness) {
  constexpr int kAacLcProfile = 1;  // Object type 2 minus one.
  const uint32_t frame_length = static_cast<uint32_t>(payload_bytes + kAdtsHeaderBytes);
  const uint32_t fullness = static_cast<uint32_t>(buffer_fullness) & 0x7FF;
  header[0] = 0xFF;
  header[1] = 0xF1;  // Rest of the sync word, MPEG-4, layer 0, no CRC.
  header[2] = static_cast<uint8_t>(kAacLcProfile << 6 | (sampling_frequency_index & 0xF) << 2 |
                                   (channels >> 2 & 1));
  header[3] = static_cast<uint8_t>((channels & 3) << 6 | (frame_length >> 11 & 3));
  header[4] = static_cast<uint8_t>(frame_length >> 3 & 0xFF);
  header[5] = static_cast<uint8_t>((frame_length & 7) << 5 | fullness >> 6);
  header[6] = static_cast<uint8_t>((fullness & 0x3F) << 2);  // One raw_data_block.
}

void MakeAudioSpecificConfig(uint8_t config[2], int sampling_frequency_index, int channels) {
  constexpr int kAacLcObjectType = 2;
  // 5-bit object type, 4-bit frequency index, 4-bit channel configuration, then the three
  // zero flags: 1024-sample frames, no core coder, no extension.
  config[0] = static_cast<uint8_t>(kAacLcObjectType << 3 | (sampling_frequency_index & 0xF) >> 1);
  config[1] = static_cast<uint8_t>((sampling_frequency_index & 1) << 7 | (channels & 0xF) << 3);
}

}  // namespace aac
}  // namespace audio
}  // namespace tarnel
