#include "sdk/common/local_recording/local_recording_impl.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <utility>
#include <vector>

#include "sdk/base/callback.h"
#include "sdk/base/explicit_zero_memory.h"
#include "sdk/base/file.h"
#include "sdk/base/file_util.h"
#include "sdk/base/location.h"
#include "sdk/media_stream_writer/video_parser.h"

namespace tarnel {
namespace recording {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"local_recording"};

// Frames of 3 bytes or fewer cannot hold an access unit.
constexpr size_t kMinVideoFrameSize = 4;
// A non-key frame at most this far behind the last pts is a late frame and is dropped;
// further back the source's clock has wrapped.
constexpr int64_t kMaxVideoBackwardStepMs = 1000000;
constexpr int64_t kMaxAudioBackwardStepMs = 1000000;
// An audio timestamp more than this ahead of the last one, while input audio waits in
// the cache, is a jump the recording cannot follow.
constexpr int64_t kMaxAudioForwardStepMs = 5000;
// Bound on each input cache while the muxer waits for the other stream.
constexpr size_t kMaxCachedFramesBeforeMuxerStart = 100;

constexpr int64_t kWriteIntervalMs = 150;
constexpr int64_t kEncodeIntervalMs = 100;
// How much input audio the muted-frame filling keeps in hand, and for how long its
// timer is held back at the muxer start.
constexpr float kAudioLeadMs = 200.0f;
// A gap of this many frame lengths or more is filled with silence.
constexpr float kMutedFrameGapInFrames = 5.0f;
// The longest silence put in front of audio that starts after the first picture. Audio
// that starts later comes from a clock that disagrees with the video's; filling that
// gap would only exhaust memory (one frame per frame length, up to 2^32 ms).
constexpr int64_t kMaxLeadInSilenceMs = 60000;
// Frames written to the ring buffer between two encoding runs while the cached audio
// is moved at the muxer start.
constexpr int kFramesPerEncodeRun = 30;
// Pieces of silence (100 ms each) filled in for dropped audio between two writing passes.
constexpr int kFillPiecesPerWrite = 10;
// Shorter delays start the audio timer at once.
constexpr int64_t kMinAudioTimerDelayMs = 4;
// Frames waiting in the input cache beyond which a filling tick catches up.
constexpr size_t kMutedFrameBacklogFrames = 30;
constexpr int32_t kMaxConsecutiveWriteFailures = 30;

constexpr int32_t kStereoAudioBitrate = 196608;
constexpr int32_t kMonoAudioBitrate = 71680;
constexpr int32_t kRecordingSampleRate = 48000;

// Single-precision float to an integer, truncated toward zero. Callers pass finite
// values in range.
int64_t TruncateToInt64(float value) { return static_cast<int64_t>(value); }

}  // namespace

#define RLOG(severity) TARN_LOG(tarn_logging::severity, kLogConfig, this)

// static
tarn_base::scoped_refptr<LocalRecording> LocalRecording::Create(Client* client) {
  auto recorder = tarn_base::MakeRefCounted<LocalRecordingImpl>(client);
  if (!recorder->task_runner()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, recorder.get())
        << "cannot start the recording thread, no recorder created";
    return nullptr;
  }
  return recorder;
}

LocalRecordingImpl::LocalRecordingImpl(LocalRecording::Client* client)
    : thread_("recording"), client_(client) {
  if (thread_.Start()) task_runner_ = thread_.task_runner();
}

LocalRecordingImpl::~LocalRecordingImpl() {
  assert(!IsOnWorkerThread());
  // A running recording is flushed, finished and reported by this last stop, which the
  // thread runs before it ends; only then do the members go.
  if (task_runner_) {
    task_runner_->PostTask(
        FROM_HERE, tarn_base::BindOnce(&LocalRecordingImpl::StopImpl, tarn_base::Unretained(this)));
  }
  thread_.Stop();
}

// ---------------------------------------------------------------------------------------
// Public interface: post to the worker thread.

void LocalRecordingImpl::Start(const LocalRecordingInitialParams& params) {
  task_runner_->PostTask(FROM_HERE, tarn_base::BindOnce(&LocalRecordingImpl::StartImpl,
                                                        tarn_base::Unretained(this), params));
}

void LocalRecordingImpl::Stop() {
  task_runner_->PostTask(
      FROM_HERE, tarn_base::BindOnce(&LocalRecordingImpl::StopImpl, tarn_base::Unretained(this)));
}

void LocalRecordingImpl::WriteVideoFrame(std::unique_ptr<video::VideoFrame> frame) {
  if (!frame) {
    RLOG(LS_ERROR) << "invalid input params:"
                   << "video_frame NULL";
    return;
  }
  if (frame->data.data() == nullptr) {
    RLOG(LS_ERROR) << "invalid input params:"
                   << "video_frame data NULL";
    return;
  }
  if (frame->data.size() < kMinVideoFrameSize) {
    RLOG(LS_ERROR) << "invalid input params:"
                   << "video_frame size:" << frame->data.size();
    return;
  }
  const int64_t bytes =
      static_cast<int64_t>(frame->data.size()) + IntakeLimiter::kFrameOverheadBytes;
  const IntakeLimiter::VideoVerdict verdict = limiter_.AdmitVideo(
      bytes, frame->frame_type == video::kKeyFrame, static_cast<int64_t>(frame->pts));
  LogOverload(verdict.episode);
  if (!verdict.admitted) return;
  PostFrameTask(tarn_base::BindOnce(&LocalRecordingImpl::TakeInVideoFrame,
                                    tarn_base::Unretained(this), std::move(frame), bytes));
}

