// Text for errno values, safe on any thread.
//
//   if (fd < 0) TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << ErrnoText(errno);
//
// std::strerror may hand every thread the same static buffer, and the recorders' worker
// threads log file errors concurrently; this goes through strerror_r into a buffer of
// the caller's own.
#ifndef SDK_BASE_ERRNO_TEXT_H_
#define SDK_BASE_ERRNO_TEXT_H_

#include <string>

namespace tarn_base {

// The C library's message for `error`, e.g. "No space left on device".
std::string ErrnoText(int error);

}  // namespace tarn_base

#endif  // SDK_BASE_ERRNO_TEXT_H_
