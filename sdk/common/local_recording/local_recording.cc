#include "sdk/common/local_recording/local_recording.h"

#include <sstream>

namespace tarnel {
namespace recording {

std::string InternalErrorToString(InternalError error) {
  switch (error) {
    case kOk:
      return "Ok";
    case kAlreadyStarted:
      return "AlreadyStarted";
    case kUnsupportedFormat:
      return "UnsupportedFormat";
    case kAudioEncoderFailed:
      return "AudioEncoderFailed";
    case kStreamWriterFailed:
      return "StreamWriterFailed";
    case kResolutionChanged:
      return "ResolutionChanged";
    case kInvalidTimestamp:
      return "InvalidTimestamp";
    case kNoStreamArrived:
      return "NoStreamArrived";
    case kUnsupportedRpsMode:
      return "UnsupportedRpsMode";
    case kFileAlreadyExists:
      return "FileAlreadyExists";
    case kPathUnwritable:
      return "PathUnwritable";
  }
  return "Unknown(" + std::to_string(static_cast<int32_t>(error)) + ")";
}

std::string LocalRecordingInitialParams::ToString() const {
  std::ostringstream out;
  out << "{file_path: " << file_path << ", media_format: " << media_format
      << ", progress_interval_ms: " << progress_interval_ms
      << ", fill_muted_frame: " << (fill_muted_frame ? "true" : "false")
      << ", record_type: " << record_type << ", segment_interval: " << segment_interval
      << ", stereo_audio: " << (stereo_audio ? "true" : "false") << "}";
  return out.str();
}

}  // namespace recording
}  // namespace tarnel
