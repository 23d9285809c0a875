#include "sdk/common/local_recording/intake_limiter.h"

#include <algorithm>

namespace tarnel {
namespace recording {
namespace {

// Samples per channel in one frame: 16-bit interleaved PCM, or one AAC-LC access unit.
int64_t SamplesIn(const audio::AudioFrame& frame) {
  if (frame.GetAudioFrameFormat() == audio::kAac) return 1024;
  if (frame.GetChannels() <= 0) return 0;
  return static_cast<int64_t>(frame.GetSize() / (2u * static_cast<uint64_t>(frame.GetChannels())));
}

}  // namespace

void IntakeLimiter::SetLimit(int64_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  limit_ = bytes > 0 ? bytes : kDefaultMaxQueueBytes;
}

IntakeLimiter::VideoVerdict IntakeLimiter::AdmitVideo(int64_t bytes, bool key_frame,
                                                      int64_t pts_ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  VideoVerdict verdict;
  last_offered_video_ms_ = pts_ms;
  const int64_t held = HeldLocked() + bytes;
  const bool may_start = key_frame || !video_waits_for_key_;
  bool ends_episode = false;
  bool admit = false;
  if (!in_episode_) {
    admit = held <= limit_ && may_start;
  } else if (may_start) {
    ends_episode = held <= limit_ / 2;
    const bool lets_writer_on = last_admitted_audio_ms_ >= 0 && pts_ms <= last_admitted_audio_ms_;
    admit = ends_episode || (lets_writer_on && held <= limit_);
  }
  if (!admit) {
    video_waits_for_key_ = true;
    ++dropped_video_;
    verdict.episode = DropLocked();
    return verdict;
  }
  video_waits_for_key_ = false;
  last_admitted_video_ms_ = pts_ms;
  verdict.admitted = true;
  verdict.episode = AdmitLocked(bytes, ends_episode);
  return verdict;
}

IntakeLimiter::AudioVerdict IntakeLimiter::AdmitAudio(int64_t bytes,
                                                      const audio::AudioFrame& frame) {
  std::lock_guard<std::mutex> lock(mutex_);
  AudioVerdict verdict;
  const int64_t ts = frame.GetTimestampInMs();
  const int64_t held = HeldLocked() + bytes;
  bool ends_episode = false;
  bool admit = false;
  if (!in_episode_) {
    admit = held <= limit_;
  } else {
    const bool video_coming =
        last_offered_video_ms_ >= 0 && ts <= last_offered_video_ms_ + kVideoAbsentMs;
    ends_episode = !video_coming && held <= limit_ / 2;
    const bool lets_writer_on = last_admitted_video_ms_ >= 0 && ts <= last_admitted_video_ms_;
    admit = ends_episode || (lets_writer_on && held <= limit_);
  }
  if (!admit) {
    if (audio_gap_.frames == 0) {
      audio_gap_.first_timestamp_ms = frame.GetTimestampInMs();
      audio_gap_.sample_rate = frame.GetSampleRate();
      audio_gap_.channels = frame.GetChannels();
      audio_gap_.format = frame.GetAudioFrameFormat();
    }
    ++audio_gap_.frames;
    int64_t samples = SamplesIn(frame);
    if (frame.GetSampleRate() > 0 && frame.GetSampleRate() != audio_gap_.sample_rate) {
      samples = samples * audio_gap_.sample_rate / frame.GetSampleRate();
    }
    audio_gap_.samples += samples;
    ++dropped_audio_;
    verdict.episode = DropLocked();
    return verdict;
  }
  last_admitted_audio_ms_ = ts;
  verdict.admitted = true;
  verdict.gap = audio_gap_;
  audio_gap_ = AudioGap();
  verdict.episode = AdmitLocked(bytes, ends_episode);
  return verdict;
}

IntakeLimiter::Episode IntakeLimiter::DropLocked() {
  if (in_episode_) return Episode::kUnchanged;
  in_episode_ = true;
  ++episodes_;
  return Episode::kStarted;
}

IntakeLimiter::Episode IntakeLimiter::AdmitLocked(int64_t bytes, bool ends_episode) {
  pending_ += bytes;
  peak_ = std::max(peak_, HeldLocked());
  if (!in_episode_ || !ends_episode) return Episode::kUnchanged;
  in_episode_ = false;
  return Episode::kEnded;
}

bool IntakeLimiter::TakenIn(int64_t bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_ -= bytes;
  unreconciled_ += bytes;
  return unreconciled_ >= limit_ / 8;
}

bool IntakeLimiter::Recount(int64_t cached_bytes) {
  std::lock_guard<std::mutex> lock(mutex_);
  cached_ = cached_bytes;
  unreconciled_ = 0;
  peak_ = std::max(peak_, HeldLocked());
  return cached_ > limit_ / 2;
}

void IntakeLimiter::ResetStats() {
  std::lock_guard<std::mutex> lock(mutex_);
  peak_ = HeldLocked();
  dropped_video_ = 0;
  dropped_audio_ = 0;
  episodes_ = 0;
  in_episode_ = false;
  audio_gap_ = AudioGap();
  last_admitted_video_ms_ = last_admitted_audio_ms_ = last_offered_video_ms_ = -1;
}

LocalRecordingQueueStats IntakeLimiter::stats() const {
  std::lock_guard<std::mutex> lock(mutex_);
  LocalRecordingQueueStats stats;
  stats.queued_bytes = HeldLocked();
  stats.peak_queued_bytes = peak_;
  stats.max_queue_bytes = limit_;
  stats.dropped_video_frames = dropped_video_;
  stats.dropped_audio_frames = dropped_audio_;
  stats.overload_episodes = episodes_;
  return stats;
}

}  // namespace recording
}  // namespace tarnel
