// The recorder behind LocalRecording.
//
// One worker thread ("recording") owns every member below except task_runner_ (set once
// in the constructor, read by the posting methods on callers' threads), limiter_
// (thread-safe) and frames_wait_for_timer_ (atomic). Public calls (SetEncodeParams too)
// post to the worker; timers fire on it; the writer's segment notices arrive on it.
// Posted tasks and timer callbacks hold the recorder by plain pointer: the destructor
// stops the thread, running what was posted, before any member goes.
//
// Life of a recording: StartImpl checks the output and creates the writer; intake
// caches frames until the streams of the record type have arrived; StartMuxerIfNeeded
// aligns the caches, fixes the common timestamp offset and starts the writer and the
// timers; Process writes both caches interleaved every 150 ms; StopImpl flushes and
// finishes the file. Any fatal error goes through ErrorHandling. Every Start gets one
// OnRecordingStarted and every started recording one OnRecordingCompleted.
#ifndef SDK_COMMON_LOCAL_RECORDING_LOCAL_RECORDING_IMPL_H_
#define SDK_COMMON_LOCAL_RECORDING_LOCAL_RECORDING_IMPL_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "sdk/base/file_path.h"
#include "sdk/base/logging.h"
#include "sdk/base/thread.h"
#include "sdk/base/timer.h"
#include "sdk/common/local_recording/intake_limiter.h"
#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_frame_ring_buffer.h"
#include "sdk/media/audio_resampler.h"
#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