void LocalRecordingImpl::WriteAudioFrame(std::unique_ptr<audio::AudioFrame> frame) {
  if (!frame) {
    RLOG(LS_ERROR) << "invalid input params:"
                   << "audio_frame NULL";
    return;
  }
  if (frame->GetData() == nullptr) {
    RLOG(LS_ERROR) << "invalid input params:"
                   << "audio_frame data NULL";
    return;
  }
  if (frame->GetSize() == 0) {
    RLOG(LS_ERROR) << "invalid input params:"
                   << "audio_frame size :" << frame->GetSize();
    return;
  }
  const int64_t bytes = static_cast<int64_t>(frame->GetSize()) + IntakeLimiter::kFrameOverheadBytes;
  const IntakeLimiter::AudioVerdict verdict = limiter_.AdmitAudio(bytes, *frame);
  LogOverload(verdict.episode);
  if (!verdict.admitted) return;
  PostFrameTask(tarn_base::BindOnce(&LocalRecordingImpl::TakeInAudioFrame,
                                    tarn_base::Unretained(this), std::move(frame), bytes,
                                    verdict.gap));
}

void LocalRecordingImpl::PostFrameTask(tarn_base::OnceClosure task) {
  // While the write timer runs, a frame can wait for the worker's next wake-up (150 ms
  // at most): it is only cached until the next writing pass anyway. That saves a
  // wake-up per frame. A frame posted this way just as the recording ends waits for the
  // next post.
  if (frames_wait_for_timer_.load(std::memory_order_relaxed)) {
    task_runner_->PostTaskWithoutWakeUp(FROM_HERE, std::move(task));
  } else {
    task_runner_->PostTask(FROM_HERE, std::move(task));
  }
}

void LocalRecordingImpl::SetMaxQueueBytes(int64_t bytes) { limiter_.SetLimit(bytes); }

LocalRecordingQueueStats LocalRecordingImpl::GetQueueStats() const { return limiter_.stats(); }

void LocalRecordingImpl::LogOverload(IntakeLimiter::Episode episode) {
  if (episode == IntakeLimiter::Episode::kUnchanged) return;
  const LocalRecordingQueueStats stats = limiter_.stats();
  if (episode == IntakeLimiter::Episode::kStarted) {
    RLOG(LS_WARNING) << "recording queue full, " << stats.queued_bytes << " of "
                     << stats.max_queue_bytes << " bytes held, dropping frames until it drains";
  } else {
    RLOG(LS_INFO) << "recording queue drained, dropped so far " << stats.dropped_video_frames
                  << " video and " << stats.dropped_audio_frames << " audio frames";
  }
}

void LocalRecordingImpl::SetEncodeParams(const video::EncodeParams& params) {
  task_runner_->PostTask(FROM_HERE, tarn_base::BindOnce(&LocalRecordingImpl::SetEncodeParamsImpl,
                                                        tarn_base::Unretained(this), params));
}

void LocalRecordingImpl::OnRecordingSegment(const std::string& path) {
  if (client_) client_->OnRecordingSegment(this, path);
}

bool LocalRecordingImpl::IsOnWorkerThread() const {
  return task_runner_ && task_runner_->RunsTasksInCurrentSequence();
}

// ---------------------------------------------------------------------------------------
// Recorder control.

void LocalRecordingImpl::StartImpl(const LocalRecordingInitialParams& params) {
  assert(IsOnWorkerThread());
  if (is_recording_) {
    RLOG(LS_ERROR) << "has started record, must stop first";
    client_->OnRecordingStarted(this, kAlreadyStarted);
    return;
  }
  if (params.media_format == 0) {
    RLOG(LS_ERROR) << "unsupported format, " << params.file_path;
    client_->OnRecordingStarted(this, kUnsupportedFormat);
    return;
  }
  const tarn_base::FilePath path = tarn_base::FilePath::FromUTF8Unsafe(params.file_path);
  if (IsRecordingFileExisted(path, params.segment_interval >= 1)) {
    RLOG(LS_ERROR) << "recording file already exists: " << params.file_path;
    client_->OnRecordingStarted(this, kFileAlreadyExists);
    return;
  }
  const bool path_existed = tarn_base::PathExists(path);
  if (!HasWriteAccess(path)) {
    RLOG(LS_ERROR) << "recording file path is unwritable :" << params.file_path;
    client_->OnRecordingStarted(this, kPathUnwritable);
    return;
  }

  params_ = params;
  if (params_.record_type == kVideoOnly) params_.fill_muted_frame = false;
  RLOG(LS_INFO) << "start recording with " << params_.ToString();
  audio_bitrate_ = params_.stereo_audio ? kStereoAudioBitrate : kMonoAudioBitrate;
  audio_sample_rate_ = kRecordingSampleRate;
  audio_channels_ = params_.stereo_audio ? 2 : 1;
  output_path_existed_at_start_ = path_existed;
  warned_unusable_muted_frame_ = false;
  writer_ = std::make_unique<Writer>(this);
  limiter_.ResetStats();
  is_recording_ = true;
  client_->OnRecordingStarted(this, kOk);
}

void LocalRecordingImpl::SetEncodeParamsImpl(const video::EncodeParams& params) {
  assert(IsOnWorkerThread());
  encode_params_ = params;
}

bool LocalRecordingImpl::IsRecordingFileExisted(const tarn_base::FilePath& path, bool segmented) {
  return tarn_base::PathExists(segmented ? path.InsertBeforeExtension("_1") : path);
}

bool LocalRecordingImpl::HasWriteAccess(const tarn_base::FilePath& path) {
  // Open for writing, creating when missing, never truncating: a file that was there
  // stays as it was, and a file the probe created is removed again.
  tarn_base::File file(path, tarn_base::File::FLAG_OPEN_ALWAYS | tarn_base::File::FLAG_WRITE);
  if (file.IsValid()) {
    const bool created = file.created();
    file.Close();
    if (created) tarn_base::DeleteFile(path, /*recursive=*/false);
    return true;
  }
  RLOG(LS_ERROR) << "access denied to file " << path << " due to "
                 << tarn_base::File::ErrorToString(file.error_details());
  return false;
}

