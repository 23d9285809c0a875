#include "sdk/media/aac/aac_encoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <vector>

#include "sdk/base/logging.h"
#include "sdk/media/aac/tns.h"

namespace tarnel {
namespace audio {
namespace aac {

using aac::BandLayout;
using aac::ChannelData;
using aac::kEightShort;
using aac::kFrameLength;
using aac::kLongStart;
using aac::kLongStop;
using aac::kMaxBands;
using aac::kNoFit;
using aac::kOnlyLong;
using aac::kShortWindowLength;
using aac::kShortWindows;
using aac::WindowSequence;

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"aac_encoder"};

constexpr int32_t kAacLcObjectType = 2;
constexpr int kMaxChannels = 2;
constexpr int kMaxBitsPerChannel = 6144;  // The decoder's input buffer per channel.
constexpr int kWindowLength = 2 * kFrameLength;
// Short windows start this far into the frame's 2048 samples (and long-start windows
// end their flat part here).
constexpr int kShortStart = (kFrameLength - kShortWindowLength) / 2;  // 448

// AAC's quantiser rounds |x|^(3/4) / step^(3/4) up from this fraction.
constexpr float kRoundingOffset = 0.4054f;
// log2 of the largest value the quantiser may produce before rounding, 8191.5946^(4/3).
const float kLog2MaxQuantInput = (4.0f / 3.0f) * std::log2(8191.5946f);

// Quiet blocks keep the windows short; see ChooseWindowSequence().
constexpr float kQuietRms = 104.0f;        // -50 dBFS.
constexpr float kQuietRelative = 0.0316f;  // -30 dB.
constexpr float kLoudRmsDecay = 0.97f;     // A block: ~6 dB a second.
// Short windows whose energies differ by more than this factor go into separate groups.
constexpr float kGroupEnergyRatio = 8.0f;
// Energy-weighted tonality above which a frame takes the Kaiser-Bessel-derived window.
constexpr float kKaiserBesselTonality = 0.6f;

// An early sharp attack counts as a rise (one that temporal noise shaping may hide noise
// under) unless the block's mean power from it on falls under this fraction (-6 dB) of
// that before it: the click that ends a sound abruptly is sharp too.
constexpr float kRiseRatio = 0.25f;
// Frames more tonal than this get no temporal noise shaping: a tone starting or stopping,
// whose sparse lines predict each other across frequency whatever the envelope. Pitched
// drums and plucks (tonality 0.2-0.5 at their attacks) keep it: their pre-echo is the
// worse fault.
constexpr float kTnsMaxTonality = 0.5f;

// A transient frame may take this share of the reservoir (the frames after it need the
// rest: an attack's decay is loud too).
constexpr float kTransientShare = 0.6f;

// The rate loop's common scalefactor offset stays within this (±90 dB of noise).
constexpr int kOffsetRange = 60;

// Bits of the frame's fixed parts: element header, ID_END.
constexpr int kFrameOverheadBits = aac::kElementHeaderBits + aac::kEndBits;

inline int RoundUpToByte(int bits) { return (bits + 7) & ~7; }

// Rising half (`half` samples) of the sine window of 2 * half samples.
void SineWindow(int half, float* window) {
  for (int i = 0; i < half; ++i) {
    window[i] = static_cast<float>(std::sin(M_PI * (i + 0.5) / (2 * half)));
  }
}

// Rising half of the Kaiser-Bessel-derived window with parameter `alpha`: its far
// side lobes lie much lower than the sine window's, so a loud tone leaks less into
// distant lines (which would cost bits), at the price of a wider main lobe.
void KaiserBesselDerivedWindow(int half, double alpha, float* window) {
  auto bessel_i0 = [](double x) {
    double sum = 1.0, term = 1.0;
    for (int k = 1; k < 50; ++k) {
      term *= (x / (2 * k)) * (x / (2 * k));
      sum += term;
    }
    return sum;
  };
  std::vector<double> kaiser(static_cast<size_t>(half) + 1);
  double total = 0.0;
  for (int j = 0; j <= half; ++j) {
    const double r = 2.0 * j / half - 1.0;
    kaiser[j] = bessel_i0(M_PI * alpha * std::sqrt(1.0 - r * r));
    total += kaiser[j];
  }
  double running = 0.0;
  for (int i = 0; i < half; ++i) {
    running += kaiser[i];
    window[i] = static_cast<float>(std::sqrt(running / total));
  }
}

}  // namespace

// What the analysis of one channel gives the quantiser, per group and band.
struct AacEncoder::ChannelPlan {
  float energy[kShortWindows][kMaxBands];
  float threshold[kShortWindows][kMaxBands];
  // The scalefactor (before the common offset) at which the band's noise meets its
  // threshold, and the smallest one that keeps every value codable.
  float base_sf[kShortWindows][kMaxBands];
  int16_t min_sf[kShortWindows][kMaxBands];
};

struct AacEncoder::State {
  // Per channel: the previous and the newest block, 16-bit PCM units.
  alignas(32) float history[kMaxChannels][kWindowLength];
  alignas(32) float windowed[kWindowLength];
  // Per channel: MDCT lines in natural order (long, or 8 x 128), then |x|^(3/4).
  alignas(32) float spectrum[kMaxChannels][kFrameLength];
  alignas(32) float magnitude34[kMaxChannels][kFrameLength];
  alignas(32) int32_t sign[kMaxChannels][kFrameLength];  // Of each line: -1 or 1.
  // Rising halves of the windows, per shape (0 sine, 1 Kaiser-Bessel-derived).
  float long_window[2][kFrameLength];
  float short_window[2][kShortWindowLength];
  // The shape of the previous frame's right half (this frame's left) and of this one's.
  int previous_shape = 0;
  int shape = 0;
  // Of the previous frame: its energy-weighted tonality, which picks the next shape.
  float tonality = 0.0f;
  float tonality_sum = 0.0f;
  float energy_sum = 0.0f;
  // 2^(-3/16 (sf - 100)): multiplies |x|^(3/4) into the quantiser's domain.
  float quant_scale[256];

