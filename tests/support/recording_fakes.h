// Test doubles at the recorder's seams: a client that records its callbacks, a writer
// backend that records calls and fails on demand, an AAC encoder and a resampler that
// do cheap, predictable work, and builders for frames. Each factory installs itself
// through its seam's Scoped...ForTesting object for its lifetime.
//
//   tarnel_test::FakeWriterFactory writers;            // writers made now are fakes
//   tarnel_test::FakeEncoderFactory encoders;          // so are AAC encoders
//   ... run a recording ...
//   EXPECT_EQ(writers.state().calls, (std::vector<std::string>{"Start", "Stop"}));
#ifndef TESTS_SUPPORT_RECORDING_FAKES_H_
#define TESTS_SUPPORT_RECORDING_FAKES_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_resampler.h"
#include "sdk/media/scoped_audio_encoder_factory_for_testing.h"
#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

namespace tarnel_test {

using tarnel::recording::InternalError;
using tarnel::recording::LocalRecording;

// What the client saw, in order.
struct ClientEvent {
  enum Kind { kStarted, kProgress, kSegment, kCompleted };
  Kind kind;
  InternalError error = tarnel::recording::kOk;
  int64_t duration_ms = 0;
  int64_t file_size = 0;
  std::string path = "";
};

class RecordingClient : public LocalRecording::Client {
 public:
  void OnRecordingStarted(LocalRecording*, InternalError error) override {
    Add({ClientEvent::kStarted, error});
  }
  void OnRecordingProgress(LocalRecording*, int64_t duration_ms) override {
    Add({ClientEvent::kProgress, tarnel::recording::kOk, duration_ms});
  }
  void OnRecordingSegment(LocalRecording*, const std::string& path) override {
    Add({ClientEvent::kSegment, tarnel::recording::kOk, 0, 0, path});
  }
  void OnRecordingCompleted(LocalRecording*, InternalError error, int64_t duration_ms,
                            int64_t file_size) override {
    Add({ClientEvent::kCompleted, error, duration_ms, file_size});
  }

  std::vector<ClientEvent> events() const;
  std::vector<ClientEvent> EventsOf(ClientEvent::Kind kind) const;
  // The error codes of the OnRecordingStarted / OnRecordingCompleted calls, in order.
  std::vector<InternalError> StartResults() const { return ErrorsOf(ClientEvent::kStarted); }
  std::vector<InternalError> CompletionResults() const { return ErrorsOf(ClientEvent::kCompleted); }

 private:
  void Add(ClientEvent event);
  std::vector<InternalError> ErrorsOf(ClientEvent::Kind kind) const;

  mutable std::mutex mutex_;
  std::vector<ClientEvent> events_;
};

// One packet as the fake writer received it.
struct WrittenPacket {
  bool is_video = false;
  int64_t pts = 0;  // Video pts, or the audio timestamp.
  int64_t dts = 0;
  tarnel::audio::AudioCodecFormat audio_format = tarnel::audio::kPcm;
  bool silent = false;  // Every byte zero.
};

// Everything the fake writers of one FakeWriterFactory saw. Shared with the writers so
// it outlives them; the writers lock `mutex`, so several recorders may share it.
struct FakeWriterState {
  // Results the fakes give; may be changed between calls (on the recorder's thread).
  int start_result = 0;
  int64_t stop_result = 4096;
  // Result of the n-th write (0-based, both streams counted together).
  std::function<int(size_t index)> write_result = [](size_t) { return 1; };

  std::mutex mutex;
  int constructed = 0;
  int destroyed = 0;
  std::vector<std::string> calls;  // "SetVideoMetaData", "Start", "WriteVideoPacket", ...
  std::vector<tarnel::media_stream_writer::VideoMetadata> video_metadata;
  std::vector<WrittenPacket> packets;

  // The client the recorder handed to the last writer, for segment notices.
  tarnel::extensions::local_recording::LocalRecordingSegmentationWriter::Client* client = nullptr;
};

// While alive, every LocalRecordingSegmentationWriter gets a fake backend reporting to
// state(). Read state() only while the recorders' threads are idle.
class FakeWriterFactory {
 public:
  FakeWriterFactory();
  FakeWriterState& state() { return *state_; }

 private:
  std::shared_ptr<FakeWriterState> state_ = std::make_shared<FakeWriterState>();
  tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting scope_;
};

// An AAC encoder double: consumes 1024 samples per channel and returns a small "AAC"
// frame stamped with the input's timestamp. Can fail Init or the n-th Encode.
struct FakeEncoderState {
  bool init_result = true;
  int fail_encode_at = -1;          // 0-based Encode call that returns null; -1 never.
  int32_t input_size_override = 0;  // Replaces the computed input size when not 0.
  bool create_returns_null = false;

  int created = 0;
  std::vector<tarnel::audio::AudioEncodeParams> init_params;
  int encode_calls = 0;
};

// While alive, AudioEncoderFactory2 makes FakeAudioEncoders reporting to state().
class FakeEncoderFactory {
 public:
  FakeEncoderFactory();
  FakeEncoderState& state() { return *state_; }

 private:
  std::shared_ptr<FakeEncoderState> state_ = std::make_shared<FakeEncoderState>();
  tarnel::audio::ScopedAudioEncoderFactoryForTesting scope_;
};

// While alive, AudioResampleInterface::Create makes a resampler double that converts
// by nearest-sample picking and channel copying, so sizes and formats come out exactly
// as a real one's would.
class FakeResamplerScope {
 public:
  FakeResamplerScope();
  static inline std::atomic<int> configure_calls{0};

 private:
  tarnel::audio::ScopedAudioResamplerFactoryForTesting scope_;
};

// Builders.
std::unique_ptr<tarnel::video::VideoFrame> MakeVideoFrame(uint64_t pts, bool key,
                                                          uint32_t width = 640,
                                                          uint32_t height = 360, int32_t codec = 0);
// `duration_ms` of PCM at `sample_rate`/`channels`, every sample 1000.
std::unique_ptr<tarnel::audio::AudioFrame> MakePcmFrame(uint32_t timestamp_ms, int duration_ms,
                                                        int sample_rate = 48000, int channels = 1);
std::unique_ptr<tarnel::audio::AudioFrame> MakeAacFrame(uint32_t timestamp_ms,
                                                        int sample_rate = 48000, int channels = 2);

}  // namespace tarnel_test

#endif  // TESTS_SUPPORT_RECORDING_FAKES_H_
