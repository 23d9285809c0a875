// A recorder on virtual time with a fake writer, encoder and resampler behind its seams.
#ifndef TESTS_COMMON_LOCAL_RECORDING_RECORDER_FIXTURE_H_
#define TESTS_COMMON_LOCAL_RECORDING_RECORDER_FIXTURE_H_

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

  Params MakeParams(tarnel::media_stream_writer::MediaFormat format,
                    tarnel::recording::RecordType type) {
    Params params;
    params.file_path = dir_.GetPath().Append("out" + std::to_string(++files_) + ".bin").value();
    params.media_format = format;
    params.record_type = type;
    return params;
  }

  // Starts and expects the start to succeed.
  void StartRecording(const Params& params) {
    recorder_->Start(params);
    clock_.RunUntilIdle();
    ASSERT_FALSE(client_.StartResults().empty());
    ASSERT_EQ(client_.StartResults().back(), tarnel::recording::kOk);
  }
  void StopRecording() {
    recorder_->Stop();
    clock_.RunUntilIdle();
  }
  void Idle() { clock_.RunUntilIdle(); }
  void Advance(int64_t ms) { clock_.FastForwardBy(tarn_base::TimeDelta::FromMilliseconds(ms)); }

  void Video(uint64_t pts, bool key = false, uint32_t width = 640, uint32_t height = 360) {
    recorder_->WriteVideoFrame(MakeVideoFrame(pts, key, width, height));
  }
  void Pcm(uint32_t timestamp, int duration_ms = 20, int rate = 48000, int channels = 1) {
    recorder_->WriteAudioFrame(MakePcmFrame(timestamp, duration_ms, rate, channels));
  }
  void Aac(uint32_t timestamp) { recorder_->WriteAudioFrame(MakeAacFrame(timestamp)); }

  FakeWriterState& writer() { return writers_.state(); }
  std::vector<WrittenPacket> VideoPackets() { return Filter(true); }
  std::vector<WrittenPacket> AudioPackets() { return Filter(false); }
  std::vector<int64_t> Timestamps(const std::vector<WrittenPacket>& packets) {
    std::vector<int64_t> out;
    for (const auto& p : packets) out.push_back(p.pts);
    return out;
  }
  // "V100 A150 ..." in writing order.
  std::string WriteOrder() {
    std::string out;
    for (const auto& p : writer().packets) {
      if (!out.empty()) out += ' ';
      out += (p.is_video ? "V" : "A") + std::to_string(p.pts);
    }
    return out;
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
  std::vector<WrittenPacket> Filter(bool video) {
    std::vector<WrittenPacket> out;
    for (const auto& p : writer().packets) {
      if (p.is_video == video) out.push_back(p);
    }
    return out;
  }
  int files_ = 0;
};

}  // namespace tarnel_test

#endif  // TESTS_COMMON_LOCAL_RECORDING_RECORDER_FIXTURE_H_