  aac::TransientDetector detector[kMaxChannels];
  // The last frame coded nothing in any channel: a decoder holds only zeros to overlap.
  bool previous_frame_empty = true;
  // The last block had an attack in its second half, which this frame covers.
  bool late_attack = false;
  // Per channel: a decaying maximum of the blocks' RMS.
  float loud_rms[kMaxChannels] = {};
  aac::MaskingModel long_model;
  aac::MaskingModel short_model;
  const BandLayout* layout = nullptr;
  int tns_first_band = 0;

  WindowSequence sequence = kOnlyLong;
  WindowSequence previous_sequence = kOnlyLong;
  int num_groups = 1;
  uint8_t group_length[kShortWindows] = {1};

  ChannelPlan plan[kMaxChannels];
  ChannelData data[kMaxChannels];
  ChannelData best[kMaxChannels];
  uint8_t ms_used[kShortWindows][kMaxBands] = {};
  bool any_ms = false;
  float pe = 0.0f;  // Perceptual entropy of the frame, in bits.
  int nonzero_lines = 0;

  std::vector<uint8_t> output;

  // The masking model and band edges of this frame's window kind.
  const aac::MaskingModel& model() const {
    return sequence == kEightShort ? short_model : long_model;
  }
  const uint16_t* offsets() const {
    return sequence == kEightShort ? layout->short_offsets : layout->long_offsets;
  }
};

AacEncoder::AacEncoder() = default;
AacEncoder::~AacEncoder() = default;

bool AacEncoder::Init(const AudioEncodeParams& params) {
  state_.reset();
  sample_rate_ = channels_ = bitrate_ = 0;
  const int index = aac::SamplingFrequencyIndex(params.sample_rate);
  const BandLayout* layout = aac::BandLayoutForSampleRate(params.sample_rate);
  const int64_t max_per_channel =
      static_cast<int64_t>(kMaxBitsPerChannel) * params.sample_rate / kFrameLength;
  if (params.codec_format != kAac || params.aac_profile != kAacLcObjectType ||
      params.channels < 1 || params.channels > kMaxChannels || params.bits_per_sample != 16 ||
      index < 0 || layout == nullptr || params.bitrate < 8000 * params.channels ||
      params.bitrate > max_per_channel * params.channels) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "unsupported parameters: format " << params.codec_format << ", profile "
        << params.aac_profile << ", " << params.channels << " channels, " << params.bits_per_sample
        << " bits, " << params.sample_rate << " Hz, " << params.bitrate << " b/s (8000 to "
        << max_per_channel << " b/s a channel)";
    return false;
  }
  long_mdct_ = aac::Mdct::Create(kFrameLength);
  short_mdct_ = aac::Mdct::Create(kShortWindowLength);
  if (!long_mdct_ || !short_mdct_) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "cannot set up the MDCT";
    return false;
  }

  state_ = std::make_unique<State>();
  State& s = *state_;
  std::memset(s.history, 0, sizeof(s.history));
  SineWindow(kFrameLength, s.long_window[0]);
  SineWindow(kShortWindowLength, s.short_window[0]);
  KaiserBesselDerivedWindow(kFrameLength, 4.0, s.long_window[1]);
  KaiserBesselDerivedWindow(kShortWindowLength, 6.0, s.short_window[1]);
  for (int sf = 0; sf < 256; ++sf) {
    s.quant_scale[sf] = std::exp2(-0.1875f * static_cast<float>(sf - aac::kScalefactorOffset));
  }
  s.layout = layout;
  // The first long-window band temporal noise shaping filters.
  s.tns_first_band = 0;
  while (s.tns_first_band < layout->num_long_bands &&
         layout->long_offsets[s.tns_first_band] * 0.5f * params.sample_rate / kFrameLength <
             aac::kTnsLowestHz) {
    ++s.tns_first_band;
  }
  // The audio band coded, from the bit rate per channel: narrower at low rates, so the
  // bits go where the ear is most sensitive (about 16 kHz at 64 kb/s, 18 kHz at 96).
  const float per_channel = static_cast<float>(params.bitrate) / params.channels;
  const float cutoff = std::min({0.5f * params.sample_rate, 12000.0f + per_channel / 16.0f,
                                 3000.0f + per_channel / 4.0f, 20000.0f});
  s.long_model.Init(params.sample_rate, kFrameLength, layout->long_offsets, layout->num_long_bands,
                    cutoff);
  s.short_model.Init(params.sample_rate, kShortWindowLength, layout->short_offsets,
                     layout->num_short_bands, cutoff);
  for (ChannelData& data : s.data) data.layout = layout;
  s.output.resize(kAdtsHeaderBytes + kMaxBitsPerChannel * kMaxChannels / 8 + 16);

  sample_rate_ = params.sample_rate;
  channels_ = params.channels;
  bitrate_ = params.bitrate;
  adts_ = params.raw_access_units == 0;
  sampling_frequency_index_ = index;
  bits_per_frame_num_ = static_cast<int64_t>(bitrate_) * kFrameLength;
  bits_remainder_ = 0;
  mean_frame_bits_ = static_cast<int>(bits_per_frame_num_ / sample_rate_);
  // The stream starts with the decoder's buffer full (the first ADTS header says so: a
  // decoder that streams waits for that much): the first frames, an onset as often as
  // not, can borrow at once.
  reservoir_max_ = kMaxBitsPerChannel * channels_ - mean_frame_bits_ - 8;
  reservoir_bits_ = reservoir_max_;
  previous_offset_ = 0;
  mean_pe_ = 0.0f;
  return true;
}

