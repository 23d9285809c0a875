// What the recorder itself costs, with a writer that discards everything:
// - caller side: WriteVideoFrame / WriteAudioFrame (checks + posting), the cost an
//   application's receive thread pays per frame;
// - worker side: intake plus interleaved writing per frame, on virtual time so that the
//   150 ms write timer fires on demand.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "sdk/base/simulated_clock.h"
#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

namespace {

using tarnel::extensions::local_recording::LocalRecordingSegmentationWriter;
using tarnel::extensions::local_recording::LocalRecordingType;
using tarnel::extensions::local_recording::MediaStreamWriter;
using tarnel::recording::InternalError;
using tarnel::recording::LocalRecording;

class DiscardingWriter : public MediaStreamWriter {
 public:
  void SetVideoMetaData(const tarnel::media_stream_writer::VideoMetadata&) override {}
  void SetAudioMetaData(const tarnel::audio::AudioMetadata&) override {}
  int Start(const std::string&, tarnel::media_stream_writer::MediaFormat, LocalRecordingType,
            int) override {
    return 0;
  }
  int WriteVideoPacket(std::unique_ptr<tarnel::video::VideoFrame> frame) override {
    benchmark::DoNotOptimize(frame->data.data());
    return 1;
  }
  int WriteAudioPacket(std::unique_ptr<tarnel::audio::AudioFrame> frame) override {
    benchmark::DoNotOptimize(frame->GetData());
    return 1;
  }
  int64_t Stop() override { return 0; }
};

class SilentClient : public LocalRecording::Client {
 public:
  void OnRecordingStarted(LocalRecording*, InternalError) override {}
  void OnRecordingProgress(LocalRecording*, int64_t) override {}
  void OnRecordingSegment(LocalRecording*, const std::string&) override {}
  void OnRecordingCompleted(LocalRecording*, InternalError, int64_t, int64_t) override {}
};

constexpr int kBatch = 300;  // Ten seconds of 30 fps video.

std::unique_ptr<tarnel::video::VideoFrame> MakeVideo(uint64_t pts, size_t size) {
  static const std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> b(64 * 1024, 0x5a);
    b[0] = b[1] = b[2] = 0;
    b[3] = 1;
    b[4] = 0x65;
    return b;
  }();
  auto frame = std::make_unique<tarnel::video::VideoFrame>();
  frame->data = tarnel::CopyOnWriteBuffer(bytes.data(), size);
  frame->pts = frame->dts = pts;
  frame->frame_type = pts % 990 == 0 ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
  frame->width = 1280;
  frame->height = 720;
  return frame;
}

std::unique_ptr<tarnel::audio::AudioFrame> MakeAudio(uint32_t timestamp) {
  static const std::vector<uint8_t> pcm(480 * 2 * 2, 1);  // 10 ms, 48 kHz stereo.
  auto frame = std::make_unique<tarnel::audio::AudioFrame>();
  frame->SetData(pcm.data(), pcm.size());
  frame->SetSampleRate(48000);
  frame->SetChannels(2);
  frame->SetTimestampInMs(timestamp);
  return frame;
}

tarnel::recording::LocalRecordingInitialParams MkvParams() {
  tarnel::recording::LocalRecordingInitialParams params;
  params.file_path = "/tmp/tarnel_recorder_benchmark.mkv";
  params.media_format = tarnel::media_stream_writer::kMkv;
  params.stereo_audio = true;
  return params;
}

// Caller side: a recording runs on the worker (on the other core) while this thread
// hands frames over. Frames are made with the timer paused.
void BM_CallerWriteVideoFrame(benchmark::State& state) {
  tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting discard(
      [](LocalRecordingSegmentationWriter::Client*) {
        return std::make_unique<DiscardingWriter>();
      });
  SilentClient client;
  auto recorder = LocalRecording::Create(&client);
  recorder->Start(MkvParams());
  uint64_t pts = 0;
  std::vector<std::unique_ptr<tarnel::video::VideoFrame>> frames;
  while (state.KeepRunningBatch(kBatch)) {
    state.PauseTiming();
    frames.clear();
    for (int i = 0; i < kBatch; ++i, pts += 33) frames.push_back(MakeVideo(pts, 16 * 1024));
    state.ResumeTiming();
    for (auto& frame : frames) recorder->WriteVideoFrame(std::move(frame));
  }
  recorder->Stop();
}
BENCHMARK(BM_CallerWriteVideoFrame);

void BM_CallerWriteAudioFrame(benchmark::State& state) {
  tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting discard(
      [](LocalRecordingSegmentationWriter::Client*) {
        return std::make_unique<DiscardingWriter>();
      });
  SilentClient client;
  auto recorder = LocalRecording::Create(&client);
  recorder->Start(MkvParams());
  uint32_t timestamp = 0;
  std::vector<std::unique_ptr<tarnel::audio::AudioFrame>> frames;
  while (state.KeepRunningBatch(kBatch)) {
    state.PauseTiming();
    frames.clear();
    for (int i = 0; i < kBatch; ++i, timestamp += 10) frames.push_back(MakeAudio(timestamp));
    state.ResumeTiming();
    for (auto& frame : frames) recorder->WriteAudioFrame(std::move(frame));
  }
  recorder->Stop();
}
BENCHMARK(BM_CallerWriteAudioFrame);

// Worker side: ~33 fps video and 10 ms stereo PCM frames pass intake, the caches and
// one interleaved write pass each 150 ms of virtual time. The time is the posting
// thread's wall time until the worker is idle again, so it covers the worker's work.
void BM_WorkerIntakeAndWrite(benchmark::State& state) {
  tarn_base::SimulatedClock clock;
  tarn_base::ScopedTickClockOverrideForTesting use_clock(&clock);
  tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting discard(
      [](LocalRecordingSegmentationWriter::Client*) {
        return std::make_unique<DiscardingWriter>();
      });
  SilentClient client;
  auto recorder = LocalRecording::Create(&client);
  recorder->Start(MkvParams());
  uint64_t ms = 0;
  int64_t frames = 0;
  for (auto _ : state) {
    // 150 ms: 5 video frames (one every 30 ms) and 15 audio frames, then the write pass.
    for (uint64_t t = ms; t < ms + 150; t += 10) {
      if (t % 30 == 0) {
        recorder->WriteVideoFrame(MakeVideo(t, 16 * 1024));
        ++frames;
      }
      recorder->WriteAudioFrame(MakeAudio(static_cast<uint32_t>(t)));
      ++frames;
    }
    ms += 150;
    clock.FastForwardBy(tarn_base::TimeDelta::FromMilliseconds(150));
  }
  state.SetItemsProcessed(frames);  // items = frames handed over.
  recorder->Stop();
  clock.RunUntilIdle();
}
BENCHMARK(BM_WorkerIntakeAndWrite);

}  // namespace
