#include "sdk/base/explicit_zero_memory.h"

#include <string.h>

namespace tarnel {

void ExplicitZeroMemory(void* data, size_t size) {
  if (size == 0) return;  // memset(nullptr, 0, 0) is undefined behavior.
  memset(data, 0, size);
  // The empty asm takes `data` as an input and clobbers memory, so as far as the
  // compiler knows the zeroed bytes are read afterwards and the memset must stay.
  __asm__ __volatile__("" : : "r"(data) : "memory");
}

}  // namespace tarnel
