#include "sdk/media/aac/tns.h"

#include <algorithm>
#include <cmath>

namespace tarnel {
namespace audio {
namespace aac {

namespace {

constexpr double kPi = 3.14159265358979323846;

// TNS_MAX_BANDS of AAC-LC per sampling-frequency index (96000 ... 7350).
constexpr uint8_t kMaxBandsLong[13] = {31, 31, 34, 40, 42, 51, 46, 46, 42, 42, 42, 39, 39};
constexpr uint8_t kMaxBandsShort[13] = {9, 9, 10, 14, 14, 14, 14, 14, 14, 14, 14, 14, 14};

// The filters use 4-bit coefficients: the arcsine of a reflection coefficient on a grid
// of (8 - 1/2) steps over [0, pi/2] and (8 + 1/2) steps over [-pi/2, 0].
constexpr int kCoefRes = 1;
constexpr int kCoefBits = 3 + kCoefRes;
constexpr int kLowestIndex = -(1 << (kCoefBits - 1));
constexpr int kHighestIndex = -kLowestIndex - 1;
// With every index within the range of one bit less, coef_compress saves a bit each.
constexpr int kCompressedLowest = kLowestIndex / 2;
constexpr int kCompressedHighest = kHighestIndex / 2;

// Bands whose energy per line is this far under the mean of the filtered range weigh as
// if they were at this level: the normalisation must not turn near-silent bands into
// noise that dominates the fit.
constexpr float kWeightFloor = 1e-3f;
// A Gaussian lag window on the autocorrelation: it smooths the envelope the filter can
// follow (a filter of order 12 sharpens an attack to a few milliseconds at most anyway)
// and keeps the normal equations well conditioned.
constexpr double kLagWindowWidth = 0.02;
// Partial sums of the autocorrelation.
constexpr int kLanes = 8;

struct Constants {
  double positive_step;  // Index per radian of arcsine, for coefficients >= 0.
  double negative_step;
  float lag_window[kMaxTnsOrderLong + 1];
  // The reflection coefficient each index dequantises to.
  double dequantised[kHighestIndex - kLowestIndex + 1];