void LocalRecordingImpl::StopImpl() {
  assert(IsOnWorkerThread());
  if (!is_recording_) return;

  if (!StreamHadArrived()) {
    // The output was never opened. In segmented mode the plain path is not ours: leave
    // what stood there before the start.
    if (!output_path_existed_at_start_ &&
        !tarn_base::DeleteFile(tarn_base::FilePath::FromUTF8Unsafe(params_.file_path),
                               /*recursive=*/false)) {
      RLOG(LS_ERROR) << "remove file " << params_.file_path << " failed";
    }
    RLOG(LS_INFO) << "stop recording with " << params_.ToString()
                  << " no stream arriving, no file create.";
    client_->OnRecordingCompleted(this, kNoStreamArrived, GetDuration(), 0);
    Reset();
    return;
  }

  if (!FlushRemainingData()) {
    RLOG(LS_ERROR) << "flush remaining data failed, may cause the last few frames not be "
                      "written to the file.";
  }
  // The flush may have ended the recording through ErrorHandling, which has reported it.
  if (!is_recording_) return;

  const int64_t size = writer_->Stop();
  const InternalError error = size < 0 ? kStreamWriterFailed : kOk;
  RLOG(LS_INFO) << "stop recording with " << params_.ToString() << " result is "
                << InternalErrorToString(error) << " with size " << size << " bytes"
                << " write frame failed count is " << write_failed_count_;
  client_->OnRecordingCompleted(this, error, GetDuration(), size);
  Reset();
}

bool LocalRecordingImpl::FlushRemainingData() {
  for (auto& entry : audio_frame_cache_) {
    std::unique_ptr<audio::AudioFrame> frame = std::move(entry.second);
    if (audio_ring_buffer_) {
      audio_ring_buffer_->Write(std::move(frame));
    } else {
      const uint64_t key = frame->GetTimestampInMs();
      audio_mux_cache_[key] = std::move(frame);
    }
  }
  audio_frame_cache_.clear();
  if (audio_ring_buffer_) {
    QueueEncoderDrain();
    if (!EncodeAudioFrame()) return false;
  }
  return DoProcess(/*flush=*/true);
}

bool LocalRecordingImpl::StreamHadArrived() const {
  switch (params_.record_type) {
    case kAudioAndVideo:
      return video_arrived_ && audio_arrived_;
    case kVideoOnly:
      return video_arrived_;
    case kAudioOnly:
      return audio_arrived_;
  }
  return false;
}

int64_t LocalRecordingImpl::GetDuration() const {
  return std::max(video_duration_ms_, audio_duration_ms_);
}

void LocalRecordingImpl::NotifyProgress() { client_->OnRecordingProgress(this, GetDuration()); }

void LocalRecordingImpl::NotifyComplete(InternalError error, int64_t file_size) {
  client_->OnRecordingCompleted(this, error, GetDuration(), file_size);
}

void LocalRecordingImpl::Reset() {
  frames_wait_for_timer_.store(false, std::memory_order_relaxed);
  writer_.reset();
  aac_encoder_.reset();
  progress_timer_.Stop();
  process_timer_.Stop();
  audio_process_delay_timer_.Stop();
  audio_process_timer_.reset();
  audio_frame_cache_.clear();
  video_frame_cache_.clear();
  audio_mux_cache_.clear();
  audio_ring_buffer_.reset();
  muted_frame_.reset();
  is_recording_ = false;
  video_arrived_ = false;
  audio_arrived_ = false;
  last_video_pts_ = -1;
  last_audio_timestamp_ = -1;
  write_failed_count_ = 0;
  muxer_started_ = false;
  timestamp_offset_ = 0;
  next_audio_timestamp_ = 0;
  video_duration_ms_ = 0;
  audio_duration_ms_ = 0;
  video_size_.reset();
  limiter_.Recount(0);
}

void LocalRecordingImpl::ErrorHandling(InternalError error) {
  if (!is_recording_) return;
  const int64_t size = writer_->Stop();
  NotifyComplete(error, size);
  Reset();
  RLOG(LS_ERROR) << "recording failed: " << InternalErrorToString(error);
}

// ---------------------------------------------------------------------------------------
// Overload accounting.

void LocalRecordingImpl::TakeInVideoFrame(std::unique_ptr<video::VideoFrame> frame, int64_t bytes) {
  const bool recount_due = limiter_.TakenIn(bytes);
  WriteVideoFrameImpl(std::move(frame));
  RecountIfNeeded(recount_due);
}

void LocalRecordingImpl::TakeInAudioFrame(std::unique_ptr<audio::AudioFrame> frame, int64_t bytes,
                                          const IntakeLimiter::AudioGap& dropped_before) {
  const bool recount_due = limiter_.TakenIn(bytes);
  const bool follows_dropped_audio = dropped_before.frames > 0;
  if (follows_dropped_audio) FillDroppedAudio(dropped_before);
  WriteAudioFrameImpl(std::move(frame), follows_dropped_audio);
  // The filling timer would fill the hole at the pace of real time, while the audio
  // behind it piles up: fill it now.
  if (follows_dropped_audio && muxer_started_ && params_.fill_muted_frame &&
      UsableMutedFrameSizeInMs()) {
    while (is_recording_ && !audio_frame_cache_.empty()) DoCheckAndAddMutedFrame();
  }
  RecountIfNeeded(recount_due);
}

bool LocalRecordingImpl::Recount() {
  int64_t bytes = audio_ring_buffer_ ? audio_ring_buffer_->GetSizeInBytes() : 0;
  for (const auto& entry : video_frame_cache_) {
    if (entry.second) {
      bytes += static_cast<int64_t>(entry.second->data.size()) + IntakeLimiter::kFrameOverheadBytes;
    }
  }
  for (const AudioCache* cache : {&audio_frame_cache_, &audio_mux_cache_}) {
    for (const auto& entry : *cache) {
      if (entry.second) {
        bytes += static_cast<int64_t>(entry.second->GetSize()) + IntakeLimiter::kFrameOverheadBytes;
      }
    }
  }
  return limiter_.Recount(bytes);
}

void LocalRecordingImpl::RecountIfNeeded(bool recount_due) {
  // Once the muxer runs, every writing pass recounts; between two passes a burst is
  // recounted after each eighth of the bound. Before, the caches are small (bounded in
  // frames) and nothing else recounts.
  if (muxer_started_ && !recount_due) return;
  const bool over_half = Recount();
  // A burst that fills half the bound before the next tick is written at once, as far
  // as both streams reach, so that the recorder drops only what it cannot process
  // rather than what arrived between two ticks.
  if (!muxer_started_ || !over_half) return;
  if (audio_ring_buffer_ && !params_.fill_muted_frame && !EncodeAudioFrame()) return;
  if (DoProcess(/*flush=*/false)) Recount();
}

