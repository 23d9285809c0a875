// Quality figures of a decoded signal against its reference: the lag between them, the
// noise-to-mask ratio (see nmr_model.h) and SNRs, per block and for the whole item.
//
//   QualityOptions options;               // 2048-sample blocks, lag searched
//   QualityReport report;
//   std::string error;
//   if (!MeasureQuality(reference, decoded, options, &report, &error)) { ... }
//
// Every figure in dB is finite: ratios are clamped to [kFloorDb, kCeilingDb], so
// identical signals give NMR kFloorDb (-100) and SNR kCeilingDb (200), and digital
// silence compared with digital silence gives the same. Figures taken over a subset of
// frames (segmental SNR, the lowest loud-frame SNR) are absent when no frame qualifies.
#ifndef BENCH_QUALITY_AUDIO_QUALITY_H_
#define BENCH_QUALITY_AUDIO_QUALITY_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bench/quality/nmr_model.h"
#include "bench/quality/wav_reader.h"

namespace tarnel_bench {
namespace quality {

constexpr double kFloorDb = -100.0;
constexpr double kCeilingDb = 200.0;
// Frames for SNRs over time, samples per channel.
constexpr int kSnrFrame = 1024;
// A frame is loud when its RMS (full scale 1.0) is above this; a full-scale sine is at
// -3 dBFS.
constexpr double kLoudFrameDbfs = -20.0;
// Segmental SNR leaves out frames quieter than this, and clamps each frame's SNR.
constexpr double kSegmentalMinDbfs = -60.0;
constexpr double kSegmentalLowDb = -10.0;
constexpr double kSegmentalHighDb = 80.0;

// 10 log10(numerator / denominator) clamped to [kFloorDb, kCeilingDb]; a zero
// denominator gives kCeilingDb (nothing was lost), a zero numerator then kFloorDb.
double RatioDb(double numerator, double denominator);

// The lag of `decoded` against `reference` within +-max_lag samples: decoded[n + lag]
// matches reference[n]. Taken where the cross-correlation of the channel sums peaks
// (computed by FFT over the whole signals); ties go to the smaller |lag|, silence gives 0.
int FindLag(const Audio& reference, const Audio& decoded, int max_lag);

struct QualityOptions {
  int block_size = 2048;   // NMR blocks (hop: half), a power of two 256..16384.
  std::optional<int> lag;  // Given: used instead of the lag found.
  int max_lag = 4096;
  NmrModel::NoiseSpectrum noise = NmrModel::NoiseSpectrum::kComplexDifference;
};

struct BlockFigures {
  int channel = 0;
  double time_s = 0;  // Centre of the block on the reference's timeline.
  double nmr_db = 0;
  double snr_db = 0;  // Over the block's samples, unwindowed.
};

// One band of the ear model over the whole item.
struct BandFigures {
  double center_hz = 0;
  double nmr_db = kFloorDb;  // 10 log10 of the band's mean linear NMR over all blocks.
};

struct ChannelFigures {
  double nmr_total_db = 0;
  double snr_db = 0;
};

struct QualityReport {
  int sample_rate = 0;
  int channels = 0;
  int lag_found = 0;
  int lag = 0;                   // The one used: given or found.
  int64_t compared_samples = 0;  // Per channel, after alignment.
  // Over all blocks of all channels. Total: 10 log10 of the mean of the linear block
  // NMRs, as PEAQ's total NMR.
  double nmr_total_db = kFloorDb;
  double nmr_mean_db = kFloorDb;  // Mean of the blocks' dB values.
  double nmr_p99_db = kFloorDb;   // 99th percentile of the blocks' dB values.
  double nmr_max_db = kFloorDb;
  double blocks_above_0db = 0;  // Share of blocks with NMR > 0 dB.
  double snr_db = kCeilingDb;   // Whole signal, all channels.
  std::optional<double> segmental_snr_db;
  std::optional<double> min_loud_frame_snr_db;
  double min_loud_frame_time_s = 0;
  int loud_frames = 0;
  std::vector<ChannelFigures> per_channel;
  std::vector<BlockFigures> blocks;
  std::vector<BandFigures> bands;
};

// False, with `*error` set, when the two differ in rate or channel count or do not
// overlap after alignment. A compared span shorter than one block is padded with zeros.
bool MeasureQuality(const Audio& reference, const Audio& decoded, const QualityOptions& options,
                    QualityReport* report, std::string* error);

}  // namespace quality
}  // namespace tarnel_bench

#endif  // BENCH_QUALITY_AUDIO_QUALITY_H_
