// Finishes an MP4 or M4A that the recorder left fragmented (the process was killed,
// the power went), in place, into the same standard file a clean stop makes.
//
//   std::string message;
//   if (RepairMp4File("/rec/call.mp4", &message) == RepairResult::kRepaired) ...
//
// It only touches files it can vouch for: the ftyp followed by the 16 bytes the writer
// reserves and marks while recording, then its fragmented moov. Everything up to the
// last complete fragment is kept; a torn fragment after it is cut off. The steps are
// ordered so that a repair killed at any point leaves a file that still plays (and
// that a second repair finishes): the moov is written after the last fragment and
// synced before the reserved bytes become the mdat header.
//
// Blocking file I/O; call it from any thread, but not on a file being recorded.
#ifndef SDK_MEDIA_STREAM_WRITER_MP4_MP4_REPAIR_H_
#define SDK_MEDIA_STREAM_WRITER_MP4_MP4_REPAIR_H_

#include <string>

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {

enum class RepairResult {
  kRepaired,         // Now a standard file.
  kAlreadyFinished,  // A finished file: left as it is.
  kRefused,          // Not a fragmented file of this writer, or nothing to keep: untouched.
  kFailed,           // Reading or writing the file failed; it still plays as it did.
};

// Repairs the file at `path`; `message` says what was done or why not.
RepairResult RepairMp4File(const std::string& path, std::string* message);

}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_MP4_MP4_REPAIR_H_
