// Builds against the public headers only and runs a recording that refuses to start and
// one that stops before any stream arrived.
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/video_frame.h"

using tarnel::recording::InternalError;
using tarnel::recording::LocalRecording;

class Client : public LocalRecording::Client {
 public:
  void OnRecordingStarted(LocalRecording*, InternalError error) override { Note("started", error); }
  void OnRecordingProgress(LocalRecording*, int64_t) override {}
  void OnRecordingSegment(LocalRecording*, const std::string&) override {}
  void OnRecordingCompleted(LocalRecording*, InternalError error, int64_t, int64_t) override {
    Note("completed", error);
  }

  std::string Wait(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return events_ >= count; });
    return log_;
  }

 private:
  void Note(const char* what, InternalError error) {
    std::lock_guard<std::mutex> lock(mutex_);
    log_ += std::string(what) + ":" + tarnel::recording::InternalErrorToString(error) + " ";
    ++events_;
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string log_;
  size_t events_ = 0;
};

int main() {
  Client client;
  auto recorder = LocalRecording::Create(&client);
  tarnel::recording::LocalRecordingInitialParams params;
  params.file_path = "/nonexistent-dir/out.mp4";
  recorder->Start(params);
  params.file_path = "consumer_out.mp4";
  recorder->Start(params);
  recorder->WriteAudioFrame(std::make_unique<tarnel::audio::AudioFrame>());  // Refused: empty.
  recorder->Stop();
  const std::string log = client.Wait(3);
  recorder = nullptr;
  std::printf("%s\n", log.c_str());
  return log == "started:PathUnwritable started:Ok completed:NoStreamArrived " ? 0 : 1;
}
