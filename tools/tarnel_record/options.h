// Command-line options of tarnel-record.
#ifndef TOOLS_TARNEL_RECORD_OPTIONS_H_
#define TOOLS_TARNEL_RECORD_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sdk/common/local_recording/local_recording.h"

namespace tarnel_record {

struct TimestampJump {
  int64_t at_ms = 0;     // Source time from which the jump applies.
  int64_t delta_ms = 0;  // Added to every later timestamp of the stream.
};

struct Options {
  std::vector<std::string> inputs;  // One with both streams, or video then audio.
  std::string output;
  std::string input_format;
  double video_fps = 0;
  int pcm_sample_rate = 0;
  int pcm_channels = 0;
  bool audio_passthrough = false;

  std::string format;  // mp4, mkv, wav, m4a, aac; empty: from the output's extension.
  std::string type;    // av, audio, video; empty: from the format.
  int segment_seconds = 0;
  bool stereo = false;
  bool fill_muted = false;
  int progress_ms = 1000;
  std::string aac_encoder = "tarnel";  // tarnel, twoloop or fast.
  bool progress_ms_given = false;

  enum class Pacing { kDefault, kRealtime, kFast } pacing = Pacing::kDefault;
  bool json = false;

  // --repair FILE: finish an MP4/M4A a crash left fragmented instead of recording.
  std::string repair;

  // Fault injection.
  std::optional<std::pair<int64_t, int64_t>> drop_audio_ms;  // [from, to) of source time.
  std::optional<TimestampJump> jump_video;
  std::optional<TimestampJump> jump_audio;
  std::optional<int64_t> resize_at_ms;
};

// Parses argv. Returns false with a message in `error` for bad usage; sets `help` when
// --help was asked for.
bool ParseOptions(int argc, char** argv, Options* options, bool* help, std::string* error);
std::string HelpText();

// The recorder parameters the options describe, or an error.
bool ToRecordingParams(const Options& options,
                       tarnel::recording::LocalRecordingInitialParams* params, std::string* error);

}  // namespace tarnel_record

#endif  // TOOLS_TARNEL_RECORD_OPTIONS_H_