void LocalRecordingImpl::FillDroppedAudio(const IntakeLimiter::AudioGap& gap) {
  // Only PCM that the recorder encodes needs it, and only once the muxer runs: until
  // then the caches are realigned at the start. With filling on, the muted frames fill
  // the hole; PCM stored as it arrives keeps the hole in its timestamps.
  if (!is_recording_ || !muxer_started_ || params_.fill_muted_frame || !audio_ring_buffer_ ||
      gap.format != audio::kPcm || gap.samples <= 0 || gap.sample_rate <= 0 || gap.channels <= 0) {
    return;
  }
  // In pieces of at most 100 ms, each encoded before the next, so that a long hole
  // never sits in memory as PCM.
  const int64_t piece_samples = std::max<int64_t>(1, gap.sample_rate / 10);
  const size_t bytes_per_sample = 2u * static_cast<size_t>(gap.channels);
  const std::vector<uint8_t> zeros(static_cast<size_t>(piece_samples) * bytes_per_sample, 0);
  int pieces = 0;
  for (int64_t done = 0; done < gap.samples && is_recording_;) {
    const int64_t samples = std::min(piece_samples, gap.samples - done);
    auto silence = std::make_unique<audio::AudioFrame>();
    silence->SetData(zeros.data(), static_cast<uint64_t>(samples) * bytes_per_sample);
    silence->SetSampleRate(gap.sample_rate);
    silence->SetChannels(gap.channels);
    // A source without timestamps (0) gets them continued from its last frame.
    if (gap.first_timestamp_ms != 0) {
      silence->SetTimestampInMs(gap.first_timestamp_ms +
                                static_cast<uint32_t>(done * 1000 / gap.sample_rate));
    }
    WriteAudioFrameImpl(std::move(silence), /*follows_dropped_audio=*/true);
    if (is_recording_ && !EncodeAudioFrame()) return;
    done += samples;
    // Each second of it is written as far as the video reaches (the key frame that
    // restarted the video is usually cached already), so that a long hole is not held.
    if (++pieces % kFillPiecesPerWrite == 0 && is_recording_ && !DoProcess(/*flush=*/false)) return;
  }
}

// ---------------------------------------------------------------------------------------
// Video intake.

void LocalRecordingImpl::WriteVideoFrameImpl(std::unique_ptr<video::VideoFrame> frame) {
  assert(IsOnWorkerThread());
  if (!is_recording_ || !frame) return;

  if (video::IsRpsReferenceMode(frame->reference_mode)) {
    RLOG(LS_ERROR) << "video do not supports rps mode";
    ErrorHandling(kUnsupportedRpsMode);
    return;
  }

  if (!video_arrived_) {
    if (frame->frame_type != video::kKeyFrame) return;
    video_arrived_ = true;
    video_size_ = std::make_pair(frame->width, frame->height);
    RLOG(LS_INFO) << "receive first video frame, width:" << frame->width
                  << ",height:" << frame->height << ",pts:" << frame->pts;
    last_video_pts_ = static_cast<int64_t>(frame->pts);
    const uint64_t key = frame->pts;
    video_frame_cache_[key] = std::move(frame);
    if (StreamHadArrived()) StartMuxerIfNeeded();
    return;
  }

  if (!video_size_ || video_size_->first != frame->width || video_size_->second != frame->height) {
    RLOG(LS_ERROR) << "resolution changed to " << frame->width << ", " << frame->height;
    ErrorHandling(kResolutionChanged);
    return;
  }

  const int64_t pts = static_cast<int64_t>(frame->pts);
  const int64_t last = last_video_pts_;
  if (pts >= last) {
    if (!muxer_started_ && frame->frame_type == video::kKeyFrame) {
      // The cache must begin with the newest key frame: its parameter sets describe the
      // stream and decoding starts there.
      RLOG(LS_WARNING) << "No audio frame was received and new video key frame is received, "
                          "clear video frame cache.";
      video_frame_cache_.clear();
    }
    last_video_pts_ = pts;
    video_frame_cache_[frame->pts] = std::move(frame);
    if (!muxer_started_ && video_frame_cache_.size() > kMaxCachedFramesBeforeMuxerStart) {
      RLOG(LS_WARNING) << "No audio frame was received and video frame cache is exceeded "
                       << kMaxCachedFramesBeforeMuxerStart << ", clear video frame cache.";
      video_frame_cache_.clear();
      video_arrived_ = false;
    }
    return;
  }

  if (frame->frame_type != video::kKeyFrame) {
    if (last - pts <= kMaxVideoBackwardStepMs) return;  // A late frame: dropped.
    RLOG(LS_ERROR) << "video timestamp wrapped pts:" << pts << ", last arriving pts:" << last;
    ErrorHandling(kInvalidTimestamp);
    return;
  }
  RLOG(LS_ERROR) << "video timestamp invalid and is key frame pts:" << pts
                 << ", last arriving pts:" << last;
  ErrorHandling(kInvalidTimestamp);
}

// ---------------------------------------------------------------------------------------
// Audio intake.

