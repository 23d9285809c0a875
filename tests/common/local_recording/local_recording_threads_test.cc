// The recorder under concurrent use from many threads, on real time, with fake
// writers, encoder and resampler. Whatever the interleaving, every Start gets one
// OnRecordingStarted and every recording that started one OnRecordingCompleted by the
// time the last reference is released; the release is the point after which the
// client's events are final.
#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/base/logging.h"
#include "sdk/common/local_recording/local_recording.h"
#include "tests/support/recording_fakes.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel {
namespace recording {
namespace {

using media_stream_writer::kMkv;
using tarn_base::scoped_refptr;
using tarnel_test::ClientEvent;
using tarnel_test::RecordingClient;

constexpr int kThreads = 8;
constexpr int kOpsPerThread = 150;

// One OnRecordingStarted per Start; kAlreadyStarted exactly while a recording runs; each
// kOk start followed by exactly one completion before the next; nothing else outside.
void ExpectBalancedEvents(const RecordingClient& client, int starts) {
  int started = 0, ok_starts = 0, completed = 0;
  bool running = false;
  for (const ClientEvent& e : client.events()) {
    if (e.kind == ClientEvent::kStarted) {
      ++started;
      EXPECT_EQ(e.error == kAlreadyStarted, running) << InternalErrorToString(e.error);
      if (e.error == kOk) running = true, ++ok_starts;
    } else {
      EXPECT_TRUE(running) << "event " << e.kind << " outside a recording";
      if (e.kind == ClientEvent::kCompleted) running = false, ++completed;
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
  void TearDown() override {
    tarn_logging::SetStderrLoggingEnabled(true);
    EXPECT_EQ(writers_.state().constructed, writers_.state().destroyed) << "writers leaked";
  }

  LocalRecordingInitialParams ParamsFor(int thread, int op, media_stream_writer::MediaFormat f) {
    // Progress every 5 ms, filling for every third op, segments for every fourth.
    return {dir_.GetPath().Append("t" + std::to_string(thread) + "_" + std::to_string(op)).value(),
            f,
            5,
            op % 3 == 0,
            kAudioAndVideo,
            op % 4 == 0 ? 1 : 0};
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
  tarnel_test::FakeWriterFactory writers_;
  std::atomic<uint32_t> clock_ms_{1000};
};

TEST_F(LocalRecordingThreadsTest, RecordersSharedByEightThreadsAndReleasedByOneOfThem) {
  // The caller threads hold the references; whichever finishes last releases the
  // recorders while their frames are still queued on the workers. That release runs
  // them, finishes a running recording and reports it before it returns. Every 40th
  // write fails.
  writers_.state().write_result = [](size_t i) { return i % 40 == 39 ? 0 : 1; };
  tarnel_test::FakeEncoderFactory encoders;
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    // All threads on one recorder, or on four: each thread on two, each recorder with
    // four threads. Only one recorder may use the encoder fake, so MP4 goes with one;
    // Matroska and WAV take PCM as it is.
    const int count = round % 3 == 2 ? 4 : 1;
    const media_stream_writer::MediaFormat format =
        count == 1 && round % 2 ? media_stream_writer::kMp4 : kMkv;
    RecordingClient clients[4];
    std::atomic<int> starts[4] = {};
    std::vector<scoped_refptr<LocalRecording>> recorders;
    std::vector<LocalRecording*> raw;
    for (int r = 0; r < count; ++r) {
      recorders.push_back(LocalRecording::Create(&clients[r]));
      ASSERT_TRUE(recorders.back());
      raw.push_back(recorders.back().get());
      raw.back()->Start(ParamsFor(round, 1000 + r, format));
      ++starts[r];
    }
    // Each thread's copy of the lambda holds the references; the test's go first.
    OnEightThreadsAtOnce([&, held = std::move(recorders)](int t) {
      const int id = t + round * 2 * kThreads, a = t % count, b = (t + 1) % count;
      // Odd rounds bound the queue tightly, so that callers drop frames as they race.
      if (t == 0) raw[a]->SetMaxQueueBytes(round % 2 ? 16 << 10 : 0);
      starts[a] += Drive(raw[a], id, format);
      const LocalRecordingQueueStats stats = raw[a]->GetQueueStats();
      EXPECT_GE(stats.peak_queued_bytes, stats.queued_bytes);
      starts[b] += Drive(raw[b], id + kThreads, count == 1 ? format : media_stream_writer::kWav);
    });
    for (int r = 0; r < count; ++r) ExpectBalancedEvents(clients[r], starts[r]);
  }
}

// SetEncodeParams from two threads at once while a third feeds a recording: the calls
// are taken on the worker (ThreadSanitizer runs this suite) and change nothing in what
// is written, which matches the same feed recorded without them.
TEST_F(LocalRecordingThreadsTest, EncodeParamsFromTwoThreadsDuringARecordingChangeNothing) {
  const auto record = [this](bool set_params) {
    RecordingClient client;
    scoped_refptr<LocalRecording> recorder = LocalRecording::Create(&client);
    EXPECT_TRUE(recorder);
    const size_t first = writers_.state().packets.size();
    // No filling: what is written depends on the feed alone, not on when timers fire.
    recorder->Start({dir_.GetPath().Append(set_params ? "with.mkv" : "without.mkv").value(), kMkv,
                     -1, false, kAudioAndVideo, 0});
    std::vector<std::thread> setters;
    for (int t = 0; set_params && t < 2; ++t) {
      setters.emplace_back([&recorder, t] {
        video::EncodeParams params;
        for (int32_t i = 0; i < 500; ++i) {
          params.target_bitrate_kbps = 1000 * t + i;
          params.width = 640 + t;
          params.max_key_frame_interval_ms = i;
          recorder->SetEncodeParams(params);
        }
      });
    }
    for (uint32_t i = 0; i < 150; ++i) {
      recorder->WriteVideoFrame(tarnel_test::MakeVideoFrame(1000 + 33 * i, i % 30 == 0));
      recorder->WriteAudioFrame(tarnel_test::MakePcmFrame(1000 + 33 * i, 33));
    }
    for (std::thread& setter : setters) setter.join();
    recorder->Stop();
    recorder = nullptr;  // Runs what is queued; the client's events are final.
    EXPECT_EQ(client.CompletionResults(), std::vector<InternalError>{kOk});
    std::vector<std::tuple<bool, int64_t, int64_t>> written;
    const std::vector<tarnel_test::WrittenPacket>& packets = writers_.state().packets;
    for (size_t i = first; i < packets.size(); ++i) {
      written.emplace_back(packets[i].is_video, packets[i].pts, packets[i].dts);
    }
    return written;
  };
  const auto without = record(false);
  EXPECT_EQ(without.size(), 300u);
  EXPECT_EQ(record(true), without);
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