int32_t AacEncoder::GetInputSizeInBytes() const {
  return state_ ? kFrameLength * channels_ * static_cast<int32_t>(sizeof(int16_t)) : 0;
}

int32_t AacEncoder::GetPrimingSamples() const { return state_ ? kFrameLength : 0; }

std::shared_ptr<AudioFrame> AacEncoder::Encode(std::shared_ptr<AudioFrame> input) {
  if (!AcceptsInput(input.get())) return nullptr;
  State& s = *state_;

  // The newest block moves in behind the previous one.
  const uint8_t* pcm = input->GetData();
  for (int ch = 0; ch < channels_; ++ch) {
    float* history = s.history[ch];
    std::memmove(history, history + kFrameLength, kFrameLength * sizeof(float));
    float* block = history + kFrameLength;
    for (int i = 0; i < kFrameLength; ++i) {
      int16_t sample;
      std::memcpy(&sample, pcm + (static_cast<size_t>(i) * channels_ + ch) * sizeof(int16_t),
                  sizeof(sample));
      block[i] = static_cast<float>(sample);
    }
  }

  bool early_attack = false;
  bool early_rise = false;
  s.previous_sequence = s.sequence;
  s.sequence = ChooseWindowSequence(&early_attack, &early_rise);
  // Strongly tonal audio (as the last frame was) takes the Kaiser-Bessel-derived shape.
  s.previous_shape = s.shape;
  s.shape = s.sequence != kEightShort && s.tonality > kKaiserBesselTonality ? 1 : 0;
  // Digital silence over the whole window (a pause, or the recorder filling audio it
  // dropped) transforms to nothing: its frame is planned without the analysis.
  const bool silent = WindowIsSilent();
  s.pe = 0.0f;
  s.tonality_sum = s.energy_sum = 0.0f;
  s.any_ms = false;
  s.nonzero_lines = 0;
  if (silent) {
    s.num_groups = 1;
    s.group_length[0] = s.sequence == kEightShort ? kShortWindows : 1;
    for (int ch = 0; ch < channels_; ++ch) PlanSilence(ch);
    s.tonality = 0.0f;
  } else {
    for (int ch = 0; ch < channels_; ++ch) Transform(ch, s.sequence);
    if (s.sequence == kEightShort) {
      GroupShortWindows();
    } else {
      s.num_groups = 1;
      s.group_length[0] = 1;
    }
    for (int ch = 0; ch < channels_; ++ch) Analyze(ch);
    s.tonality = s.energy_sum > 0.0f ? s.tonality_sum / s.energy_sum : 0.0f;
    for (int ch = 0; ch < channels_; ++ch) {
      s.data[ch].tns.present = false;
      // Only for a sharp rise (an abrupt end leaves nothing after it to hide the noise
      // under), and not on tonal frames (see kTnsMaxTonality).
      if (early_rise && s.tonality < kTnsMaxTonality) ShapeNoiseInTime(ch);
    }
    if (channels_ == 2) ChooseMidSide();
    for (int ch = 0; ch < channels_; ++ch) PrepareQuantisation(ch);
  }

  int target = 0;
  int most = 0;
  FrameBudget(early_attack || s.sequence == kEightShort, &target, &most);
  const int element_bits = Search(target, most);
  if (element_bits == kNoFit) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "no quantisation fits the frame";
    return nullptr;
  }
  return Emit(input->GetTimestampInMs(), element_bits);
}

