// Helpers for end-to-end tests: run commands, read ffprobe's key=value output, decode
// audio and find events in the decoded media.
#ifndef TESTS_SUPPORT_E2E_UTIL_H_
#define TESTS_SUPPORT_E2E_UTIL_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tarnel_e2e {

struct CommandResult {
  int exit_code = -1;
  std::string output;  // stdout, and stderr too when asked for.
};

// Runs `command` through the shell.
CommandResult RunCommand(const std::string& command, bool with_stderr = false);

// Single-quotes `text` for the shell.
std::string Quote(const std::string& text);

// The streams of a file as ffprobe reports them with -count_frames: one map of
// key -> value per stream, in stream order ("codec_name", "nb_read_frames", ...).
std::vector<std::map<std::string, std::string>> ProbeStreams(const std::string& path);
// Format-level duration in seconds, or -1.
double ProbeDuration(const std::string& path);
// The packets of one stream (ffprobe's -select_streams, e.g. "a:0"): pts and dts in the
// stream's time base, and the key flag.
struct ProbedPacket {
  int64_t pts = 0;
  int64_t dts = 0;
  bool key = false;
};
std::vector<ProbedPacket> ProbePackets(const std::string& path, const std::string& stream);
// The codec extradata of stream `index` as lowercase hex; empty when there is none.
std::string ProbeExtradataHex(const std::string& path, int index);
// The types of an ISO media file's top-level boxes, space-separated ("ftyp moov ...");
// a box that runs past the end of the file is listed as "type(cut)".
std::string TopLevelBoxes(const std::string& path);
// Everything `ffmpeg -v error` prints while decoding the whole file; empty when clean.
std::string DecodeErrors(const std::string& path);

// The first audio stream decoded to mono float samples at `rate`.
std::vector<float> DecodeAudio(const std::string& path, int rate);
// Start times (s) of loud bursts: where a 1 ms RMS crosses `threshold` after at least
// `quiet_s` below it.
std::vector<double> FindBursts(const std::vector<float>& samples, int rate, float threshold,
                               double quiet_s);
// Presentation times (s) of video frames whose mean luma exceeds `luma`.
std::vector<double> FindBrightFrames(const std::string& path, double luma);

// A value from a flat JSON object line such as the tool's --json summary.
std::string JsonField(const std::string& json, const std::string& key);

}  // namespace tarnel_e2e

#endif  // TESTS_SUPPORT_E2E_UTIL_H_
