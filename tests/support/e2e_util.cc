#include "tests/support/e2e_util.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <sys/wait.h>

namespace tarnel_e2e {

CommandResult RunCommand(const std::string& command, bool with_stderr) {
  CommandResult result;
  const std::string full = with_stderr ? command + " 2>&1" : command;
  FILE* pipe = popen(full.c_str(), "r");
  if (!pipe) return result;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) result.output.append(buffer, n);
  const int status = pclose(pipe);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string Quote(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

std::vector<std::map<std::string, std::string>> ProbeStreams(const std::string& path) {
  const CommandResult probe =
      RunCommand("ffprobe -v error -count_frames -show_streams -of default=nw=0 " + Quote(path));
  std::vector<std::map<std::string, std::string>> streams;
  std::istringstream lines(probe.output);
  std::string line;
  while (std::getline(lines, line)) {
    if (line == "[STREAM]") {
      streams.emplace_back();
    } else if (!streams.empty()) {
      const size_t eq = line.find('=');
      if (eq != std::string::npos) streams.back()[line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
  return streams;
}

double ProbeDuration(const std::string& path) {
  const CommandResult probe =
      RunCommand("ffprobe -v error -show_entries format=duration -of csv=p=0 " + Quote(path));
  return probe.exit_code == 0 && !probe.output.empty() ? std::atof(probe.output.c_str()) : -1;
}

std::vector<ProbedPacket> ProbePackets(const std::string& path, const std::string& stream) {
  std::istringstream lines(RunCommand("ffprobe -v error -select_streams " + stream +
                                      " -show_entries packet=pts,dts,flags -of csv=p=0 " +
                                      Quote(path))
                               .output);
  std::vector<ProbedPacket> packets;
  long long pts, dts;
  char flag;
  for (std::string line; std::getline(lines, line);) {
    if (std::sscanf(line.c_str(), "%lld,%lld,%c", &pts, &dts, &flag) == 3) {
      packets.push_back({pts, dts, flag == 'K'});
    }
  }
  return packets;
}

std::string TopLevelBoxes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(0, std::ios::end);
  const int64_t file_size = in.tellg();
  std::string boxes;
  for (int64_t offset = 0; offset + 8 <= file_size;) {
    unsigned char header[16] = {};
    in.seekg(offset);
    in.read(reinterpret_cast<char*>(header), offset + 16 <= file_size ? 16 : 8);
    uint64_t size = 0;
    for (int i = 0; i < 4; ++i) size = size << 8 | header[i];
    if (size == 1) {
      size = 0;
      for (int i = 8; i < 16; ++i) size = size << 8 | header[i];
    } else if (size == 0) {
      size = static_cast<uint64_t>(file_size - offset);
    }
    boxes += (boxes.empty() ? "" : " ") + std::string(reinterpret_cast<char*>(header) + 4, 4);
    if (size < 8 || offset + static_cast<int64_t>(size) > file_size) {
      boxes += "(cut)";
      break;
    }
    offset += static_cast<int64_t>(size);
  }
  return boxes;
}

std::string ProbeExtradataHex(const std::string& path, int index) {
  // A dump of lines "00000000: 0164 000b ...  .d..": 16 bytes in hex, then as text.
  std::istringstream lines(
      RunCommand("ffprobe -v error -select_streams " + std::to_string(index) +
                 " -show_entries stream=extradata -show_data -of default=nw=1:nk=1 " + Quote(path))
          .output);
  std::string hex;
  for (std::string line; std::getline(lines, line);) {
    if (line.size() > 10 && line.compare(8, 2, ": ") == 0) hex += line.substr(10, 39);
  }
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  return hex;
}

std::string DecodeErrors(const std::string& path) {
  return RunCommand("ffmpeg -nostdin -v error -i " + Quote(path) + " -f null - 2>&1").output;
}

std::vector<float> DecodeAudio(const std::string& path, int rate) {
  const CommandResult decoded =
      RunCommand("ffmpeg -nostdin -v error -i " + Quote(path) + " -map 0:a:0 -ac 1 -ar " +
                 std::to_string(rate) + " -f f32le -");
  std::vector<float> samples(decoded.output.size() / sizeof(float));
  if (!samples.empty()) {
    std::copy(decoded.output.data(), decoded.output.data() + samples.size() * sizeof(float),
              reinterpret_cast<char*>(samples.data()));
  }
  return samples;
}

std::vector<double> FindBursts(const std::vector<float>& samples, int rate, float threshold,
                               double quiet_s) {
  std::vector<double> bursts;
  const size_t window = static_cast<size_t>(rate / 1000);
  double quiet_since = -1e9;
  bool loud = false;
  for (size_t start = 0; start + window <= samples.size(); start += window / 4) {
    double energy = 0;
    for (size_t i = start; i < start + window; ++i) energy += samples[i] * samples[i];
    const bool now_loud = std::sqrt(energy / window) > threshold;
    const double t = static_cast<double>(start) / rate;
    if (now_loud && !loud && t - quiet_since >= quiet_s) bursts.push_back(t);
    if (!now_loud && loud) quiet_since = t;
    loud = now_loud;
  }
  return bursts;
}

std::vector<double> FindBrightFrames(const std::string& path, double luma) {
  // lavfi's movie source keeps the file's timestamps; signalstats measures each frame.
  const CommandResult stats =
      RunCommand("ffprobe -v error -f lavfi -i " + Quote("movie=" + path + ",signalstats") +
                 " -show_entries frame=pts_time:frame_tags=lavfi.signalstats.YAVG -of csv=p=0");
  std::vector<double> times;
  std::istringstream lines(stats.output);
  std::string line;
  while (std::getline(lines, line)) {
    const size_t comma = line.find(',');
    if (comma == std::string::npos) continue;
    if (std::atof(line.c_str() + comma + 1) > luma) times.push_back(std::atof(line.c_str()));
  }
  return times;
}

std::string JsonField(const std::string& json, const std::string& key) {
  const std::string needle = "\"" + key + "\": ";
  const size_t at = json.find(needle);
  if (at == std::string::npos) return "";
  size_t begin = at + needle.size();
  if (json[begin] == '"') {
    const size_t end = json.find('"', begin + 1);
    return json.substr(begin + 1, end - begin - 1);
  }
  const size_t end = json.find_first_of(",}", begin);
  return json.substr(begin, end - begin);
}

}  // namespace tarnel_e2e