WindowSequence AacEncoder::ChooseWindowSequence(bool* early_attack, bool* early_rise) {
  State& s = *state_;
  bool late = false;
  bool early = false;
  bool early_sharp = false;
  bool rise = false;
  bool quiet = true;
  for (int ch = 0; ch < channels_; ++ch) {
    const float* block = s.history[ch] + kFrameLength;
    const aac::TransientDetector::Result result = s.detector[ch].Analyze(block, kShortStart);
    late = late || result.late_attack;
    // Early: within what this frame's window covers of the block (up to 576).
    const int covered = kShortStart + kShortWindowLength;
    early = early || (result.first_attack_slice >= 0 &&
                      result.first_attack_slice * aac::TransientDetector::kSliceLength < covered);
    const int sharp_at = result.first_sharp_slice * aac::TransientDetector::kSliceLength;
    if (result.first_sharp_slice >= 0 && sharp_at < covered) {
      early_sharp = true;
      // A rise, not an end: the block from the sharp slice on keeps some of the power of
      // the half block before it. An abrupt end leaves only silence after its click to
      // hide shaped noise under.
      float before = 0.0f;
      for (int i = kFrameLength / 2; i < kFrameLength + sharp_at; ++i) {
        before += s.history[ch][i] * s.history[ch][i];
      }
      float after = 0.0f;
      for (int i = sharp_at; i < kFrameLength; ++i) after += block[i] * block[i];
      rise = rise || after / static_cast<float>(kFrameLength - sharp_at) >
                         kRiseRatio * before / static_cast<float>(kFrameLength / 2 + sharp_at);
    }
    float sum = 0.0f;
    for (int i = 0; i < kFrameLength; ++i) sum += block[i] * block[i];
    const float rms = std::sqrt(sum / kFrameLength);
    // Quiet: under -50 dBFS, or 30 dB under the loudest of the last seconds (a gap
    // between notes or hits, where the next attack comes from).
    quiet = quiet && (rms < kQuietRms || rms < kQuietRelative * s.loud_rms[ch]);
    s.loud_rms[ch] = std::max(rms, s.loud_rms[ch] * kLoudRmsDecay);
  }
  // The frame's short windows cover the second half of the previous block and the first
  // half of this one; the next frame's, this block's second half. Without look-ahead an
  // attack early in a block is covered only if this frame may be short already: so
  // quiet blocks, where attacks come from, keep the windows short (a quiet frame costs
  // few bits in any window).
  WindowSequence sequence;
  switch (s.sequence) {
    case kLongStart:
      sequence = kEightShort;
      break;
    case kEightShort:
      // An attack late in the last block falls in this frame's short windows too.
      sequence = early || late || quiet || s.late_attack ? kEightShort : kLongStop;
      break;
    default:
      // A bass note out of silence keeps its long window: its pre-echo is inaudible, and
      // short windows cannot resolve it.
      if (early_sharp && s.previous_frame_empty) {
        sequence = kEightShort;
      } else {
        sequence = late || quiet ? kLongStart : kOnlyLong;
      }
      break;
  }
  s.late_attack = late;
  *early_attack = early && sequence != kEightShort;
  *early_rise = rise && sequence != kEightShort;
  return sequence;
}

void AacEncoder::Transform(int channel, WindowSequence sequence) {
  State& s = *state_;
  const float* x = s.history[channel];
  float* z = s.windowed;
  float* out = s.spectrum[channel];
  // The left half's slope has the previous frame's shape, every other slope this one's.
  const float* long_left = s.long_window[s.previous_shape];
  const float* long_right = s.long_window[s.shape];
  const float* short_left = s.short_window[s.previous_shape];
  const float* short_right = s.short_window[s.shape];
  if (sequence == kEightShort) {
    for (int w = 0; w < kShortWindows; ++w) {
      const float* in = x + kShortStart + w * kShortWindowLength;
      const float* rise = w == 0 ? short_left : short_right;
      for (int i = 0; i < kShortWindowLength; ++i) {
        z[i] = in[i] * rise[i];
        z[2 * kShortWindowLength - 1 - i] = in[2 * kShortWindowLength - 1 - i] * short_right[i];
      }
      short_mdct_->Forward(z, out + w * kShortWindowLength);
    }
    return;
  }
  // Left half: long rise, or for a stop window zeros, a short rise and ones.
  if (sequence == kLongStop) {
    for (int i = 0; i < kShortStart; ++i) z[i] = 0.0f;
    for (int i = 0; i < kShortWindowLength; ++i) {
      z[kShortStart + i] = x[kShortStart + i] * short_left[i];
    }
    for (int i = kShortStart + kShortWindowLength; i < kFrameLength; ++i) z[i] = x[i];
  } else {
    for (int i = 0; i < kFrameLength; ++i) z[i] = x[i] * long_left[i];
  }
  // Right half: long fall, or for a start window ones, a short fall and zeros.
  const float* right = x + kFrameLength;
  float* zr = z + kFrameLength;
  if (sequence == kLongStart) {
    for (int i = 0; i < kShortStart; ++i) zr[i] = right[i];
    for (int i = 0; i < kShortWindowLength; ++i) {
      zr[kShortStart + i] = right[kShortStart + i] * short_right[kShortWindowLength - 1 - i];
    }
    for (int i = kShortStart + kShortWindowLength; i < kFrameLength; ++i) zr[i] = 0.0f;
  } else {
    for (int i = 0; i < kFrameLength; ++i) zr[i] = right[i] * long_right[kFrameLength - 1 - i];
  }
  long_mdct_->Forward(z, out);
}

bool AacEncoder::WindowIsSilent() const {
  const State& s = *state_;
  for (int ch = 0; ch < channels_; ++ch) {
    for (int i = 0; i < kWindowLength; ++i) {
      if (s.history[ch][i] != 0.0f) return false;
    }
  }
  return true;
}

