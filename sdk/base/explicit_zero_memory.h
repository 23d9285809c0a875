// Zeroes memory in a way the compiler may not drop as a dead store.
#ifndef SDK_BASE_EXPLICIT_ZERO_MEMORY_H_
#define SDK_BASE_EXPLICIT_ZERO_MEMORY_H_

#include <cstddef>

namespace tarnel {

// Sets `size` bytes at `data` to zero. Unlike memset, the write is kept even when the
// memory is never read again. `data` may be null when `size` is 0.
void ExplicitZeroMemory(void* data, size_t size);

}  // namespace tarnel

#endif  // SDK_BASE_EXPLICIT_ZERO_MEMORY_H_
