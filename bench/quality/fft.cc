#include "bench/quality/fft.h"

#include <cassert>
#include <cmath>
#include <utility>

namespace tarnel_bench {
namespace quality {

bool IsPowerOfTwo(size_t n) { return n != 0 && (n & (n - 1)) == 0; }

size_t NextPowerOfTwo(size_t n) {
  size_t p = 1;
  while (p < n) p <<= 1;
  return p;
}

void Fft(std::vector<std::complex<double>>* data, bool inverse) {
  std::vector<std::complex<double>>& x = *data;
  const size_t n = x.size();
  assert(IsPowerOfTwo(n));
  for (size_t i = 1, j = 0; i < n; ++i) {  // Bit-reversed order.
    size_t bit = n >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j ^= bit;
    if (i < j) std::swap(x[i], x[j]);
  }
  const double sign = inverse ? 1.0 : -1.0;
  for (size_t len = 2; len <= n; len <<= 1) {
    const double angle = sign * 2 * M_PI / static_cast<double>(len);
    const size_t half = len / 2;
    // Twiddles of this stage computed once, directly, so that rounding does not build up
    // along long transforms.
    std::vector<std::complex<double>> twiddle(half);
    for (size_t k = 0; k < half; ++k) {
      twiddle[k] = std::polar(1.0, angle * static_cast<double>(k));
    }
    for (size_t start = 0; start < n; start += len) {
      for (size_t k = 0; k < half; ++k) {
        const std::complex<double> u = x[start + k];
        const std::complex<double> v = x[start + k + half] * twiddle[k];
        x[start + k] = u + v;
        x[start + k + half] = u - v;
      }
    }
  }
  if (inverse) {
    for (auto& v : x) v /= static_cast<double>(n);
  }
}

}  // namespace quality
}  // namespace tarnel_bench
