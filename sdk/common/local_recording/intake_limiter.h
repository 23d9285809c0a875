// Bounds the media a recorder holds between its Write calls and the writer, and decides
// which frames to drop when the worker falls behind.
//
// Accounting: a frame's bytes count from the moment a caller's thread admits it. The
// worker reports each frame it takes in (TakenIn) and, from time to time, what its caches
// hold (Recount); a frame that left the caches stops counting at the next recount. So
// between recounts the held figure errs high, never low.
//
// Admission: outside an overload episode a frame is admitted when the total held stays
// within the bound; the first frame that does not fit starts an episode. Within one,
// both streams stop and restart together, so that the holes in the file cover the same
// time in both:
//  - Video restarts at a key frame that fits under half the bound, which ends the
//    episode (half, so that it ends with room to spare rather than flapping at the
//    edge). Until then every video frame is dropped, so the file keeps decoding.
//  - Audio waits for that restart, unless no video is coming (none offered in the last
//    three seconds of audio time), when it ends the episode itself under half the bound.
//  - A frame no later than the other stream's last admitted one is still admitted
//    within the bound: the writer interleaves the streams, and such a frame lets it
//    write what the caches hold instead of waiting for the other stream forever.
// Dropped audio is dropped in whole frames; the first audio frame admitted afterwards
// carries a summary of what was dropped before it (AudioGap), so the worker can keep
// the timeline. The worker's own silence for that hole counts once it is recounted.
//
// Threads: Admit* on callers' threads (any number, concurrently); TakenIn, Recount and
// ResetStats on the worker; SetLimit and stats() anywhere. One mutex guards everything;
// callers hold it for a few comparisons per frame.
#ifndef SDK_COMMON_LOCAL_RECORDING_INTAKE_LIMITER_H_
#define SDK_COMMON_LOCAL_RECORDING_INTAKE_LIMITER_H_

#include <cstdint>
#include <mutex>

#include "sdk/common/local_recording/local_recording.h"

namespace tarnel {
namespace recording {

class IntakeLimiter {
 public:
  // Audio dropped between two admitted audio frames. `samples` are counted at the first
  // dropped frame's rate; its timestamp is where the gap begins (0 when the source gives
  // none).
  struct AudioGap {
    int64_t frames = 0;
    int64_t samples = 0;
    uint32_t first_timestamp_ms = 0;
    int32_t sample_rate = 0;
    int32_t channels = 0;
    audio::AudioCodecFormat format = audio::kPcm;
  };

  // What an admission changed in the overload state, for the caller to log.
  enum class Episode { kUnchanged, kStarted, kEnded };

  struct VideoVerdict {
    bool admitted = false;
    Episode episode = Episode::kUnchanged;
  };
  struct AudioVerdict {
    bool admitted = false;
    Episode episode = Episode::kUnchanged;
    AudioGap gap;  // Dropped before this frame; frames == 0 when none.
  };

  // Per-frame cost beyond the media bytes: the task, the frame object, a cache node.
  static constexpr int64_t kFrameOverheadBytes = 256;
  // Audio this far (ms) past the last video frame offered is taken to have no video
  // coming with it.
  static constexpr int64_t kVideoAbsentMs = 3000;

  IntakeLimiter() = default;
  IntakeLimiter(const IntakeLimiter&) = delete;
  IntakeLimiter& operator=(const IntakeLimiter&) = delete;

  // 0 or less restores kDefaultMaxQueueBytes.
  void SetLimit(int64_t bytes);

  VideoVerdict AdmitVideo(int64_t bytes, bool key_frame, int64_t pts_ms);
  AudioVerdict AdmitAudio(int64_t bytes, const audio::AudioFrame& frame);

  // Worker: a task carrying `bytes` admitted bytes has run. True when what was taken in
  // since the last recount reaches an eighth of the bound: time to recount.
  bool TakenIn(int64_t bytes);
  // Worker: the caches hold `cached_bytes` now; everything taken in before is either in
  // them or gone. True when they hold more than half the bound.
  bool Recount(int64_t cached_bytes);
  // Worker, at the start of a recording: the counts and the peak begin again.
  void ResetStats();

  LocalRecordingQueueStats stats() const;

 private:
  int64_t HeldLocked() const { return pending_ + unreconciled_ + cached_; }
  // Counts a drop; starts an episode when none runs.
  Episode DropLocked();
  // Holds the admitted bytes; ends the episode when `ends_episode`.
  Episode AdmitLocked(int64_t bytes, bool ends_episode);

  mutable std::mutex mutex_;
  int64_t limit_ = kDefaultMaxQueueBytes;
  int64_t pending_ = 0;       // Admitted, not yet taken in.
  int64_t unreconciled_ = 0;  // Taken in since the last recount.
  int64_t cached_ = 0;        // In the caches at the last recount.
  int64_t peak_ = 0;
  int64_t dropped_video_ = 0;
  int64_t dropped_audio_ = 0;
  int64_t episodes_ = 0;
  bool in_episode_ = false;
  bool video_waits_for_key_ = false;
  // Timestamps (ms) of the last frame admitted of each stream, and of the last video
  // frame offered; -1 before the first.
  int64_t last_admitted_video_ms_ = -1;
  int64_t last_admitted_audio_ms_ = -1;
  int64_t last_offered_video_ms_ = -1;
  AudioGap audio_gap_;
};

}  // namespace recording
}  // namespace tarnel

#endif  // SDK_COMMON_LOCAL_RECORDING_INTAKE_LIMITER_H_