void LocalRecordingImpl::WriteAudioFrameImpl(std::unique_ptr<audio::AudioFrame> frame,
                                             bool follows_dropped_audio) {
  assert(IsOnWorkerThread());
  if (!is_recording_ || !frame) return;
  ResampleIfNeeded(frame.get());

  if (!audio_arrived_) {
    audio_arrived_ = true;
    RLOG(LS_INFO) << "receive first audio frame, sample rate:" << frame->GetSampleRate()
                  << ",channels:" << frame->GetChannels()
                  << ",timestamp:" << frame->GetTimestampInMs();
    if (frame->GetAudioFrameFormat() == audio::kAac) {
      if (params_.fill_muted_frame) RLOG(LS_WARNING) << "aac format not support mute frame";
      params_.fill_muted_frame = false;
    }
    if (AudioFrameNeedToEncode(frame->GetAudioFrameFormat())) {
      audio_ring_buffer_ = std::make_unique<audio::AudioFrameRingBuffer>();
      aac_encoder_ =
          audio::AudioEncoderFactory2::GetInstance()->CreateAudioEncoder(audio::kAudioEncoderAac);
      if (!aac_encoder_) {
        RLOG(LS_ERROR) << "create aac encoder failed";
        ErrorHandling(kAudioEncoderFailed);
        return;
      }
      audio::AudioEncodeParams encode_params;
      encode_params.codec_format = audio::kAac;
      encode_params.sample_rate = frame->GetSampleRate();
      encode_params.channels = frame->GetChannels();
      encode_params.raw_access_units = 1;
      if (encode_params.channels == 2) encode_params.bitrate = audio_bitrate_;
      if (!aac_encoder_->Init(encode_params)) {
        RLOG(LS_ERROR) << "init aac encoder failed, " << encode_params.sample_rate << ", "
                       << encode_params.bits_per_sample << ", " << encode_params.channels;
        ErrorHandling(kAudioEncoderFailed);
        return;
      }
    }
    last_audio_timestamp_ = frame->GetTimestampInMs();
    const uint64_t key = frame->GetTimestampInMs();
    audio_frame_cache_[key] = std::move(frame);
    if (StreamHadArrived()) StartMuxerIfNeeded();
    return;
  }

  int64_t t = frame->GetTimestampInMs();
  if (!follows_dropped_audio && !audio_frame_cache_.empty() &&
      t - last_audio_timestamp_ > kMaxAudioForwardStepMs) {
    RLOG(LS_ERROR) << "audio time stamp increased too fast " << t << ", " << last_audio_timestamp_;
    ErrorHandling(kInvalidTimestamp);
    return;
  }
  if (t == 0) {
    // A source without timestamps: continue where the last frame ended.
    t = TruncateToInt64(static_cast<float>(last_audio_timestamp_) + frame->GetFrameSizeInMs());
    frame->SetTimestampInMs(static_cast<uint32_t>(t));
  } else if (t == last_audio_timestamp_) {
    t += 1;
    frame->SetTimestampInMs(static_cast<uint32_t>(t));
  }
  if (last_audio_timestamp_ - t > kMaxAudioBackwardStepMs) {
    RLOG(LS_ERROR) << "audio time stamp wrapped, " << t << ", " << last_audio_timestamp_;
    ErrorHandling(kInvalidTimestamp);
    return;
  }
  last_audio_timestamp_ = t;

  const uint64_t key = static_cast<uint64_t>(t);
  if (!muxer_started_) {
    audio_frame_cache_[key] = std::move(frame);
    if (audio_frame_cache_.size() > kMaxCachedFramesBeforeMuxerStart) {
      audio_frame_cache_.clear();
      audio_arrived_ = false;
    }
    return;
  }
  if (params_.fill_muted_frame) {
    audio_frame_cache_[key] = std::move(frame);
  } else if (audio_ring_buffer_) {
    audio_ring_buffer_->Write(std::move(frame));
  } else {
    audio_mux_cache_[key] = std::move(frame);
  }
}

void LocalRecordingImpl::ResampleIfNeeded(audio::AudioFrame* frame) {
  if (frame->GetSampleRate() == audio_sample_rate_ && frame->GetChannels() == audio_channels_) {
    return;
  }
  audio::AudioFrame converted;
  converted.SetSampleRate(audio_sample_rate_);
  converted.SetChannels(audio_channels_);
  if (!audio_resampler_) {
    audio_resampler_ = audio::AudioResampleInterface::Create(audio::kAudioResamplerDefault);
    if (!audio_resampler_) {
      RLOG(LS_ERROR) << "no audio resampler available, frame left at " << frame->GetSampleRate()
                     << " Hz, " << frame->GetChannels() << " channels";
      return;
    }
  }
  audio_resampler_->Configure(frame->GetSampleRate(), frame->GetChannels(), audio_sample_rate_,
                              audio_channels_);
  audio_resampler_->Resample(*frame, &converted);
  frame->SetSampleRate(audio_sample_rate_);
  frame->SetChannels(audio_channels_);
  frame->SetData(converted.GetData(), converted.GetSize());
}

bool LocalRecordingImpl::AudioFrameNeedToEncode(audio::AudioCodecFormat format) const {
  using media_stream_writer::kAac;
  using media_stream_writer::kM4a;
  using media_stream_writer::kMp4;
  return format == audio::kPcm && (params_.media_format == kMp4 || params_.media_format == kM4a ||
                                   params_.media_format == kAac);
}

// ---------------------------------------------------------------------------------------
// Muxer start.

bool LocalRecordingImpl::StartMuxerIfNeeded() {
  // In a one-stream recording the other stream's first frame calls again once the
  // muxer runs; the output is already open and the offset fixed.
  if (muxer_started_) return true;

  RLOG(LS_INFO) << "start muxer begin";
  if (params_.fill_muted_frame) {
    GenerateMutedFrame();
    if (!UsableMutedFrameSizeInMs()) {
      params_.fill_muted_frame = false;
      muted_frame_.reset();
    }
  }
  SendMetaDataToMuxer();
  if (params_.media_format == media_stream_writer::kMp4 && params_.record_type == kAudioAndVideo) {
    FrameAlignByTimestamp();
  }
  ComputeTimestampOffset();

  if (writer_->Start(params_.file_path, params_.media_format,
                     ConvertRecordTypeToRecordTypeV2(params_.record_type),
                     params_.segment_interval) != 0) {
    ErrorHandling(kStreamWriterFailed);
    return false;
  }
  muxer_started_ = true;

  if (!FrameCachePreprocessing()) {
    RLOG(LS_ERROR) << "preprocess cache frame failed!";
    return false;
  }

  process_timer_.Start(
      FROM_HERE, tarn_base::TimeDelta::FromMilliseconds(kWriteIntervalMs),
      tarn_base::BindRepeating(&LocalRecordingImpl::Process, tarn_base::Unretained(this)));
  frames_wait_for_timer_.store(true, std::memory_order_relaxed);
  if (params_.progress_interval_ms >= 1) {
    progress_timer_.Start(
        FROM_HERE, tarn_base::TimeDelta::FromMilliseconds(params_.progress_interval_ms),
        tarn_base::BindRepeating(&LocalRecordingImpl::NotifyProgress, tarn_base::Unretained(this)));
  }

  if (!audio_ring_buffer_ && !params_.fill_muted_frame) return true;
  if (params_.fill_muted_frame) {
    // Hold the filling back until the frames kept in the input cache have played out,
    // so that it never runs dry right after the start. One rounding: n x L - 200 fused.
    const float n = static_cast<float>(audio_frame_cache_.size());
    const float length = muted_frame_->GetFrameSizeInMs();
    const int64_t delay_ms = TruncateToInt64(std::fma(-n, length, kAudioLeadMs));
    if (delay_ms > kMinAudioTimerDelayMs) {
      audio_process_delay_timer_.Start(
          FROM_HERE, tarn_base::TimeDelta::FromMilliseconds(delay_ms),
          tarn_base::BindOnce(&LocalRecordingImpl::StartAudioProcessTimer,
                              tarn_base::Unretained(this)));
    } else {
      StartAudioProcessTimer();
    }
  } else {
    StartAudioProcessTimer();
  }
  RLOG(LS_INFO) << "start muxer end";
  return true;
}

