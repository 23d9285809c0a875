// A small radix-2 complex FFT for the quality measures (block spectra and the
// cross-correlation that aligns two signals). Not tuned: the measures spend
// milliseconds per second of audio in it.
#ifndef BENCH_QUALITY_FFT_H_
#define BENCH_QUALITY_FFT_H_

#include <complex>
#include <cstddef>
#include <vector>

namespace tarnel_bench {
namespace quality {

bool IsPowerOfTwo(size_t n);

// The smallest power of two >= n (1 for n == 0).
size_t NextPowerOfTwo(size_t n);

// In place: X[k] = sum_n x[n] e^{-2 pi i n k / N}, or with `inverse` the inverse
// transform scaled by 1/N. The size must be a power of two.
void Fft(std::vector<std::complex<double>>* data, bool inverse = false);

}  // namespace quality
}  // namespace tarnel_bench

#endif  // BENCH_QUALITY_FFT_H_
