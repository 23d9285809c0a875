#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

#include <mutex>
#include <utility>

#include "sdk/base/logging.h"
#include "sdk/media_stream_writer/ffmpeg/ffmpeg_stream_writer.h"

namespace tarnel {
namespace extensions {
namespace local_recording {

namespace {

constexpr tarn_logging::LogConfig kLogConfig{"media_stream_writer"};

std::mutex& FactoryMutex() {
  static std::mutex mutex;
  return mutex;
}

LocalRecordingSegmentationWriter::BackendFactory& TestFactory() {
  static LocalRecordingSegmentationWriter::BackendFactory factory;
  return factory;
}

// The built-in container backend, on FFmpeg's muxers.
std::unique_ptr<MediaStreamWriter> MakeBuiltInBackend(
    LocalRecordingSegmentationWriter::Client* client) {
  return std::make_unique<FfmpegStreamWriter>(client);
}

}  // namespace

LocalRecordingSegmentationWriter::LocalRecordingSegmentationWriter(Client* client) {
  BackendFactory factory;
  {
    std::lock_guard<std::mutex> lock(FactoryMutex());
    factory = TestFactory();
  }
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

void LocalRecordingSegmentationWriter::SetBackendFactoryForTesting(BackendFactory factory) {
  std::lock_guard<std::mutex> lock(FactoryMutex());
  TestFactory() = std::move(factory);
}

ScopedWriterBackendFactoryForTesting::ScopedWriterBackendFactoryForTesting(
    LocalRecordingSegmentationWriter::BackendFactory factory) {
  LocalRecordingSegmentationWriter::SetBackendFactoryForTesting(std::move(factory));
}

ScopedWriterBackendFactoryForTesting::~ScopedWriterBackendFactoryForTesting() {
  LocalRecordingSegmentationWriter::SetBackendFactoryForTesting(nullptr);
}

}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel
