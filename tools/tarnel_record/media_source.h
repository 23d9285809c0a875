// Reads one input (file or URL) with libavformat and turns it into the frames an
// application would hand to the recorder: Annex-B video access units and PCM s16 (or
// AAC) audio frames with millisecond timestamps.
#ifndef TOOLS_TARNEL_RECORD_MEDIA_SOURCE_H_
#define TOOLS_TARNEL_RECORD_MEDIA_SOURCE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "sdk/media/audio_frame.h"
#include "sdk/media/video_frame.h"

namespace tarnel_record {

struct SourceOptions {
  std::string url;
  std::string input_format;  // Forces a demuxer, e.g. "h264", "s16le"; empty: probe.
  double video_fps = 0;      // For raw streams without timing; 0: the demuxer's guess.
  int pcm_sample_rate = 0;   // For raw PCM.
  int pcm_channels = 0;
  bool use_video = true;
  bool use_audio = true;
  bool audio_passthrough = false;  // Hand AAC over as it is instead of decoding it.
};

// One frame in the source's order. Exactly one of the two is set.
struct SourceFrame {
  std::unique_ptr<tarnel::video::VideoFrame> video;
  std::unique_ptr<tarnel::audio::AudioFrame> audio;
  int64_t time_ms = 0;  // Source time, starting near 0.
};

class MediaSource {
 public:
  // Opens the input; on failure returns null and says why in `error`.
  static std::unique_ptr<MediaSource> Open(const SourceOptions& options, std::string* error);
  virtual ~MediaSource() = default;

  virtual bool has_video() const = 0;
  virtual bool has_audio() const = 0;
  // E.g. "h264 1280x720" / "aac 44100 Hz 2 ch -> pcm".
  virtual std::string Describe() const = 0;
  virtual bool is_live() const = 0;
  // The audio stream's rate and channel count as the input declares them (0 without
  // audio).
  virtual int audio_sample_rate() const = 0;
  virtual int audio_channels() const = 0;

  // The next frame; false at the end of the input or on a read error (then `error`
  // is set).
  virtual bool Next(SourceFrame* frame, std::string* error) = 0;
};

}  // namespace tarnel_record

#endif  // TOOLS_TARNEL_RECORD_MEDIA_SOURCE_H_
