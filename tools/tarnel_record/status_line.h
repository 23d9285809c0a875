// The status line tarnel-record shows while it records, in the manner of ffmpeg's.
// Formatting only: the caller decides where it goes and how it is refreshed.
#ifndef TOOLS_TARNEL_RECORD_STATUS_LINE_H_
#define TOOLS_TARNEL_RECORD_STATUS_LINE_H_

#include <cstdint>
#include <string>

namespace tarnel_record {

struct RecordingStatus {
  int64_t media_ms = 0;        // Media time the recorder has written.
  int64_t bytes = 0;           // Size of the files written so far.
  double wall_seconds = 0;     // Wall time since the recording started.
  int64_t dropped_frames = 0;  // Video and audio frames the recorder dropped.
};

// E.g. "time=00:01:02.50 size= 12.34 MiB bitrate=  1579.5kbit/s speed=  1.00x drop=0".
// Fields have fixed widths (until a value outgrows them), so that a line rewritten in
// place after '\r' covers the one before; what cannot be computed yet reads "N/A".
std::string FormatStatusLine(const RecordingStatus& status);

// "12.34 MiB" from 1 MiB on, "987.6 KiB" below.
std::string HumanSize(int64_t bytes);

}  // namespace tarnel_record

#endif  // TOOLS_TARNEL_RECORD_STATUS_LINE_H_
