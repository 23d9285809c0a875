// The AAC encoder's psychoacoustics: where attacks are, and how much noise each
// scalefactor band can hide.
//
// Both work on what the encoder computes anyway (the time samples of the newest block
// and the MDCT lines of the frame), so the model costs a few microseconds a channel:
//  - TransientDetector finds attacks by the energy of the high-passed signal in
//    64-sample slices against a decaying envelope of the slices before, and abrupt ends
//    by a slice far quieter than the one before.
//  - MaskingModel spreads each band's energy over the neighbouring bands on the Bark
//    scale (steep towards lower, shallow towards higher frequencies), lowers it by a
//    masking offset (a few dB under noise, 15-28 dB under a tone: tonality comes from
//    the band's spectral flatness), and keeps the result above the threshold of
//    hearing. The encoder aims its quantisation noise at these thresholds times one
//    common factor that its rate loop sets, so that noise sits at the same distance
//    under the mask in every band.
#ifndef SDK_MEDIA_AAC_PSY_MODEL_H_
#define SDK_MEDIA_AAC_PSY_MODEL_H_

#include "sdk/media/aac/aac_syntax.h"

namespace tarnel {
namespace audio {
namespace aac {

// Attacks in one channel's input, block by block. Keeps the high-pass filter and the
// envelope across calls.
class TransientDetector {
 public:
  struct Result {
    // The first 64-sample slice of the block holding an attack (or an abrupt end), or -1.
    int first_attack_slice = -1;
    // The first holding a sharp one (in the high band: a click, not a bass note), or -1.
    int first_sharp_slice = -1;
    // Whether an attack starts at or after sample `late_from`.
    bool late_attack = false;
  };
  static constexpr int kSliceLength = 64;
  static constexpr int kSlices = kFrameLength / kSliceLength;

  // `block`: the newest kFrameLength samples (16-bit PCM units).
  Result Analyze(const float* block, int late_from);

 private:
  float previous_sample_ = 0.0f;
  float sample_before_ = 0.0f;
  float previous_high_energy_ = 0.0f;
  // Decaying envelopes of the slices' energies, high-passed and whole, and their values
  // one slice earlier.
  float high_envelope_ = 0.0f;
  float previous_high_envelope_ = 0.0f;
  float envelope_ = 0.0f;
  float previous_envelope_ = 0.0f;
};

// Masking thresholds of one window kind (long or short) at one sample rate.
class MaskingModel {
 public:
  // `lines`: 1024 (long) or 128 (short); `offsets`: the band edges (num_bands + 1);
  // `cutoff_hz`: bands starting above it are left out (threshold = infinity).
  void Init(int sample_rate, int lines, const uint16_t* offsets, int num_bands, float cutoff_hz);

  // Per band: energy[b] and tonality[b] (0 noise-like .. 1 a pure tone; null: all 0) in,
  // threshold[b] out (same units as energy: squared MDCT values summed over the band's
  // lines).
  void Thresholds(const float* energy, const float* tonality, float* threshold) const;

  // How tonal each band of one window's `lines` is, from its spectral flatness: 0 for
  // noise (flatness -6 dB or more), 1 for a flatness of -30 dB or less (a pure tone).
  void Tonality(const float* lines, float* tonality) const;

  int num_bands() const { return num_bands_; }
  int coded_bands() const { return coded_bands_; }

 private:
  int num_bands_ = 0;
  int coded_bands_ = 0;  // Bands below the cutoff.
  // The threshold of hearing as band energy.
  // Per band: the Bark distance from the band below, the level-independent part of the
  // upward slope when this band masks, and the fraction of the band above's spread
  // energy that reaches this one.
  float bark_step_[kMaxBands] = {};
  float up_slope_base_[kMaxBands] = {};
  float spread_down_[kMaxBands] = {};
  float spl_offset_db_ = 0.0f;
  // Masking offsets in dB under a noise-like and under a tonal masker.
  float noise_offset_db_[kMaxBands] = {};
  float tone_offset_db_[kMaxBands] = {};
  float quiet_[kMaxBands] = {};
  const uint16_t* offsets_ = nullptr;
};

}  // namespace aac
}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AAC_PSY_MODEL_H_
