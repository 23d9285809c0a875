#include "bench/quality/wav_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace tarnel_bench {
namespace quality {
namespace {

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatFloat = 3;
constexpr uint16_t kFormatExtensible = 0xfffe;

uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t U32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

bool Fail(std::string* error, const std::string& message) {
  *error = message;
  return false;
}

// One little-endian sample of `bytes` bytes at `p` as full scale 1.0.
double Sample(const uint8_t* p, int bytes, bool is_float) {
  if (is_float) {
    if (bytes == 4) {
      float v;
      uint32_t bits = U32(p);
      std::memcpy(&v, &bits, sizeof(v));
      return v;
    }
    uint64_t bits = U32(p) | (static_cast<uint64_t>(U32(p + 4)) << 32);
    double v;
    std::memcpy(&v, &bits, sizeof(v));
    return v;
  }
  switch (bytes) {
    case 1:
      return (static_cast<int>(p[0]) - 128) / 128.0;  // 8-bit WAVE is unsigned.
    case 2:
      return static_cast<int16_t>(U16(p)) / 32768.0;
    case 3: {
      const int32_t v =
          static_cast<int32_t>((p[0] << 8) | (p[1] << 16) | (static_cast<uint32_t>(p[2]) << 24)) >>
          8;
      return v / 8388608.0;
    }
    default:
      return static_cast<int32_t>(U32(p)) / 2147483648.0;
  }
}

}  // namespace

bool ReadWav(const std::string& path, Audio* audio, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return Fail(error, "cannot open " + path);
  const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
  if (file.size() < 12 || std::memcmp(file.data(), "RIFF", 4) != 0 ||
      std::memcmp(file.data() + 8, "WAVE", 4) != 0) {
    return Fail(error, path + ": not a RIFF/WAVE file");
  }
  int channels = 0;
  int sample_rate = 0;
  int bits = 0;
  uint16_t format = 0;
  bool have_format = false;
  size_t pos = 12;
  while (pos + 8 <= file.size()) {
    const uint8_t* chunk = file.data() + pos;
    const size_t size = U32(chunk + 4);
    const size_t body = pos + 8;
    if (std::memcmp(chunk, "fmt ", 4) == 0) {
      if (size < 16 || body + size > file.size()) return Fail(error, path + ": bad fmt chunk");
      format = U16(file.data() + body);
      channels = U16(file.data() + body + 2);
      sample_rate = static_cast<int>(U32(file.data() + body + 4));
      bits = U16(file.data() + body + 14);
      if (format == kFormatExtensible) {
        if (size < 26) return Fail(error, path + ": bad extensible fmt chunk");
        format = U16(file.data() + body + 24);  // The sub-format GUID's first two bytes.
      }
      have_format = true;
    } else if (std::memcmp(chunk, "data", 4) == 0) {
      if (!have_format) return Fail(error, path + ": data before fmt");
      const bool is_float = format == kFormatFloat;
      if (!(format == kFormatPcm && (bits == 8 || bits == 16 || bits == 24 || bits == 32)) &&
          !(is_float && (bits == 32 || bits == 64))) {
        return Fail(error, path + ": unsupported sample format " + std::to_string(format) + "/" +
                               std::to_string(bits) + " bits");
      }
      if (channels < 1 || sample_rate < 1) return Fail(error, path + ": bad channels or rate");
      const int bytes = bits / 8;
      const size_t available = std::min(size, file.size() - body);
      const size_t frames = available / (static_cast<size_t>(bytes) * channels);
      audio->sample_rate = sample_rate;
      audio->channels.assign(channels, std::vector<float>(frames));
      const uint8_t* p = file.data() + body;
      for (size_t n = 0; n < frames; ++n) {
        for (int c = 0; c < channels; ++c, p += bytes) {
          audio->channels[c][n] = static_cast<float>(Sample(p, bytes, is_float));
        }
      }
      return true;
    }
    pos = body + size + (size & 1);  // Chunks are padded to even sizes.
  }
  return Fail(error, path + ": no data chunk");
}

std::vector<int16_t> ToS16(const Audio& audio) {
  const size_t channels = audio.channels.size();
  std::vector<int16_t> pcm(audio.frames() * channels);
  for (size_t c = 0; c < channels; ++c) {
    for (size_t n = 0; n < audio.frames(); ++n) {
      const double v = std::round(static_cast<double>(audio.channels[c][n]) * 32768.0);
      pcm[n * channels + c] = static_cast<int16_t>(std::clamp(v, -32768.0, 32767.0));
    }
  }
  return pcm;
}

}  // namespace quality
}  // namespace tarnel_bench
