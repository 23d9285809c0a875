// Records a stream through LocalRecording the way an application does: a video thread
// and an audio thread hand frames over as they "arrive", and the client prints what the
// recorder reports.
//
//   record_file [OUTPUT] [SECONDS]
//
// The frames are synthetic: each video access unit is an Annex-B key or delta slice
// header and the audio is a 440 Hz tone at 44.1 kHz stereo, so the recorder converts it.
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
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
    std::printf("segment: %s\n", path.c_str());
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

std::unique_ptr<tarnel::video::VideoFrame> MakeVideo(uint64_t pts_ms, bool key) {
  // Start code + slice NAL header (IDR or non-IDR) + a few payload bytes.
  const uint8_t unit[] = {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88, 0x84, 0x21};
  auto frame = std::make_unique<tarnel::video::VideoFrame>();
  frame->data = tarnel::CopyOnWriteBuffer(unit, sizeof(unit));
  frame->pts = frame->dts = pts_ms;
  frame->frame_type = key ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
  frame->codec_type = tarnel::video::kCodecH264;
  frame->width = 640;
  frame->height = 360;
  return frame;
}

std::unique_ptr<tarnel::audio::AudioFrame> MakeTone(uint32_t timestamp_ms, double* phase) {
  constexpr int kRate = 44100, kChannels = 2, kSamples = kRate / 100;  // 10 ms.
  std::vector<int16_t> pcm(kSamples * kChannels);
  for (int i = 0; i < kSamples; ++i) {
    const auto value = static_cast<int16_t>(8000 * std::sin(*phase));
    *phase += 2 * M_PI * 440 / kRate;
    pcm[2 * i] = pcm[2 * i + 1] = value;
  }
  auto frame = std::make_unique<tarnel::audio::AudioFrame>();
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t));
  frame->SetSampleRate(kRate);
  frame->SetChannels(kChannels);
  frame->SetTimestampInMs(timestamp_ms);
  return frame;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string output = argc > 1 ? argv[1] : "out.mp4";
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 2;

  PrintingClient client;
  auto recorder = LocalRecording::Create(&client);
  if (!recorder) return 1;

  tarnel::recording::LocalRecordingInitialParams params;
  params.file_path = output;
  params.progress_interval_ms = 500;
  params.stereo_audio = true;
  recorder->Start(params);

  // Live sources: 30 fps video with a key frame every second, 10 ms audio frames.
  const auto begin = std::chrono::steady_clock::now();
  std::thread video([&] {
    for (int i = 0; i < seconds * 30; ++i) {
      const uint64_t pts = static_cast<uint64_t>(i) * 1000 / 30;
      std::this_thread::sleep_until(begin + std::chrono::milliseconds(pts));
      recorder->WriteVideoFrame(MakeVideo(pts, i % 30 == 0));
    }
  });
  std::thread audio([&] {
    double phase = 0;
    for (int i = 0; i < seconds * 100; ++i) {
      std::this_thread::sleep_until(begin + std::chrono::milliseconds(i * 10));
      recorder->WriteAudioFrame(MakeTone(static_cast<uint32_t>(i * 10), &phase));
    }
  });
  video.join();
  audio.join();

  recorder->Stop();
  const InternalError result = client.WaitForEnd();
  recorder = nullptr;
  std::printf("result: %s\n", InternalErrorToString(result).c_str());
  return 0;
}
