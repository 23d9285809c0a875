#include "sdk/media/aac/psy_model.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace tarnel {
namespace audio {
namespace aac {

namespace {

// A slice counts as an attack when its high-passed energy exceeds the envelope of the
// slices before by this factor (10 dB) and lies above kAttackFloor, so that the hiss of
// a quiet passage never switches windows.
constexpr float kAttackRatio = 10.0f;
constexpr float kAttackFloor = TransientDetector::kSliceLength * 8.0f * 8.0f;
// Over the whole band an attack must rise further (15 dB): music swells by less.
constexpr float kBroadAttackRatio = 31.6f;
// The envelope falls by this factor a slice (~1 dB): a decaying note does not make the
// next one an attack unless it is clearly louder.
constexpr float kEnvelopeDecay = 0.8f;
// A slice this much (30 dB) quieter than the one before ends a sound abruptly.
constexpr float kCutRatio = 1000.0f;

// Spreading slopes in dB per Bark: masking reaches little down in frequency, and up the
// further the louder the masker (24 + 230/f - 0.2 L dB per Bark, as in ITU-R BS.1387).
constexpr float kSpreadDownDbPerBark = 27.0f;
constexpr float kMinSpreadUpDbPerBark = 4.0f;

// Full scale (a 16-bit sine of amplitude 32768) is taken to play at 96 dB SPL; the
// threshold of hearing is lowered by a margin for louder playback.
constexpr float kFullScaleSplDb = 96.0f;
constexpr float kQuietMarginDb = 3.0f;
// Lines over which a band's flatness is judged, at least.
constexpr int kTonalityLines = 16;
// The most a tonal masker's offset grows to.
constexpr float kMaxToneOffsetDb = 28.0f;

// log2 to within ~0.01: the exponent, and a quadratic through the mantissa.
inline float FastLog2(float x) {
  uint32_t bits;
  std::memcpy(&bits, &x, sizeof(bits));
  const float exponent = static_cast<float>(static_cast<int>((bits >> 23) & 0xFF) - 127);
  bits = (bits & 0x007FFFFF) | 0x3F800000;  // Mantissa in [1, 2).
  float m;
  std::memcpy(&m, &bits, sizeof(m));
  return exponent + (-0.34484843f * m + 2.02466578f) * m - 0.67487759f;
}

float Bark(float hz) {
  return 13.0f * std::atan(0.00076f * hz) + 3.5f * std::atan((hz / 7500.0f) * (hz / 7500.0f));
}

// Terhardt's threshold of hearing in dB SPL.
float QuietDb(float hz) {
  const float khz = std::max(hz, 20.0f) / 1000.0f;
  return 3.64f * std::pow(khz, -0.8f) - 6.5f * std::exp(-0.6f * (khz - 3.3f) * (khz - 3.3f)) +
         1e-3f * khz * khz * khz * khz;
}

}  // namespace

TransientDetector::Result TransientDetector::Analyze(const float* block, int late_from) {
  Result result;
  for (int slice = 0; slice < kSlices; ++slice) {
    const float* x = block + slice * kSliceLength;
    float high_energy = 0.0f;
    float energy = 0.0f;
    float previous = previous_sample_;
    float before = sample_before_;
    for (int i = 0; i < kSliceLength; ++i) {
      // Second difference: a high-pass rising 12 dB an octave, which finds the clicks of
      // plucks, consonants and cymbals under a loud bass.
      const float high = x[i] - 2.0f * previous + before;
      before = previous;
      previous = x[i];
      high_energy += high * high;
      energy += x[i] * x[i];
    }
    previous_sample_ = previous;
    sample_before_ = before;
    // An attack in the high band or over the whole band (a drum's body), or an abrupt
    // end (a loud slice followed by near-silence): each would spread a long window's
    // quantisation noise where there is nothing to mask it. Envelopes from before the
    // last slice too, so that an attack starting at a slice's end is not hidden.
    const bool sharp =
        high_energy > kAttackFloor &&
        high_energy > kAttackRatio * std::min(high_envelope_, previous_high_envelope_);
    const bool attack =
        sharp || (energy > kAttackFloor &&
                  energy > kBroadAttackRatio * std::min(envelope_, previous_envelope_));
    const bool cut =
        previous_high_energy_ > kAttackFloor && high_energy * kCutRatio < previous_high_energy_;
    previous_high_energy_ = high_energy;
    if (attack || cut) {
      if (result.first_attack_slice < 0) result.first_attack_slice = slice;
      if (sharp && result.first_sharp_slice < 0) result.first_sharp_slice = slice;
      if ((slice + 1) * kSliceLength > late_from) result.late_attack = true;
    }
    previous_high_envelope_ = high_envelope_;
    previous_envelope_ = envelope_;
    high_envelope_ = std::max(high_energy, high_envelope_ * kEnvelopeDecay);
    envelope_ = std::max(energy, envelope_ * kEnvelopeDecay);
  }
  return result;
}

void MaskingModel::Init(int sample_rate, int lines, const uint16_t* offsets, int num_bands,
                        float cutoff_hz) {
  num_bands_ = std::min(num_bands, kMaxBands);
  coded_bands_ = num_bands_;
  const float hz_per_line = 0.5f * static_cast<float>(sample_rate) / static_cast<float>(lines);
  // A band's energy, summed over its lines, of a signal whose power (mean square in PCM
  // units) is P: 2 * lines^2 * P under the transform's scaling.
  const float energy_per_power = 2.0f * static_cast<float>(lines) * static_cast<float>(lines);
  float previous_bark = 0.0f;
  for (int b = 0; b < num_bands_; ++b) {
    const float low = offsets[b] * hz_per_line;
    const float high = offsets[b + 1] * hz_per_line;
    if (low >= cutoff_hz && coded_bands_ == num_bands_) coded_bands_ = b;
    const float bark = Bark(0.5f * (low + high));
    const float distance = b == 0 ? 0.0f : bark - previous_bark;
    previous_bark = bark;
    bark_step_[b] = distance;
    up_slope_base_[b] = 24.0f + 230.0f / std::max(0.5f * (low + high), 20.0f);
    if (b > 0) spread_down_[b - 1] = std::pow(10.0f, -kSpreadDownDbPerBark * distance / 10.0f);
    // Noise must stay further under a masker at high frequencies, and much further
    // under a tone than under noise.
    noise_offset_db_[b] = std::max(3.0f, 0.25f * bark) + 3.0f;
    tone_offset_db_[b] = std::max(noise_offset_db_[b], std::min(14.5f + bark, kMaxToneOffsetDb));
    float quiet_db = std::numeric_limits<float>::max();
    for (float hz = low; hz <= high; hz += hz_per_line) quiet_db = std::min(quiet_db, QuietDb(hz));
    const float quiet_power =
        std::pow(10.0f, (quiet_db - kQuietMarginDb - kFullScaleSplDb) / 10.0f) * 32768.0f *
        32768.0f * 0.5f;
    quiet_[b] = quiet_power * energy_per_power;
  }
  spread_down_[num_bands_ - 1] = 0.0f;
  offsets_ = offsets;
  // Band energy to sound pressure level: a full-scale sine (power 32768^2 / 2) plays at
  // kFullScaleSplDb.
  spl_offset_db_ =
      kFullScaleSplDb - 10.0f * std::log10(energy_per_power * 32768.0f * 32768.0f * 0.5f);
}

void MaskingModel::Tonality(const float* lines, float* tonality) const {
  // Prefix sums of the lines' powers and of their logarithms make every band's
  // neighbourhood a difference of two entries.
  const int total = offsets_[num_bands_];
  float power_sum[kFrameLength + 1];
  float log_sum[kFrameLength + 1];
  power_sum[0] = log_sum[0] = 0.0f;
  for (int k = 0; k < total; ++k) {
    const float power = lines[k] * lines[k] + 1e-3f;
    power_sum[k + 1] = power_sum[k] + power;
    log_sum[k + 1] = log_sum[k] + FastLog2(power);
  }
  for (int b = 0; b < coded_bands_; ++b) {
    // A narrow band is judged with its neighbours, kTonalityLines at least: a tone's few
    // lines within four say nothing about flatness.
    int low = offsets_[b];
    int high = offsets_[b + 1];
    const int missing = kTonalityLines - (high - low);
    if (missing > 0) {
      low = std::max(0, low - missing / 2);
      high = std::min(total, low + kTonalityLines);
      low = std::max(0, high - kTonalityLines);
    }
    const float n = static_cast<float>(high - low);
    // Flatness in dB: the geometric over the arithmetic mean of the lines' powers.
    const float flatness_db = 3.0103f * ((log_sum[high] - log_sum[low]) / n -
                                         FastLog2((power_sum[high] - power_sum[low]) / n));
    tonality[b] = std::clamp((-flatness_db - 6.0f) / 24.0f, 0.0f, 1.0f);
  }
}

void MaskingModel::Thresholds(const float* energy, const float* tonality, float* threshold) const {
  // Two passes of a first-order recursion spread every band's energy with exponential
  // slopes on the Bark scale, each band masking itself once.
  float up[kMaxBands];
  float carried = 0.0f;
  for (int b = 0; b < coded_bands_; ++b) {
    if (carried > 0.0f) {
      // The carried energy's level sets how far up it reaches.
      const float level_db = 3.0103f * FastLog2(carried) + spl_offset_db_;
      const float slope = std::max(up_slope_base_[b - 1] - 0.2f * level_db, kMinSpreadUpDbPerBark);
      carried *= std::exp2(-0.33219f * slope * bark_step_[b]);
    }
    carried += energy[b];
    up[b] = carried;
  }
  carried = 0.0f;
  for (int b = coded_bands_ - 1; b >= 0; --b) {
    const float spread = up[b] + carried * spread_down_[b];
    carried = energy[b] + carried * spread_down_[b];
    float offset_db = noise_offset_db_[b];
    if (tonality != nullptr) offset_db += tonality[b] * (tone_offset_db_[b] - offset_db);
    threshold[b] = std::max(spread * std::exp2(-0.33219f * offset_db), quiet_[b]);
  }
  for (int b = coded_bands_; b < num_bands_; ++b) {
    threshold[b] = std::numeric_limits<float>::infinity();
  }
}

}  // namespace aac
}  // namespace audio
}  // namespace tarnel
