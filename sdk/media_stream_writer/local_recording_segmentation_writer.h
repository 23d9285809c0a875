// The writer that turns the recorder's rebased frames into a container file, or into
// numbered segment files ("out_1.mp4", "out_2.mp4", ...).
//
// One writer serves one recording. Call sequence: the metadata setters that apply,
// Start, any number of WriteVideoPacket / WriteAudioPacket in timestamp order, Stop,
// destruction. Stop is accepted in every state (also without Start, or after a failed
// Start) and always returns a value. All calls come from one thread; the client's
// OnRecordingSegment is called synchronously from inside these calls.
//
// The container work itself is done by a MediaStreamWriter made by the writer
// backend factory; tests install a fake one with ScopedWriterBackendFactoryForTesting.
#ifndef SDK_MEDIA_STREAM_WRITER_LOCAL_RECORDING_SEGMENTATION_WRITER_H_
#define SDK_MEDIA_STREAM_WRITER_LOCAL_RECORDING_SEGMENTATION_WRITER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "sdk/base/scoped_override.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/video_frame.h"
#include "sdk/media_stream_writer/media_format.h"
#include "sdk/media_stream_writer/stream_metadata.h"

namespace tarnel {
namespace extensions {
namespace local_recording {

// Which streams the output holds.
enum LocalRecordingType : uint32_t {
  kAudioOnly = 0,
  kVideoOnly = 1,
  kAudioAndVideo = 2,
};

// The contract shared by the writer and its backends.
class MediaStreamWriter {
 public:
  virtual ~MediaStreamWriter() = default;

  // Stream descriptions; copied. Called before Start.
  virtual void SetVideoMetaData(const media_stream_writer::VideoMetadata& metadata) = 0;
  virtual void SetAudioMetaData(const audio::AudioMetadata& metadata) = 0;

  // Opens the output at `path` (the first segment when `segment_interval` >= 1 is
  // `path` with "_1" before its extension). Returns 0 when started.
  virtual int Start(const std::string& path, media_stream_writer::MediaFormat format,
                    LocalRecordingType type, int segment_interval) = 0;

  // Write one frame with pts/dts (ms) relative to the start of the recording; a video
  // dts of 0 means the frame has none. The backend repairs video dts (missing, past the
  // pts, not increasing), nobody before it. Return a positive value when written, 0 or
  // negative when this frame was lost.
  virtual int WriteVideoPacket(std::unique_ptr<video::VideoFrame> frame) = 0;
  virtual int WriteAudioPacket(std::unique_ptr<audio::AudioFrame> frame) = 0;

  // Finishes and closes the output. Returns the bytes written over all segments, or a
  // negative value when finishing failed. Called at most once.
  virtual int64_t Stop() = 0;
};

class LocalRecordingSegmentationWriter : public MediaStreamWriter {
 public:
  // Receives the path of every segment file the writer opens.
  class Client {
   public:
    virtual void OnRecordingSegment(const std::string& path) = 0;
    virtual ~Client() = default;
  };

  // Makes the backend for one writer. `client` is the writer's client.
  using BackendFactory = std::function<std::unique_ptr<MediaStreamWriter>(Client* client)>;

  // `client` is not owned and must outlive the writer; it may be null.
  explicit LocalRecordingSegmentationWriter(Client* client);
  ~LocalRecordingSegmentationWriter() override;
  LocalRecordingSegmentationWriter(const LocalRecordingSegmentationWriter&) = delete;
  LocalRecordingSegmentationWriter& operator=(const LocalRecordingSegmentationWriter&) = delete;

  void SetVideoMetaData(const media_stream_writer::VideoMetadata& metadata) override;
  void SetAudioMetaData(const audio::AudioMetadata& metadata) override;
  int Start(const std::string& path, media_stream_writer::MediaFormat format,
            LocalRecordingType type, int segment_interval) override;
  int WriteVideoPacket(std::unique_ptr<video::VideoFrame> frame) override;
  int WriteAudioPacket(std::unique_ptr<audio::AudioFrame> frame) override;
  int64_t Stop() override;

 private:
  std::unique_ptr<MediaStreamWriter> backend_;
  bool stopped_ = false;
  int64_t stop_result_ = 0;
};

// While alive, writers constructed on any thread get their backend from `factory`
// instead of the built-in one; the factory in use before comes back when it goes.
class ScopedWriterBackendFactoryForTesting {
 public:
  explicit ScopedWriterBackendFactoryForTesting(
      LocalRecordingSegmentationWriter::BackendFactory factory);

 private:
  tarn_base::ScopedOverride<LocalRecordingSegmentationWriter::BackendFactory> override_;
};

}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_LOCAL_RECORDING_SEGMENTATION_WRITER_H_
