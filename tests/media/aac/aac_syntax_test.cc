#include "sdk/media/aac/aac_syntax.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/media/aac/aac_tables.h"
#include "sdk/media/aac/tns.h"
#include "sdk/media/audio_frame.h"
#include "tests/support/aac_decode.h"

// The streams written here are decoded with libavcodec's AAC decoder and compared with a
// synthesis written from the textbook formulas:
//   x = sign(q) |q|^(4/3) 2^((sf - 100) / 4)             per line, band scalefactor sf
//   l = m + s, r = m - s                                 on M/S bands
//   the all-pole TNS filters of each channel             see InverseTns()
//   y[n] = 2/N sum_k x[k] cos(2 pi / N (n + 1/4 N + 1/2)(k + 1/2))   N = 2048 or 256
//   sine windows, overlap-add.
// libavcodec's float output equals that synthesis divided by 32768 (fitted: 1/32768 to
// within 1e-6 relative). So a quantised spectrum is in units of 16-bit PCM, and the
// forward transform that matches is
//   X[k] = 2 sum_n w[n] p[n] cos(2 pi / N (n + 1/4 N + 1/2)(k + 1/2)),  p = float PCM * 32768
// quantised as q = (|X| 2^(-(sf-100)/4))^(3/4): decoding gives back the float PCM (the
// factor 2 makes up for the 1/2 that windowed overlap-add leaves), which the last test
// checks end to end.

