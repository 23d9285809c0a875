// Inputs and process figures shared by the programs that drive real recorders
// (concurrent_benchmark, soak): an H.264 stream cut into access units, a music-like PCM
// loop, file reading and the process's resident memory.
#ifndef BENCH_SUPPORT_BENCH_INPUT_H_
#define BENCH_SUPPORT_BENCH_INPUT_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tarnel_bench {

// One access unit of an Annex-B H.264 stream, with 4-byte start codes.
struct AccessUnit {
  std::vector<uint8_t> bytes;
  bool key = false;
};

// Splits an Annex-B stream into access units: a new one starts at an AUD, at an
// SPS/PPS/SEI that follows a slice of the current one, or at the first slice of a
// picture (first_mb_in_slice == 0) when the current one already has a slice.
std::vector<AccessUnit> SplitAccessUnits(const std::vector<uint8_t>& data);

bool ReadFile(const std::string& path, std::vector<uint8_t>* out);

// Eight seconds of 48 kHz stereo s16: chords with a decaying melody and a little noise,
// enough going on that the AAC encoder does real work.
std::vector<int16_t> MakeMusicLoop();

// VmRSS of this process, KiB.
int64_t VmRssKiB();

}  // namespace tarnel_bench

#endif  // BENCH_SUPPORT_BENCH_INPUT_H_