void LocalRecordingImpl::FrameAlignByTimestamp() {
  if (video_frame_cache_.empty() || audio_frame_cache_.empty()) return;
  const int64_t v = static_cast<int64_t>(video_frame_cache_.begin()->first);
  const int64_t a = audio_frame_cache_.begin()->second->GetTimestampInMs();
  RLOG(LS_INFO) << "Frame align by timestamp, first audio timestamp:" << a
                << ", audio cache size:" << audio_frame_cache_.size()
                << ", first video timestamp:" << v
                << ", video cache size:" << video_frame_cache_.size();

  if (v > a) {
    // The audio starts first: drop what precedes the first picture.
    while (!audio_frame_cache_.empty() &&
           static_cast<int64_t>(audio_frame_cache_.begin()->first) < v) {
      audio_frame_cache_.erase(audio_frame_cache_.begin());
    }
    if (audio_frame_cache_.empty()) {
      RLOG(LS_INFO) << "After frame align by timestamp, audio buffer clear, first video "
                       "timestamp:"
                    << v;
    } else {
      RLOG(LS_INFO) << "After frame align by timestamp, first audio timestamp:"
                    << audio_frame_cache_.begin()->second->GetTimestampInMs()
                    << ", first video timestamp:" << v;
    }
    return;
  }
  if (!params_.fill_muted_frame) return;

  // The audio starts well after the first picture: lead it in with silence.
  const int32_t interval = static_cast<int32_t>(
      kMutedFrameGapInFrames * audio_frame_cache_.begin()->second->GetFrameSizeInMs());
  RLOG(LS_INFO) << "fill_muted_frame_interval:" << interval;
  const int64_t delta = a - v;
  if (delta < interval) return;
  if (delta > kMaxLeadInSilenceMs) {
    RLOG(LS_WARNING) << "audio starts " << delta
                     << " ms after the first picture, too late for a muted lead-in";
    return;
  }
  if (!muted_frame_) GenerateMutedFrame();
  const std::optional<float> muted_length = UsableMutedFrameSizeInMs();
  if (!muted_length) return;
  const int64_t length = TruncateToInt64(*muted_length);
  int64_t remaining = delta - length;
  RLOG(LS_INFO) << "delta time between audio & video" << remaining;
  int64_t t = a;
  int count = 0;
  while (remaining > 0) {
    t -= length;
    auto silence = std::make_unique<audio::AudioFrame>(muted_frame_->Clone());
    silence->SetTimestampInMs(static_cast<uint32_t>(t));
    audio_frame_cache_[static_cast<uint64_t>(t)] = std::move(silence);
    remaining -= length;
    ++count;
  }
  RLOG(LS_INFO) << "total muted frame added count" << count;
}

void LocalRecordingImpl::ComputeTimestampOffset() {
  const int64_t a =
      audio_frame_cache_.empty()
          ? -1
          : static_cast<int64_t>(audio_frame_cache_.begin()->second->GetTimestampInMs());
  const int64_t v =
      video_frame_cache_.empty() ? -1 : static_cast<int64_t>(video_frame_cache_.begin()->first);
  const bool both = !audio_frame_cache_.empty() && !video_frame_cache_.empty();
  timestamp_offset_ = (both && a >= 0 && v >= 0) ? std::min(a, v) : std::max(a, v);
  RLOG(LS_INFO) << "Compute timestamp offset, audio_timestamp:" << a << ", video_timestamp:" << v
                << ",timestamp_offset_:" << timestamp_offset_;
}

bool LocalRecordingImpl::FrameCachePreprocessing() {
  if (audio_frame_cache_.empty()) return true;
  size_t keep = 0;
  if (params_.fill_muted_frame) {
    keep =
        static_cast<size_t>(static_cast<int32_t>(kAudioLeadMs / muted_frame_->GetFrameSizeInMs()));
  }
  if (audio_ring_buffer_) {
    if (keep >= audio_frame_cache_.size()) return true;
    int written_since_encode = 0;
    while (audio_frame_cache_.size() > keep) {
      if (written_since_encode == kFramesPerEncodeRun) {
        if (!EncodeAudioFrame()) return false;
        written_since_encode = 0;
      }
      auto oldest = audio_frame_cache_.begin();
      audio_ring_buffer_->Write(std::move(oldest->second));
      audio_frame_cache_.erase(oldest);
      ++written_since_encode;
    }
    return EncodeAudioFrame();
  }
  while (audio_frame_cache_.size() > keep) {
    auto oldest = audio_frame_cache_.begin();
    std::unique_ptr<audio::AudioFrame> frame = std::move(oldest->second);
    audio_frame_cache_.erase(oldest);
    const uint64_t key = frame->GetTimestampInMs();
    audio_mux_cache_[key] = std::move(frame);
  }
  return true;
}