  Constants() {
    positive_step = ((1 << (kCoefBits - 1)) - 0.5) / (kPi / 2);
    negative_step = ((1 << (kCoefBits - 1)) + 0.5) / (kPi / 2);
    for (int i = 0; i <= kMaxTnsOrderLong; ++i) {
      lag_window[i] =
          static_cast<float>(std::exp(-0.5 * (kLagWindowWidth * i) * (kLagWindowWidth * i)));
    }
    for (int index = kLowestIndex; index <= kHighestIndex; ++index) {
      dequantised[index - kLowestIndex] =
          std::sin(index / (index >= 0 ? positive_step : negative_step));
    }
  }
};

const Constants& Tables() {
  static const Constants constants;
  return constants;
}

// One window's analysis and filtering; returns the prediction gain of the filter it
// applied, 1 for none. `lines` is the window's spectrum, bands [first_band, top_band) of
// `offsets` the range; `scratch` holds at least offsets[top_band] + kLanes +
// kMaxTnsOrderLong values.
float FilterWindow(float* lines, const uint16_t* offsets, int first_band, int top_band,
                   int num_bands, int max_order, float* scratch, TnsWindow* out) {
  out->n_filt = 0;
  const int start = offsets[first_band];
  const int end = offsets[top_band];
  if (top_band <= first_band || end - start < 4 * max_order) return 1.0f;

  // Band-normalised copy of the range, zero past its end for the lags.
  float band_energy[kMaxBands];
  float total = 0.0f;
  for (int b = first_band; b < top_band; ++b) {
    // Band edges are multiples of 4: four independent sums.
    float part[4] = {};
    for (int k = offsets[b]; k < offsets[b + 1]; k += 4) {
      for (int j = 0; j < 4; ++j) part[j] += lines[k + j] * lines[k + j];
    }
    const float sum = (part[0] + part[1]) + (part[2] + part[3]);
    band_energy[b] = sum;
    total += sum;
  }
  if (!(total > 0.0f)) return 1.0f;
  const float floor = kWeightFloor * total / static_cast<float>(end - start);
  float* y = scratch;
  for (int b = first_band; b < top_band; ++b) {
    const float per_line = band_energy[b] / static_cast<float>(offsets[b + 1] - offsets[b]);
    const float weight = 1.0f / std::sqrt(std::max(per_line, floor));
    for (int k = offsets[b]; k < offsets[b + 1]; ++k) y[k - start] = lines[k] * weight;
  }
  const int count = end - start;
  // Zeros past the range: the lags read up to max_order beyond it, the blocks of 8 up to
  // 7 more.
  std::fill(y + count, y + count + kLanes + kMaxTnsOrderLong, 0.0f);

  // Autocorrelation, each lag summed in kLanes independent partial sums that the
  // compiler keeps in one vector register.
  double r[kMaxTnsOrderLong + 1];
  for (int i = 0; i <= max_order; ++i) {
    float part[kLanes] = {};
    for (int n = 0; n < count; n += kLanes) {
      for (int j = 0; j < kLanes; ++j) part[j] += y[n + j] * y[n + j + i];
    }
    double sum = 0.0;
    for (int j = 0; j < kLanes; ++j) sum += part[j];
    r[i] = sum;
  }
  if (!(r[0] > 0.0)) return 1.0f;

  // Levinson-Durbin on the lag-windowed autocorrelation, for the reflection coefficients.
  const Constants& t = Tables();
  double a[kMaxTnsOrderLong + 1] = {1.0};
  double reflection[kMaxTnsOrderLong] = {};
  double error = r[0];
  int order = 0;
  for (int m = 1; m <= max_order; ++m) {
    double sum = r[m] * t.lag_window[m];
    for (int i = 1; i < m; ++i) sum += a[i] * r[m - i] * t.lag_window[m - i];
    const double k = -sum / error;
    if (!(std::fabs(k) < 1.0)) break;
    double next[kMaxTnsOrderLong + 1];
    for (int i = 1; i < m; ++i) next[i] = a[i] + k * a[m - i];
    for (int i = 1; i < m; ++i) a[i] = next[i];
    a[m] = k;
    reflection[m - 1] = k;
    error *= 1.0 - k * k;
    order = m;
  }

  // Quantised as the syntax sends them; trailing zeros shorten the filter.
  int8_t index[kMaxTnsOrderLong] = {};
  int used = 0;
  for (int m = 0; m < order; ++m) {
    const double angle = std::asin(reflection[m]);
    const long q = std::lround(angle * (angle >= 0.0 ? t.positive_step : t.negative_step));
    index[m] = static_cast<int8_t>(std::clamp<long>(q, kLowestIndex, kHighestIndex));
    if (index[m] != 0) used = m + 1;
  }
  if (used == 0) return 1.0f;

  // The decoder's predictor from the dequantised coefficients, by the same recursion.
  double q[kMaxTnsOrderLong + 1] = {1.0};
  for (int m = 1; m <= used; ++m) {
    const double k = t.dequantised[index[m - 1] - kLowestIndex];
    double next[kMaxTnsOrderLong + 1];
    for (int i = 1; i < m; ++i) next[i] = q[i] + k * q[m - i];
    for (int i = 1; i < m; ++i) q[i] = next[i];
    q[m] = k;
  }
  // Prediction error energy of that filter on the normalised lines: q' R q.
  double residual = 0.0;
  for (int i = 0; i <= used; ++i) {
    double row = 0.0;
    for (int j = 0; j <= used; ++j) row += q[j] * r[std::abs(i - j)];
    residual += q[i] * row;
  }
  const double gain = residual > 0.0 ? r[0] / residual : 0.0;
  if (!(gain > kTnsMinimumGain)) return 1.0f;

  // e[n] = x[n] + sum_i q[i] x[n - i] over the range, nothing from below it: from a copy
  // of the range behind kMaxTnsOrderLong zeros, kLanes outputs at a time (independent
  // sums the compiler keeps in one vector register).
  float c[kMaxTnsOrderLong + 1];
  for (int i = 1; i <= used; ++i) c[i] = static_cast<float>(q[i]);
  float* x = scratch + kMaxTnsOrderLong;
  std::fill(scratch, x, 0.0f);
  std::copy(lines + start, lines + end, x);
  float* e = lines + start;
  int n = 0;
  for (; n + kLanes <= count; n += kLanes) {
    float sum[kLanes];
    for (int j = 0; j < kLanes; ++j) sum[j] = x[n + j];
    for (int i = 1; i <= used; ++i) {
      for (int j = 0; j < kLanes; ++j) sum[j] += c[i] * x[n + j - i];
    }
    for (int j = 0; j < kLanes; ++j) e[n + j] = sum[j];
  }
  for (; n < count; ++n) {
    float sum = x[n];
    for (int i = 1; i <= used; ++i) sum += c[i] * x[n - i];
    e[n] = sum;
  }

  bool compress = true;
  for (int m = 0; m < used; ++m) {
    compress = compress && index[m] >= kCompressedLowest && index[m] <= kCompressedHighest;
  }
  out->n_filt = 1;
  out->coef_res = kCoefRes;
  TnsFilter& filter = out->filter[0];
  filter.length = static_cast<uint8_t>(num_bands - first_band);
  filter.order = static_cast<uint8_t>(used);
  filter.direction = 0;
  filter.coef_compress = compress ? 1 : 0;
  std::copy(index, index + used, filter.coef);
  return static_cast<float>(gain);
}

}  // namespace

int TnsMaxBands(int sample_rate, bool is_short) {
  const int index = SamplingFrequencyIndex(sample_rate);
  if (index < 0) return 0;
  return is_short ? kMaxBandsShort[index] : kMaxBandsLong[index];
}

bool ApplyTns(float* spectrum, WindowSequence sequence, const BandLayout& layout, int sample_rate,
              int coded_bands, TnsData* data, float* window_gain) {
  const bool is_short = sequence == kEightShort;
  const int windows = is_short ? kShortWindows : 1;
  const int length = is_short ? kShortWindowLength : kFrameLength;
  const uint16_t* offsets = is_short ? layout.short_offsets : layout.long_offsets;
  const int num_bands = is_short ? layout.num_short_bands : layout.num_long_bands;
  const int top_band = std::min({TnsMaxBands(sample_rate, is_short), coded_bands, num_bands});
  // The first band starting at or above kTnsLowestHz (line k is centred on
  // (k + 1/2) rate / (2 length)).
  const float lowest_line =
      kTnsLowestHz * 2.0f * static_cast<float>(length) / static_cast<float>(sample_rate) - 0.5f;
  int first_band = 0;
  while (first_band < num_bands && offsets[first_band] < lowest_line) ++first_band;

  float scratch[kFrameLength + kLanes + kMaxTnsOrderLong];
  data->present = false;
  for (int w = 0; w < windows; ++w) {
    const float gain =
        FilterWindow(spectrum + w * length, offsets, first_band, top_band, num_bands,
                     is_short ? kMaxTnsOrderShort : kMaxTnsOrderLong, scratch, &data->window[w]);
    if (window_gain != nullptr) window_gain[w] = gain;
    data->present = data->present || data->window[w].n_filt > 0;
  }
  return data->present;
}

}  // namespace aac
}  // namespace audio
}  // namespace tarnel