void AacEncoder::PlanSilence(int channel) {
  State& s = *state_;
  ChannelPlan& plan = s.plan[channel];
  s.data[channel].tns.present = false;
  std::memset(s.spectrum[channel], 0, sizeof(s.spectrum[channel]));
  std::memset(s.magnitude34[channel], 0, sizeof(s.magnitude34[channel]));
  std::fill(std::begin(s.sign[channel]), std::end(s.sign[channel]), 1);
  for (int b = 0; b < kMaxBands; ++b) {
    plan.energy[0][b] = 0.0f;
    plan.threshold[0][b] = 1.0f;
    plan.base_sf[0][b] = 1e9f;  // Never coded.
    plan.min_sf[0][b] = 0;
  }
}

void AacEncoder::GroupShortWindows() {
  State& s = *state_;
  float energy[kShortWindows];
  for (int w = 0; w < kShortWindows; ++w) {
    float sum = 1.0f;
    for (int ch = 0; ch < channels_; ++ch) {
      const float* line = s.spectrum[ch] + w * kShortWindowLength;
      for (int i = 0; i < kShortWindowLength; ++i) sum += line[i] * line[i];
    }
    energy[w] = sum;
  }
  // Consecutive windows of similar energy share scalefactors; an attack starts a group.
  s.num_groups = 0;
  float reference = 0.0f;
  for (int w = 0; w < kShortWindows; ++w) {
    if (w == 0 || energy[w] > kGroupEnergyRatio * reference ||
        energy[w] * kGroupEnergyRatio < reference) {
      s.group_length[s.num_groups++] = 1;
      reference = energy[w];
    } else {
      ++s.group_length[s.num_groups - 1];
    }
  }
}

void AacEncoder::Analyze(int channel) {
  State& s = *state_;
  ChannelPlan& plan = s.plan[channel];
  const bool is_short = s.sequence == kEightShort;
  const aac::MaskingModel& model = s.model();
  const uint16_t* offsets = s.offsets();
  const int bands = model.num_bands();
  const float* spectrum = s.spectrum[channel];
  // Tonality only for long windows: short ones are taken where there are attacks.
  float tonality[kMaxBands];
  if (!is_short) model.Tonality(spectrum, tonality);
  float weighted = 0.0f;
  float total = 0.0f;
  int window = 0;
  for (int g = 0; g < s.num_groups; ++g) {
    const int length = s.group_length[g];
    float energy[kMaxBands];
    for (int b = 0; b < bands; ++b) {
      float sum = 0.0f;
      for (int w = window; w < window + length; ++w) {
        const float* line = spectrum + w * kShortWindowLength;
        for (int k = offsets[b]; k < offsets[b + 1]; ++k) sum += line[k] * line[k];
      }
      // A window's energy: the model's thresholds are per window.
      energy[b] = sum / static_cast<float>(length);
      plan.energy[g][b] = sum;
    }
    model.Thresholds(energy, is_short ? nullptr : tonality, plan.threshold[g]);
    if (!is_short) {
      for (int b = 0; b < model.coded_bands(); ++b) {
        weighted += tonality[b] * energy[b];
        total += energy[b];
      }
    }
    for (int b = 0; b < bands; ++b) plan.threshold[g][b] *= static_cast<float>(length);
    window += length;
  }
  // The frame's tonality: the loudest channel's weighs most.
  s.tonality_sum += weighted;
  s.energy_sum += total;
}

void AacEncoder::ShapeNoiseInTime(int channel) {
  // An attack early in a long window this frame could not switch for: temporal noise
  // shaping moves the window's quantisation noise under the attack's envelope (and its
  // mirror image after it, which is why it is kept to attacks early in the block).
  State& s = *state_;
  const aac::MaskingModel& model = s.long_model;
  float gain = 1.0f;
  if (!aac::ApplyTns(s.spectrum[channel], s.sequence, *s.layout, sample_rate_, model.coded_bands(),
                     &s.data[channel].tns, &gain)) {
    return;
  }
  // The decoder's filter raises the noise of the filtered bands by about the prediction
  // gain (it gains the envelope's shape in return): aim lower there. Their energies
  // follow the filtered lines, which mid/side and quantisation see.
  ChannelPlan& plan = s.plan[channel];
  const uint16_t* offsets = s.layout->long_offsets;
  const float* lines = s.spectrum[channel];
  for (int b = s.tns_first_band; b < model.coded_bands(); ++b) {
    float energy = 0.0f;
    for (int k = offsets[b]; k < offsets[b + 1]; ++k) energy += lines[k] * lines[k];
    plan.energy[0][b] = energy;
    plan.threshold[0][b] /= gain;
  }
}

