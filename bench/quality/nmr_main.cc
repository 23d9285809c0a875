// nmr: perceptual and waveform quality of a decoded WAV against its reference.
//
//   nmr REFERENCE.wav DECODED.wav [--lag N] [--max-lag N] [--block N] [--csv FILE]
//       [--bands FILE] [--json]
//
// Aligns the two (the lag is searched within +-max-lag samples unless --lag gives it;
// positive: the decoded signal is late), then prints the noise-to-mask ratio (total,
// 99th percentile and maximum over blocks, share of blocks above 0 dB) and the SNRs
// (whole signal, segmental, lowest over loud 1024-sample frames). See nmr_model.h for
// the ear model and audio_quality.h for the figures and their clamping. --csv writes
// one row per block and channel (time, NMR, SNR), --bands one row per band of the ear
// model (centre frequency, NMR over the item): where the noise is heard.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/quality/audio_quality.h"
#include "bench/quality/wav_reader.h"

namespace {

using tarnel_bench::quality::Audio;
using tarnel_bench::quality::QualityOptions;
using tarnel_bench::quality::QualityReport;

int Usage() {
  std::fprintf(stderr,
               "usage: nmr REFERENCE.wav DECODED.wav [--lag N] [--max-lag N] [--block N]\n"
               "           [--csv FILE] [--bands FILE] [--json]\n");
  return 2;
}

std::string Optional(const std::optional<double>& value) {
  if (!value) return "null";
  char buffer[32];
  std::snprintf(buffer, sizeof(buffer), "%.3f", *value);
  return buffer;
}

void PrintJson(const QualityReport& r) {
  std::printf(
      "{\"sample_rate\": %d, \"channels\": %d, \"lag\": %d, \"lag_found\": %d, "
      "\"compared_samples\": %lld, \"blocks\": %zu, \"nmr_total_db\": %.3f, "
      "\"nmr_mean_db\": %.3f, \"nmr_p99_db\": %.3f, \"nmr_max_db\": %.3f, "
      "\"blocks_above_0db\": %.4f, \"snr_db\": %.3f, \"segmental_snr_db\": %s, "
      "\"min_loud_frame_snr_db\": %s, \"min_loud_frame_time_s\": %.3f, \"loud_frames\": %d, "
      "\"per_channel\": [",
      r.sample_rate, r.channels, r.lag, r.lag_found, static_cast<long long>(r.compared_samples),
      r.blocks.size(), r.nmr_total_db, r.nmr_mean_db, r.nmr_p99_db, r.nmr_max_db,
      r.blocks_above_0db, r.snr_db, Optional(r.segmental_snr_db).c_str(),
      Optional(r.min_loud_frame_snr_db).c_str(), r.min_loud_frame_time_s, r.loud_frames);
  for (size_t c = 0; c < r.per_channel.size(); ++c) {
    std::printf("%s{\"nmr_total_db\": %.3f, \"snr_db\": %.3f}", c ? ", " : "",
                r.per_channel[c].nmr_total_db, r.per_channel[c].snr_db);
  }
  std::printf("]}\n");
}

void PrintText(const QualityReport& r) {
  std::printf("lag %d samples (found %d)\n", r.lag, r.lag_found);
  std::printf("compared %lld samples x %d channels at %d Hz, %zu blocks\n",
              static_cast<long long>(r.compared_samples), r.channels, r.sample_rate,
              r.blocks.size());
  std::printf(
      "NMR total %.2f dB, mean %.2f dB, 99th percentile %.2f dB, max %.2f dB, "
      "%.1f%% of blocks above 0 dB\n",
      r.nmr_total_db, r.nmr_mean_db, r.nmr_p99_db, r.nmr_max_db, 100 * r.blocks_above_0db);
  std::printf("SNR %.2f dB, segmental %s dB, lowest loud frame %s dB at %.3f s (%d loud)\n",
              r.snr_db, Optional(r.segmental_snr_db).c_str(),
              Optional(r.min_loud_frame_snr_db).c_str(), r.min_loud_frame_time_s, r.loud_frames);
  for (size_t c = 0; c < r.per_channel.size(); ++c) {
    std::printf("channel %zu: NMR total %.2f dB, SNR %.2f dB\n", c, r.per_channel[c].nmr_total_db,
                r.per_channel[c].snr_db);
  }
}

bool WriteCsv(const std::string& path, const QualityReport& r) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (!f) return false;
  std::fprintf(f, "channel,time_s,nmr_db,snr_db\n");
  for (const auto& b : r.blocks) {
    std::fprintf(f, "%d,%.4f,%.3f,%.3f\n", b.channel, b.time_s, b.nmr_db, b.snr_db);
  }
  return std::fclose(f) == 0;
}

bool WriteBands(const std::string& path, const QualityReport& r) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (!f) return false;
  std::fprintf(f, "center_hz,nmr_db\n");
  for (const auto& b : r.bands) std::fprintf(f, "%.1f,%.3f\n", b.center_hz, b.nmr_db);
  return std::fclose(f) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string paths[2];
  int path_count = 0;
  std::string csv;
  std::string bands;
  bool json = false;
  QualityOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--json") {
      json = true;
    } else if (arg == "--lag" && has_value) {
      options.lag = std::atoi(argv[++i]);
    } else if (arg == "--max-lag" && has_value) {
      options.max_lag = std::atoi(argv[++i]);
    } else if (arg == "--block" && has_value) {
      options.block_size = std::atoi(argv[++i]);
    } else if (arg == "--magnitude-noise") {
      options.noise = tarnel_bench::quality::NmrModel::NoiseSpectrum::kMagnitudeDifference;
    } else if (arg == "--bands" && has_value) {
      bands = argv[++i];
    } else if (arg == "--csv" && has_value) {
      csv = argv[++i];
    } else if (!arg.empty() && arg[0] != '-' && path_count < 2) {
      paths[path_count++] = arg;
    } else {
      return Usage();
    }
  }
  if (path_count != 2 || options.max_lag < 0) return Usage();

  Audio reference, decoded;
  std::string error;
  if (!tarnel_bench::quality::ReadWav(paths[0], &reference, &error) ||
      !tarnel_bench::quality::ReadWav(paths[1], &decoded, &error)) {
    std::fprintf(stderr, "nmr: %s\n", error.c_str());
    return 1;
  }
  QualityReport report;
  if (!tarnel_bench::quality::MeasureQuality(reference, decoded, options, &report, &error)) {
    std::fprintf(stderr, "nmr: %s\n", error.c_str());
    return 1;
  }
  if (!csv.empty() && !WriteCsv(csv, report)) {
    std::fprintf(stderr, "nmr: cannot write %s\n", csv.c_str());
    return 1;
  }
  if (!bands.empty() && !WriteBands(bands, report)) {
    std::fprintf(stderr, "nmr: cannot write %s\n", bands.c_str());
    return 1;
  }
  if (json) {
    PrintJson(report);
  } else {
    PrintText(report);
  }
  return 0;
}
