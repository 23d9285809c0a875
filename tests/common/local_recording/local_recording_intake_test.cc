// Frame intake: the checks that end a recording, the bounds on the caches while the
// muxer waits, the encoder set-up and the stream metadata.
#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/common/local_recording/recorder_fixture.h"

namespace tarnel {
namespace recording {
namespace {

using media_stream_writer::kMkv;
using media_stream_writer::kMp4;

class LocalRecordingIntakeTest : public tarnel_test::RecorderFixture {};

TEST_F(LocalRecordingIntakeTest, CallerSideChecksRefuseUnusableFrames) {
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  recorder_->WriteVideoFrame(nullptr);
  recorder_->WriteVideoFrame(std::make_unique<video::VideoFrame>());
  auto tiny = tarnel_test::MakeVideoFrame(0, true);
  const uint8_t three[] = {0, 0, 1};
  tiny->data = CopyOnWriteBuffer(three, sizeof(three));
  recorder_->WriteVideoFrame(std::move(tiny));
  recorder_->WriteAudioFrame(nullptr);
  recorder_->WriteAudioFrame(std::make_unique<audio::AudioFrame>());
  EXPECT_EQ(logs_.MessagesAtLeast(tarn_logging::LS_ERROR),
            (std::vector<std::string>{
                "invalid input params:video_frame NULL",
                "invalid input params:video_frame data NULL",
                "invalid input params:video_frame size:3",
                "invalid input params:audio_frame NULL",
                "invalid input params:audio_frame data NULL",
            }));
  StopRecording();
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kNoStreamArrived});
}

TEST_F(LocalRecordingIntakeTest, VideoTimestampAndFormatErrorsEndTheRecording) {
  struct Frame {
    uint64_t pts;
    bool key;
    uint32_t width = 640;
    int32_t reference_mode = video::kReferenceModeNormal;
  };
  for (const auto& [frames, error, cause] :
       std::vector<std::tuple<std::vector<Frame>, InternalError, const char*>>{
           {{{2000000, true}, {2000000 - 1000001, false}},
            kInvalidTimestamp,
            "video timestamp wrapped pts:999999, last arriving pts:2000000"},
           {{{1000, true}, {999, true}},
            kInvalidTimestamp,
            "video timestamp invalid and is key frame pts:999, last arriving pts:1000"},
           {{{0, true}, {33, false, 641}}, kResolutionChanged, "resolution changed to 641, 360"},
           {{{0, true, 640, 12}}, kUnsupportedRpsMode, "video do not supports rps mode"},
       }) {
    SCOPED_TRACE(cause);
    StartRecording(MakeParams(kMkv, kVideoOnly));
    for (const Frame& f : frames) Video(f.pts, f.key, f.width, f.reference_mode);
    Idle();
    ExpectEndedWith(error, cause);
    // Ended: later frames are ignored and a stop says nothing more.
    const size_t completions = client_.CompletionResults().size();
    Video(5000000, true);
    StopRecording();
    EXPECT_EQ(client_.CompletionResults().size(), completions);
  }
}

TEST_F(LocalRecordingIntakeTest, AudioTimestampsAreRepairedOrRefused) {
  // Repairs: a zero timestamp continues the last frame, an equal one moves 1 ms on, and
  // a jump of exactly 5000 ms passes while the input cache holds audio.
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  for (uint32_t t : {1000, 0, 1020, 6021}) Pcm(t);
  Video(1000, true);
  StopRecording();
  EXPECT_EQ(AudioTimestamps(), (std::vector<int64_t>{0, 20, 21, 5021}));

  for (const auto& [timestamps, cause] : std::vector<std::pair<std::vector<uint32_t>, const char*>>{
           {{1000, 6001}, "audio time stamp increased too fast 6001, 1000"},
           // 1000000 back is accepted and the new reference, 999999 back from it too.
           {{2000000, 1000000, 1, 1000002}, "audio time stamp increased too fast 1000002, 1"},
           {{2000000, 999999}, "audio time stamp wrapped, 999999, 2000000"},
       }) {
    SCOPED_TRACE(cause);
    StartRecording(MakeParams(kMkv, kAudioAndVideo));
    for (uint32_t t : timestamps) Pcm(t);
    Idle();
    ExpectEndedWith(kInvalidTimestamp, cause);
  }
}

TEST_F(LocalRecordingIntakeTest, CachesAreBoundedWhileWaitingForTheOtherStream) {
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Video(0, true);
  Video(10);
  VideoRun(20, 101, 10);  // A new key frame before the muxer starts empties the cache.
  Idle();
  EXPECT_TRUE(logs_.Contains(
      "No audio frame was received and video frame cache is exceeded 100, clear video frame "
      "cache."));
  Video(1030);             // Waits for a key frame again.
  Video(1040, true, 320);  // Which may come with a new picture size.
  Aac(1040);
  StopRecording();
  // 102 audio frames without video: the cache starts over at the 102nd.
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  PcmRun(0, 2040, 0);
  Video(2020, true);
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 A0 V0 A0");
  EXPECT_EQ(client_.CompletionResults(), (std::vector<InternalError>{kOk, kOk}));

  // In MP4 the encoder starts over with it.
  StartRecording(MakeParams(kMp4, kAudioAndVideo));
  PcmRun(0, 2040, 0);
  Idle();
  EXPECT_EQ(encoders_.state().created, 2);
}

TEST_F(LocalRecordingIntakeTest, EncoderFailuresEndTheRecording) {
  tarnel_test::FakeEncoderState& encoder = encoders_.state();
  for (const auto& [create_returns_null, init_result, fail_encode_at, cause] :
       std::vector<std::tuple<bool, bool, int, const char*>>{
           {true, true, -1, "create aac encoder failed"},
           {false, false, -1, "init aac encoder failed, 48000, 16, 1"},
           {false, true, 2, nullptr},  // The third Encode call fails.
       }) {
    encoder.create_returns_null = create_returns_null;
    encoder.init_result = init_result;
    encoder.fail_encode_at = fail_encode_at;
    StartRecording(MakeParams(kMp4, kAudioOnly));
    PcmRun(0, 400);
    ExpectEndedWith(kAudioEncoderFailed, cause);
  }
  EXPECT_EQ(client_.CompletionResults().size(), 3u);
}

TEST_F(LocalRecordingIntakeTest, Mp4SendsTheParameterSetsOfTheFirstKeyFrame) {
  const uint8_t kAvc[] = {0, 0, 0, 1,    0x67, 0x42, 0x00, 0x1e, 0x95,  // SPS
                          0, 0, 1, 0x68, 0xce, 0x3c, 0x80,              // PPS
                          0, 0, 1, 0x65, 0x88, 0x84, 0x00};             // IDR slice
  const uint8_t kHevc[] = {0, 0, 0, 1,    0x40, 0x01, 0x0c,             // VPS
                           0, 0, 1, 0x42, 0x01, 0x01,                   // SPS
                           0, 0, 1, 0x44, 0x01, 0xc1,                   // PPS
                           0, 0, 1, 0x26, 0x01, 0xaf};                  // IDR slice
  const CopyOnWriteBuffer kNone;
  int recordings = 0;
  for (const auto& [bytes, codec, vps, sps, pps] :
       std::vector<std::tuple<CopyOnWriteBuffer, int32_t, CopyOnWriteBuffer, CopyOnWriteBuffer,
                              CopyOnWriteBuffer>>{
           {{kAvc, sizeof(kAvc)}, 0, kNone, {kAvc + 4, 5}, {kAvc + 12, 4}},
           {{kHevc, sizeof(kHevc)}, 1, {kHevc + 4, 3}, {kHevc + 10, 3}, {kHevc + 16, 3}},
           // An unknown codec is described to the writer, which refuses it, but nothing
           // parses its bytes: not even the parser left from the previous recording.
           {{kAvc, sizeof(kAvc)}, 7, kNone, kNone, kNone},
       }) {
    SCOPED_TRACE(codec);
    StartRecording(MakeParams(kMp4, kVideoOnly));
    auto frame = tarnel_test::MakeVideoFrame(0, true, 1280, 720, codec);
    frame->data = bytes;
    recorder_->WriteVideoFrame(std::move(frame));
    StopRecording();
    ASSERT_EQ(writer().video_metadata.size(), static_cast<size_t>(++recordings));
    const auto& sent = writer().video_metadata.back();
    EXPECT_EQ(std::make_tuple(sent.codec_type, sent.width, sent.height),
              std::make_tuple(codec, 1280u, 720u));
    EXPECT_EQ(std::make_tuple(sent.vps, sent.sps, sent.pps), std::make_tuple(vps, sps, pps));
  }
}

TEST_F(LocalRecordingIntakeTest, UnusableSilentTemplateTurnsFillingOff) {
  StartRecording(MakeParams(kMkv, kAudioOnly, /*fill_muted_frame=*/true));
  for (uint32_t t = 1; t <= 10; ++t) {
    auto frame = tarnel_test::MakePcmFrame(t, 1);
    const int16_t samples[16] = {100};  // 16 samples at 48 kHz: a third of a millisecond.
    frame->SetData(reinterpret_cast<const uint8_t*>(samples), sizeof(samples));
    recorder_->WriteAudioFrame(std::move(frame));
  }
  Advance(1000);
  StopRecording();
  const std::vector<std::string> warnings = logs_.MessagesAtLeast(tarn_logging::LS_WARNING);
  EXPECT_EQ(std::count_if(warnings.begin(), warnings.end(),
                          [](const std::string& m) { return m.find("is unusable") != m.npos; }),
            1);
  EXPECT_FALSE(logs_.Contains("muted frame added"));
  EXPECT_EQ(writer().packets.size(), 10u) << "every real frame is still written";
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