void AacEncoder::ChooseMidSide() {
  State& s = *state_;
  const uint16_t* offsets = s.offsets();
  const int bands = s.model().coded_bands();
  float* left = s.spectrum[0];
  float* right = s.spectrum[1];
  ChannelPlan& l = s.plan[0];
  ChannelPlan& r = s.plan[1];
  int window = 0;
  for (int g = 0; g < s.num_groups; ++g) {
    const int length = s.group_length[g];
    for (int b = 0; b < bands; ++b) {
      float mid_energy = 0.0f;
      float side_energy = 0.0f;
      for (int w = window; w < window + length; ++w) {
        const int base = w * kShortWindowLength;
        for (int k = base + offsets[b]; k < base + offsets[b + 1]; ++k) {
          const float m = 0.5f * (left[k] + right[k]);
          const float d = 0.5f * (left[k] - right[k]);
          mid_energy += m * m;
          side_energy += d * d;
        }
      }
      // Noise in mid and side adds up in both outputs: each may have half the smaller
      // threshold. Mid/side wins where that costs fewer bits (a smaller product of
      // energy-to-threshold ratios).
      const float tl = l.threshold[g][b];
      const float tr = r.threshold[g][b];
      const float tms = 0.5f * std::min(tl, tr);
      const float cost_lr = std::max(l.energy[g][b], tl) / tl * (std::max(r.energy[g][b], tr) / tr);
      const float cost_ms = std::max(mid_energy, tms) / tms * (std::max(side_energy, tms) / tms);
      const bool use = cost_ms < cost_lr;
      s.ms_used[g][b] = use;
      if (!use) continue;
      s.any_ms = true;
      for (int w = window; w < window + length; ++w) {
        const int base = w * kShortWindowLength;
        for (int k = base + offsets[b]; k < base + offsets[b + 1]; ++k) {
          const float m = 0.5f * (left[k] + right[k]);
          const float d = 0.5f * (left[k] - right[k]);
          left[k] = m;
          right[k] = d;
        }
      }
      l.energy[g][b] = mid_energy;
      r.energy[g][b] = side_energy;
      l.threshold[g][b] = r.threshold[g][b] = tms;
    }
    for (int b = bands; b < kMaxBands; ++b) s.ms_used[g][b] = 0;
    window += length;
  }
}

void AacEncoder::PrepareQuantisation(int channel) {
  State& s = *state_;
  ChannelPlan& plan = s.plan[channel];
  const aac::MaskingModel& model = s.model();
  const uint16_t* offsets = s.offsets();
  const float* spectrum = s.spectrum[channel];
  float* magnitude34 = s.magnitude34[channel];
  int32_t* sign = s.sign[channel];
  float root[kFrameLength];  // sqrt|x|
  for (int k = 0; k < kFrameLength; ++k) {
    const float a = std::fabs(spectrum[k]);
    root[k] = std::sqrt(a);
    magnitude34[k] = std::sqrt(a * root[k]);
    sign[k] = spectrum[k] < 0.0f ? -1 : 1;
  }
  int window = 0;
  for (int g = 0; g < s.num_groups; ++g) {
    const int length = s.group_length[g];
    for (int b = 0; b < model.num_bands(); ++b) {
      float root_sum = 0.0f;
      float peak34 = 0.0f;  // The largest |x|^(3/4).
      for (int w = window; w < window + length; ++w) {
        const int base = w * kShortWindowLength;
        for (int k = base + offsets[b]; k < base + offsets[b + 1]; ++k) {
          root_sum += root[k];
          peak34 = std::max(peak34, magnitude34[k]);
        }
      }
      const float energy = plan.energy[g][b];
      const float threshold = plan.threshold[g][b];
      if (b >= model.coded_bands() || root_sum <= 0.0f) {
        plan.base_sf[g][b] = 1e9f;  // Never coded.
        plan.min_sf[g][b] = 0;
        continue;
      }
      // Noise of the power-law quantiser with step 2^((sf-100)/4):
      // (4/27) step^1.5 sum sqrt|x|; solve for the step whose noise is the threshold.
      plan.base_sf[g][b] = aac::kScalefactorOffset +
                           (8.0f / 3.0f) * std::log2(27.0f * threshold / (4.0f * root_sum));
      // log2|x| is 4/3 of log2 |x|^(3/4).
      const float log2_peak = (4.0f / 3.0f) * std::log2(std::max(peak34, 1e-9f));
      plan.min_sf[g][b] = static_cast<int16_t>(
          std::ceil(aac::kScalefactorOffset + 4.0f * (log2_peak - kLog2MaxQuantInput) + 1e-3f));
      if (energy > threshold) {
        s.pe += 0.5f * static_cast<float>((offsets[b + 1] - offsets[b]) * length) *
                std::log2(energy / threshold);
      }
    }
    window += length;
  }
}

