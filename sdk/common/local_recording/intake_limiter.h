// Bounds the media a recorder holds between its Write calls and the writer, and decides
// which frames to drop when the worker falls behind.
//
// Accounting: a frame's bytes count from the moment a caller's thread admits it. The
// worker reports each frame it takes in (TakenIn) and, from time to time, what its caches
// hold (Recount); a frame that left the caches stops counting at the next recount. So
// between recounts the held figure errs high, never low.
//
// Admission: a frame is admitted when the total held stays within the bound, or, once
// dropping has started, within half of it, so that an episode ends with room to spare
// rather than flapping at the edge. Either stream may also add while it holds less than
// a quarter of the bound by itself: the worker writes the streams interleaved, so a
// cache full of one stream waits for the other, which must not be locked out. The
// worker's own silence (filling dropped audio) counts once it is recounted. Memory thus
// stays within 1.25 times the bound, plus what callers admit at the same instant.
//
// Drop rule: a video frame that is not admitted is dropped, and so is every video frame
// after it up to the next key frame that is admitted, so the file keeps decoding. Audio
// is dropped in whole frames; the first audio frame admitted afterwards carries a
// summary of what was dropped before it (AudioGap), so the worker can keep the timeline.
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

  IntakeLimiter() = default;
  IntakeLimiter(const IntakeLimiter&) = delete;
  IntakeLimiter& operator=(const IntakeLimiter&) = delete;

  // 0 or less restores kDefaultMaxQueueBytes.
  void SetLimit(int64_t bytes);

  VideoVerdict AdmitVideo(int64_t bytes, bool key_frame);
  AudioVerdict AdmitAudio(int64_t bytes, const audio::AudioFrame& frame);

  enum Stream { kVideo = 0, kAudio = 1 };

  // Worker: a task carrying `bytes` admitted bytes of `stream` has run.
  void TakenIn(Stream stream, int64_t bytes);
  // Worker: the caches hold these bytes of each stream now; everything taken in before
  // is either in them or gone.
  void Recount(int64_t video_bytes, int64_t audio_bytes);
  // Worker: taken in since the last recount.
  int64_t unreconciled_bytes() const;
  // Worker, at the start of a recording: the counts and the peak begin again.
  void ResetStats();

  int64_t limit() const;
  LocalRecordingQueueStats stats() const;

 private:
  int64_t HeldLocked(Stream stream) const {
    return pending_[stream] + unreconciled_[stream] + cached_[stream];
  }
  int64_t HeldLocked() const { return HeldLocked(kVideo) + HeldLocked(kAudio); }
  // Whether `bytes` more of `stream` may be held; `ends_episode` tells whether it may
  // by the total alone.
  bool FitsLocked(Stream stream, int64_t bytes, bool* ends_episode) const;
  // Counts a drop; starts an episode when none runs.
  Episode DropLocked();
  // Holds the admitted bytes; ends the episode when `ends_episode` and no stream still
  // waits for its restart.
  Episode AdmitLocked(Stream stream, int64_t bytes, bool ends_episode);

  mutable std::mutex mutex_;
  int64_t limit_ = kDefaultMaxQueueBytes;
  // Per stream.
  int64_t pending_[2] = {0, 0};       // Admitted, not yet taken in.
  int64_t unreconciled_[2] = {0, 0};  // Taken in since the last recount.
  int64_t cached_[2] = {0, 0};        // In the caches at the last recount.
  int64_t peak_ = 0;
  int64_t dropped_video_ = 0;
  int64_t dropped_audio_ = 0;
  int64_t episodes_ = 0;
  bool in_episode_ = false;
  bool video_waits_for_key_ = false;
  AudioGap audio_gap_;
};

}  // namespace recording
}  // namespace tarnel

#endif  // SDK_COMMON_LOCAL_RECORDING_INTAKE_LIMITER_H_