namespace tarnel {
namespace recording {

class LocalRecordingImpl
    : public LocalRecording,
      public extensions::local_recording::LocalRecordingSegmentationWriter::Client {
 public:
  using Writer = extensions::local_recording::LocalRecordingSegmentationWriter;

  // Starts the worker thread; task_runner() is null when it could not be started.
  explicit LocalRecordingImpl(LocalRecording::Client* client);

  LocalRecordingImpl(const LocalRecordingImpl&) = delete;
  LocalRecordingImpl& operator=(const LocalRecordingImpl&) = delete;

  // LocalRecording:
  void Start(const LocalRecordingInitialParams& params) override;
  void Stop() override;
  void WriteVideoFrame(std::unique_ptr<video::VideoFrame> frame) override;
  void WriteAudioFrame(std::unique_ptr<audio::AudioFrame> frame) override;
  void SetEncodeParams(const video::EncodeParams& params) override;
  void SetMaxQueueBytes(int64_t bytes) override;
  LocalRecordingQueueStats GetQueueStats() const override;

  // Writer::Client: relays the path to the client on the calling thread.
  void OnRecordingSegment(const std::string& path) override;

  const tarn_base::scoped_refptr<tarn_base::TaskRunner>& task_runner() const {
    return task_runner_;
  }

 private:
  friend class tarn_base::RefCountedThreadSafe<LocalRecording>;

  // Frame caches, keyed by timestamp in ms; a second frame under a key replaces the first.
  using VideoCache = std::map<uint64_t, std::unique_ptr<video::VideoFrame>>;
  using AudioCache = std::map<uint64_t, std::unique_ptr<audio::AudioFrame>>;

  // Posts a final stop and stops the worker thread, which runs it before it ends.
  ~LocalRecordingImpl() override;

  // Recorder control.
  void StartImpl(const LocalRecordingInitialParams& params);
  void SetEncodeParamsImpl(const video::EncodeParams& params);
  void StopImpl();
  bool IsRecordingFileExisted(const tarn_base::FilePath& path, bool segmented);
  bool HasWriteAccess(const tarn_base::FilePath& path);
  bool StreamHadArrived() const;
  int64_t GetDuration() const;
  void NotifyProgress();
  void NotifyComplete(InternalError error, int64_t file_size);
  void Reset();
  void ErrorHandling(InternalError error);
  bool FlushRemainingData();

  // Intake.
  // Admitted frames arrive here, `bytes` being what the limiter counted for them.
  void TakeInVideoFrame(std::unique_ptr<video::VideoFrame> frame, int64_t bytes);
  void TakeInAudioFrame(std::unique_ptr<audio::AudioFrame> frame, int64_t bytes,
                        const IntakeLimiter::AudioGap& dropped_before);
  void WriteVideoFrameImpl(std::unique_ptr<video::VideoFrame> frame);
  // `follows_dropped_audio`: the recorder dropped audio just before this frame, so a
  // jump in its timestamp is the recorder's own and not the source's.
  void WriteAudioFrameImpl(std::unique_ptr<audio::AudioFrame> frame,
                           bool follows_dropped_audio = false);
  // Puts silence where the recorder dropped PCM that it encodes, which the encoded
  // stream would otherwise close up, losing sync.
  void FillDroppedAudio(const IntakeLimiter::AudioGap& gap);
  void LogOverload(IntakeLimiter::Episode episode);
  // Callers' threads: posts an admitted frame's task to the worker.
  void PostFrameTask(tarn_base::OnceClosure task);
  // Tells the limiter what the caches and the encoder's input queue hold; true when
  // that is more than half the bound.
  bool Recount();
  // Recounts when the limiter's figure may be stale (`recount_due`, or before the muxer
  // starts), and writes early when a burst has filled the caches.
  void RecountIfNeeded(bool recount_due);
  void ResampleIfNeeded(audio::AudioFrame* frame);
  bool AudioFrameNeedToEncode(audio::AudioCodecFormat format) const;

  // Muxer start.
  bool StartMuxerIfNeeded();
  void FrameAlignByTimestamp();
  void ComputeTimestampOffset();
  bool FrameCachePreprocessing();
  static extensions::local_recording::LocalRecordingType ConvertRecordTypeToRecordTypeV2(
      RecordType type);

  // Interleaved writing.
  void Process();
  bool DoProcess(bool flush);
  bool ProcessVideoFrame(std::unique_ptr<video::VideoFrame> frame);
  bool ProcessAudioFrame(std::unique_ptr<audio::AudioFrame> frame);
  bool CheckStreamWriteFailed(int result);

  // Audio encoding and muted frames.
  bool EncodeAudioFrame();
  // At stop: queues silence behind the last audio so that an encoder that lags its
  // input (priming) gives out the packets that carry the end of the recording.
  void QueueEncoderDrain();
  void GenerateMutedFrame();
  void StartAudioProcessTimer();
  void EncodeAudioFrameOnTimer();
  void CheckAndAddMutedFrame();
  void DoCheckAndAddMutedFrame();
  // The template's length when it is usable for filling (at least 1 ms and finite);
  // otherwise warns once per recording and returns nothing.
  std::optional<float> UsableMutedFrameSizeInMs();

  // Stream metadata.
  void SendMetaDataToMuxer();
  void SendVideoMetaDataToMuxer();
  void SendAudioMetaDataToMuxer();

  bool IsOnWorkerThread() const;

  // Thread-safe; admits frames on callers' threads, told by the worker what it holds.
  IntakeLimiter limiter_;
  // Set by the worker while the write timer runs, read by callers' threads.
  std::atomic<bool> frames_wait_for_timer_{false};

  // Constant after construction.
  tarn_base::Thread thread_;
  tarn_base::scoped_refptr<tarn_base::TaskRunner> task_runner_;

  // Worker thread only.
  std::unique_ptr<Writer> writer_;
  LocalRecording::Client* const client_;
  tarn_base::RepeatingTimer process_timer_;
  tarn_base::RepeatingTimer progress_timer_;
  std::unique_ptr<tarn_base::RepeatingTimer> audio_process_timer_;
  tarn_base::OneShotTimer audio_process_delay_timer_;
  VideoCache video_frame_cache_;
  AudioCache audio_frame_cache_;  // Audio as it arrived.
  AudioCache audio_mux_cache_;    // Audio ready for the writer.
  std::unique_ptr<audio::AudioFrameRingBuffer> audio_ring_buffer_;
  std::unique_ptr<audio::AudioFrame> muted_frame_;
  std::unique_ptr<audio::AudioResampleInterface> audio_resampler_;
  std::unique_ptr<audio::AudioEncoder> aac_encoder_;
  bool is_recording_ = false;
  bool video_arrived_ = false;
  bool audio_arrived_ = false;
  int64_t last_video_pts_ = -1;
  int64_t last_audio_timestamp_ = -1;
  int64_t timestamp_offset_ = 0;
  int64_t next_audio_timestamp_ = 0;
  int64_t video_duration_ms_ = 0;
  int64_t audio_duration_ms_ = 0;
  LocalRecordingInitialParams params_;
  int32_t write_failed_count_ = 0;
  bool muxer_started_ = false;
  std::optional<std::pair<uint32_t, uint32_t>> video_size_;
  int32_t audio_bitrate_ = 71680;
  int32_t audio_sample_rate_ = 48000;
  int32_t audio_channels_ = 1;
  // Whether something already stood at params_.file_path when the recording started; a
  // recording that never opened its output then leaves it alone.
  bool output_path_existed_at_start_ = false;
  // The unusable-template warning is given once per recording.
  bool warned_unusable_muted_frame_ = false;
  // The application's video encoder settings, as SetEncodeParams last gave them: kept for
  // reference, never acted on.
  video::EncodeParams encode_params_;
};

}  // namespace recording
}  // namespace tarnel

#endif  // SDK_COMMON_LOCAL_RECORDING_LOCAL_RECORDING_IMPL_H_
