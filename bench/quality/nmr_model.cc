#include "bench/quality/nmr_model.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "bench/quality/fft.h"

namespace tarnel_bench {
namespace quality {
namespace {

constexpr double kLowestHz = 80.0;
constexpr double kHighestHz = 18000.0;
constexpr double kBandStepBark = 0.25;
constexpr double kCalibrationHz = 1019.5;
// Spreading is summed in this power of the energies (PEAQ's non-linear superposition).
constexpr double kSpreadExponent = 0.4;
// Forward masking time constants at high frequencies and at 100 Hz.
constexpr double kTauMinS = 0.008;
constexpr double kTau100S = 0.030;

double HzToBark(double hz) { return 7.0 * std::asinh(hz / 650.0); }

double BarkToHz(double bark) { return 650.0 * std::sinh(bark / 7.0); }

// PEAQ's outer and middle ear, as a power gain; 0 at DC.
double EarWeight(double hz) {
  if (hz <= 0) return 0;
  const double f = hz / 1000.0;
  const double db = -2.184 * std::pow(f, -0.8) + 6.5 * std::exp(-0.6 * (f - 3.3) * (f - 3.3)) -
                    0.001 * std::pow(f, 3.6);
  return std::pow(10.0, db / 10.0);
}

}  // namespace

NmrModel::NmrModel(int sample_rate, int block_size, NoiseSpectrum noise)
    : sample_rate_(sample_rate), block_size_(block_size), noise_(noise) {
  assert(IsPowerOfTwo(static_cast<size_t>(block_size)) && block_size >= 256);
  const int n = block_size_;
  const double bin_hz = static_cast<double>(sample_rate_) / n;

  // Hann window, then the gain that puts a full-scale sine at the playback level.
  window_.resize(n);
  for (int i = 0; i < n; ++i) window_[i] = 0.5 - 0.5 * std::cos(2 * M_PI * i / n);
  std::vector<double> sine(n);
  for (int i = 0; i < n; ++i) sine[i] = std::sin(2 * M_PI * kCalibrationHz * i / sample_rate_);
  Spectrum(sine.data(), &reference_spectrum_);  // With the window as it is so far.
  double peak = 0;
  for (int k = 0; k <= n / 2; ++k) peak = std::max(peak, std::norm(reference_spectrum_[k]));
  const double gain = std::sqrt(std::pow(10.0, kPlaybackLevelDbSpl / 10.0) / peak);
  for (double& w : window_) w *= gain;

  bin_weight_.resize(n / 2 + 1);
  for (int k = 0; k <= n / 2; ++k) bin_weight_[k] = EarWeight(k * bin_hz);

  const double z_low = HzToBark(kLowestHz);
  const double z_high = HzToBark(std::min(kHighestHz, sample_rate_ / 2.0));
  const int bands = static_cast<int>(std::ceil((z_high - z_low) / kBandStepBark - 1e-9));
  for (int m = 0; m < bands; ++m) {
    const double zl = z_low + m * kBandStepBark;
    const double zu = std::min(zl + kBandStepBark, z_high);
    const double fl = BarkToHz(zl);
    const double fu = BarkToHz(zu);
    const double fc = BarkToHz((zl + zu) / 2);
    center_hz_.push_back(fc);
    // Bin k covers [(k - 1/2), (k + 1/2)) x bin_hz.
    std::vector<std::pair<int, double>> bins;
    const int first = std::max(0, static_cast<int>(std::floor(fl / bin_hz - 0.5)));
    const int last = std::min(n / 2, static_cast<int>(std::ceil(fu / bin_hz + 0.5)));
    for (int k = first; k <= last; ++k) {
      const double overlap = std::min(fu, (k + 0.5) * bin_hz) - std::max(fl, (k - 0.5) * bin_hz);
      if (overlap > 0) bins.emplace_back(k, overlap / bin_hz);
    }
    band_bins_.push_back(std::move(bins));
    internal_noise_.push_back(std::pow(10.0, 0.4 * 0.364 * std::pow(fc / 1000.0, -0.8)));
    const double offset_db = m <= 12 / kBandStepBark ? 3.0 : 0.25 * m * kBandStepBark;
    mask_gain_.push_back(std::pow(10.0, -offset_db / 10.0));
    const double tau = kTauMinS + 100.0 / fc * (kTau100S - kTauMinS);
    forward_decay_.push_back(std::exp(-static_cast<double>(hop()) / (sample_rate_ * tau)));
  }
  std::vector<double> ones(bands, 1.0);
  Spread(ones, &flat_spread_);
  Reset();
}

void NmrModel::Reset() { forward_.assign(center_hz_.size(), 0.0); }

void NmrModel::Spectrum(const double* samples, std::vector<std::complex<double>>* spectrum) {
  spectrum->resize(block_size_);
  for (int i = 0; i < block_size_; ++i) (*spectrum)[i] = samples[i] * window_[i];
  Fft(spectrum);
}

void NmrModel::Group(const std::vector<double>& bin_power, std::vector<double>* bands) const {
  bands->assign(center_hz_.size(), 0.0);
  for (size_t m = 0; m < band_bins_.size(); ++m) {
    double sum = 0;
    for (const auto& [k, share] : band_bins_[m]) sum += share * bin_power[k] * bin_weight_[k];
    (*bands)[m] = sum;
  }
}

void NmrModel::Spread(const std::vector<double>& e, std::vector<double>* spread) const {
  const int bands = static_cast<int>(e.size());
  const double dz = kBandStepBark;
  const double a_lower = std::pow(10.0, -2.7 * dz);  // 27 dB/Bark.
  const double a_lower_e = std::pow(a_lower, kSpreadExponent);
  std::vector<double> a_upper(bands);
  std::vector<double> normalised_e(bands);
  for (int m = 0; m < bands; ++m) {
    // 24 + 230 Hz / fc - 0.2 L dB/Bark, L the band's level; kept below 1 (still falling
    // off) for levels far above what the model was made for.
    const double a = std::pow(10.0, (-2.4 - 23.0 / center_hz_[m]) * dz) *
                     std::pow(std::max(e[m], 1e-30), 0.2 * dz);
    a_upper[m] = std::min(a, 0.999);
    // Energy handed to all bands together is the band's own: divide by the sum of the
    // spreading function's terms (below, the band itself, above).
    const double lower_sum = (1 - std::pow(a_lower, m + 1)) / (1 - a_lower);
    const double upper_sum = (1 - std::pow(a_upper[m], bands - m)) / (1 - a_upper[m]);
    normalised_e[m] = std::pow(e[m] / (lower_sum + upper_sum - 1), kSpreadExponent);
  }
  std::vector<double>& s = *spread;
  s.assign(bands, 0.0);
  s[bands - 1] = normalised_e[bands - 1];
  for (int m = bands - 2; m >= 0; --m) s[m] = a_lower_e * s[m + 1] + normalised_e[m];
  for (int m = 0; m + 1 < bands; ++m) {
    double r = normalised_e[m];
    const double a = std::pow(a_upper[m], kSpreadExponent);
    for (int i = m + 1; i < bands; ++i) {
      r *= a;
      s[i] += r;
    }
  }
  for (int i = 0; i < bands; ++i) s[i] = std::pow(s[i], 1.0 / kSpreadExponent);
}

double NmrModel::BlockNmr(const double* reference, const double* error,
                          std::vector<double>* band_nmr) {
  Spectrum(reference, &reference_spectrum_);
  Spectrum(error, &error_spectrum_);
  const int bins = block_size_ / 2 + 1;
  bin_power_.resize(bins);
  for (int k = 0; k < bins; ++k) bin_power_[k] = std::norm(reference_spectrum_[k]);
  Group(bin_power_, &reference_bands_);
  for (int k = 0; k < bins; ++k) {
    if (noise_ == NoiseSpectrum::kComplexDifference) {
      bin_power_[k] = std::norm(error_spectrum_[k]);
    } else {
      const double difference =
          std::abs(reference_spectrum_[k] + error_spectrum_[k]) - std::abs(reference_spectrum_[k]);
      bin_power_[k] = difference * difference;
    }
  }
  Group(bin_power_, &noise_bands_);
  const size_t bands = center_hz_.size();
  for (size_t m = 0; m < bands; ++m) reference_bands_[m] += internal_noise_[m];
  Spread(reference_bands_, &spread_);
  if (band_nmr) band_nmr->resize(bands);
  double sum = 0;
  for (size_t m = 0; m < bands; ++m) {
    const double excitation = spread_[m] / flat_spread_[m];
    forward_[m] = forward_decay_[m] * forward_[m] + (1 - forward_decay_[m]) * excitation;
    const double mask = mask_gain_[m] * std::max(forward_[m], excitation);
    const double ratio = noise_bands_[m] / mask;
    if (band_nmr) (*band_nmr)[m] = ratio;
    sum += ratio;
  }
  return sum / static_cast<double>(bands);
}

}  // namespace quality
}  // namespace tarnel_bench
