// Local recording: writes a live stream's compressed video and audio into a media file.
//
// Threads: every method may be called from any thread. Start, Stop, WriteVideoFrame and
// WriteAudioFrame only post to the recorder's own worker thread ("recording"), where all
// of its state lives, and return at once. The Client is called on that worker thread
// (OnRecordingSegment on whatever thread the writer reports it, which is the same one).
// Release the last reference from a thread other than the worker thread, never from
// inside a Client callback: releasing a recorder that is recording stops it, flushes and
// finishes the file and reports OnRecordingCompleted before the release returns.
//
//   class MyClient : public tarnel::recording::LocalRecording::Client { ... };
//   MyClient client;
//   auto recorder = tarnel::recording::LocalRecording::Create(&client);
//   tarnel::recording::LocalRecordingInitialParams params;
//   params.file_path = "/tmp/out.mp4";
//   recorder->Start(params);               // -> OnRecordingStarted(kOk)
//   recorder->WriteVideoFrame(std::move(video_frame));
//   recorder->WriteAudioFrame(std::move(audio_frame));
//   recorder->Stop();                      // -> OnRecordingCompleted(kOk, duration, size)
#ifndef SDK_COMMON_LOCAL_RECORDING_LOCAL_RECORDING_H_
#define SDK_COMMON_LOCAL_RECORDING_LOCAL_RECORDING_H_

#include <cstdint>
#include <memory>
#include <string>

#include "sdk/base/ref_counted.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/encode_params.h"
#include "sdk/media/video_frame.h"
#include "sdk/media_stream_writer/media_format.h"

namespace tarnel {
namespace recording {

// Which streams a recording holds. Other values are accepted by Start, but such a
// recording never sees its streams arrive and ends with kNoStreamArrived.
enum RecordType : uint32_t {
  kAudioOnly = 0,
  kVideoOnly = 1,
  kAudioAndVideo = 2,
};

// The result codes of the component.
enum InternalError : int32_t {
  kOk = 0,
  kAlreadyStarted = 1,       // Start while a recording runs.
  kUnsupportedFormat = 2,    // media_format 0.
  kAudioEncoderFailed = 3,   // The AAC encoder could not be set up or produced nothing.
  kStreamWriterFailed = 5,   // The writer did not start, failed 31 writes in a row, or
                             // could not finish the file.
  kResolutionChanged = 6,    // The video picture size changed.
  kInvalidTimestamp = 7,     // A timestamp went back or jumped.
  kNoStreamArrived = 8,      // Stopped before the streams of the record type arrived.
  kUnsupportedRpsMode = 11,  // A video frame used reference-picture selection.
  kFileAlreadyExists = 12,   // The output file (or first segment file) exists.
  kPathUnwritable = 13,      // The output path cannot be opened for writing.
};

// The enumerator's name without the k, e.g. "FileAlreadyExists"; "Unknown(<n>)" for
// other values.
std::string InternalErrorToString(InternalError error);

// The parameters of one recording.
struct LocalRecordingInitialParams {
  std::string file_path;  // UTF-8 output path.
  media_stream_writer::MediaFormat media_format = media_stream_writer::kMp4;
  // Period of OnRecordingProgress; 1 or more enables it.
  int32_t progress_interval_ms = -1;
  // Fill gaps in the audio with silence.
  bool fill_muted_frame = false;
  RecordType record_type = kAudioAndVideo;
  // Seconds per segment file; 1 or more splits the output into "name_1.ext",
  // "name_2.ext", ...; 0 or less writes one file at file_path.
  int32_t segment_interval = 0;
  // Record two audio channels instead of one.
  bool stereo_audio = false;

  // "{file_path: /x.mp4, media_format: 1, ...}" for logs.
  std::string ToString() const;
};

// How much media a recorder holds that it has not yet handed to the writer, and what it
// dropped because it fell behind. The counts cover the current (or last) recording.
struct LocalRecordingQueueStats {
  int64_t queued_bytes = 0;          // Held now: frames posted but not taken in, and caches.
  int64_t peak_queued_bytes = 0;     // The highest queued_bytes of the recording.
  int64_t max_queue_bytes = 0;       // The bound in force.
  int64_t dropped_video_frames = 0;  // Dropped because the bound was reached.
  int64_t dropped_audio_frames = 0;
  int64_t overload_episodes = 0;  // Times dropping started.
};

// The bound a new recorder starts with: room for well over ten seconds of 1080p video
// with its audio arriving in one burst.
inline constexpr int64_t kDefaultMaxQueueBytes = int64_t{64} << 20;

class LocalRecording : public tarn_base::RefCountedThreadSafe<LocalRecording> {
 public:
  // Reports of one recorder, called on its worker thread. Must outlive the recorder.
  class Client {
   public:
    // Once per Start: kOk when the recording started, else why not.
    virtual void OnRecordingStarted(LocalRecording* recorder, InternalError error) = 0;
    // Every progress_interval_ms while the output is being written.
    virtual void OnRecordingProgress(LocalRecording* recorder, int64_t duration_ms) = 0;
    // Each segment file the writer opens.
    virtual void OnRecordingSegment(LocalRecording* recorder, const std::string& path) = 0;
    // Once at the end of every recording that started: the result, the recorded
    // duration and the output size in bytes (negative when the file could not be
    // finished).
    virtual void OnRecordingCompleted(LocalRecording* recorder, InternalError error,
                                      int64_t duration_ms, int64_t file_size) = 0;

   protected:
    virtual ~Client() = default;
  };

  // A new idle recorder reporting to `client` (not null), with one reference held by
  // the returned handle. Returns an empty handle, after logging an error, when the
  // worker thread cannot be started.
  static tarn_base::scoped_refptr<LocalRecording> Create(Client* client);

  virtual void Start(const LocalRecordingInitialParams& params) = 0;
  virtual void Stop() = 0;
  // `frame->data` is one Annex-B access unit (see video_frame.h); frames with no data
  // or 3 bytes or fewer are refused.
  virtual void WriteVideoFrame(std::unique_ptr<video::VideoFrame> frame) = 0;
  virtual void WriteAudioFrame(std::unique_ptr<audio::AudioFrame> frame) = 0;
  // Bytes of media the recorder may hold between the Write calls and the file (frames
  // waiting for the worker thread, and its caches). When a frame would exceed it, the
  // recorder drops frames and the recording goes on: video up to the next key frame
  // that fits, audio in whole frames, whose time the recorder fills with silence when
  // it encodes the audio, so the file stays decodable and in sync. One warning is
  // logged per episode. 0 or less restores kDefaultMaxQueueBytes. Any thread; applies
  // from the next frame on.
  virtual void SetMaxQueueBytes(int64_t bytes) = 0;
  // What the recorder holds and has dropped. Any thread.
  virtual LocalRecordingQueueStats GetQueueStats() const = 0;
  // Kept for the application's reference; does not affect the recording.
  virtual void SetEncodeParams(const video::EncodeParams& params) = 0;

 protected:
  friend class tarn_base::RefCountedThreadSafe<LocalRecording>;
  LocalRecording() = default;
  virtual ~LocalRecording() = default;
};

}  // namespace recording
}  // namespace tarnel

#endif  // SDK_COMMON_LOCAL_RECORDING_LOCAL_RECORDING_H_
