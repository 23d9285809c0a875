#include "sdk/base/errno_text.h"

#include <string.h>

namespace tarn_base {
namespace {

// Picks the right result of whichever strerror_r the C library declares: the XSI one
// fills the buffer and returns 0, the GNU one returns the text, in the buffer or not.
[[maybe_unused]] const char* StrErrorResult(int result, const char* buffer) {
  return result == 0 ? buffer : "unknown error";
}
[[maybe_unused]] const char* StrErrorResult(const char* result, const char* /*buffer*/) {
  return result;
}

}  // namespace

std::string ErrnoText(int error) {
  char buffer[128] = {};
  return StrErrorResult(strerror_r(error, buffer, sizeof(buffer)), buffer);
}

}  // namespace tarn_base
