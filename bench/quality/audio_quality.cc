#include "bench/quality/audio_quality.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>

#include "bench/quality/fft.h"
#include "bench/quality/nmr_model.h"

namespace tarnel_bench {
namespace quality {
namespace {

std::vector<double> ChannelSum(const Audio& audio) {
  std::vector<double> sum(audio.frames(), 0.0);
  for (const auto& channel : audio.channels) {
    for (size_t n = 0; n < sum.size(); ++n) sum[n] += channel[n];
  }
  return sum;
}

double Energy(const double* x, size_t n) {
  double e = 0;
  for (size_t i = 0; i < n; ++i) e += x[i] * x[i];
  return e;
}

}  // namespace

double RatioDb(double numerator, double denominator) {
  if (!(denominator > 0)) return kCeilingDb;
  if (!(numerator > 0)) return kFloorDb;
  return std::clamp(10 * std::log10(numerator / denominator), kFloorDb, kCeilingDb);
}

int FindLag(const Audio& reference, const Audio& decoded, int max_lag) {
  const std::vector<double> r = ChannelSum(reference);
  const std::vector<double> d = ChannelSum(decoded);
  // Large enough that no lag within +-max_lag wraps around.
  const size_t size = NextPowerOfTwo(std::max(r.size(), d.size()) + max_lag + 1);
  std::vector<std::complex<double>> a(size), b(size);
  for (size_t n = 0; n < r.size(); ++n) a[n] = r[n];
  for (size_t n = 0; n < d.size(); ++n) b[n] = d[n];
  Fft(&a);
  Fft(&b);
  for (size_t k = 0; k < size; ++k) a[k] = std::conj(a[k]) * b[k];
  Fft(&a, /*inverse=*/true);  // a[l] = sum_n r[n] d[n + l], l < 0 at size + l.
  const double tolerance =
      1e-9 * std::sqrt(Energy(r.data(), r.size()) * Energy(d.data(), d.size()));
  int best_lag = 0;
  double best = a[0].real();
  for (int step = 1; step <= max_lag; ++step) {
    for (int lag : {step, -step}) {
      const double value = a[lag >= 0 ? lag : size + lag].real();
      if (value > best + tolerance) {
        best = value;
        best_lag = lag;
      }
    }
  }
  return best_lag;
}

bool MeasureQuality(const Audio& reference, const Audio& decoded, const QualityOptions& options,
                    QualityReport* report, std::string* error) {
  if (reference.sample_rate != decoded.sample_rate) {
    *error = "sample rates differ: " + std::to_string(reference.sample_rate) + " vs " +
             std::to_string(decoded.sample_rate);
    return false;
  }
  if (reference.channels.size() != decoded.channels.size() || reference.channels.empty()) {
    *error = "channel counts differ or are zero";
    return false;
  }
  if (!IsPowerOfTwo(options.block_size) || options.block_size < 256 || options.block_size > 16384) {
    *error = "block size must be a power of two from 256 to 16384";
    return false;
  }
  QualityReport& out = *report;
  out = QualityReport();
  out.sample_rate = reference.sample_rate;
  out.channels = static_cast<int>(reference.channels.size());
  out.lag_found = FindLag(reference, decoded, options.max_lag);
  out.lag = options.lag.value_or(out.lag_found);
  const int64_t lag = out.lag;
  const int64_t start = std::max<int64_t>(0, -lag);
  const int64_t end = std::min<int64_t>(reference.frames(), decoded.frames() - lag);
  if (end <= start) {
    *error = "the signals do not overlap at lag " + std::to_string(lag);
    return false;
  }
  const size_t count = static_cast<size_t>(end - start);
  out.compared_samples = static_cast<int64_t>(count);
  const int block = options.block_size;
  const size_t padded = std::max<size_t>(count, block);
  const size_t block_count = (padded - block) / (block / 2) + 1;
  const double rate = reference.sample_rate;
  const double segmental_min_power = std::pow(10.0, kSegmentalMinDbfs / 10);
  const double loud_power = std::pow(10.0, kLoudFrameDbfs / 10);

  double signal_energy = 0;
  double noise_energy = 0;
  double all_nmr_sum = 0;
  double segmental_sum = 0;
  int segmental_frames = 0;
  std::vector<double> block_db;
  std::vector<double> band_sum;
  std::vector<double> band_nmr;
  for (int c = 0; c < out.channels; ++c) {
    std::vector<double> ref(padded, 0.0), err(padded, 0.0);
    for (size_t n = 0; n < count; ++n) {
      ref[n] = reference.channels[c][start + n];
      err[n] = decoded.channels[c][start + n + lag] - ref[n];
    }
    const double channel_signal = Energy(ref.data(), count);
    const double channel_noise = Energy(err.data(), count);
    signal_energy += channel_signal;
    noise_energy += channel_noise;

    NmrModel model(reference.sample_rate, block, options.noise);
    double channel_nmr_sum = 0;
    for (size_t b = 0; b < block_count; ++b) {
      const size_t s = b * model.hop();
      const double nmr = model.BlockNmr(&ref[s], &err[s], &band_nmr);
      band_sum.resize(band_nmr.size(), 0.0);
      for (size_t m = 0; m < band_nmr.size(); ++m) band_sum[m] += band_nmr[m];
      channel_nmr_sum += nmr;
      BlockFigures figures;
      figures.channel = c;
      figures.time_s = (start + s + block / 2.0) / rate;
      figures.nmr_db = RatioDb(nmr, 1.0);
      figures.snr_db = RatioDb(Energy(&ref[s], block), Energy(&err[s], block));
      out.blocks.push_back(figures);
      block_db.push_back(figures.nmr_db);
    }
    all_nmr_sum += channel_nmr_sum;
    if (c == 0) {
      for (int m = 0; m < model.band_count(); ++m) out.bands.push_back({model.band_center_hz(m)});
    }
    out.per_channel.push_back(
        {RatioDb(channel_nmr_sum / block_count, 1.0), RatioDb(channel_signal, channel_noise)});

    for (size_t f = 0; f + kSnrFrame <= count; f += kSnrFrame) {
      const double ps = Energy(&ref[f], kSnrFrame) / kSnrFrame;
      const double pe = Energy(&err[f], kSnrFrame) / kSnrFrame;
      if (ps > segmental_min_power) {
        segmental_sum += std::clamp(RatioDb(ps, pe), kSegmentalLowDb, kSegmentalHighDb);
        ++segmental_frames;
      }
      if (ps > loud_power) {
        const double snr = RatioDb(ps, pe);
        ++out.loud_frames;
        if (!out.min_loud_frame_snr_db || snr < *out.min_loud_frame_snr_db) {
          out.min_loud_frame_snr_db = snr;
          out.min_loud_frame_time_s = (start + f) / rate;
        }
      }
    }
  }

  for (size_t m = 0; m < out.bands.size(); ++m) {
    out.bands[m].nmr_db = RatioDb(band_sum[m] / static_cast<double>(block_db.size()), 1.0);
  }
  out.snr_db = RatioDb(signal_energy, noise_energy);
  if (segmental_frames > 0) out.segmental_snr_db = segmental_sum / segmental_frames;
  const double blocks_total = static_cast<double>(block_db.size());
  out.nmr_total_db = RatioDb(all_nmr_sum / blocks_total, 1.0);
  double db_sum = 0;
  int above = 0;
  for (double db : block_db) {
    db_sum += db;
    if (db > 0) ++above;
  }
  out.nmr_mean_db = db_sum / blocks_total;
  out.blocks_above_0db = above / blocks_total;
  std::sort(block_db.begin(), block_db.end());
  // Nearest rank: the smallest value that at least 99% of the blocks do not exceed.
  const size_t rank = static_cast<size_t>(std::ceil(0.99 * blocks_total));
  out.nmr_p99_db = block_db[std::max<size_t>(rank, 1) - 1];
  out.nmr_max_db = block_db.back();
  return true;
}

}  // namespace quality
}  // namespace tarnel_bench
