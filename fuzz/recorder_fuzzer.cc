// Drives one recorder per input through a sequence of Start, Stop, WriteVideoFrame,
// WriteAudioFrame and time steps decoded from the input, on virtual time, against the
// fake writer, AAC encoder and resampler. After the recorder is released:
//  - every Start got exactly one OnRecordingStarted;
//  - every recording that started (kOk) got exactly one OnRecordingCompleted, after its
//    start and before the next one; kAlreadyStarted only while one runs, the other
//    refusals and progress only where they make sense;
//  - every writer was destroyed, wrote only between its Start and Stop, and got its
//    video in non-decreasing pts order.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "sdk/base/file_util.h"
#include "sdk/base/logging.h"
#include "sdk/base/simulated_clock.h"
#include "sdk/common/local_recording/local_recording.h"
#include "tests/support/recording_fakes.h"
#include "tests/support/scoped_temp_dir.h"

namespace {

using tarnel::audio::AudioFrame;
using tarnel::recording::LocalRecordingInitialParams;
using tarnel::video::VideoFrame;
using tarnel_test::ClientEvent;

constexpr int kMaxOps = 256;

void Check(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "invariant violated: %s\n", what);
    abort();
  }
}

class Driver {
 public:
  Driver(FuzzedDataProvider* in, const tarn_base::FilePath& dir) : in_(*in), dir_(dir) {}

  LocalRecordingInitialParams StartParams() {
    LocalRecordingInitialParams p;
    p.media_format =
        static_cast<tarnel::media_stream_writer::MediaFormat>(in_.ConsumeIntegralInRange(0, 6));
    p.record_type = static_cast<tarnel::recording::RecordType>(in_.ConsumeIntegralInRange(0, 3));
    p.segment_interval = in_.ConsumeIntegralInRange(-1, 3);
    p.fill_muted_frame = in_.ConsumeBool();
    p.stereo_audio = in_.ConsumeBool();
    static constexpr int32_t kProgress[] = {-1, 0, 20, 100, 1000};
    p.progress_interval_ms = in_.PickValueInArray(kProgress);
    const std::string name = "r" + std::to_string(++files_) + ".mp4";
    const tarn_base::FilePath fresh = dir_.Append(name);
    switch (in_.ConsumeIntegralInRange(0, 7)) {
      case 0:  // Something already stands there.
        tarn_base::WriteFile(fresh, "x");
        break;
      case 1:  // The first segment file already exists.
        tarn_base::WriteFile(fresh.InsertBeforeExtension("_1"), "x");
        break;
      case 2:  // In a directory that does not exist.
        p.file_path = dir_.Append("missing").Append(name).value();
        return p;
      case 3:  // A directory.
        p.file_path = dir_.value();
        return p;
      case 4:
        p.file_path = "";
        return p;
      default:
        break;
    }
    p.file_path = fresh.value();
    return p;
  }

  std::unique_ptr<VideoFrame> Video() {
    auto f = std::make_unique<VideoFrame>();
    switch (in_.ConsumeIntegralInRange(0, 7)) {
      case 0:
        // Below 2^62, so that rebased pts compare correctly as signed values.
        video_pts_ = in_.ConsumeIntegralInRange<uint64_t>(0, uint64_t{1} << 62);
        break;
      case 1:
        video_pts_ -= std::min(video_pts_, in_.ConsumeIntegralInRange<uint64_t>(0, 100));
        break;
      default:
        video_pts_ += in_.ConsumeIntegralInRange<uint64_t>(0, 80);
        break;
    }
    f->pts = video_pts_;
    f->dts = in_.ConsumeBool() ? 0 : f->pts - in_.ConsumeIntegralInRange<uint64_t>(0, 40);
    f->frame_type = in_.ConsumeIntegralInRange(0, 3) == 0 ? tarnel::video::kKeyFrame
                                                          : in_.ConsumeIntegralInRange(1, 3);
    f->codec_type = in_.ConsumeIntegralInRange(-1, 2);
    f->reference_mode = in_.ConsumeIntegralInRange(0, 15) == 0
                            ? in_.ConsumeIntegralInRange(10, 14)
                            : tarnel::video::kReferenceModeNormal;
    if (in_.ConsumeIntegralInRange(0, 15) == 0) {
      f->width = in_.ConsumeIntegralInRange<uint32_t>(0, 4096);
      f->height = in_.ConsumeIntegralInRange<uint32_t>(0, 4096);
    } else {
      f->width = 640;
      f->height = 360;
    }
    std::vector<uint8_t> bytes;
    if (in_.ConsumeBool()) {
      // Parameter sets of the codec in front, so the metadata has something to carry.
      static constexpr uint8_t kAvc[] = {0, 0, 0, 1, 0x67, 0x42, 0, 0x1e, 0, 0, 0, 1, 0x68, 0xce};
      static constexpr uint8_t kHevc[] = {0,    0, 0, 1, 0x40, 1, 0x0c, 0, 0,   1,
                                          0x42, 1, 1, 0, 0,    1, 0x44, 1, 0xc1};
      if (f->codec_type == tarnel::video::kCodecH265) {
        bytes.assign(kHevc, kHevc + sizeof(kHevc));
      } else {
        bytes.assign(kAvc, kAvc + sizeof(kAvc));
      }
    }
    const std::vector<uint8_t> tail =
        in_.ConsumeBytes<uint8_t>(in_.ConsumeIntegralInRange<size_t>(0, 48));
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    if (!bytes.empty()) f->data = tarnel::CopyOnWriteBuffer(bytes.data(), bytes.size());
    return f;
  }

