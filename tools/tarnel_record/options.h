// Command-line options of tarnel-record.
#ifndef TOOLS_TARNEL_RECORD_OPTIONS_H_
#define TOOLS_TARNEL_RECORD_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sdk/common/local_recording/local_recording.h"
#include "tools/tarnel_record/media_source.h"

namespace tarnel_record {

struct TimestampJump {
  int64_t at_ms = 0;     // Source time from which the jump applies.
  int64_t delta_ms = 0;  // Added to every later timestamp of the stream.
};

struct Options {
  // One with both streams, or video then audio. Each carries the input options given
  // before its -i (url, input_format, video_fps, pcm_sample_rate, pcm_channels); the
  // rest of SourceOptions is decided when recording.
  std::vector<SourceOptions> inputs;
  std::string output;
  bool audio_passthrough = false;

  std::string format;  // mp4, mkv, wav, m4a, aac; empty: from the output's extension.
  std::string type;    // av, audio, video; empty: from the format.
  int segment_seconds = 0;
  bool stereo = false;
  bool fill_muted = false;
  int progress_ms = 1000;
  std::string aac_encoder = "tarnel";  // tarnel, twoloop or fast.
  bool progress_ms_given = false;

  enum class Pacing { kDefault, kRealtime, kFast, kBurst } pacing = Pacing::kDefault;
  bool json = false;
  // --max-queue-mb: the recorder's bound on media it holds, in MiB; unset: its default.
  std::optional<int64_t> max_queue_mb;

  // --repair FILE: finish an MP4/M4A a crash left fragmented instead of recording.
  std::string repair;

  // Fault injection.
  std::optional<std::pair<int64_t, int64_t>> drop_audio_ms;  // [from, to) of source time.
  std::optional<TimestampJump> jump_video;
  std::optional<TimestampJump> jump_audio;
  std::optional<int64_t> resize_at_ms;
};

// Parses argv. Returns false with a message in `error` for bad usage; sets `help` when
// --help was asked for. As in ffmpeg, the input options (-f, --video-fps, --pcm-rate,
// --pcm-channels) apply to the next -i only; one given after the last -i is an error.
bool ParseOptions(int argc, char** argv, Options* options, bool* help, std::string* error);
std::string HelpText();

// Once an input is open: false, with the reason, when an input option was given for a
// stream the input does not provide (as when it was meant for the other input).
bool CheckInputOptionsApply(const SourceOptions& input, bool has_video, bool has_audio,
                            std::string* error);

// The recorder parameters the options describe, or an error.
bool ToRecordingParams(const Options& options,
                       tarnel::recording::LocalRecordingInitialParams* params, std::string* error);

}  // namespace tarnel_record

#endif  // TOOLS_TARNEL_RECORD_OPTIONS_H_
