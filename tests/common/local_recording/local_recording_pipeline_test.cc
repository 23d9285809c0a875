// Whole recordings through the public API against a fake writer, on virtual time: what
// reaches the writer, in which order and with which timestamps, and what the client
// is told.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "tests/common/local_recording/recorder_fixture.h"

namespace tarnel {
namespace recording {
namespace {

using media_stream_writer::kMkv;
using media_stream_writer::kMp4;
using tarnel_test::ClientEvent;

class LocalRecordingPipelineTest : public tarnel_test::RecorderFixture {};

TEST_F(LocalRecordingPipelineTest, VideoOnlyRecordingIsRebasedAndWrittenEveryTick) {
  constexpr uint64_t kFirst = 1000000;
  StartRecording(MakeParams(kMkv, kVideoOnly));
  Video(kFirst - 100);  // Not a key frame: nothing to start from.
  Video(kFirst, /*key=*/true);
  Video(kFirst + 33);
  auto no_dts = tarnel_test::MakeVideoFrame(kFirst + 66, false);
  no_dts->dts = 0;
  recorder_->WriteVideoFrame(std::move(no_dts));
  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0 V33 V66");
  EXPECT_EQ(writer().packets[1].dts, 33);
  EXPECT_EQ(writer().packets[2].dts, 0) << "a missing dts stays missing, for the writer to repair";

  Video(kFirst + 100, true);
  Video(100);                           // 1000000 ms behind the last frame: late, dropped.
  Video(kFirst + 100, true);            // Same pts: replaces the cached frame.
  Video(kFirst + 133, false, 640, 10);  // Not a reference-picture-selection mode.
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 V33 V66 V100 V133");
  EXPECT_EQ(writer().calls.front(), "Start") << "no metadata outside MP4, no audio";
  EXPECT_EQ(Completions(), "Ok 133 4096");
}

TEST_F(LocalRecordingPipelineTest, PcmIntoMp4IsConvertedAndEncodedInBatches) {
  Params params = MakeParams(kMp4, kAudioOnly);
  params.stereo_audio = true;
  StartRecording(params);
  PcmRun(0, 1000, 20, 44100, 2);  // 44.1 kHz stereo in real time for one second.
  StopRecording();
  EXPECT_EQ(tarnel_test::FakeResamplerScope::configure_calls.load(), 50);
  // 50 x 20 ms of 48 kHz stereo is 46 whole encoder inputs of 1024 samples; the rest
  // is less than one input and is not encoded.
  std::vector<int64_t> expected;
  for (int k = 0; k < 46; ++k) expected.push_back(k * 1024 * 1000 / 48000);
  EXPECT_EQ(AudioTimestamps(), expected);
  for (const auto& packet : writer().packets) EXPECT_EQ(packet.audio_format, audio::kAac);
  EXPECT_EQ(Completions(), "Ok 981 4096") << "the last input starts at 960 ms and lasts 21.3";

  // Mono 48 kHz input into a mono recording needs no conversion and keeps the
  // encoder's default bit rate.
  StartRecording(MakeParams(kMp4, kAudioOnly));
  Pcm(0);
  StopRecording();
  EXPECT_EQ(tarnel_test::FakeResamplerScope::configure_calls.load(), 50);
  const auto& init = encoders_.state().init_params;
  ASSERT_EQ(init.size(), 2u);
  EXPECT_EQ(
      std::make_tuple(init[0].sample_rate, init[0].channels, init[0].bitrate, init[0].codec_format),
      std::make_tuple(48000, 2, 196608, audio::kAac));
  EXPECT_EQ(std::make_tuple(init[1].sample_rate, init[1].channels, init[1].bitrate),
            std::make_tuple(48000, 1, audio::AudioEncodeParams().bitrate));
}

TEST_F(LocalRecordingPipelineTest, Mp4DropsAudioThatStartsBeforeTheFirstPicture) {
  // Filling is asked for, but is not possible with AAC input: switched off.
  StartRecording(MakeParams(kMp4, kAudioAndVideo, /*fill_muted_frame=*/true));
  for (uint32_t t = 900; t < 1100; t += 21) Aac(t);
  Video(1000, true);
  Idle();
  EXPECT_TRUE(logs_.Contains("aac format not support mute frame"));
  EXPECT_TRUE(logs_.Contains(
      "After frame align by timestamp, first audio timestamp:1005, first video timestamp:1000"));
  EXPECT_EQ(std::vector<std::string>(writer().calls.begin(), writer().calls.begin() + 3),
            (std::vector<std::string>{"SetVideoMetaData", "SetAudioMetaData", "Start"}));

  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0") << "with both streams a pass stops when one cache is empty";
  Video(1033);
  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0 A5 A26 V33");
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 A5 A26 V33 A47 A68 A89");
}

TEST_F(LocalRecordingPipelineTest, Mp4LeadsLateAudioInWithSilence) {
  StartRecording(MakeParams(kMp4, kAudioAndVideo, /*fill_muted_frame=*/true));
  Video(1000, true);
  Pcm(1130);  // 130 ms after the first picture: more than five 20 ms frames.
  Idle();
  EXPECT_TRUE(logs_.Contains("delta time between audio & video110"));
  EXPECT_TRUE(logs_.Contains("total muted frame added count6"));
  // Seven frames wait in the input cache (six silent, one real), under the 200 ms
  // lead; the filling timer starts after 200 - 7 x 20 = 60 ms.
  Advance(20);
  PcmRun(1150, 1600);
  StopRecording();
  EXPECT_EQ(AudioTimestamps().at(0), 10) << "the first silent frame is just after the picture";
  EXPECT_TRUE(Rising(AudioTimestamps()));
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
}

TEST_F(LocalRecordingPipelineTest, SourcePauseIsFilledWithSilentFrames) {
  StartRecording(MakeParams(kMkv, kAudioOnly, /*fill_muted_frame=*/true));
  PcmRun(0, 1000);
  Advance(400);  // The source pauses: 1000..1400 never arrives.
  PcmRun(1400, 2000);
  Advance(400);
  StopRecording();

  // Every real frame arrives, in order, and silence keeps the track going through the
  // pause; only a remainder shorter than five frames may stay open before the source
  // resumes.
  std::vector<int64_t> real, expected_real, silent;
  for (const auto& packet : writer().packets) (packet.silent ? silent : real).push_back(packet.pts);
  for (int64_t t = 0; t < 2000; t += 20) {
    if (t < 1000 || t >= 1400) expected_real.push_back(t);
  }
  EXPECT_EQ(real, expected_real);
  EXPECT_GE(
      std::count_if(silent.begin(), silent.end(), [](int64_t t) { return t >= 1000 && t < 1400; }),
      15);
  EXPECT_TRUE(Rising(AudioTimestamps(), 20 + 5 * 20)) << "no hole of five frames";
}

TEST_F(LocalRecordingPipelineTest, FillingCatchesUpWithABacklog) {
  StartRecording(MakeParams(kMkv, kAudioOnly, /*fill_muted_frame=*/true));
  // 41 frames at once: the muxer starts on the first, the rest queue in the input
  // cache. The filling timer starts 200 - 1 x 20 = 180 ms later and ticks every 20 ms.
  PcmRun(0, 820, 0);
  Advance(299);
  EXPECT_TRUE(writer().packets.empty());
  Advance(1);
  // The tick at 200 ms finds 40 frames waiting and moves 1 + (30 - 200 / 20) = 21;
  // the ticks at 220..280 move one each; the write at 300 ms runs before the tick due
  // at the same time, which was scheduled later.
  EXPECT_EQ(writer().packets.size(), 25u);
  StopRecording();
  EXPECT_EQ(writer().packets.size(), 41u);
}

TEST_F(LocalRecordingPipelineTest, InterleavesByTimestampWithVideoFirstOnTies) {
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Video(100, true);
  Aac(150);  // Both streams present: the offset is the earlier of the two, 100.
  Video(200);
  Aac(250);
  Video(300);
  Aac(300);
  Video(400);
  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0 A50 V100 A150 V200 A200");
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 A50 V100 A150 V200 A200 V300");
}

TEST_F(LocalRecordingPipelineTest, ThirtyFirstConsecutiveWriteFailureEndsTheRecording) {
  // 30 failures, a success, 30 failures, a success, then 31 failures.
  writer().write_result = [](size_t index) { return index == 30 || index == 61 ? 1 : 0; };
  StartRecording(MakeParams(kMkv, kVideoOnly));
  VideoRun(0, 100, 10);
  Advance(150);
  EXPECT_EQ(writer().packets.size(), 93u) << "nothing is written after the 31st failure";
  EXPECT_EQ(client_.EventsOf(ClientEvent::kCompleted)[0].file_size, writer().stop_result);
  EXPECT_EQ(logs_.MessagesAtLeast(tarn_logging::LS_ERROR).size(), 2u);
  ExpectEndedWith(kStreamWriterFailed, "stream writer failures over 30 times");
  StopRecording();  // Already ended: nothing more.
  EXPECT_EQ(client_.CompletionResults().size(), 1u);

  // The same limit during the flush at stop.
  writer().write_result = [](size_t) { return 0; };
  StartRecording(MakeParams(kMkv, kVideoOnly));
  VideoRun(0, 40, 10);
  StopRecording();
  EXPECT_EQ(client_.CompletionResults(),
            (std::vector<InternalError>{kStreamWriterFailed, kStreamWriterFailed}));
  EXPECT_TRUE(logs_.Contains(
      "flush remaining data failed, may cause the last few frames not be written to the file."));
  EXPECT_EQ(std::count(writer().calls.begin(), writer().calls.end(), "Stop"), 2);
}

TEST_F(LocalRecordingPipelineTest, ProgressReportsTheLongerStream) {
  Params params = MakeParams(kMkv, kVideoOnly);
  params.progress_interval_ms = 100;
  StartRecording(params);
  VideoRun(5000, 31, 33, 33);
  const auto progress = client_.EventsOf(ClientEvent::kProgress);
  ASSERT_GE(progress.size(), 9u);
  for (size_t i = 1; i < progress.size(); ++i) {
    EXPECT_GE(progress[i].duration_ms, progress[i - 1].duration_ms);
  }
  EXPECT_GT(progress.back().duration_ms, 800);
  StopRecording();
  EXPECT_EQ(client_.EventsOf(ClientEvent::kCompleted)[0].duration_ms, 30 * 33);
}

TEST_F(LocalRecordingPipelineTest, OtherStreamArrivingLateDoesNotRestartTheMuxer) {
  StartRecording(MakeParams(kMkv, kAudioOnly));
  Aac(0);
  Advance(150);
  Video(0, true);  // Video in an audio-only recording: handed over, writer discards it.
  Aac(21);
  Advance(150);
  StopRecording();
  EXPECT_EQ(std::count(writer().calls.begin(), writer().calls.end(), "Start"), 1);
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
}

TEST_F(LocalRecordingPipelineTest, ReleaseFinishesARunningRecordingBeforeReturning) {
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Video(0, true);
  Aac(0);
  Video(33);
  Aac(21);
  recorder_ = nullptr;  // No RunUntilIdle: the release itself must flush and finish.
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
  EXPECT_EQ(WriteOrder(), "V0 A0 A21 V33");
  EXPECT_EQ(writer().calls.back(), "Stop");
  EXPECT_EQ(writer().destroyed, 1);

  tarnel_test::RecordingClient idle_client;  // An idle release reports nothing.
  auto idle = LocalRecording::Create(&idle_client);
  idle = nullptr;
  EXPECT_TRUE(idle_client.events().empty());
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
