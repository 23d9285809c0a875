// The modified discrete cosine transform of the AAC encoder.
//
//   std::unique_ptr<Mdct> mdct = Mdct::Create(1024);
//   mdct->Forward(windowed, spectrum);  // 2048 windowed samples in, 1024 lines out
//
// Forward() computes, for a window of 2N samples z[n] and N lines,
//   X[k] = 2 * sum_n z[n] * cos(pi / N * (n + 1/2 + N/2) * (k + 1/2)),
// the encoder-side transform whose inverse in an AAC decoder (2/N times the cosine sum,
// windowed and overlapped) gives back the input: with samples in 16-bit PCM units the
// spectral values are in the units the bitstream's quantiser expects.
#ifndef SDK_MEDIA_AAC_MDCT_H_
#define SDK_MEDIA_AAC_MDCT_H_

#include <memory>

namespace tarnel {
namespace audio {
namespace aac {

class Mdct {
 public:
  virtual ~Mdct() = default;

  // A transform of `lines` output lines (2 * lines input samples); null when it cannot
  // be set up. Backed by libavutil's SIMD transforms.
  static std::unique_ptr<Mdct> Create(int lines);

  // `input`: 2 * lines samples, already windowed; `output`: lines values. Both must be
  // 32-byte aligned. Not thread-safe: one transform per thread.
  virtual void Forward(const float* input, float* output) = 0;
};

}  // namespace aac
}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AAC_MDCT_H_