// static
extensions::local_recording::LocalRecordingType LocalRecordingImpl::ConvertRecordTypeToRecordTypeV2(
    RecordType type) {
  return type < kAudioAndVideo ? static_cast<extensions::local_recording::LocalRecordingType>(type)
                               : extensions::local_recording::kAudioAndVideo;
}

// ---------------------------------------------------------------------------------------
// Interleaved writing.

void LocalRecordingImpl::Process() {
  if (DoProcess(/*flush=*/false)) Recount();
}

bool LocalRecordingImpl::DoProcess(bool flush) {
  while (!video_frame_cache_.empty() && !audio_mux_cache_.empty()) {
    auto video = video_frame_cache_.begin();
    auto audio = audio_mux_cache_.begin();
    const uint64_t audio_timestamp = audio->second->GetTimestampInMs();
    if (video->first > audio_timestamp) {
      std::unique_ptr<audio::AudioFrame> frame = std::move(audio->second);
      audio_mux_cache_.erase(audio);
      if (!ProcessAudioFrame(std::move(frame))) return false;
    } else {
      std::unique_ptr<video::VideoFrame> frame = std::move(video->second);
      video_frame_cache_.erase(video);
      if (!ProcessVideoFrame(std::move(frame))) return false;
    }
  }
  // With both streams, a regular pass waits for the empty side to catch up.
  if (!flush && params_.record_type == kAudioAndVideo) return true;

  while (!video_frame_cache_.empty()) {
    auto video = video_frame_cache_.begin();
    std::unique_ptr<video::VideoFrame> frame = std::move(video->second);
    video_frame_cache_.erase(video);
    if (!ProcessVideoFrame(std::move(frame))) return false;
  }
  while (!audio_mux_cache_.empty()) {
    auto audio = audio_mux_cache_.begin();
    std::unique_ptr<audio::AudioFrame> frame = std::move(audio->second);
    audio_mux_cache_.erase(audio);
    if (!ProcessAudioFrame(std::move(frame))) return false;
  }
  return true;
}

bool LocalRecordingImpl::ProcessVideoFrame(std::unique_ptr<video::VideoFrame> frame) {
  const uint64_t offset = static_cast<uint64_t>(timestamp_offset_);
  const uint64_t pts = frame->pts - offset;  // Wraps like the source's 64-bit clock.
  video_duration_ms_ = static_cast<int64_t>(pts);
  frame->pts = pts;
  // A missing dts (0) stays missing: the writer repairs dts, missing ones included.
  if (frame->dts != 0) frame->dts -= offset;
  return CheckStreamWriteFailed(writer_->WriteVideoPacket(std::move(frame)));
}

bool LocalRecordingImpl::ProcessAudioFrame(std::unique_ptr<audio::AudioFrame> frame) {
  const int64_t relative = static_cast<int64_t>(frame->GetTimestampInMs()) - timestamp_offset_;
  if (relative < 0) return true;  // Before the first picture of the file.
  audio_duration_ms_ = TruncateToInt64(static_cast<float>(relative) + frame->GetFrameSizeInMs());
  frame->SetTimestampInMs(static_cast<uint32_t>(relative));
  return CheckStreamWriteFailed(writer_->WriteAudioPacket(std::move(frame)));
}

bool LocalRecordingImpl::CheckStreamWriteFailed(int result) {
  if (result >= 1) {
    write_failed_count_ = 0;
    return true;
  }
  if (write_failed_count_++ < kMaxConsecutiveWriteFailures) return true;
  RLOG(LS_ERROR) << "stream writer failures over " << kMaxConsecutiveWriteFailures << " times";
  ErrorHandling(kStreamWriterFailed);
  return false;
}

// ---------------------------------------------------------------------------------------
// Audio encoding and muted frames.

bool LocalRecordingImpl::EncodeAudioFrame() {
  const int32_t input_size = aac_encoder_->GetInputSizeInBytes();
  if (input_size <= 0) {
    // The loop below could never make progress.
    RLOG(LS_ERROR) << "aac encoder input size " << input_size << " is not usable";
    ErrorHandling(kAudioEncoderFailed);
    return false;
  }
  while (audio_ring_buffer_->GetSizeInBytes() >= input_size) {
    std::shared_ptr<audio::AudioFrame> piece = audio_ring_buffer_->ReadInBytes(input_size);
    std::shared_ptr<audio::AudioFrame> encoded = aac_encoder_->Encode(std::move(piece));
    if (!encoded) {
      ErrorHandling(kAudioEncoderFailed);
      return false;
    }
    const uint64_t key = encoded->GetTimestampInMs();
    audio_mux_cache_[key] = std::make_unique<audio::AudioFrame>(encoded->Clone());
  }
  return true;
}

void LocalRecordingImpl::QueueEncoderDrain() {
  // An encoder without priming gives out everything it is given: nothing to drain.
  const int32_t priming = aac_encoder_->GetPrimingSamples();
  const int32_t input_size = aac_encoder_->GetInputSizeInBytes();
  const int32_t channels = aac_encoder_->GetChannels();
  if (priming <= 0 || input_size <= 0 || channels <= 0) return;
  // Complete the last piece, then push `priming` more samples through: the encoder's
  // last packets then carry the last input samples. What follows them in those packets
  // is silence.
  const int32_t held = audio_ring_buffer_->GetSizeInBytes();
  const int32_t bytes = (input_size - held % input_size) % input_size + priming * channels * 2;
  audio::AudioFrame silence;
  const std::vector<uint8_t> zeros(static_cast<size_t>(bytes), 0);
  silence.SetData(zeros.data(), zeros.size());
  silence.SetSampleRate(aac_encoder_->GetSampleRate());
  silence.SetChannels(channels);
  silence.SetTimestampInMs(audio_ring_buffer_->GetEndTimestampInMs());
  audio_ring_buffer_->Write(silence);
}

void LocalRecordingImpl::GenerateMutedFrame() {
  muted_frame_ = std::make_unique<audio::AudioFrame>(audio_frame_cache_.begin()->second->Clone());
  tarnel::ExplicitZeroMemory(muted_frame_->GetData(), muted_frame_->GetSize());
}

