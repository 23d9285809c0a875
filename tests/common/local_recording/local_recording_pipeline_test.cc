// Whole recordings through the public API against a fake writer, on virtual time: what
// reaches the writer, in which order and with which timestamps, and what the client
// is told.
#include <algorithm>
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
  StartRecording(MakeParams(kMkv, kVideoOnly));
  Video(900);  // Not a key frame: nothing to start from.
  Video(1000, /*key=*/true);
  Video(1033);
  auto no_dts = tarnel_test::MakeVideoFrame(1066, false);
  no_dts->dts = 0;
  recorder_->WriteVideoFrame(std::move(no_dts));
  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0 V33 V66");
  EXPECT_EQ(VideoPackets()[2].dts, 66) << "a missing dts is written as the pts";

  Video(1100, true);
  Video(1133);
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 V33 V66 V100 V133");
  EXPECT_EQ(writer().start_format, kMkv);
  EXPECT_EQ(writer().start_type, static_cast<uint32_t>(kVideoOnly));
  EXPECT_EQ(writer().calls.front(), "Start") << "no metadata outside MP4, no audio";
  EXPECT_EQ(writer().calls.back(), "Stop");
  const auto done = client_.EventsOf(ClientEvent::kCompleted);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0].error, kOk);
  EXPECT_EQ(done[0].duration_ms, 133);
  EXPECT_EQ(done[0].file_size, writer().stop_result);
  EXPECT_FALSE(logs_.Contains("start muxer end")) << "no audio timer in a video-only recording";
}

TEST_F(LocalRecordingPipelineTest, PcmIntoMp4IsConvertedAndEncodedInBatches) {
  Params params = MakeParams(kMp4, kAudioOnly);
  params.stereo_audio = true;
  StartRecording(params);
  // 44.1 kHz stereo input, 20 ms frames, arriving in real time for one second.
  for (int i = 0; i < 50; ++i) {
    Pcm(static_cast<uint32_t>(i * 20), 20, 44100, 2);
    Advance(20);
  }
  StopRecording();

  ASSERT_EQ(encoders_.state().init_params.size(), 1u);
  const audio::AudioEncodeParams& init = encoders_.state().init_params[0];
  EXPECT_EQ(init.sample_rate, 48000);
  EXPECT_EQ(init.channels, 2);
  EXPECT_EQ(init.bitrate, 196608);
  EXPECT_EQ(init.codec_format, audio::kAac);
  EXPECT_EQ(tarnel_test::FakeResamplerScope::configure_calls(), 50);

  // 50 x 20 ms of 48 kHz stereo is 46 whole encoder inputs of 1024 samples; the rest
  // is less than one input and is not encoded.
  const std::vector<tarnel_test::WrittenPacket> audio = AudioPackets();
  ASSERT_EQ(audio.size(), 46u);
  for (size_t k = 0; k < audio.size(); ++k) {
    EXPECT_EQ(audio[k].pts, static_cast<int64_t>(k * 1024 * 1000 / 48000)) << k;
    EXPECT_EQ(audio[k].audio_format, audio::kAac);
  }
  const auto done = client_.EventsOf(ClientEvent::kCompleted);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0].duration_ms, static_cast<int64_t>(960.0f + 1024 * 1000 / 48000.0f));
  EXPECT_EQ(writer().audio_metadata.size(), 1u);
  EXPECT_EQ(writer().audio_metadata[0].codec_format, audio::kPcm);

  // A mono recording of 48 kHz mono input needs no conversion and keeps the encoder's
  // default bit rate.
  StartRecording(MakeParams(kMp4, kAudioOnly));
  Pcm(0);
  StopRecording();
  ASSERT_EQ(encoders_.state().init_params.size(), 2u);
  EXPECT_EQ(encoders_.state().init_params[1].channels, 1);
  EXPECT_EQ(encoders_.state().init_params[1].bitrate, audio::AudioEncodeParams().bitrate);
  EXPECT_EQ(tarnel_test::FakeResamplerScope::configure_calls(), 50);
}

TEST_F(LocalRecordingPipelineTest, Mp4DropsAudioThatStartsBeforeTheFirstPicture) {
  Params params = MakeParams(kMp4, kAudioAndVideo);
  params.fill_muted_frame = true;  // Not possible with AAC input: switched off.
  StartRecording(params);
  for (uint32_t t = 900; t < 1100; t += 21) Aac(t);
  Video(1000, true);
  Idle();
  EXPECT_TRUE(logs_.Contains("aac format not support mute frame"));
  EXPECT_TRUE(logs_.Contains(
      "After frame align by timestamp, first audio timestamp:1005, first video timestamp:1000"));
  EXPECT_EQ(writer().calls[0], "SetVideoMetaData");
  EXPECT_EQ(writer().calls[1], "SetAudioMetaData");
  EXPECT_EQ(writer().calls[2], "Start");

  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0") << "with both streams a pass stops when one cache is empty";
  Video(1033);
  Advance(150);
  EXPECT_EQ(WriteOrder(), "V0 A5 A26 V33");
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 A5 A26 V33 A47 A68 A89");
}

