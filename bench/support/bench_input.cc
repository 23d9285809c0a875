#include "bench/support/bench_input.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "sdk/media_stream_writer/annexb.h"

namespace tarnel_bench {
namespace {

using tarnel::media_stream_writer::NalUnitView;
using tarnel::media_stream_writer::SplitAnnexB;

constexpr int kSampleRate = 48000;
constexpr int kChannels = 2;

}  // namespace

std::vector<AccessUnit> SplitAccessUnits(const std::vector<uint8_t>& data) {
  static constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
  std::vector<AccessUnit> units;
  AccessUnit current;
  bool has_slice = false;
  for (const NalUnitView& nal : SplitAnnexB(data.data(), data.size())) {
    const uint8_t type = nal.data[0] & 0x1f;
    const bool slice = type == 1 || type == 5;
    bool starts_unit = false;
    if (type == 9) {
      starts_unit = true;
    } else if (type == 6 || type == 7 || type == 8) {
      starts_unit = has_slice;
    } else if (slice && has_slice && nal.size > 1) {
      starts_unit = (nal.data[1] & 0x80) != 0;  // ue(v) 0: first_mb_in_slice 0.
    }
    if (starts_unit && !current.bytes.empty()) {
      units.push_back(std::move(current));
      current = AccessUnit();
      has_slice = false;
    }
    current.bytes.insert(current.bytes.end(), std::begin(kStartCode), std::end(kStartCode));
    current.bytes.insert(current.bytes.end(), nal.data, nal.data + nal.size);
    if (slice) has_slice = true;
    if (type == 5) current.key = true;
  }
  if (!current.bytes.empty()) units.push_back(std::move(current));
  return units;
}

bool ReadFile(const std::string& path, std::vector<uint8_t>* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

std::vector<int16_t> MakeMusicLoop() {
  const int samples = 8 * kSampleRate;
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * kChannels);
  const double roots[4] = {261.63, 196.0, 220.0, 174.61};
  uint32_t noise = 12345;
  for (int i = 0; i < samples; ++i) {
    const double t = static_cast<double>(i) / kSampleRate;
    const int chord = static_cast<int>(t / 2) % 4;
    const double root = roots[chord];
    const double third = chord == 2 ? 1.1892 : 1.2599;
    const double note = 2 * root * std::pow(2.0, ((static_cast<int>(t * 4) * 7) % 12) / 12.0);
    const double envelope = std::exp(-6 * std::fmod(t, 0.25));
    for (int c = 0; c < kChannels; ++c) {
      noise = noise * 1664525u + 1013904223u;
      const double n = (static_cast<double>(noise >> 8) / (1 << 24)) * 2 - 1;
      const double v =
          (c ? 0.08 : 0.12) * std::sin(2 * M_PI * root * t + c) +
          0.09 * std::sin(2 * M_PI * root * third * t) +
          0.08 * std::sin(2 * M_PI * root * 1.4983 * t) +
          envelope * (0.2 * std::sin(2 * M_PI * note * t) + 0.07 * std::sin(4 * M_PI * note * t)) +
          0.012 * n;
      pcm[static_cast<size_t>(i) * kChannels + c] = static_cast<int16_t>(v * 32767);
    }
  }
  return pcm;
}

int64_t VmRssKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atoll(line.c_str() + 6);
  }
  return 0;
}

}  // namespace tarnel_bench
