// The noise-to-mask ratio of one channel, block by block, after the FFT ear model of
// ITU-R BS.1387 (PEAQ), basic version, as P. Kabal's "An examination and interpretation
// of ITU-R BS.1387" (McGill, 2003) reads it. Per block:
//
//  1. Hann window, FFT. The level is set so that a full-scale (amplitude 1.0) sine at
//     1019.5 Hz peaks at kPlaybackLevelDbSpl in its largest bin: PEAQ's 92 dB SPL
//     listening level, a loud but ordinary one for headphones.
//  2. Outer and middle ear weighting of the power spectra (PEAQ's W(f)).
//  3. Grouping into 0.25-Bark bands from 80 Hz to 18 kHz (z = 7 asinh(f / 650); 109 bands
//     at 48 kHz; fewer when Nyquist is lower), each FFT bin shared between bands in
//     proportion to its overlap.
//  4. The reference's band energies plus PEAQ's internal noise. With the weighting of
//     step 2 this puts the threshold of hearing at 3.64 (f/kHz)^-0.8 - 6.5 exp(-0.6
//     (f/kHz - 3.3)^2) + 1e-3 (f/kHz)^3.6 dB SPL: Terhardt's curve, except that PEAQ's
//     rises more slowly above 10 kHz ((f/kHz)^3.6 where Terhardt has ^4), so content and
//     noise up there count as more audible than Terhardt would have them.
//  5. Spreading across bands with PEAQ's level-dependent slopes (27 dB/Bark below,
//     24 + 230 Hz / f - 0.2 L dB/Bark above), added in the 0.4-power domain and
//     normalised so that a flat excitation spreads to itself.
//  6. Forward masking: the spread excitation decays from block to block with time
//     constants of 8 ms (high bands) to 30 ms (100 Hz), never below the current block's.
//  7. Mask = that excitation lowered by PEAQ's offset: 3 dB up to 12 Bark, 0.25 dB per
//     band index above (6.75 dB at the top band).
//  8. The noise is the spectrum of the error signal (decoded minus reference), weighted
//     and grouped as in steps 2-3. PEAQ takes the difference of the two magnitude
//     spectra instead (kMagnitudeDifference, nmr --magnitude-noise); that misses the
//     part of the error that is a phase change, which a waveform coder such as AAC does
//     make, so the default follows the original NMR (Brandenburg) and takes the complex
//     difference. It counts noise substitution (AAC's PNS: a band re-made as noise of the
//     same energy) as noise 3 dB above the band, where a listener may hear little.
//  9. The block's NMR is the mean over bands of noise / mask, linear; 1 (0 dB) is where
//     the noise starts to be audible.
//
// Blocks are 2048 samples with a hop of 1024 by default: PEAQ's own choice at 48 kHz, and
// the length of an AAC long window. The bands below 500 Hz need that frequency resolution
// (a 1024-point block's 47 Hz bins each span two 0.25-Bark bands down there). The price
// is time resolution: pre-echo (quantisation noise an AAC long window smears up to 1024
// samples ahead of an attack) shares a block with the attack that then masks it, while
// the ear's backward masking lasts only a few ms; so pre-echo is under-rated. `nmr --block
// 512` measures transient items with 11 ms blocks for a closer look.
//
// Not thread-safe; one model per channel (it keeps the forward-masking memory).
#ifndef BENCH_QUALITY_NMR_MODEL_H_
#define BENCH_QUALITY_NMR_MODEL_H_

#include <complex>
#include <vector>

namespace tarnel_bench {
namespace quality {

class NmrModel {
 public:
  // What counts as the noise in each FFT bin.
  enum class NoiseSpectrum {
    kComplexDifference,    // |D - R|^2: the spectrum of decoded minus reference.
    kMagnitudeDifference,  // (|D| - |R|)^2: PEAQ's.
  };

  static constexpr double kPlaybackLevelDbSpl = 92.0;

  // `block_size` is a power of two from 256 to 16384; the hop is half of it.
  NmrModel(int sample_rate, int block_size, NoiseSpectrum noise);

  int block_size() const { return block_size_; }
  int hop() const { return block_size_ / 2; }
  int band_count() const { return static_cast<int>(center_hz_.size()); }
  // Centre frequency of band `m`, Hz.
  double band_center_hz(int m) const { return center_hz_[m]; }

  // Forgets the forward-masking memory: the next block starts a new signal.
  void Reset();

  // The mean over bands of noise energy / masking threshold for one block of the
  // reference and of the error signal (decoded minus reference), block_size() samples
  // each at full scale 1.0. 0 when the error is zero; never negative, never infinite.
  // Blocks must come in order, a hop apart. With `band_nmr`, also each band's
  // noise / mask (band_count() values).
  double BlockNmr(const double* reference, const double* error,
                  std::vector<double>* band_nmr = nullptr);

 private:
  // Windowed (level-scaled) FFT of block_size() samples.
  void Spectrum(const double* samples, std::vector<std::complex<double>>* spectrum);
  // Bin powers (block_size() / 2 + 1), weighted by the ear and summed into bands.
  void Group(const std::vector<double>& bin_power, std::vector<double>* bands) const;
  // PEAQ's spreading of band energies `e` into `spread` (not yet divided by the
  // normalisation of a flat excitation).
  void Spread(const std::vector<double>& e, std::vector<double>* spread) const;

  const int sample_rate_;
  const int block_size_;
  const NoiseSpectrum noise_;
  std::vector<double> window_;      // Hann, times the playback-level gain.
  std::vector<double> bin_weight_;  // Outer/middle ear weighting per FFT bin (power).
  std::vector<double> center_hz_;   // Per band.
  std::vector<double> internal_noise_;
  std::vector<double> mask_gain_;  // 10^(-offset/10).
  std::vector<double> forward_decay_;
  std::vector<double> flat_spread_;  // Spread() of an all-ones excitation.
  // Per band, the FFT bins it takes energy from and the share of each.
  std::vector<std::vector<std::pair<int, double>>> band_bins_;
  std::vector<double> forward_;  // Forward-masking memory per band.
  std::vector<std::complex<double>> reference_spectrum_;
  std::vector<std::complex<double>> error_spectrum_;
  std::vector<double> bin_power_;
  std::vector<double> reference_bands_;
  std::vector<double> noise_bands_;
  std::vector<double> spread_;
};

}  // namespace quality
}  // namespace tarnel_bench

#endif  // BENCH_QUALITY_NMR_MODEL_H_