namespace tarnel {
namespace audio {
namespace aac {
namespace {

constexpr int kRate = 48000;
constexpr double kOutputScale = 1.0 / 32768;

// ----- libavcodec decoding -----

// Decodes `units` (raw blocks, or ADTS frames) with the shared libavcodec helper and
// hands back each channel apart, at the decoder's own float scale.
std::vector<std::vector<float>> DecodePerChannel(const std::vector<std::vector<uint8_t>>& units,
                                                 int channels, bool raw) {
  std::vector<std::shared_ptr<AudioFrame>> frames;
  for (const std::vector<uint8_t>& bytes : units) {
    frames.push_back(std::make_shared<AudioFrame>());
    frames.back()->SetData(bytes.data(), bytes.size());
  }
  const tarnel_test::DecodedAudio audio = tarnel_test::DecodeAac(frames, kRate, channels, raw);
  EXPECT_EQ(audio.errors, 0);
  std::vector<std::vector<float>> pcm(static_cast<size_t>(channels));
  for (size_t i = 0; i < audio.samples.size(); ++i) {
    pcm[i % static_cast<size_t>(channels)].push_back(audio.samples[i] / 32768.0f);
  }
  return pcm;
}

// ----- Reference synthesis -----

// y[n] = 2/N sum_k x[k] cos(pi/(2N) (2n + 1 + N/2)(2k + 1)), n < N, N = 2 * x.size().
std::vector<double> InverseMdct(const double* x, int half) {
  const int n_total = 2 * half;
  std::vector<double> cosine(4 * static_cast<size_t>(n_total));
  for (size_t i = 0; i < cosine.size(); ++i) cosine[i] = std::cos(M_PI * i / (2.0 * n_total));
  std::vector<double> y(static_cast<size_t>(n_total), 0.0);
  for (int n = 0; n < n_total; ++n) {
    const long a = 2 * n + 1 + half;
    double sum = 0;
    for (int k = 0; k < half; ++k) {
      if (x[k] != 0) sum += x[k] * cosine[(a * (2 * k + 1)) % (4 * n_total)];
    }
    y[n] = 2.0 / n_total * sum;
  }
  return y;
}

// X[k] = 2 sum_n w[n] p[n] cos(pi/(2N) (2n + 1 + N/2)(2k + 1)), k < N/2, over the N
// windowed samples `p`.
std::vector<double> ForwardMdct(const double* p, const double* window, int n_total) {
  const int half = n_total / 2;
  std::vector<double> cosine(4 * static_cast<size_t>(n_total));
  for (size_t i = 0; i < cosine.size(); ++i) cosine[i] = std::cos(M_PI * i / (2.0 * n_total));
  std::vector<double> x(static_cast<size_t>(half), 0.0);
  for (int k = 0; k < half; ++k) {
    double sum = 0;
    for (int n = 0; n < n_total; ++n) {
      sum += window[n] * p[n] * cosine[((2L * n + 1 + half) * (2 * k + 1)) % (4 * n_total)];
    }
    x[k] = 2 * sum;
  }
  return x;
}

double LongSine(int n) { return std::sin(M_PI * (n + 0.5) / 2048); }
double ShortSine(int n) { return std::sin(M_PI * (n + 0.5) / 256); }

// The window of the long-block sequences over the 2048 samples of a frame.
double LongWindow(WindowSequence sequence, int n) {
  if (sequence == kLongStart && n >= 1024) {
    return n < 1472 ? 1.0 : n < 1600 ? ShortSine(n - 1472 + 128) : 0.0;
  }
  if (sequence == kLongStop && n < 1024) {
    return n < 448 ? 0.0 : n < 576 ? ShortSine(n - 448) : 1.0;
  }
  return LongSine(n);
}

// The dequantised spectrum of `channel` in its natural order.
std::vector<double> Dequantise(const ChannelData& channel) {
  std::vector<double> x(kFrameLength, 0.0);
  const bool is_short = channel.ics.window_sequence == kEightShort;
  const uint16_t* offsets = is_short ? channel.layout->short_offsets : channel.layout->long_offsets;
  int window = 0;
  for (int g = 0; g < channel.ics.num_window_groups; ++g) {
    for (int w = window; w < window + channel.ics.window_group_length[g]; ++w) {
      for (int b = 0; b < channel.ics.max_sfb; ++b) {
        const double gain = std::pow(2.0, (channel.scalefactor[g][b] - 100) / 4.0);
        for (int k = offsets[b]; k < offsets[b + 1]; ++k) {
          const int i = w * kShortWindowLength + k;
          const double q = channel.quant[i];
          x[i] = (q < 0 ? -1 : 1) * std::pow(std::fabs(q), 4.0 / 3.0) * gain;
        }
      }
    }
    window += channel.ics.window_group_length[g];
  }
  return x;
}

// Overlap-adds frame `index` of spectrum `x` into `out`.
void Synthesise(const std::vector<double>& x, WindowSequence sequence, int index,
                std::vector<double>* out) {
  const size_t base = static_cast<size_t>(index) * kFrameLength;
  if (out->size() < base + 2 * kFrameLength) out->resize(base + 2 * kFrameLength, 0.0);
  if (sequence != kEightShort) {
    const std::vector<double> y = InverseMdct(x.data(), kFrameLength);
    for (int n = 0; n < 2 * kFrameLength; ++n) (*out)[base + n] += y[n] * LongWindow(sequence, n);
    return;
  }
  for (int w = 0; w < kShortWindows; ++w) {
    const std::vector<double> y =
        InverseMdct(x.data() + w * kShortWindowLength, kShortWindowLength);
    for (int n = 0; n < 2 * kShortWindowLength; ++n) {
      (*out)[base + 448 + w * kShortWindowLength + n] += y[n] * ShortSine(n);
    }
  }
}

// The decoder's temporal noise shaping of `channel` on its dequantised (and M/S-decoded)
// spectrum, from the syntax's definition: per window the filters run from the top band
// down; a filter's coefficient i dequantises to sin(c / (c >= 0 ? iqfac : iqfac_m)) with
// iqfac = (2^(r-1) - 1/2) / (pi/2), iqfac_m = (2^(r-1) + 1/2) / (pi/2), r = coef_res + 3
// (compressed or not), the reflection coefficients become a direct-form predictor a[] by
// the step-up recursion, and y[n] = x[n] - sum_i a[i] y[n - i] runs over the lines of bands
// [min(bottom, B), min(top, B)), B = min(TNS_MAX_BANDS, max_sfb), upwards or downwards.
constexpr int kTnsMaxBandsLong48k = 40;
constexpr int kTnsMaxBandsShort48k = 14;

void InverseTns(const ChannelData& channel, std::vector<double>* x) {
  if (!channel.tns.present) return;
  const bool is_short = channel.ics.window_sequence == kEightShort;
  const uint16_t* offsets = is_short ? channel.layout->short_offsets : channel.layout->long_offsets;
  const int num_swb = is_short ? channel.layout->num_short_bands : channel.layout->num_long_bands;
  const int limit =
      std::min<int>(is_short ? kTnsMaxBandsShort48k : kTnsMaxBandsLong48k, channel.ics.max_sfb);
  for (int w = 0; w < (is_short ? kShortWindows : 1); ++w) {
    const TnsWindow& window = channel.tns.window[w];
    double* lines = x->data() + w * kShortWindowLength;
    int bottom = num_swb;
    for (int f = 0; f < window.n_filt; ++f) {
      const TnsFilter& filter = window.filter[f];
      const int top = bottom;
      bottom = std::max(top - filter.length, 0);
      if (filter.order == 0) continue;
      const double half = 1 << (window.coef_res + 3 - 1);
      std::vector<double> a(1, 1.0);
      for (int m = 1; m <= filter.order; ++m) {
        const int c = filter.coef[m - 1];
        const double k = std::sin(c / ((c >= 0 ? half - 0.5 : half + 0.5) / (M_PI / 2)));
        std::vector<double> next = a;
        next.push_back(k);
        for (int i = 1; i < m; ++i) next[i] = a[i] + k * a[m - i];
        a = next;
      }
      const int start = offsets[std::min(bottom, limit)];
      const int end = offsets[std::min(top, limit)];
      for (int step = 0; step < end - start; ++step) {
        const int n = filter.direction ? end - 1 - step : start + step;
        const int back = filter.direction ? 1 : -1;  // Where the previous outputs lie.
        for (int i = 1; i <= filter.order && i <= step; ++i) lines[n] -= a[i] * lines[n + back * i];
      }
    }
  }
}

// ----- Frames -----

struct Frame {
  ChannelData channel[2];
  bool use_ms = false;
  uint8_t ms_used[kShortWindows][kMaxBands] = {};
  int fill_bits = 0;  // A fill element before ID_END.
};

void SetWindow(ChannelData* channel, WindowSequence sequence, std::vector<int> groups) {
  channel->layout = BandLayoutForSampleRate(kRate);
  channel->ics.window_sequence = sequence;
  channel->num_bands =
      sequence == kEightShort ? channel->layout->num_short_bands : channel->layout->num_long_bands;
  if (sequence != kEightShort) groups = {1};
  channel->ics.num_window_groups = static_cast<uint8_t>(groups.size());
  for (size_t g = 0; g < groups.size(); ++g) {
    channel->ics.window_group_length[g] = static_cast<uint8_t>(groups[g]);
  }
}

// Mostly small values falling off towards high lines, the occasional large one, and
// scalefactors wandering around 100.
void FillRealistic(ChannelData* channel, std::mt19937* random) {
  std::normal_distribution<double> normal(0.0, 1.0);
  std::uniform_int_distribution<int> step(-3, 3);
  const bool is_short = channel->ics.window_sequence == kEightShort;
  const int length = is_short ? kShortWindowLength : kFrameLength;
  for (int i = 0; i < kFrameLength; ++i) {
    const int k = i % length;
    const double envelope = 12.0 * std::exp(-3.0 * k / length);
    double v = normal(*random) * envelope;
    if ((*random)() % 97 == 0) v *= 30;
    channel->quant[i] = static_cast<int32_t>(std::lround(std::clamp(v, -8191.0, 8191.0)));
  }
  int sf = 90;
  for (auto& group : channel->scalefactor) {
    for (auto& value : group)
      value = static_cast<int16_t>(sf = std::clamp(sf + step(*random), 70, 110));
  }
}

// Writes `frame` as one raw_data_block, checking that `expected_bits` (what Prepare* or
// *Bits returned) is exactly what the element takes.
std::vector<uint8_t> WriteFrame(const Frame& frame, int channels, int expected_bits) {
  std::vector<uint8_t> bytes(8192);
  BitWriter writer(bytes.data(), bytes.size());
  const uint8_t(*ms)[kMaxBands] = frame.use_ms ? frame.ms_used : nullptr;
  if (channels == 1) {
    WriteSingleChannelElement(&writer, frame.channel[0]);
  } else {
    WriteChannelPairElement(&writer, frame.channel[0], frame.channel[1], ms);
  }
  EXPECT_EQ(writer.bit_count(), static_cast<size_t>(kElementHeaderBits + expected_bits));
  if (frame.fill_bits > 0) {
    const size_t before = writer.bit_count();
    const int filled = WriteFillElement(&writer, frame.fill_bits);
    EXPECT_EQ(writer.bit_count() - before, static_cast<size_t>(filled));
    EXPECT_LE(filled, frame.fill_bits);
    EXPECT_GT(filled, frame.fill_bits - 8 * 2);
  }
  WriteEnd(&writer);
  EXPECT_FALSE(writer.overflowed());
  bytes.resize(writer.byte_count());
  return bytes;
}

// Writes and decodes `frames` (as raw blocks with an AudioSpecificConfig, or as ADTS) and
// compares each channel with the reference synthesis.
// `tolerance`: of the decoder's output against the reference, relative to the peak (and of
// the fitted scale); sharp TNS filters amplify the float rounding of libavcodec's own.
void ExpectDecodesToReference(const std::vector<Frame>& frames, int channels, bool adts,
                              double tolerance = 2e-6) {
  const int index = SamplingFrequencyIndex(kRate);
  std::vector<std::vector<uint8_t>> units;
  std::vector<std::vector<double>> reference(static_cast<size_t>(channels));
  for (size_t f = 0; f < frames.size(); ++f) {
    const Frame& frame = frames[f];
    const uint8_t(*ms)[kMaxBands] = frame.use_ms ? frame.ms_used : nullptr;
    const int bits = channels == 1 ? ChannelBits(frame.channel[0])
                                   : ChannelPairBits(frame.channel[0], frame.channel[1], ms);
    ASSERT_LT(bits, kNoFit);
    std::vector<uint8_t> bytes = WriteFrame(frame, channels, bits);
    if (adts) {
      std::vector<uint8_t> packet(kAdtsHeaderBytes);
      WriteAdtsHeader(packet.data(), index, channels, static_cast<int>(bytes.size()), 0x123);
      // The fields as a reader sees them: frame length and buffer fullness.
      const int length = (packet[3] & 3) << 11 | packet[4] << 3 | packet[5] >> 5;
      const int fullness = (packet[5] & 0x1F) << 6 | packet[6] >> 2;
      EXPECT_EQ(length, static_cast<int>(bytes.size()) + kAdtsHeaderBytes);
      EXPECT_EQ(fullness, 0x123);
      packet.insert(packet.end(), bytes.begin(), bytes.end());
      bytes = packet;
    }
    units.push_back(bytes);

    std::vector<double> x[2];
    for (int c = 0; c < channels; ++c) x[c] = Dequantise(frame.channel[c]);
    if (ms != nullptr) {
      const ChannelData& left = frame.channel[0];
      const bool is_short = left.ics.window_sequence == kEightShort;
      const uint16_t* offsets = is_short ? left.layout->short_offsets : left.layout->long_offsets;
      int window = 0;
      for (int g = 0; g < left.ics.num_window_groups; ++g) {
        for (int w = window; w < window + left.ics.window_group_length[g]; ++w) {
          for (int b = 0; b < left.ics.max_sfb; ++b) {
            if (!ms[g][b]) continue;
            for (int k = offsets[b]; k < offsets[b + 1]; ++k) {
              const int i = w * kShortWindowLength + k;
              const double m = x[0][i];
              const double s = x[1][i];
              x[0][i] = m + s;
              x[1][i] = m - s;
            }
          }
        }
        window += left.ics.window_group_length[g];
      }
    }
    for (int c = 0; c < channels; ++c) {
      InverseTns(frame.channel[c], &x[c]);
      Synthesise(x[c], frame.channel[c].ics.window_sequence, static_cast<int>(f), &reference[c]);
    }
  }
  const std::vector<std::vector<float>> pcm = DecodePerChannel(units, channels, !adts);
  for (int c = 0; c < channels; ++c) {
    ASSERT_EQ(pcm[c].size(), frames.size() * kFrameLength);
    double peak = 0;
    double cross = 0;
    double energy = 0;
    for (size_t i = 0; i < pcm[c].size(); ++i) {
      peak = std::max(peak, std::fabs(reference[c][i]));
      cross += pcm[c][i] * reference[c][i];
      energy += reference[c][i] * reference[c][i];
    }
    ASSERT_GT(peak, 0.0);
    // The scale relation itself, fitted over the whole stream.
    EXPECT_NEAR(cross / energy / kOutputScale, 1.0, tolerance / 2);
    double worst = 0;
    size_t worst_at = 0;
    for (size_t i = 0; i < pcm[c].size(); ++i) {
      const double error = std::fabs(pcm[c][i] - reference[c][i] * kOutputScale);
      if (error > worst) {
        worst = error;
        worst_at = i;
      }
    }
    EXPECT_LT(worst, tolerance * peak * kOutputScale)
        << "channel " << c << " sample " << worst_at << " frame " << worst_at / kFrameLength;
  }
}

// Values carrying every tuple index of `codebook`: signed books once, unsigned ones with
// all signs positive, all negative and alternating; escape symbols of codebook 11 cycle
// through magnitudes from 16 to 8191, covering every escape length.
std::vector<int32_t> EverySymbol(int codebook) {
  const SpectralCodebook& book = kSpectralCodebooks[codebook];
  static const int kEscapes[] = {16,  17,  31,   32,   63,   64,   127,  128,  255, 256,
                                 511, 512, 1023, 1024, 2047, 2048, 4095, 4096, 8191};
  std::vector<int32_t> values;
  size_t escape = 0;
  const int sign_patterns = book.is_signed ? 1 : 3;
  for (int pattern = 0; pattern < sign_patterns; ++pattern) {
    for (int index = 0; index < book.size; ++index) {
      int digits[4];
      int rest = index;
      for (int i = book.dimension - 1; i >= 0; --i, rest /= book.modulus) {
        digits[i] = rest % book.modulus;
      }
      for (int i = 0; i < book.dimension; ++i) {
        int v = book.is_signed ? digits[i] - book.largest : digits[i];
        if (codebook == kEscapeCodebook && v == 16) {
          v = kEscapes[escape++ % (sizeof(kEscapes) / sizeof(kEscapes[0]))];
        }
        const bool negative = pattern == 1 || (pattern == 2 && (values.size() % 2) == 1);
        values.push_back(negative ? -v : v);
      }
    }
  }
  return values;
}

TEST(AacTablesTest, CodebooksAreCompletePrefixCodesAndLayoutsAreWellFormed) {
  auto check = [](const HuffmanCode* codes, int size, const char* name) {
    // Kraft sum exactly 1 in units of 2^-19, and no codeword a prefix of another.
    uint64_t kraft = 0;
    for (int i = 0; i < size; ++i) {
      ASSERT_GE(codes[i].length, 1) << name;
      ASSERT_LE(codes[i].length, 19) << name;
      ASSERT_LT(codes[i].codeword, 1u << codes[i].length) << name << " " << i;
      kraft += uint64_t{1} << (19 - codes[i].length);
    }
    EXPECT_EQ(kraft, uint64_t{1} << 19) << name;
    for (int i = 0; i < size; ++i) {
      for (int j = 0; j < size; ++j) {
        if (i == j || codes[i].length > codes[j].length) continue;
        EXPECT_NE(codes[j].codeword >> (codes[j].length - codes[i].length), codes[i].codeword)
            << name << ": " << i << " prefixes " << j;
      }
    }
  };
  for (int cb = 1; cb <= kEscapeCodebook; ++cb) {
    const SpectralCodebook& book = kSpectralCodebooks[cb];
    int expected_size = 1;
    for (int i = 0; i < book.dimension; ++i) expected_size *= book.modulus;
    EXPECT_EQ(book.size, expected_size);
    check(book.codes, book.size, ("spectral " + std::to_string(cb)).c_str());
  }
  check(kScalefactorCodes, kScalefactorCodeCount, "scalefactor");
  EXPECT_EQ(kScalefactorCodes[kScalefactorIndexOffset].length, 1);

  const int kBands[][2] = {{41, 12}, {41, 12}, {47, 12}, {49, 14}, {49, 14}, {51, 14}, {47, 15},
                           {47, 15}, {43, 15}, {43, 15}, {43, 15}, {40, 15}, {40, 15}};
  for (int i = 0; i < kSamplingFrequencyCount; ++i) {
    EXPECT_EQ(SamplingFrequencyIndex(kSamplingFrequencies[i]), i);
    const BandLayout* layout = BandLayoutForSampleRate(kSamplingFrequencies[i]);
    ASSERT_NE(layout, nullptr);
    EXPECT_EQ(layout->num_long_bands, kBands[i][0]);
    EXPECT_EQ(layout->num_short_bands, kBands[i][1]);
    EXPECT_EQ(layout->long_offsets[0], 0);
    EXPECT_EQ(layout->long_offsets[layout->num_long_bands], kFrameLength);
    EXPECT_EQ(layout->short_offsets[layout->num_short_bands], kShortWindowLength);
    for (int b = 0; b < layout->num_long_bands; ++b) {
      EXPECT_EQ(layout->long_offsets[b] % 4, 0);
      EXPECT_LT(layout->long_offsets[b], layout->long_offsets[b + 1]);
    }
    for (int b = 0; b < layout->num_short_bands; ++b) {
      EXPECT_EQ(layout->short_offsets[b] % 4, 0);
      EXPECT_LT(layout->short_offsets[b], layout->short_offsets[b + 1]);
    }
  }
  EXPECT_EQ(SamplingFrequencyIndex(44000), -1);
  EXPECT_EQ(BandLayoutForSampleRate(44000), nullptr);
}

TEST(AacSyntaxTest, EverySymbolOfEveryCodebookDecodes) {
  for (int cb = 1; cb <= kEscapeCodebook; ++cb) {
    SCOPED_TRACE(cb);
    const std::vector<int32_t> symbols = EverySymbol(cb);
    std::vector<Frame> frames((symbols.size() + kFrameLength - 1) / kFrameLength + 1);
    for (size_t f = 0; f < frames.size(); ++f) {
      ChannelData& channel = frames[f].channel[0];
      SetWindow(&channel, kOnlyLong, {});
      for (int i = 0; i < kFrameLength; ++i) {
        const size_t at = f * kFrameLength + static_cast<size_t>(i);
        channel.quant[i] = at < symbols.size() ? symbols[at] : 0;
      }
      // Gains that keep the escape values and the small ones at comparable levels.
      for (int b = 0; b < kMaxBands; ++b) {
        channel.scalefactor[0][b] =
            static_cast<int16_t>((cb == kEscapeCodebook ? 60 : 110) + b % 5);
      }
      ASSERT_LT(PrepareChannel(&channel), kNoFit);
      // Every band, all-zero ones too, in the codebook under test.
      for (int b = 0; b < channel.ics.max_sfb; ++b)
        channel.codebook[0][b] = static_cast<uint8_t>(cb);
    }
    ExpectDecodesToReference(frames, 1, false);
  }
}

TEST(AacSyntaxTest, PreparedShortAndTransitionWindowsDecodeRawAndAsAdts) {
  std::mt19937 random(7);
  const struct {
    WindowSequence sequence;
    std::vector<int> groups;
    int fill_bits;
  } kPlan[] = {
      {kOnlyLong, {}, 0},
      {kLongStart, {}, 7},
      {kEightShort, {3, 1, 4}, 100},
      {kEightShort, {1, 1, 1, 1, 1, 1, 1, 1}, 130},
      {kEightShort, {8}, 0},
      {kLongStop, {}, 3000},
      {kOnlyLong, {}, 0},
  };
  std::vector<Frame> frames(sizeof(kPlan) / sizeof(kPlan[0]));
  for (size_t f = 0; f < frames.size(); ++f) {
    ChannelData& channel = frames[f].channel[0];
    SetWindow(&channel, kPlan[f].sequence, kPlan[f].groups);
    FillRealistic(&channel, &random);
    frames[f].fill_bits = kPlan[f].fill_bits;
    const int bits = PrepareChannel(&channel);
    ASSERT_LT(bits, kNoFit);
    // What Prepare counted is what the codebooks it chose take, and what is written.
    EXPECT_EQ(ChannelBits(channel), bits);
    std::vector<uint8_t> written = WriteFrame(frames[f], 1, bits);
    EXPECT_FALSE(written.empty());
  }
  ExpectDecodesToReference(frames, 1, false);
  ExpectDecodesToReference(frames, 1, true);
}

TEST(AacSyntaxTest, ChannelPairWithMidSideDecodes) {
  std::mt19937 random(11);
  const struct {
    WindowSequence sequence;
    std::vector<int> groups;
    int ms;  // 0 none, 1 every third band, 2 all bands.
    bool right_silent;
  } kPlan[] = {
      {kOnlyLong, {}, 1, false},       {kOnlyLong, {}, 2, true},
      {kLongStart, {}, 0, false},      {kEightShort, {3, 1, 4}, 1, false},
      {kEightShort, {2, 6}, 2, false}, {kLongStop, {}, 1, true},
      {kOnlyLong, {}, 1, false},
  };
  std::vector<Frame> frames(sizeof(kPlan) / sizeof(kPlan[0]));
  for (size_t f = 0; f < frames.size(); ++f) {
    Frame& frame = frames[f];
    for (ChannelData& channel : frame.channel) {
      SetWindow(&channel, kPlan[f].sequence, kPlan[f].groups);
      FillRealistic(&channel, &random);
    }
    if (kPlan[f].right_silent)
      std::fill(std::begin(frame.channel[1].quant), std::end(frame.channel[1].quant), 0);
    // Give the left channel fewer bands, so the pair must widen its max_sfb.
    const int cut = frame.channel[0].ics.window_sequence == kEightShort ? 96 : 800;
    for (int i = 0; i < kFrameLength; ++i) {
      if (i % (kPlan[f].sequence == kEightShort ? kShortWindowLength : kFrameLength) >= cut) {
        frame.channel[0].quant[i] = 0;
      }
    }
    frame.use_ms = kPlan[f].ms != 0;
    for (int g = 0; g < kShortWindows; ++g) {
      for (int b = 0; b < kMaxBands; ++b) frame.ms_used[g][b] = kPlan[f].ms == 2 || b % 3 == g % 2;
    }
    const uint8_t(*ms)[kMaxBands] = frame.use_ms ? frame.ms_used : nullptr;
    const int bits = PrepareChannelPair(&frame.channel[0], &frame.channel[1], ms);
    ASSERT_LT(bits, kNoFit);
    EXPECT_EQ(frame.channel[0].ics.max_sfb, frame.channel[1].ics.max_sfb);
    EXPECT_EQ(ChannelPairBits(frame.channel[0], frame.channel[1], ms), bits);
    WriteFrame(frame, 2, bits);
  }
  ExpectDecodesToReference(frames, 2, false);
}

TEST(AacSyntaxTest, CountsAndSectionsAgainstSimpleChoicesAndLimits) {
  std::mt19937 random(3);
  for (int trial = 0; trial < 40; ++trial) {
    ChannelData channel{};
    SetWindow(&channel, trial % 4 == 3 ? kEightShort : kOnlyLong,
              trial % 8 == 3 ? std::vector<int>{3, 1, 4} : std::vector<int>{2, 2, 2, 2});
    FillRealistic(&channel, &random);
    const int bits = PrepareChannel(&channel);
    ASSERT_LT(bits, kNoFit);
    ASSERT_EQ(ChannelBits(channel), bits);
    // The optimum is no worse than each band in its own smallest fitting codebook, nor than
    // every band in codebook 11.
    ChannelData simple = channel;
    ChannelData escape = channel;
    const int groups = channel.ics.num_window_groups;
    int window = 0;
    for (int g = 0; g < groups; ++g) {
      for (int b = 0; b < channel.ics.max_sfb; ++b) {
        const uint16_t* offsets = channel.ics.window_sequence == kEightShort
                                      ? channel.layout->short_offsets
                                      : channel.layout->long_offsets;
        int peak = 0;
        for (int w = window; w < window + channel.ics.window_group_length[g]; ++w) {
          for (int k = offsets[b]; k < offsets[b + 1]; ++k) {
            peak = std::max(peak, std::abs(channel.quant[w * kShortWindowLength + k]));
          }
        }
        int smallest = 0;
        if (peak > 0) {
          smallest = 1;
          while (smallest < kEscapeCodebook && kSpectralCodebooks[smallest].largest < peak)
            ++smallest;
        }
        simple.codebook[g][b] = static_cast<uint8_t>(smallest);
        escape.codebook[g][b] = kEscapeCodebook;
      }
      window += channel.ics.window_group_length[g];
    }
    EXPECT_LE(bits, ChannelBits(simple));
    EXPECT_LE(bits, ChannelBits(escape));
  }

  // Limits: a scalefactor jump over 60 between coded bands, a scalefactor out of 0..255, a
  // value over 8191, and a codebook too small for its band.
  ChannelData channel{};
  SetWindow(&channel, kOnlyLong, {});
  for (auto& v : channel.scalefactor[0]) v = 100;
  channel.quant[0] = 1;
  channel.quant[40] = 1;
  ASSERT_LT(PrepareChannel(&channel), kNoFit);
  channel.scalefactor[0][10] = 161;  // Band 10 holds line 40 at 48 kHz.
  EXPECT_EQ(PrepareChannel(&channel), kNoFit);
  channel.scalefactor[0][10] = 160;
  EXPECT_LT(PrepareChannel(&channel), kNoFit);
  channel.scalefactor[0][0] = 256;
  EXPECT_EQ(PrepareChannel(&channel), kNoFit);
  channel.scalefactor[0][0] = 100;
  channel.quant[8] = 8192;
  EXPECT_EQ(PrepareChannel(&channel), kNoFit);
  channel.quant[8] = 8191;
  ASSERT_LT(PrepareChannel(&channel), kNoFit);
  EXPECT_EQ(channel.codebook[0][2], kEscapeCodebook);
  channel.codebook[0][2] = 10;
  EXPECT_EQ(ChannelBits(channel), kNoFit);
  const int32_t kTuple[4] = {2, 0, -1, 0};
  EXPECT_EQ(SpectralBits(kTuple, 4, 1), kNoFit);
  EXPECT_EQ(SpectralBits(kTuple, 4, 3), kSpectralCodebooks[3].codes[2 * 27 + 3].length + 2);

  // An all-zero channel codes no band.
  ChannelData silent{};
  SetWindow(&silent, kOnlyLong, {});
  EXPECT_EQ(PrepareChannel(&silent), 8 + 11 + 3);
  EXPECT_EQ(silent.ics.max_sfb, 0);

  // The writer stops at its capacity.
  uint8_t small[4];
  BitWriter writer(small, sizeof(small));
  writer.Put(0x5, 3);
  writer.Put(0x1FFFFFFF, 29);
  EXPECT_FALSE(writer.overflowed());
  EXPECT_EQ(small[0], 0xBF);
  writer.Put(1, 1);
  EXPECT_TRUE(writer.overflowed());
  EXPECT_EQ(writer.bit_count(), 32u);
}

TEST(AacSyntaxTest, ForwardTransformAtPcmScaleRoundTripsThroughTheDecoder) {
  // Two tones at -6 and -12 dBFS, long windows, one fine scalefactor for every band.
  constexpr int kFrames = 5;
  constexpr int kScalefactor = 130;
  std::vector<double> pcm((kFrames + 1) * kFrameLength, 0.0);  // One frame of zeros first.
  for (size_t i = kFrameLength; i < pcm.size(); ++i) {
    const double t = static_cast<double>(i) / kRate;
    pcm[i] = 0.5 * std::sin(2 * M_PI * 1000 * t) + 0.25 * std::sin(2 * M_PI * 5000 * t);
  }
  std::vector<double> window(2 * kFrameLength);
  for (int n = 0; n < 2 * kFrameLength; ++n) window[n] = LongSine(n);
  std::vector<std::vector<uint8_t>> units;
  const double step = std::pow(2.0, (kScalefactor - 100) / 4.0);
  for (int f = 0; f < kFrames; ++f) {
    // Frame f covers pcm[f * 1024, f * 1024 + 2048) and completes its first half.
    std::vector<double> block(pcm.begin() + f * kFrameLength,
                              pcm.begin() + f * kFrameLength + 2 * kFrameLength);
    for (double& v : block) v *= 32768;
    const std::vector<double> spectrum = ForwardMdct(block.data(), window.data(), 2 * kFrameLength);
    Frame frame;
    SetWindow(&frame.channel[0], kOnlyLong, {});
    for (int k = 0; k < kFrameLength; ++k) {
      const double q = std::pow(std::fabs(spectrum[k]) / step, 0.75);
      frame.channel[0].quant[k] =
          static_cast<int32_t>(std::lround(std::min(q, 8191.0))) * (spectrum[k] < 0 ? -1 : 1);
    }
    for (auto& v : frame.channel[0].scalefactor[0]) v = kScalefactor;
    const int bits = PrepareChannel(&frame.channel[0]);
    ASSERT_LT(bits, kNoFit);
    units.push_back(WriteFrame(frame, 1, bits));
  }
  const std::vector<std::vector<float>> decoded = DecodePerChannel(units, 1, /*raw=*/true);
  ASSERT_EQ(decoded[0].size(), static_cast<size_t>(kFrames * kFrameLength));
  // Output frame f is pcm[f * 1024, (f + 1) * 1024); frame 0 lacks its overlap partner.
  double worst = 0;
  for (size_t i = kFrameLength; i < decoded[0].size(); ++i) {
    worst = std::max(worst, std::fabs(decoded[0][i] - pcm[i]));
  }
  EXPECT_LT(worst, 1e-3);
}

// A filter for hand-made tns_data(): `order` 4-bit (or, with `coef_res` 0, 3-bit)
// coefficients cycling through `pattern`.
TnsFilter MakeFilter(int length, int order, int direction, int compress, std::vector<int> pattern) {
  TnsFilter filter;
  filter.length = static_cast<uint8_t>(length);
  filter.order = static_cast<uint8_t>(order);
  filter.direction = static_cast<uint8_t>(direction);
  filter.coef_compress = static_cast<uint8_t>(compress);
  for (int i = 0; i < order; ++i) filter.coef[i] = static_cast<int8_t>(pattern[i % pattern.size()]);
  return filter;
}

TEST(AacSyntaxTest, TnsDataIsCountedWrittenAndUndoneByTheDecoder) {
  std::mt19937 random(17);
  // Long windows: three filters from the top (49 bands at 48 kHz) down; the first leaves
  // its bands alone, the second runs downwards with full-width coefficients and is cut at
  // TNS_MAX_BANDS (40), the third upwards with compressed ones. Then the same with
  // max_sfb cutting into the filters.
  TnsData three;
  three.present = true;
  three.window[0].n_filt = 3;
  three.window[0].coef_res = 1;
  three.window[0].filter[0] = MakeFilter(5, 0, 0, 0, {0});
  three.window[0].filter[1] = MakeFilter(10, 5, 1, 0, {-2, 1, 2, -1, 1});
  three.window[0].filter[2] = MakeFilter(20, 12, 0, 1, {3, -4, 2, -1, 1, 0});
  // Short windows: a filter in some windows only, 3-bit coefficients, both directions.
  TnsData shorts;
  shorts.present = true;
  for (int w = 0; w < kShortWindows; ++w) {
    TnsWindow& window = shorts.window[w];
    window.coef_res = 0;
    window.n_filt = w % 3 == 1 ? 0 : 1;
    window.filter[0] =
        MakeFilter(8 + w % 4, 1 + w % 7, w % 2, w % 4 == 0 ? 1 : 0,
                   w % 4 == 0 ? std::vector<int>{-1, 1} : std::vector<int>{1, -1, -1});
  }
  const struct {
    WindowSequence sequence;
    std::vector<int> groups;
    const TnsData* tns;
    int cut;  // Lines from here on zero (max_sfb below the filters' top).
  } kPlan[] = {
      {kOnlyLong, {}, &three, kFrameLength},  {kLongStart, {}, nullptr, kFrameLength},
      {kEightShort, {3, 1, 4}, &shorts, 128}, {kEightShort, {2, 6}, &shorts, 60},
      {kLongStop, {}, &three, 400},           {kOnlyLong, {}, &three, kFrameLength},
  };
  std::vector<Frame> frames(sizeof(kPlan) / sizeof(kPlan[0]));
  std::vector<Frame> pairs(frames.size());
  for (size_t f = 0; f < frames.size(); ++f) {
    const int length = kPlan[f].sequence == kEightShort ? kShortWindowLength : kFrameLength;
    ChannelData& channel = frames[f].channel[0];
    SetWindow(&channel, kPlan[f].sequence, kPlan[f].groups);
    FillRealistic(&channel, &random);
    for (int i = 0; i < kFrameLength; ++i) {
      if (i % length >= kPlan[f].cut) channel.quant[i] = 0;
    }
    if (kPlan[f].tns != nullptr) channel.tns = *kPlan[f].tns;
    const int bits = PrepareChannel(&channel);
    ASSERT_LT(bits, kNoFit);
    EXPECT_EQ(ChannelBits(channel), bits);
    WriteFrame(frames[f], 1, bits);

    // The pair: TNS on the left channel only, M/S on every other band (a decoder undoes
    // M/S first, then TNS per channel).
    Frame& pair = pairs[f];
    pair.channel[0] = channel;
    pair.channel[1] = channel;
    pair.channel[1].tns.present = false;
    FillRealistic(&pair.channel[1], &random);
    pair.use_ms = true;
    for (int g = 0; g < kShortWindows; ++g) {
      for (int b = 0; b < kMaxBands; ++b) pair.ms_used[g][b] = b % 2;
    }
    const int pair_bits = PrepareChannelPair(&pair.channel[0], &pair.channel[1], pair.ms_used);
    ASSERT_LT(pair_bits, kNoFit);
    EXPECT_EQ(ChannelPairBits(pair.channel[0], pair.channel[1], pair.ms_used), pair_bits);
  }
  EXPECT_LT(frames[4].channel[0].ics.max_sfb, kTnsMaxBandsLong48k);
  ExpectDecodesToReference(frames, 1, false);
  ExpectDecodesToReference(pairs, 2, true);

  // The extreme coefficients of each width (two's complement edges), one to a filter: a
  // reflection coefficient near +-1 makes a filter that amplifies the float rounding of
  // the decoder (measured 3.5e-6 of the peak); a coefficient read wrongly would be off by
  // ~1e-1. The sequence stays valid (long, long, start, short).
  std::vector<Frame> sharp = {frames[0], frames[0], frames[1], frames[2]};
  sharp[0].channel[0].tns.window[0].filter[1] = MakeFilter(10, 5, 1, 0, {-8, 1, -1, 2, 1});
  sharp[1].channel[0].tns.window[0].filter[1] = MakeFilter(10, 5, 1, 0, {2, 7, -1, 0, 1});
  for (int w = 0; w < kShortWindows; ++w) {
    TnsFilter& filter = sharp[3].channel[0].tns.window[w].filter[0];
    const std::vector<int> pattern = filter.coef_compress ? std::vector<int>{-2, 1}
                                     : w % 2              ? std::vector<int>{3, -1, 1}
                                                          : std::vector<int>{-4, 1, 0};
    filter =
        MakeFilter(filter.length, filter.order, filter.direction, filter.coef_compress, pattern);
  }
  for (Frame& frame : sharp) ASSERT_LT(PrepareChannel(&frame.channel[0]), kNoFit);
  ExpectDecodesToReference(sharp, 1, false, 2e-5);

  // Fields the syntax cannot code make the counts fail instead of writing garbage.
  ChannelData channel{};
  SetWindow(&channel, kOnlyLong, {});
  FillRealistic(&channel, &random);
  const auto fails = [&channel](auto change) {
    ChannelData changed = channel;
    changed.tns = TnsData();
    changed.tns.present = true;
    changed.tns.window[0].n_filt = 1;
    changed.tns.window[0].filter[0] = MakeFilter(10, 4, 0, 0, {1});
    if (PrepareChannel(&changed) >= kNoFit) return false;  // The unchanged case fits.
    change(&changed);
    return PrepareChannel(&changed) == kNoFit && ChannelBits(changed) == kNoFit;
  };
  EXPECT_TRUE(fails([](ChannelData* c) { c->tns.window[0].filter[0].order = 13; }));
  EXPECT_TRUE(fails([](ChannelData* c) { c->tns.window[0].filter[0].length = 64; }));
  EXPECT_TRUE(fails([](ChannelData* c) { c->tns.window[0].n_filt = 4; }));
  EXPECT_TRUE(fails([](ChannelData* c) { c->tns.window[0].filter[0].coef[3] = 8; }));
  EXPECT_TRUE(fails([](ChannelData* c) {
    c->tns.window[0].filter[0].coef_compress = 1;
    c->tns.window[0].filter[0].coef[0] = 4;  // -4..3 with compression.
  }));
  EXPECT_TRUE(fails([](ChannelData* c) {
    c->tns.window[0].coef_res = 0;
    c->tns.window[0].filter[0].coef[0] = -5;  // -4..3 with 3-bit coefficients.
  }));
  EXPECT_TRUE(fails([](ChannelData* c) {
    SetWindow(c, kEightShort, {8});
    c->tns.window[2].n_filt = 2;
  }));
  EXPECT_TRUE(fails([](ChannelData* c) {
    SetWindow(c, kEightShort, {8});
    c->tns.window[0].filter[0].order = 8;
  }));
}

// ----- TNS on real spectra -----

// `pcm` (16-bit scale, a multiple of 1024 samples) coded in long windows with the
// reference forward transform, ApplyTns() when `tns`, and one scalefactor for every band;
// decoded with libavcodec. decoded[i] is the decoder's output for pcm[i] (the first block
// has no overlap partner); gain[f] is what ApplyTns() reported for frame f (1 without).
struct Coded {
  std::vector<float> decoded;
  std::vector<float> gain;
  int bits = 0;
};

Coded CodeLongWindows(const std::vector<double>& pcm, int scalefactor, bool tns) {
  const BandLayout* layout = BandLayoutForSampleRate(kRate);
  std::vector<double> window(2 * kFrameLength);
  for (int n = 0; n < 2 * kFrameLength; ++n) window[n] = LongSine(n);
  const double step = std::pow(2.0, (scalefactor - 100) / 4.0);
  const int frames = static_cast<int>(pcm.size()) / kFrameLength - 1;
  Coded coded;
  std::vector<std::shared_ptr<AudioFrame>> units;
  for (int f = 0; f < frames; ++f) {
    const std::vector<double> x =
        ForwardMdct(pcm.data() + f * kFrameLength, window.data(), 2 * kFrameLength);
    float spectrum[kFrameLength];
    for (int k = 0; k < kFrameLength; ++k) spectrum[k] = static_cast<float>(x[k]);
    Frame frame;
    ChannelData& channel = frame.channel[0];
    SetWindow(&channel, kOnlyLong, {});
    float gain = 1.0f;
    if (tns)
      ApplyTns(spectrum, kOnlyLong, *layout, kRate, layout->num_long_bands, &channel.tns, &gain);
    coded.gain.push_back(gain);
    for (int k = 0; k < kFrameLength; ++k) {
      const double q = std::pow(std::fabs(spectrum[k]) / step, 0.75);
      channel.quant[k] =
          static_cast<int32_t>(std::lround(std::min(q, 8191.0))) * (spectrum[k] < 0 ? -1 : 1);
    }
    for (auto& v : channel.scalefactor[0]) v = static_cast<int16_t>(scalefactor);
    const int bits = PrepareChannel(&channel);
    EXPECT_LT(bits, kNoFit);
    coded.bits += bits;
    const std::vector<uint8_t> bytes = WriteFrame(frame, 1, bits);
    auto unit = std::make_shared<AudioFrame>();
    unit->SetData(bytes.data(), bytes.size());
    units.push_back(unit);
  }
  const tarnel_test::DecodedAudio audio = tarnel_test::DecodeAac(units, kRate, 1, true);
  EXPECT_EQ(audio.errors, 0);
  EXPECT_EQ(audio.samples.size(), static_cast<size_t>(frames * kFrameLength));
  coded.decoded = audio.samples;
  return coded;
}

double Energy(const std::vector<float>& decoded, const std::vector<double>& pcm, int from, int to) {
  double sum = 0;
  for (int i = from; i < to; ++i) sum += (decoded[i] - pcm[i]) * (decoded[i] - pcm[i]);
  return sum;
}

TEST(TnsTest, AttackEarlyInALongWindowLosesItsPreEcho) {
  // 20 ms of silence, then a castanet-like click: a 3 kHz burst at -6 dBFS decaying with
  // 4 ms, 240 samples into a block, so that the two long windows holding it see it early
  // in a half (as the encoder's long windows do: later attacks get short windows).
  constexpr int kAttack = 2 * kFrameLength + 240;
  // Ahead of the attack, leaving out the 2 ms right before it, which the attack masks
  // (and where the all-pole envelope's skirt puts noise with TNS too).
  constexpr int kPreFrom = kAttack - 960;
  constexpr int kPreTo = kAttack - 96;
  std::vector<double> pcm(6 * kFrameLength, 0.0);
  for (int i = kAttack; i < static_cast<int>(pcm.size()); ++i) {
    const double t = static_cast<double>(i - kAttack) / kRate;
    pcm[i] = 16384 * std::exp(-t / 0.004) * std::sin(2 * M_PI * 3000 * t);
  }
  const int end = static_cast<int>(pcm.size()) - kFrameLength;

  // Fine steps: the decoder's filter undoes the encoder's, so only quantisation noise is
  // left (a filter that did not match would leave errors of the order of the signal).
  const Coded fine = CodeLongWindows(pcm, 120, true);
  EXPECT_GT(fine.gain[1], kTnsMinimumGain);
  EXPECT_GT(fine.gain[2], kTnsMinimumGain);
  const double signal = Energy(std::vector<float>(pcm.size(), 0.0f), pcm, kFrameLength, end);
  EXPECT_GT(signal / Energy(fine.decoded, pcm, kFrameLength, end), 1e5);  // 50 dB; 60 measured.

  // Coarse steps (about 33 dB SNR without TNS), the same with and without. The decoder's
  // filter multiplies the noise by the envelope it models, normalised to a geometric
  // mean of 1 over the window: the noise grows under the attack (by about the
  // prediction gain in all) and falls where the window is quiet. For a window loud over
  // about a quarter of its length and a gain G, the quiet part falls to about
  // (4G)^(-1/3): -7 dB at G = 40. Measured: 3.9 dB less ahead of the attack, 8 dB more
  // in all. Asserted: at least 3 dB less.
  constexpr int kCoarse = 150;
  const Coded plain = CodeLongWindows(pcm, kCoarse, false);
  const Coded shaped = CodeLongWindows(pcm, kCoarse, true);
  const double pre_plain = Energy(plain.decoded, pcm, kPreFrom, kPreTo);
  EXPECT_LT(Energy(shaped.decoded, pcm, kPreFrom, kPreTo), pre_plain / 2);

  // What the encoder gets from TNS: the prediction error costs fewer bits, which buy finer
  // steps. At no more bits than the plain coding, the noise ahead of the attack falls by
  // more than 10 dB and the whole signal's noise grows by less than 3 dB (measured: 14.7
  // dB less ahead, 1.6 dB more in all, 8 steps finer, 4649 against 4686 bits).
  int sf = kCoarse;
  Coded finer = shaped;
  while (sf > 120) {
    Coded next = CodeLongWindows(pcm, sf - 1, true);
    if (next.bits > plain.bits) break;
    finer = next;
    --sf;
  }
  EXPECT_LT(sf, kCoarse - 6);
  EXPECT_LT(Energy(finer.decoded, pcm, kPreFrom, kPreTo), pre_plain / 10);
  EXPECT_LT(Energy(finer.decoded, pcm, kFrameLength, end),
            2 * Energy(plain.decoded, pcm, kFrameLength, end));
}

TEST(TnsTest, FiltersOnlyTheWindowsAndBandsWhereItPays) {
  const BandLayout* layout = BandLayoutForSampleRate(kRate);
  std::mt19937 random(23);
  std::normal_distribution<double> normal(0.0, 100.0);
  // 2048 samples: noise, and from `onset` on a click 40 dB above it.
  const auto block = [&](int onset) {
    std::vector<double> pcm(2 * kFrameLength);
    for (int i = 0; i < 2 * kFrameLength; ++i) {
      const double t = static_cast<double>(i - onset) / kRate;
      pcm[i] = normal(random) +
               (i >= onset ? 1e4 * std::exp(-t / 0.004) * std::sin(2 * M_PI * 3000 * t) : 0.0);
    }
    return pcm;
  };
  std::vector<double> long_window(2 * kFrameLength);
  std::vector<double> short_window(2 * kShortWindowLength);
  for (int n = 0; n < 2 * kFrameLength; ++n) long_window[n] = LongSine(n);
  for (int n = 0; n < 2 * kShortWindowLength; ++n) short_window[n] = ShortSine(n);
  const auto long_spectrum = [&](const std::vector<double>& pcm) {
    const std::vector<double> x = ForwardMdct(pcm.data(), long_window.data(), 2 * kFrameLength);
    return std::vector<float>(x.begin(), x.end());
  };

  // Stationary noise: nothing pays, nothing changes.
  std::vector<float> noise = long_spectrum(block(2 * kFrameLength));
  const std::vector<float> noise_before = noise;
  TnsData tns;
  float gain[kShortWindows] = {0};
  EXPECT_FALSE(ApplyTns(noise.data(), kOnlyLong, *layout, kRate, 49, &tns, gain));
  EXPECT_FALSE(tns.present);
  EXPECT_EQ(gain[0], 1.0f);
  EXPECT_EQ(noise, noise_before);

  // A click early in the window, coded up to band 30: filtered from 1.5 kHz (band 13 at
  // line 64) to band 30, nothing outside.
  std::vector<float> click = long_spectrum(block(300));
  const std::vector<float> click_before = click;
  ASSERT_TRUE(ApplyTns(click.data(), kOnlyLong, *layout, kRate, 30, &tns, gain));
  EXPECT_GT(gain[0], kTnsMinimumGain);
  ASSERT_EQ(tns.window[0].n_filt, 1);
  EXPECT_EQ(tns.window[0].filter[0].length, layout->num_long_bands - 13);
  EXPECT_LE(tns.window[0].filter[0].order, kMaxTnsOrderLong);
  EXPECT_EQ(layout->long_offsets[13], 64);
  for (int k = 0; k < kFrameLength; ++k) {
    if (k < 64 || k >= layout->long_offsets[30]) {
      ASSERT_EQ(click[k], click_before[k]) << k;
    }
  }
  // An upward filter leaves the first line of its range as it is, and changes the next.
  EXPECT_NE(click[65], click_before[65]);

  // Eight short windows over the frame's middle; the click starts in window 5 (the first
  // to hold it), its decay goes on into windows 6 and 7.
  const std::vector<double> pcm = block(448 + 5 * kShortWindowLength + 160);
  std::vector<float> shorts(kFrameLength);
  for (int w = 0; w < kShortWindows; ++w) {
    const std::vector<double> x =
        ForwardMdct(pcm.data() + 448 + w * kShortWindowLength, short_window.data(), 256);
    std::copy(x.begin(), x.end(), shorts.begin() + w * kShortWindowLength);
  }
  ASSERT_TRUE(ApplyTns(shorts.data(), kEightShort, *layout, kRate, 14, &tns, gain));
  for (int w = 0; w <= 5; ++w) {
    EXPECT_EQ(tns.window[w].n_filt, w == 5 ? 1 : 0) << w;
    EXPECT_EQ(gain[w] > 1.0f, w == 5) << w;
  }
  EXPECT_LE(tns.window[5].filter[0].order, kMaxTnsOrderShort);
  // What ApplyTns chose is what the syntax codes.
  ChannelData channel{};
  SetWindow(&channel, kEightShort, {5, 3});
  channel.tns = tns;
  EXPECT_LT(PrepareChannel(&channel), kNoFit);
}

}  // namespace
}  // namespace aac
}  // namespace audio
}  // namespace tarnel
