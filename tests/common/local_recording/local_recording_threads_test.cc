// The recorder under concurrent use from many threads, on real time, with fake
// writers, encoder and resampler. Whatever the interleaving, every Start gets one
// OnRecordingStarted and every recording that started one OnRecordingCompleted by the
// time the last reference is released; the release is the point after which the
// client's events are final.
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/base/logging.h"
#include "sdk/common/local_recording/local_recording.h"
#include "tests/support/recording_fakes.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel {
namespace recording {
namespace {

using extensions::local_recording::LocalRecordingSegmentationWriter;
using extensions::local_recording::LocalRecordingType;
using extensions::local_recording::MediaStreamWriter;
using tarn_base::scoped_refptr;
using tarnel_test::ClientEvent;
using tarnel_test::RecordingClient;

constexpr int kThreads = 8;
constexpr int kOpsPerThread = 150;

// A writer backend that accepts everything and may be used by many recorders' threads
// at once (the shared fakes keep per-factory logs and suit one recorder only).
class AcceptingBackend : public MediaStreamWriter {
 public:
  explicit AcceptingBackend(std::atomic<int>* live) : live_(live) { ++*live_; }
  ~AcceptingBackend() override { --*live_; }
  void SetVideoMetaData(const media_stream_writer::VideoMetadata&) override {}
  void SetAudioMetaData(const audio::AudioMetadata&) override {}
  int Start(const std::string&, media_stream_writer::MediaFormat, LocalRecordingType,
            int) override {
    return 0;
  }
  int WriteVideoPacket(std::unique_ptr<video::VideoFrame>) override { return 1; }
  int WriteAudioPacket(std::unique_ptr<audio::AudioFrame>) override { return 1; }
  int64_t Stop() override { return 100; }

 private:
  std::atomic<int>* live_;
};

// Checks one recorder's events once it is released: one OnRecordingStarted per Start;
// each kOk start followed by exactly one completion before the next kOk start; no
// completion or progress outside a recording.
void ExpectBalancedEvents(const RecordingClient& client, int starts) {
  const std::vector<ClientEvent> events = client.events();
  int started = 0;
  int ok_starts = 0;
  int completed = 0;
  bool running = false;
  for (const ClientEvent& e : events) {
    if (e.kind == ClientEvent::kStarted) {
      ++started;
      if (e.error == kOk) {
        EXPECT_FALSE(running) << "a second recording started before the first completed";
        running = true;
        ++ok_starts;
      } else {
        EXPECT_EQ(e.error == kAlreadyStarted, running) << InternalErrorToString(e.error);
      }
    } else if (e.kind == ClientEvent::kCompleted) {
      EXPECT_TRUE(running) << "completion without a started recording";
      running = false;
      ++completed;
    } else if (e.kind == ClientEvent::kProgress) {
      EXPECT_TRUE(running) << "progress outside a recording";
    }
  }
  EXPECT_EQ(started, starts);
  EXPECT_GE(ok_starts, 1) << "the first start on a fresh path succeeds";
  EXPECT_EQ(completed, ok_starts);
  EXPECT_FALSE(running);
}

// Runs `body(t)` for t in [0, kThreads) on that many threads, released together so
// that their calls overlap, and joins them. Each thread runs its own copy of `body`
// and destroys it when done, so what the copies hold is released on those threads.
template <typename Body>
void OnEightThreadsAtOnce(Body body) {
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  std::optional<Body> original(std::move(body));
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&ready, t, copy = *original] {
      ++ready;
      while (ready.load() < kThreads) std::this_thread::yield();
      copy(t);
    });
  }
  original.reset();
  for (std::thread& thread : threads) thread.join();
}

class LocalRecordingThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.CreateUniqueTempDir());
    tarn_logging::SetStderrLoggingEnabled(false);  // Thousands of expected refusals.
  }
  void TearDown() override { tarn_logging::SetStderrLoggingEnabled(true); }

  LocalRecordingInitialParams ParamsFor(int thread, int op, media_stream_writer::MediaFormat f) {
    LocalRecordingInitialParams params;
    params.file_path =
        dir_.GetPath().Append("t" + std::to_string(thread) + "_" + std::to_string(op)).value();
    params.media_format = f;
    params.progress_interval_ms = 5;
    params.fill_muted_frame = op % 3 == 0;
    params.segment_interval = op % 4 == 0 ? 1 : 0;
    return params;
  }

  // One caller thread's share of the work on `recorder`: a fixed mix of starts, stops
  // and frames. Timestamps come from a shared counter, so across threads they mostly
  // rise but sometimes step back, as with a jittery source. Returns the Start calls.
  int Drive(LocalRecording* recorder, int thread, media_stream_writer::MediaFormat format) {
    int starts = 0;
    for (int op = 0; op < kOpsPerThread; ++op) {
      const uint32_t now = clock_ms_.fetch_add(3);
      const int kind = (op * 7 + thread) % 48;
      if (kind == 0) {
        recorder->Start(ParamsFor(thread, op, format));
        ++starts;
      } else if (kind == 1) {
        recorder->Stop();
      } else if (kind < 20) {
        recorder->WriteVideoFrame(tarnel_test::MakeVideoFrame(now, op % 5 == 0));
      } else {
        // Mono at 48 kHz passes as it is; 16 kHz goes through the resampler.
        recorder->WriteAudioFrame(tarnel_test::MakePcmFrame(now, 10, op % 5 == 0 ? 16000 : 48000));
      }
    }
    return starts;
  }

  tarnel_test::ScopedTempDir dir_;
  tarnel_test::FakeResamplerScope resampler_;
  std::atomic<uint32_t> clock_ms_{1000};
};