std::optional<float> LocalRecordingImpl::UsableMutedFrameSizeInMs() {
  const float length = muted_frame_ ? muted_frame_->GetFrameSizeInMs() : 0.0f;
  // Below 1 ms the whole-millisecond length used for stepping is 0 and filling could
  // never advance.
  if (std::isfinite(length) && length >= 1.0f) return length;
  if (!warned_unusable_muted_frame_) {
    warned_unusable_muted_frame_ = true;
    RLOG(LS_WARNING) << "muted frame length " << length
                     << " ms is unusable, no muted frame is filled in";
  }
  return std::nullopt;
}

void LocalRecordingImpl::StartAudioProcessTimer() {
  audio_process_timer_ = std::make_unique<tarn_base::RepeatingTimer>();
  if (params_.fill_muted_frame) {
    const int64_t period_ms = TruncateToInt64(muted_frame_->GetFrameSizeInMs());
    audio_process_timer_->Start(FROM_HERE, tarn_base::TimeDelta::FromMilliseconds(period_ms),
                                tarn_base::BindRepeating(&LocalRecordingImpl::CheckAndAddMutedFrame,
                                                         tarn_base::Unretained(this)));
  } else if (audio_ring_buffer_) {
    audio_process_timer_->Start(
        FROM_HERE, tarn_base::TimeDelta::FromMilliseconds(kEncodeIntervalMs),
        tarn_base::BindRepeating(&LocalRecordingImpl::EncodeAudioFrameOnTimer,
                                 tarn_base::Unretained(this)));
  }
}

void LocalRecordingImpl::EncodeAudioFrameOnTimer() { EncodeAudioFrame(); }

void LocalRecordingImpl::CheckAndAddMutedFrame() {
  DoCheckAndAddMutedFrame();
  if (!is_recording_ || audio_frame_cache_.size() <= kMutedFrameBacklogFrames) return;
  // Catch up with a backlog: k more passes, k = 30 + (-200 / L) in single precision.
  const float length = muted_frame_->GetFrameSizeInMs();
  const int32_t extra =
      static_cast<int32_t>(static_cast<float>(kMutedFrameBacklogFrames) + (-kAudioLeadMs / length));
  for (int32_t i = 0; i < extra && is_recording_; ++i) DoCheckAndAddMutedFrame();
}

void LocalRecordingImpl::DoCheckAndAddMutedFrame() {
  const float muted_length = muted_frame_->GetFrameSizeInMs();
  int64_t gap = 0;
  if (!audio_frame_cache_.empty()) {
    auto first = audio_frame_cache_.begin();
    const uint32_t timestamp = first->second->GetTimestampInMs();
    if (next_audio_timestamp_ == 0) next_audio_timestamp_ = timestamp;
    gap = static_cast<int64_t>(timestamp) - next_audio_timestamp_;
    if (kMutedFrameGapInFrames * muted_length > static_cast<float>(gap)) {
      // The next real frame is close enough to where audio is expected: write it.
      next_audio_timestamp_ =
          TruncateToInt64(static_cast<float>(timestamp) + first->second->GetFrameSizeInMs());
      std::unique_ptr<audio::AudioFrame> frame = std::move(first->second);
      audio_frame_cache_.erase(first);
      if (audio_ring_buffer_) {
        audio_ring_buffer_->Write(std::move(frame));
        EncodeAudioFrame();
      } else {
        audio_mux_cache_[timestamp] = std::move(frame);
      }
      return;
    }
  }

  // Nothing waiting, or a gap of five frames or more: silence where audio is expected.
  muted_frame_->SetTimestampInMs(static_cast<uint32_t>(next_audio_timestamp_));
  RLOG(LS_INFO) << "Check and add muted frame, muted frame added, timestamp:"
                << muted_frame_->GetTimestampInMs()
                << ", time gap between last and current audio frame:" << gap;
  if (audio_ring_buffer_) {
    audio_ring_buffer_->Write(*muted_frame_);
    if (!EncodeAudioFrame()) return;
  } else {
    audio_mux_cache_[static_cast<uint64_t>(next_audio_timestamp_)] =
        std::make_unique<audio::AudioFrame>(muted_frame_->Clone());
  }
  next_audio_timestamp_ = TruncateToInt64(muted_length + static_cast<float>(next_audio_timestamp_));
}

// ---------------------------------------------------------------------------------------
// Stream metadata.

void LocalRecordingImpl::SendMetaDataToMuxer() {
  SendVideoMetaDataToMuxer();
  SendAudioMetaDataToMuxer();
}

void LocalRecordingImpl::SendVideoMetaDataToMuxer() {
  if (params_.media_format != media_stream_writer::kMp4 || video_frame_cache_.empty()) return;
  const video::VideoFrame& first = *video_frame_cache_.begin()->second;

  media_stream_writer::VideoMetadata metadata;
  metadata.codec_type = first.codec_type;
  metadata.width = first.width;
  metadata.height = first.height;
  // One set of each type describes the stream: the last of its type in the key frame.
  // An unknown codec's bytes are not parsed; the writer learns the codec from the
  // metadata and refuses it.
  const video::ParameterSetsByType sets =
      video::ExtractParameterSets(first.codec_type, first.data.data(), first.data.size());
  if (!sets.vps.empty()) metadata.vps = sets.vps.back();
  if (!sets.sps.empty()) metadata.sps = sets.sps.back();
  if (!sets.pps.empty()) metadata.pps = sets.pps.back();
  writer_->SetVideoMetaData(metadata);
}

void LocalRecordingImpl::SendAudioMetaDataToMuxer() {
  if (audio_frame_cache_.empty()) return;
  const audio::AudioFrame& first = *audio_frame_cache_.begin()->second;
  audio::AudioMetadata metadata;
  metadata.sample_rate = first.GetSampleRate();
  metadata.channels = first.GetChannels();
  // The writer learns AAC or PCM from the packets; the metadata describes the PCM side.
  metadata.codec_format = audio::kPcm;
  writer_->SetAudioMetaData(metadata);
}

}  // namespace recording
}  // namespace tarnel