TEST_F(LocalRecordingPipelineTest, Mp4LeadsLateAudioInWithSilence) {
  Params params = MakeParams(kMp4, kAudioAndVideo);
  params.fill_muted_frame = true;
  StartRecording(params);
  Video(1000, true);
  Pcm(1130);  // 130 ms after the first picture: more than five 20 ms frames.
  Idle();
  EXPECT_TRUE(logs_.Contains("delta time between audio & video110"));
  EXPECT_TRUE(logs_.Contains("total muted frame added count6"));
  // Seven frames wait in the input cache (six silent, one real), under the 200 ms
  // lead; the filling timer starts after 200 - 7 x 20 = 60 ms.
  for (uint32_t t = 1150; t < 1600; t += 20) {
    Advance(20);
    Pcm(t);
  }
  StopRecording();
  ASSERT_FALSE(encoders_.state().input_timestamps.empty());
  EXPECT_EQ(encoders_.state().input_timestamps[0], 1010u)
      << "the first silent frame starts just after the first picture";
  const std::vector<int64_t> audio = Timestamps(AudioPackets());
  ASSERT_FALSE(audio.empty());
  EXPECT_EQ(audio[0], 10);
  for (size_t i = 1; i < audio.size(); ++i) EXPECT_GT(audio[i], audio[i - 1]);
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
}

TEST_F(LocalRecordingPipelineTest, SourcePauseIsFilledWithSilentFrames) {
  Params params = MakeParams(kMkv, kAudioOnly);
  params.fill_muted_frame = true;
  StartRecording(params);
  auto feed = [&](uint32_t from, uint32_t to) {
    for (uint32_t t = from; t < to; t += 20) {
      Pcm(t);
      Advance(20);
    }
  };
  feed(0, 1000);
  Advance(400);  // The source pauses: 1000..1400 never arrives.
  feed(1400, 2000);
  Advance(400);
  StopRecording();

  const std::vector<tarnel_test::WrittenPacket> audio = AudioPackets();
  ASSERT_GT(audio.size(), 90u);
  EXPECT_EQ(audio.front().pts, 0);
  int64_t largest_gap = 0;
  int silent_in_pause = 0;
  std::vector<int64_t> real;
  for (size_t i = 0; i < audio.size(); ++i) {
    if (i > 0) {
      ASSERT_GT(audio[i].pts, audio[i - 1].pts);
      largest_gap = std::max(largest_gap, audio[i].pts - audio[i - 1].pts);
    }
    if (!audio[i].silent) real.push_back(audio[i].pts);
    if (audio[i].silent && audio[i].pts >= 1000 && audio[i].pts < 1400) ++silent_in_pause;
  }
  // Every real frame arrives, in order, and silence keeps the track going through the
  // pause; only a remainder shorter than five frames may stay open before the source
  // resumes.
  std::vector<int64_t> expected_real;
  for (int64_t t = 0; t < 2000; t += 20) {
    if (t < 1000 || t >= 1400) expected_real.push_back(t);
  }
  EXPECT_EQ(real, expected_real);
  EXPECT_GE(silent_in_pause, 15);
  EXPECT_LT(largest_gap - 20, 5 * 20) << "hole between two written frames";
}

TEST_F(LocalRecordingPipelineTest, FillingCatchesUpWithABacklog) {
  Params params = MakeParams(kMkv, kAudioOnly);
  params.fill_muted_frame = true;
  StartRecording(params);
  // 41 frames at once: the muxer starts on the first, the rest queue in the input
  // cache. The filling timer starts 200 - 1 x 20 = 180 ms later and ticks every 20 ms.
  for (uint32_t t = 0; t <= 800; t += 20) Pcm(t);
  Advance(299);
  EXPECT_TRUE(AudioPackets().empty());
  Advance(1);
  // The tick at 200 ms finds 40 frames waiting and moves 1 + (30 - 200 / 20) = 21;
  // the ticks at 220..280 move one each; the write at 300 ms runs before the tick due
  // at the same time, which was scheduled later.
  EXPECT_EQ(AudioPackets().size(), 25u);
  StopRecording();
  EXPECT_EQ(AudioPackets().size(), 41u);
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
  for (int i = 0; i < 100; ++i) Video(static_cast<uint64_t>(i * 10), i == 0);
  Advance(150);
  EXPECT_EQ(writer().packets.size(), 93u) << "nothing is written after the 31st failure";
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kStreamWriterFailed});
  EXPECT_EQ(client_.EventsOf(ClientEvent::kCompleted)[0].file_size, writer().stop_result);
  EXPECT_EQ(logs_.MessagesAtLeast(tarn_logging::LS_ERROR),
            (std::vector<std::string>{"stream writer failures over 30 times",
                                      "recording failed: StreamWriterFailed"}));
  StopRecording();  // Already ended: nothing more.
  EXPECT_EQ(client_.CompletionResults().size(), 1u);

  // The same limit during the flush at stop.
  writer().write_result = [](size_t) { return 0; };
  StartRecording(MakeParams(kMkv, kVideoOnly));
  for (int i = 0; i < 40; ++i) Video(static_cast<uint64_t>(i * 10), i == 0);
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
  for (int i = 0; i <= 30; ++i) {
    Video(static_cast<uint64_t>(5000 + i * 33), i == 0);
    Advance(33);
  }
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

TEST_F(LocalRecordingPipelineTest, ReleasingWhileRecordingFlushesAndFinishes) {
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Video(0, true);
  Aac(0);
  Video(33);
  Aac(21);
  recorder_ = nullptr;
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
  EXPECT_EQ(WriteOrder(), "V0 A0 A21 V33");
  EXPECT_EQ(writer().calls.back(), "Stop");
  EXPECT_EQ(writer().destroyed, 1);
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