void AacEncoder::QuantiseChannel(int channel, int offset, bool uniform) {
  State& s = *state_;
  const ChannelPlan& plan = s.plan[channel];
  ChannelData& data = s.data[channel];
  const aac::MaskingModel& model = s.model();
  const uint16_t* offsets = s.offsets();
  const int bands = model.num_bands();
  const float* magnitude34 = s.magnitude34[channel];
  const int32_t* sign = s.sign[channel];
  // The noise the common offset allows, relative to the threshold: 1.5 dB a step in the
  // step size is 2^(3/8) in noise power.
  const float noise_factor = std::exp2(0.375f * static_cast<float>(offset));
  data.ics.window_sequence = s.sequence;
  data.ics.window_shape = static_cast<uint8_t>(s.shape);
  data.ics.num_window_groups = static_cast<uint8_t>(s.num_groups);
  for (int g = 0; g < kShortWindows; ++g) data.ics.window_group_length[g] = s.group_length[g];
  data.num_bands = bands;

  // The scalefactor of every band to be coded (-1: left out), in coding order.
  int planned[kShortWindows * kMaxBands];
  int count = 0;
  int highest = 0;
  for (int g = 0; g < s.num_groups; ++g) {
    for (int b = 0; b < bands; ++b, ++count) {
      planned[count] = -1;
      if (plan.base_sf[g][b] >= 1e8f || plan.energy[g][b] <= plan.threshold[g][b] * noise_factor) {
        continue;
      }
      const int sf = static_cast<int>(std::lround(plan.base_sf[g][b])) + offset;
      planned[count] = std::clamp(std::max(sf, static_cast<int>(plan.min_sf[g][b])), 0, 255);
      highest = std::max(highest, planned[count]);
    }
  }
  // Consecutive coded scalefactors may differ by at most 60. Only coarsening is safe
  // (finer steps could push a value past the largest codable one), so a band far below
  // its neighbour is raised to the neighbour's reach, forwards and then backwards. As a
  // last resort every band takes the coarsest step.
  int previous = -1;
  for (int i = 0; i < count; ++i) {
    if (planned[i] < 0) continue;
    if (uniform) planned[i] = highest;
    if (previous >= 0) planned[i] = std::max(planned[i], previous - aac::kMaxScalefactorDelta);
    previous = planned[i];
  }
  previous = -1;
  for (int i = count - 1; i >= 0; --i) {
    if (planned[i] < 0) continue;
    if (previous >= 0) planned[i] = std::max(planned[i], previous - aac::kMaxScalefactorDelta);
    previous = planned[i];
  }

  int window = 0;
  int index = 0;
  for (int g = 0; g < s.num_groups; ++g) {
    const int length = s.group_length[g];
    for (int b = 0; b < bands; ++b, ++index) {
      const int sf = planned[index];
      data.scalefactor[g][b] = static_cast<int16_t>(std::max(sf, 0));
      for (int w = window; w < window + length; ++w) {
        const int base = w * kShortWindowLength;
        if (sf < 0) {
          std::fill(data.quant + base + offsets[b], data.quant + base + offsets[b + 1], 0);
          continue;
        }
        const float scale = s.quant_scale[sf];
        for (int k = base + offsets[b]; k < base + offsets[b + 1]; ++k) {
          data.quant[k] = static_cast<int32_t>(magnitude34[k] * scale + kRoundingOffset) * sign[k];
        }
      }
    }
    window += length;
  }
}

int AacEncoder::CountElementBits() {
  State& s = *state_;
  if (channels_ == 1) return aac::PrepareChannel(&s.data[0]);
  return aac::PrepareChannelPair(&s.data[0], &s.data[1], s.any_ms ? s.ms_used : nullptr);
}

int AacEncoder::QuantiseAll(int offset, bool uniform) {
  for (int ch = 0; ch < channels_; ++ch) QuantiseChannel(ch, offset, uniform);
  return CountElementBits();
}

void AacEncoder::FrameBudget(bool transient, int* target, int* most) const {
  const int mean = static_cast<int>((bits_remainder_ + bits_per_frame_num_) / sample_rate_);
  *most = std::min(mean + reservoir_bits_, kMaxBitsPerChannel * channels_);
  // Frames that carry more information than usual (perceptual entropy above its running
  // mean) get more, within the reservoir; the reservoir drifts to 30% full.
  const State& s = *state_;
  float share = 1.0f;
  if (mean_pe_ > 0.0f) share = std::clamp(std::sqrt(s.pe / mean_pe_), 0.6f, 1.8f);
  float wanted = mean * share + 0.2f * (reservoir_bits_ - 0.3f * reservoir_max_);
  if (transient) wanted = std::max(wanted, mean + kTransientShare * reservoir_bits_);
  // What the reservoir could not keep would be padded: better spent on this frame.
  wanted = std::max(wanted, static_cast<float>(mean + reservoir_bits_ - reservoir_max_));
  *target = std::clamp(static_cast<int>(wanted), mean / 4, *most);
}

