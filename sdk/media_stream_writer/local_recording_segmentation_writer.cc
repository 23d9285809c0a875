#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

#include <utility>

#include "sdk/base/logging.h"
#include "sdk/media_stream_writer/ffmpeg/ffmpeg_stream_writer.h"

namespace tarnel {
namespace extensions {
namespace local_recording {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"media_stream_writer"};

// The factory a test installed, or empty.
tarn_base::OverrideSlot<LocalRecordingSegmentationWriter::BackendFactory>& FactoryForTesting() {
  static auto* const slot =
      new tarn_base::OverrideSlot<LocalRecordingSegmentationWriter::BackendFactory>();
  return *slot;
}

// The built-in container backend, on FFmpeg's muxers.
std::unique_ptr<MediaStreamWriter> MakeBuiltInBackend(
    LocalRecordingSegmentationWriter::Client* client) {
  return std::make_unique<FfmpegStreamWriter>(client);
}

}  // namespace

LocalRecordingSegmentationWriter::LocalRecordingSegmentationWriter(Client* client) {
  const BackendFactory factory = FactoryForTesting().Get();
  backend_ = factory ? factory(client) : MakeBuiltInBackend(client);
}

LocalRecordingSegmentationWriter::~LocalRecordingSegmentationWriter() = default;

void LocalRecordingSegmentationWriter::SetVideoMetaData(
    const media_stream_writer::VideoMetadata& metadata) {
  if (backend_) backend_->SetVideoMetaData(metadata);
}

void LocalRecordingSegmentationWriter::SetAudioMetaData(const audio::AudioMetadata& metadata) {
  if (backend_) backend_->SetAudioMetaData(metadata);
}

int LocalRecordingSegmentationWriter::Start(const std::string& path,
                                            media_stream_writer::MediaFormat format,
                                            LocalRecordingType type, int segment_interval) {
  if (!backend_) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "no container backend in this build, cannot write " << path;
    return -1;
  }
  return backend_->Start(path, format, type, segment_interval);
}

int LocalRecordingSegmentationWriter::WriteVideoPacket(std::unique_ptr<video::VideoFrame> frame) {
  return backend_ ? backend_->WriteVideoPacket(std::move(frame)) : -1;
}

int LocalRecordingSegmentationWriter::WriteAudioPacket(std::unique_ptr<audio::AudioFrame> frame) {
  return backend_ ? backend_->WriteAudioPacket(std::move(frame)) : -1;
}

int64_t LocalRecordingSegmentationWriter::Stop() {
  // The backend is finished once; a repeated Stop reports the first result.
  if (!stopped_) {
    stopped_ = true;
    stop_result_ = backend_ ? backend_->Stop() : 0;
  }
  return stop_result_;
}

ScopedWriterBackendFactoryForTesting::ScopedWriterBackendFactoryForTesting(
    LocalRecordingSegmentationWriter::BackendFactory factory)
    : override_(&FactoryForTesting(), std::move(factory)) {}

}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel
