// Temporal noise shaping for the AAC-LC encoder.
//
// An attack or an abrupt end inside a long window spreads the quantisation noise of its
// MDCT lines over the whole window, ahead of the attack too (pre-echo), where nothing
// masks it. A signal whose time envelope is peaky has a spectrum that is predictable
// along frequency: ApplyTns() fits a linear predictor over the lines of each window and
// replaces them by the prediction error (an all-zero filter running along frequency).
// The decoder's all-pole filter undoes that after dequantisation and, in doing so, gives
// the quantisation noise the temporal envelope of the signal: it lands under the attack
// instead of before it.
//
//   ... MDCT, masking thresholds from the unfiltered lines ...
//   for (int ch = 0; ch < channels; ++ch)
//     ApplyTns(spectrum[ch], sequence, *layout, sample_rate, coded_bands, &data[ch].tns);
//   ... mid/side, quantisation of the filtered lines, PrepareChannel*, Write* ...
//
// Nothing here allocates; ApplyTns() may be called from any thread on distinct data.
#ifndef SDK_MEDIA_AAC_TNS_H_
#define SDK_MEDIA_AAC_TNS_H_

#include "sdk/media/aac/aac_syntax.h"

namespace tarnel {
namespace audio {
namespace aac {

// Filters cover the bands from the first one at or above this frequency up to the coded
// bandwidth: lower down a window holds too few lines per octave for the envelope to
// matter and the noise there is masked by the low bands' own energy.
constexpr float kTnsLowestHz = 1500.0f;
// The prediction gain (energy of the band-normalised lines over that of their prediction
// error, with the quantised filter) from which a filter pays for its bits and its noise
// gain.
constexpr float kTnsMinimumGain = 1.4f;

// The TNS_MAX_BANDS of AAC-LC at `sample_rate` for long or short windows: the highest
// band a decoder filters. 0 for a rate that is not one of the 13 MPEG-4 rates.
int TnsMaxBands(int sample_rate, bool is_short);

// Decides for each window of `spectrum` (1024 lines in natural order: one long window
// or 8 short ones of 128) whether a filter pays, and where it does replaces the lines of
// bands [first band at kTnsLowestHz, min(TnsMaxBands, coded_bands)) by their prediction
// error under the quantised filter, running from low to high lines. `data` receives what
// tns_data() sends (present only when some window is filtered); `coded_bands` is the
// number of bands of this window kind the encoder may code: bands at and above it must
// be coded as zero, so that no decoder filters lines that were not filtered here.
// `window_gain`, when not null, receives for each window (one for long windows) the
// prediction gain of its filter, 1 where none: the decoder's filter multiplies the
// quantisation noise of the filtered lines by about as much (placing it under the
// envelope), so an encoder that aims its noise at a threshold per band divides the
// threshold of those bands by it. Returns data->present.
//
// To be called on each channel's lines after the masking analysis (which belongs to the
// unfiltered signal) and before mid/side: a decoder undoes mid/side first, then TNS per
// channel.
//
// Where the noise goes: the lines of a long window describe each half of it folded onto
// itself (time-domain aliasing), so the filter shapes the noise by the envelope of an
// attack at position p and of its mirror image in the same half (1023 - p in the first,
// 3071 - p in the second). The mirror lies after the attack when the attack is in the
// first quarter of a half; for an attack in the last quarter of the window it lies before
// the attack where the window is near 1, and TNS adds pre-echo instead. The encoder's
// window switching gives such attacks short windows; a caller that keeps a long window
// over one should not call this.
bool ApplyTns(float* spectrum, WindowSequence sequence, const BandLayout& layout, int sample_rate,
              int coded_bands, TnsData* data, float* window_gain = nullptr);

}  // namespace aac
}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AAC_TNS_H_