  std::unique_ptr<AudioFrame> Audio() {
    auto f = std::make_unique<AudioFrame>();
    static constexpr int32_t kRates[] = {48000, 48000, 44100, 16000, 8000, 96000, 0, -1};
    const int32_t rate =
        in_.ConsumeBool() ? in_.PickValueInArray(kRates) : in_.ConsumeIntegralInRange(1000, 400000);
    static constexpr int32_t kChannels[] = {1, 2, 1, 2, 0, -1, 3, 8};
    const int32_t channels = in_.PickValueInArray(kChannels);
    const int format = in_.ConsumeIntegralInRange(0, 7);
    f->SetAudioFrameFormat(
        format == 0   ? tarnel::audio::kAac
        : format == 1 ? static_cast<tarnel::audio::AudioCodecFormat>(in_.ConsumeIntegral<int8_t>())
                      : tarnel::audio::kPcm);
    size_t size;
    if (in_.ConsumeBool() && rate > 0 && channels > 0) {
      // Whole milliseconds of PCM.
      size = static_cast<size_t>(rate) / 1000 * in_.ConsumeIntegralInRange(0, 40) * channels * 2;
    } else {
      size = in_.ConsumeIntegralInRange<size_t>(0, 4096);
    }
    std::vector<uint8_t> bytes(size, static_cast<uint8_t>(in_.ConsumeIntegral<uint8_t>()));
    if (!bytes.empty()) f->SetData(bytes.data(), bytes.size());
    f->SetSampleRate(rate);
    f->SetChannels(channels);
    switch (in_.ConsumeIntegralInRange(0, 9)) {
      case 0:
        audio_ts_ = in_.ConsumeIntegral<uint32_t>();
        break;
      case 1:
        audio_ts_ -= in_.ConsumeIntegralInRange<uint32_t>(0, 60);
        break;
      case 2:  // "No timestamp".
        f->SetTimestampInMs(0);
        return f;
      default:
        audio_ts_ += in_.ConsumeIntegralInRange<uint32_t>(0, 60);
        break;
    }
    f->SetTimestampInMs(audio_ts_);
    return f;
  }

  uint64_t NextVideoPts(uint32_t step) { return video_pts_ += step; }
  uint32_t NextAudioTs(uint32_t step) { return audio_ts_ += step; }

 private:
  FuzzedDataProvider& in_;
  const tarn_base::FilePath dir_;
  int files_ = 0;
  uint64_t video_pts_ = 1000;
  uint32_t audio_ts_ = 1000;
};

void ConfigureFakes(FuzzedDataProvider* in, tarnel_test::FakeWriterState* writer,
                    tarnel_test::FakeEncoderState* encoder) {
  const uint8_t mode = in->ConsumeIntegral<uint8_t>();
  writer->start_result = (mode & 0x07) == 0 ? -1 : 0;
  writer->stop_result = (mode & 0x18) == 0 ? -1 : 4096;
  const uint64_t pattern = in->ConsumeIntegral<uint64_t>();
  switch ((mode >> 5) & 3) {
    case 0:
      break;  // Every write succeeds.
    case 1:   // Fails from some write on.
      writer->write_result = [pattern](size_t i) { return i >= (pattern & 0xff) ? 0 : 1; };
      break;
    default:  // Fails as the bits say, round and round.
      writer->write_result = [pattern](size_t i) { return (pattern >> (i % 64)) & 1 ? -1 : 1; };
      break;
  }
  const uint8_t enc = in->ConsumeIntegral<uint8_t>();
  encoder->create_returns_null = (enc & 0x0f) == 0;
  encoder->init_result = (enc & 0x0f) != 1;
  encoder->fail_encode_at = (enc & 0x0f) == 2 ? (enc >> 4) : -1;
  static constexpr int32_t kInputSizes[] = {0, 0, 0, 0, -4, 0, 333, 100000};
  encoder->input_size_override = kInputSizes[enc >> 5];
}

