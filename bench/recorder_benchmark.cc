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

// A recording into a discarding writer, from construction to destruction.
struct DiscardingRecording {
  DiscardingRecording() : recorder(LocalRecording::Create(&client)) {
    recorder->Start(MkvParams());
  }
  ~DiscardingRecording() { recorder->Stop(); }

  tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting discard{
      [](LocalRecordingSegmentationWriter::Client*) {
        return std::make_unique<DiscardingWriter>();
      }};
  SilentClient client;
  tarn_base::scoped_refptr<LocalRecording> recorder;
};

// Caller side: a recording runs on the worker (on the other core) while this thread
// hands frames over. `make(i)` makes the i-th frame, with the timer paused; `hand_over`
// is what is measured.
template <typename Frame, typename Make, typename HandOver>
void RunCallerBenchmark(benchmark::State& state, Make make, HandOver hand_over) {
  DiscardingRecording recording;
  int64_t index = 0;
  std::vector<std::unique_ptr<Frame>> frames;
  while (state.KeepRunningBatch(kBatch)) {
    state.PauseTiming();
    frames.clear();
    for (int i = 0; i < kBatch; ++i) frames.push_back(make(index++));
    state.ResumeTiming();
    for (auto& frame : frames) hand_over(recording.recorder.get(), std::move(frame));
  }
}

void BM_CallerWriteVideoFrame(benchmark::State& state) {
  RunCallerBenchmark<tarnel::video::VideoFrame>(
      state, [](int64_t i) { return MakeVideo(static_cast<uint64_t>(i) * 33, 16 * 1024); },
      [](LocalRecording* r, auto frame) { r->WriteVideoFrame(std::move(frame)); });
}
BENCHMARK(BM_CallerWriteVideoFrame);

void BM_CallerWriteAudioFrame(benchmark::State& state) {
  RunCallerBenchmark<tarnel::audio::AudioFrame>(
      state, [](int64_t i) { return MakeAudio(static_cast<uint32_t>(i) * 10); },
      [](LocalRecording* r, auto frame) { r->WriteAudioFrame(std::move(frame)); });
}
BENCHMARK(BM_CallerWriteAudioFrame);

// Worker side: ~33 fps video and 10 ms stereo PCM frames pass intake, the caches and
// one interleaved write pass each 150 ms of virtual time. The time is the posting
// thread's wall time until the worker is idle again, so it covers the worker's work.
void BM_WorkerIntakeAndWrite(benchmark::State& state) {
  tarn_base::SimulatedClock clock;
  tarn_base::ScopedTickClockOverrideForTesting use_clock(&clock);
  auto recording = std::make_unique<DiscardingRecording>();
  LocalRecording* recorder = recording->recorder.get();
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
  recording.reset();                // Stops, and releases the recorder, whose thread ends here.
  clock.RunUntilIdle();
}
BENCHMARK(BM_WorkerIntakeAndWrite);

}  // namespace
