#include "tools/tarnel_record/status_line.h"

#include <cstdio>

namespace tarnel_record {

std::string HumanSize(int64_t bytes) {
  char text[32];
  if (bytes >= 1024 * 1024) {
    std::snprintf(text, sizeof(text), "%.2f MiB", bytes / (1024.0 * 1024.0));
  } else {
    std::snprintf(text, sizeof(text), "%.1f KiB", bytes / 1024.0);
  }
  return text;
}

std::string FormatStatusLine(const RecordingStatus& status) {
  const int64_t centis = status.media_ms > 0 ? status.media_ms / 10 : 0;
  // Bits per millisecond are kbit/s.
  char bitrate[32] = "N/A";
  if (status.media_ms > 0) {
    std::snprintf(bitrate, sizeof(bitrate), "%.1fkbit/s",
                  static_cast<double>(status.bytes) * 8 / static_cast<double>(status.media_ms));
  }
  char speed[32] = "N/A";
  if (status.wall_seconds > 0) {
    std::snprintf(speed, sizeof(speed), "%.2fx", status.media_ms / 1000.0 / status.wall_seconds);
  }
  char line[192];
  std::snprintf(line, sizeof(line),
                "time=%02lld:%02lld:%02lld.%02lld size=%10s bitrate=%14s speed=%7s drop=%lld",
                static_cast<long long>(centis / 360000), static_cast<long long>(centis / 6000 % 60),
                static_cast<long long>(centis / 100 % 60), static_cast<long long>(centis % 100),
                HumanSize(status.bytes).c_str(), bitrate, speed,
                static_cast<long long>(status.dropped_frames));
  return line;
}

}  // namespace tarnel_record
