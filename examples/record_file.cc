// Records H.264 video and PCM audio that an application produces itself into an MP4,
// the way a real-time app would: a video thread and an audio thread hand frames to the
// recorder as they "arrive", and the client prints what the recorder reports.
//
//   record_file INPUT.h264 [OUTPUT.mp4]
//
// INPUT.h264 is a raw Annex-B H.264 stream (for example
// `ffmpeg -i samples/sample.mp4 -c:v copy -bsf:v h264_mp4toannexb in.h264`), played at
// 30 fps; the audio is a 440 Hz tone made here, 10 ms frames at 44.1 kHz stereo (the
// recorder converts it to 48 kHz and encodes it to AAC).
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/video_frame.h"

using tarnel::recording::InternalError;
using tarnel::recording::InternalErrorToString;
using tarnel::recording::LocalRecording;

namespace {

// Receives the recorder's reports on its worker thread.
class PrintingClient : public LocalRecording::Client {
 public:
  void OnRecordingStarted(LocalRecording*, InternalError error) override {
    std::printf("started: %s\n", InternalErrorToString(error).c_str());
    if (error != tarnel::recording::kOk) Finish(error);
  }
  void OnRecordingProgress(LocalRecording*, int64_t duration_ms) override {
    std::printf("progress: %lld ms\n", static_cast<long long>(duration_ms));
  }
  void OnRecordingSegment(LocalRecording*, const std::string& path) override {
    std::printf("writing: %s\n", path.c_str());
  }
  void OnRecordingCompleted(LocalRecording*, InternalError error, int64_t duration_ms,
                            int64_t file_size) override {
    std::printf("completed: %s, %lld ms, %lld bytes\n", InternalErrorToString(error).c_str(),
                static_cast<long long>(duration_ms), static_cast<long long>(file_size));
    Finish(error);
  }

  InternalError WaitForEnd() {
    std::unique_lock<std::mutex> lock(mutex_);
    ended_.wait(lock, [this] { return done_; });
    return result_;
  }

 private:
  void Finish(InternalError error) {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    result_ = error;
    ended_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable ended_;
  bool done_ = false;
  InternalError result_ = tarnel::recording::kOk;
};

struct AccessUnit {
  std::vector<uint8_t> bytes;  // Annex-B, start codes included.
  bool key = false;
};

// Cuts an Annex-B H.264 stream into access units: a new one begins at an access unit
// delimiter, SPS, PPS or SEI that follows a picture, or at a slice whose
// first_mb_in_slice is 0 (its first bit after the header is 1).
std::vector<AccessUnit> SplitAccessUnits(const std::vector<uint8_t>& stream) {
  std::vector<size_t> starts;  // Offsets of the start codes.
  for (size_t i = 0; i + 3 < stream.size(); ++i) {
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
      starts.push_back(i > 0 && stream[i - 1] == 0 ? i - 1 : i);
      i += 2;
    }
  }
  std::vector<AccessUnit> units;
  bool picture_seen = false;
  for (size_t n = 0; n < starts.size(); ++n) {
    const size_t begin = starts[n];
    const size_t end = n + 1 < starts.size() ? starts[n + 1] : stream.size();
    const size_t header = begin + (stream[begin + 2] == 1 ? 3 : 4);
    if (header >= end) continue;
    const int type = stream[header] & 0x1f;
    const bool slice = type == 1 || type == 5;
    const bool first_slice = slice && header + 1 < end && (stream[header + 1] & 0x80);
    const bool opens_unit = (type >= 6 && type <= 9 && picture_seen) || first_slice;
    if (units.empty() || (opens_unit && picture_seen)) {
      units.emplace_back();
      picture_seen = false;
    }
    units.back().bytes.insert(units.back().bytes.end(), stream.begin() + begin,
                              stream.begin() + end);
    if (type == 5) units.back().key = true;
    if (slice) picture_seen = true;
  }
  return units;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s INPUT.h264 [OUTPUT.mp4]\n", argv[0]);
    return 1;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::vector<uint8_t> stream((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
  const std::vector<AccessUnit> units = SplitAccessUnits(stream);
  if (units.empty()) {
    std::fprintf(stderr, "no H.264 access units in %s\n", argv[1]);
    return 1;
  }

  PrintingClient client;
  auto recorder = LocalRecording::Create(&client);
  if (!recorder) return 1;

  tarnel::recording::LocalRecordingInitialParams params;
  params.file_path = argc > 2 ? argv[2] : "out.mp4";
  params.progress_interval_ms = 1000;
  params.stereo_audio = true;
  recorder->Start(params);

  // The picture size the stream was encoded at; the recorder refuses a change.
  constexpr uint32_t kWidth = 640, kHeight = 360;
  const auto begin = std::chrono::steady_clock::now();
  const int64_t duration_ms = static_cast<int64_t>(units.size()) * 1000 / 30;

  std::thread video([&] {
    for (size_t i = 0; i < units.size(); ++i) {
      const uint64_t pts = i * 1000 / 30;
      std::this_thread::sleep_until(begin + std::chrono::milliseconds(pts));
      auto frame = std::make_unique<tarnel::video::VideoFrame>();
      frame->data = tarnel::CopyOnWriteBuffer(units[i].bytes.data(), units[i].bytes.size());
      frame->pts = frame->dts = pts;
      frame->frame_type = units[i].key ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
      frame->codec_type = tarnel::video::kCodecH264;
      frame->width = kWidth;
      frame->height = kHeight;
      recorder->WriteVideoFrame(std::move(frame));  // Moved in: no copy of the bytes.
    }
  });
  std::thread audio([&] {
    constexpr int kRate = 44100, kSamples = kRate / 100;  // 10 ms of stereo.
    double phase = 0;
    for (int64_t t = 0; t < duration_ms; t += 10) {
      std::this_thread::sleep_until(begin + std::chrono::milliseconds(t));
      std::vector<int16_t> pcm(kSamples * 2);
      for (int i = 0; i < kSamples; ++i) {
        pcm[2 * i] = pcm[2 * i + 1] = static_cast<int16_t>(6000 * std::sin(phase));
        phase += 2 * M_PI * 440 / kRate;
      }
      auto frame = std::make_unique<tarnel::audio::AudioFrame>();
      frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t));
      frame->SetSampleRate(kRate);
      frame->SetChannels(2);
      frame->SetTimestampInMs(static_cast<uint32_t>(t));
      recorder->WriteAudioFrame(std::move(frame));
    }
  });
  video.join();
  audio.join();

  recorder->Stop();
  const InternalError result = client.WaitForEnd();
  recorder = nullptr;  // Released here, never inside a callback.
  return result == tarnel::recording::kOk ? 0 : 2;
}