int AacEncoder::Search(int target, int most) {
  State& s = *state_;
  int nonzero = 0;
  int element = 0;
  // Bytes of the whole frame (header, element, ID_END) at `offset`, kNoFit when the
  // syntax cannot carry it.
  auto count = [&](int offset, bool uniform) {
    element = QuantiseAll(offset, uniform);
    if (element == kNoFit) return kNoFit;
    nonzero = 0;
    for (int ch = 0; ch < channels_; ++ch) {
      for (int k = 0; k < kFrameLength; ++k) nonzero += s.data[ch].quant[k] != 0;
    }
    return RoundUpToByte(element + kFrameOverheadBits);
  };
  int best_element = kNoFit;
  int best_offset = 0;
  auto keep = [&](int offset) {
    best_element = element;
    best_offset = offset;
    for (int ch = 0; ch < channels_; ++ch) s.best[ch] = s.data[ch];
  };

  // Each step of the offset costs ~0.3 bits a nonzero value (3/16 of a bit of precision,
  // and values that drop to zero or rise from it), which
  // predicts the next try; a bracket around the answer keeps the search from cycling.
  const int tolerance = std::max(16, mean_frame_bits_ / 32);
  int offset = std::clamp(previous_offset_, -kOffsetRange, kOffsetRange);
  int fits_at = 1 << 20;      // Smallest offset known to fit the target.
  int fails_at = -(1 << 20);  // Largest offset known to exceed it.
  for (int round = 0; round < 8; ++round) {
    const int bits = count(offset, false);
    if (bits != kNoFit && bits <= target) {
      if (offset < fits_at) {
        fits_at = offset;
        keep(offset);
      }
      // Close enough, or as fine as the offset goes.
      if (target - bits <= tolerance || offset <= -kOffsetRange) break;
    } else {
      fails_at = std::max(fails_at, offset);
    }
    if (fits_at - fails_at <= 1) break;
    const float slope = std::max(0.3f * static_cast<float>(nonzero), 16.0f);
    int step = bits == kNoFit ? 8 : static_cast<int>(std::lround((bits - target) / slope));
    if (step == 0) step = bits <= target ? -1 : 1;
    int next = std::clamp(offset + step, -kOffsetRange, kOffsetRange);
    if (next >= fits_at || next <= fails_at) {
      next = fits_at < (1 << 20) && fails_at > -(1 << 20) ? (fits_at + fails_at) / 2
             : next >= fits_at                            ? fits_at - 1
                                                          : fails_at + 1;
    }
    offset = next;
  }
  if (best_element == kNoFit) {
    // Nothing met the target: coarsen until the frame fits what may be spent, with one
    // scalefactor for all bands if the syntax refuses the spread between them.
    const int first = std::max(offset, fails_at + 1);
    for (const bool uniform : {false, true}) {
      for (offset = first; offset < first + 256 && best_element == kNoFit; offset += 4) {
        const int bits = count(offset, uniform);
        if (bits != kNoFit && bits <= most) keep(offset);
      }
    }
    if (best_element == kNoFit) return kNoFit;
  }
  for (int ch = 0; ch < channels_; ++ch) s.data[ch] = s.best[ch];
  // A frame coarsened past the range (the fallback) must not drag the next one there.
  previous_offset_ = std::clamp(best_offset, -kOffsetRange, kOffsetRange);
  return best_element;
}

std::shared_ptr<AudioFrame> AacEncoder::Emit(uint32_t timestamp_ms, int element_bits) {
  State& s = *state_;
  const int mean = static_cast<int>((bits_remainder_ + bits_per_frame_num_) / sample_rate_);
  bits_remainder_ = (bits_remainder_ + bits_per_frame_num_) % sample_rate_;
  const int available = mean + reservoir_bits_;

  uint8_t* out = s.output.data();
  const int header = adts_ ? aac::kAdtsHeaderBytes : 0;
  aac::BitWriter writer(out + header, s.output.size() - header);
  if (channels_ == 1) {
    aac::WriteSingleChannelElement(&writer, s.data[0]);
  } else {
    aac::WriteChannelPairElement(&writer, s.data[0], s.data[1], s.any_ms ? s.ms_used : nullptr);
  }
  // What the reservoir cannot keep is padded out with fill elements (7 + 8n bits each).
  auto frame_bits = [&]() {
    return RoundUpToByte(static_cast<int>(writer.bit_count()) + aac::kEndBits);
  };
  for (int excess = available - frame_bits() - reservoir_max_; excess > 0;
       excess = available - frame_bits() - reservoir_max_) {
    if (aac::WriteFillElement(&writer, excess + aac::kElementHeaderBits) <= 0) break;
  }
  aac::WriteEnd(&writer);
  const int total = static_cast<int>(writer.bit_count());  // Byte-aligned now.
  if (writer.overflowed() || total > available) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "access unit of " << total << " bits (element " << element_bits << ") does not fit "
        << available << " bits";
    return nullptr;
  }
  reservoir_bits_ = available - total;
  s.previous_frame_empty = true;
  for (int ch = 0; ch < channels_; ++ch) {
    s.previous_frame_empty = s.previous_frame_empty && s.data[ch].ics.max_sfb == 0;
  }
  const int payload = static_cast<int>(writer.byte_count());
  if (adts_) {
    const int fullness = std::min(reservoir_bits_ / (32 * channels_), 0x7FE);
    aac::WriteAdtsHeader(out, sampling_frequency_index_, channels_, payload, fullness);
  }
  // Running mean of the perceptual entropy, for the next frames' shares.
  mean_pe_ = mean_pe_ <= 0.0f ? s.pe : 0.95f * mean_pe_ + 0.05f * s.pe;

  auto frame = std::make_shared<AudioFrame>();
  frame->SetData(out, static_cast<uint64_t>(header + payload));
  frame->SetTimestampInMs(timestamp_ms);
  frame->SetSampleRate(sample_rate_);
  frame->SetChannels(channels_);
  frame->SetAudioFrameFormat(kAac);
  frame->SetEncoderDelaySamples(kFrameLength);
  return frame;
}

}  // namespace aac
}  // namespace audio
}  // namespace tarnel