TEST_F(LocalRecordingThreadsTest, OneRecorderCalledFromEightThreads) {
  // One recorder, so one worker thread uses the shared fakes. Every 40th write fails.
  tarnel_test::FakeWriterFactory writers;
  writers.state().write_result = [](size_t i) { return i % 40 == 39 ? 0 : 1; };
  tarnel_test::FakeEncoderFactory encoders;
  for (media_stream_writer::MediaFormat format :
       {media_stream_writer::kMp4, media_stream_writer::kMkv}) {
    SCOPED_TRACE(format);
    RecordingClient client;
    std::atomic<int> starts{0};
    {
      scoped_refptr<LocalRecording> recorder = LocalRecording::Create(&client);
      ASSERT_TRUE(recorder);
      OnEightThreadsAtOnce([&](int t) { starts += Drive(recorder.get(), t, format); });
      recorder->Start(ParamsFor(kThreads, 0, format));  // Likely still running at release.
      ++starts;
    }
    ExpectBalancedEvents(client, starts);
    EXPECT_EQ(writers.state().constructed, writers.state().destroyed);
  }
}

TEST_F(LocalRecordingThreadsTest, ManyRecordersSharedByEightThreads) {
  std::atomic<int> live_writers{0};
  extensions::local_recording::ScopedWriterBackendFactoryForTesting backends(
      [&live_writers](LocalRecordingSegmentationWriter::Client*) {
        return std::make_unique<AcceptingBackend>(&live_writers);
      });
  constexpr int kRecorders = 4;
  RecordingClient clients[kRecorders];
  std::atomic<int> starts[kRecorders] = {};
  {
    scoped_refptr<LocalRecording> recorders[kRecorders];
    for (int r = 0; r < kRecorders; ++r) {
      recorders[r] = LocalRecording::Create(&clients[r]);
      ASSERT_TRUE(recorders[r]);
    }
    // Each thread works on two recorders, each recorder gets four threads. Matroska
    // and WAV take PCM as it is, so no encoder is shared between recorders.
    OnEightThreadsAtOnce([&](int t) {
      starts[t % kRecorders] +=
          Drive(recorders[t % kRecorders].get(), t, media_stream_writer::kMkv);
      const int other = (t + 1) % kRecorders;
      starts[other] += Drive(recorders[other].get(), t + kThreads, media_stream_writer::kWav);
    });
  }
  for (int r = 0; r < kRecorders; ++r) {
    SCOPED_TRACE(r);
    ExpectBalancedEvents(clients[r], starts[r]);
  }
  EXPECT_EQ(live_writers, 0);
}

TEST_F(LocalRecordingThreadsTest, LastReleaseByACallerThreadWithFramesStillPosted) {
  // The caller threads hold the references; whichever finishes last releases the
  // recorder while its frames are still queued on the worker. That release runs them,
  // finishes a running recording and reports it before it returns.
  std::atomic<int> live_writers{0};
  extensions::local_recording::ScopedWriterBackendFactoryForTesting backends(
      [&live_writers](LocalRecordingSegmentationWriter::Client*) {
        return std::make_unique<AcceptingBackend>(&live_writers);
      });
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    RecordingClient client;
    std::atomic<int> starts{0};
    {
      scoped_refptr<LocalRecording> recorder = LocalRecording::Create(&client);
      ASSERT_TRUE(recorder);
      recorder->Start(ParamsFor(round, 1000, media_stream_writer::kMkv));
      ++starts;
      // Each thread's copy of the lambda holds a reference; the test's goes first.
      LocalRecording* raw = recorder.get();
      OnEightThreadsAtOnce([&, held = std::move(recorder)](int t) {
        starts += Drive(raw, t + round * kThreads, media_stream_writer::kMkv);
      });
      ASSERT_FALSE(recorder);
    }
    ExpectBalancedEvents(client, starts);
    EXPECT_EQ(live_writers, 0);
  }
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
