// A recorder on virtual time with a fake writer, encoder and resampler behind its seams.
#ifndef TESTS_COMMON_LOCAL_RECORDING_RECORDER_FIXTURE_H_
#define TESTS_COMMON_LOCAL_RECORDING_RECORDER_FIXTURE_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/base/simulated_clock.h"
#include "sdk/common/local_recording/local_recording.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_fakes.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel_test {

class RecorderFixture : public ::testing::Test {
 protected:
  using Params = tarnel::recording::LocalRecordingInitialParams;

  void SetUp() override {
    ASSERT_TRUE(dir_.CreateUniqueTempDir());
    recorder_ = LocalRecording::Create(&client_);
    ASSERT_TRUE(recorder_);
  }

  std::string PathOf(const std::string& name) const { return dir_.GetPath().Append(name).value(); }
  Params MakeParams(tarnel::media_stream_writer::MediaFormat format,
                    tarnel::recording::RecordType type, bool fill_muted_frame = false) {
    return {PathOf("out" + std::to_string(++files_) + ".bin"), format,
            /*progress_interval_ms=*/-1, fill_muted_frame, type};
  }

  void Start(const Params& params) {
    recorder_->Start(params);
    Idle();
  }
  // Starts and expects the start to succeed.
  void StartRecording(const Params& params) {
    Start(params);
    ASSERT_FALSE(client_.StartResults().empty());
    ASSERT_EQ(client_.StartResults().back(), tarnel::recording::kOk);
  }
  void StopRecording() {
    recorder_->Stop();
    Idle();
  }
  void Idle() { clock_.RunUntilIdle(); }
  void Advance(int64_t ms) { clock_.FastForwardBy(tarn_base::TimeDelta::FromMilliseconds(ms)); }

  void Video(uint64_t pts, bool key = false, uint32_t width = 640, int32_t reference_mode = 0) {
    auto frame = MakeVideoFrame(pts, key, width);
    frame->reference_mode = reference_mode;
    recorder_->WriteVideoFrame(std::move(frame));
  }
  // `count` frames `step_ms` apart from `pts`, the first a key frame, with `advance_ms`
  // of time after each.
  void VideoRun(uint64_t pts, int count, int step_ms, int64_t advance_ms = 0) {
    for (int i = 0; i < count; ++i) {
      Video(pts + static_cast<uint64_t>(i * step_ms), i == 0);
      if (advance_ms > 0) Advance(advance_ms);
    }
  }
  void Pcm(uint32_t timestamp, int duration_ms = 20, int rate = 48000, int channels = 1) {
    recorder_->WriteAudioFrame(MakePcmFrame(timestamp, duration_ms, rate, channels));
  }
  // 20 ms PCM frames stamped [from, to), with `advance_ms` of time after each.
  void PcmRun(uint32_t from, uint32_t to, int64_t advance_ms = 20, int rate = 48000,
              int channels = 1) {
    for (uint32_t t = from; t < to; t += 20) {
      Pcm(t, 20, rate, channels);
      if (advance_ms > 0) Advance(advance_ms);
    }
  }
  void Aac(uint32_t timestamp) { recorder_->WriteAudioFrame(MakeAacFrame(timestamp)); }

  FakeWriterState& writer() { return writers_.state(); }
  // "V100 A150 ..." in writing order.
  std::string WriteOrder() {
    std::string out;
    for (const auto& p : writer().packets) {
      out += std::string(out.empty() ? "" : " ") + (p.is_video ? "V" : "A") + std::to_string(p.pts);
    }
    return out;
  }
  // True when every value is above the one before, by less than `max_step`.
  static bool Rising(const std::vector<int64_t>& v, int64_t max_step = INT64_MAX) {
    return std::adjacent_find(v.begin(), v.end(), [max_step](int64_t a, int64_t b) {
             return b <= a || b - a >= max_step;
           }) == v.end();
  }
  std::vector<int64_t> AudioTimestamps() {
    std::vector<int64_t> out;
    for (const auto& p : writer().packets) {
      if (!p.is_video) out.push_back(p.pts);
    }
    return out;
  }
  // Every OnRecordingCompleted as "error duration_ms file_size", joined by "; ". The fake
  // writer's Stop reports 4096 bytes.
  std::string Completions() {
    std::string out;
    for (const ClientEvent& e : client_.EventsOf(ClientEvent::kCompleted)) {
      out += (out.empty() ? "" : "; ") + tarnel::recording::InternalErrorToString(e.error) + " " +
             std::to_string(e.duration_ms) + " " + std::to_string(e.file_size);
    }
    return out;
  }

  std::vector<std::string> LastErrors(size_t n) {
    const std::vector<std::string> errors = logs_.MessagesAtLeast(tarn_logging::LS_ERROR);
    return {errors.end() - static_cast<std::ptrdiff_t>(std::min(n, errors.size())), errors.end()};
  }
  // The recording ended with `error`, logging `cause` (when given) just before the
  // "recording failed" line.
  void ExpectEndedWith(InternalError error, const char* cause = nullptr) {
    ASSERT_FALSE(client_.CompletionResults().empty());
    EXPECT_EQ(client_.CompletionResults().back(), error);
    std::vector<std::string> lines{"recording failed: " + InternalErrorToString(error)};
    if (cause) lines.insert(lines.begin(), cause);
    EXPECT_EQ(LastErrors(lines.size()), lines);
  }

  tarn_base::SimulatedClock clock_;
  tarn_base::ScopedTickClockOverrideForTesting use_clock_{&clock_};
  ScopedTempDir dir_;
  FakeWriterFactory writers_;
  FakeEncoderFactory encoders_;
  FakeResamplerScope resampler_;
  RecordingClient client_;
  ScopedLogCapture logs_;
  tarn_base::scoped_refptr<LocalRecording> recorder_;

 private:
  int files_ = 0;
};

}  // namespace tarnel_test

#endif  // TESTS_COMMON_LOCAL_RECORDING_RECORDER_FIXTURE_H_