// Walks the client's events and checks the bracket structure of the recordings.
void CheckEvents(const std::vector<ClientEvent>& events, int starts) {
  int started_events = 0;
  bool running = false;
  for (const ClientEvent& e : events) {
    switch (e.kind) {
      case ClientEvent::kStarted:
        ++started_events;
        if (e.error == tarnel::recording::kOk) {
          Check(!running, "kOk start while a recording runs");
          running = true;
        } else if (e.error == tarnel::recording::kAlreadyStarted) {
          Check(running, "kAlreadyStarted while idle");
        } else {
          Check(!running, "start refused for a path or format while recording");
        }
        break;
      case ClientEvent::kCompleted:
        Check(running, "completion without a started recording");
        running = false;
        break;
      case ClientEvent::kProgress:
      case ClientEvent::kSegment:
        Check(running, "progress outside a recording");
        break;
    }
  }
  Check(started_events == starts, "one OnRecordingStarted per Start");
  Check(!running, "a started recording was never completed");
}

void CheckWriters(const tarnel_test::FakeWriterState& w) {
  Check(w.constructed == w.destroyed, "writer leaked");
  // The calls of successive writers follow each other; one that started ends with Stop.
  bool started = false;
  size_t packet = 0;
  int64_t last_video = 0;
  bool first_video = true;
  for (const std::string& call : w.calls) {
    if (call == "Start") {
      Check(!started, "a started writer was dropped without Stop");
      started = true;
    } else if (call == "Stop") {
      started = false;
      first_video = true;
    } else if (call == "WriteVideoPacket" || call == "WriteAudioPacket") {
      Check(started, "write outside Start..Stop");
      const tarnel_test::WrittenPacket& p = w.packets[packet++];
      if (p.is_video) {
        // Signed: in an audio-only recording video that precedes the audio start is
        // passed on (and dropped by the writer) with pts below 0.
        Check(first_video || p.pts >= last_video, "video pts went back within one file");
        first_video = false;
        last_video = p.pts;
      }
    }
  }
  Check(!started, "the last started writer was never stopped");
  Check(packet == w.packets.size(), "packets without calls");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // TARNEL_FUZZ_LOG=1 shows the recorder's log when reproducing a finding.
  tarn_logging::SetStderrLoggingEnabled(getenv("TARNEL_FUZZ_LOG") != nullptr);
  // Messages are still built, so their operands are exercised.
  tarn_logging::SetMinSeverity(tarn_logging::LS_INFO);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  tarnel_test::ScopedTempDir dir;
  if (!dir.CreateUniqueTempDir()) abort();

  tarn_base::SimulatedClock clock;
  tarn_base::ScopedTickClockOverrideForTesting use_clock(&clock);
  tarnel_test::FakeWriterFactory writers;
  tarnel_test::FakeEncoderFactory encoders;
  tarnel_test::FakeResamplerScope resampler;
  tarnel_test::RecordingClient client;
  ConfigureFakes(&in, &writers.state(), &encoders.state());

  Driver driver(&in, dir.GetPath());
  int starts = 0;
  {
    tarn_base::scoped_refptr<tarnel::recording::LocalRecording> recorder =
        tarnel::recording::LocalRecording::Create(&client);
    if (!recorder) abort();
    for (int op = 0; op < kMaxOps && in.remaining_bytes() > 0; ++op) {
      switch (in.ConsumeIntegralInRange(0, 13)) {
        case 0:
        case 1:
        case 2:
          recorder->WriteVideoFrame(driver.Video());
          break;
        case 3:
        case 4:
        case 5:
          recorder->WriteAudioFrame(driver.Audio());
          break;
        case 6:
          ++starts;
          recorder->Start(driver.StartParams());
          break;
        case 7:
          recorder->Stop();
          break;
        case 8:
          clock.FastForwardBy(tarn_base::TimeDelta::FromMilliseconds(
              in.ConsumeBool() ? in.ConsumeIntegralInRange(0, 200)
                               : in.ConsumeIntegralInRange(0, 1000)));
          break;
        case 9:
          clock.RunUntilIdle();
          break;
        case 10:
          if (in.ConsumeBool()) {
            recorder->WriteVideoFrame(nullptr);
          } else {
            recorder->WriteAudioFrame(nullptr);
          }
          break;
        case 11:
          // Valid frames with no bytes.
          recorder->WriteVideoFrame(std::make_unique<VideoFrame>());
          recorder->WriteAudioFrame(std::make_unique<AudioFrame>());
          recorder->SetEncodeParams({});
          break;
        case 12:
        case 13: {
          // A run of regular frames: enough to overflow the caches and build backlogs.
          const int count = in.ConsumeIntegralInRange(1, 160);
          const uint32_t step = in.ConsumeIntegralInRange(1, 40);
          const bool video = in.ConsumeBool();
          const int rate = in.ConsumeBool() ? 48000 : 16000;
          for (int i = 0; i < count; ++i) {
            if (video) {
              recorder->WriteVideoFrame(
                  tarnel_test::MakeVideoFrame(driver.NextVideoPts(step), i % 30 == 0));
            } else {
              recorder->WriteAudioFrame(
                  tarnel_test::MakePcmFrame(driver.NextAudioTs(step), step, rate));
            }
          }
          break;
        }
      }
    }
    // Released with whatever is still posted: the last release runs it, and finishes
    // a running recording, before it returns.
  }
  CheckEvents(client.events(), starts);
  CheckWriters(writers.state());
  return 0;
}
