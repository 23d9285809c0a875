// Frame intake: the checks that end a recording, the bounds on the caches while the
// muxer waits, the encoder set-up and the stream metadata.
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

class LocalRecordingIntakeTest : public tarnel_test::RecorderFixture {
 protected:
  // The last error line before "recording failed: ...", and the completion code.
  void ExpectEndedWith(InternalError error, const std::string& cause) {
    ASSERT_FALSE(client_.CompletionResults().empty());
    EXPECT_EQ(client_.CompletionResults().back(), error);
    const std::vector<std::string> errors = logs_.MessagesAtLeast(tarn_logging::LS_ERROR);
    ASSERT_GE(errors.size(), 2u);
    EXPECT_EQ(errors[errors.size() - 2], cause);
    EXPECT_EQ(errors.back(), "recording failed: " + InternalErrorToString(error));
  }
};

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
  struct Case {
    const char* name;
    std::function<void()> feed;
    InternalError error;
    const char* cause;
  };
  const Case kCases[] = {
      {"far-back delta frame",
       [this] {
         Video(2000000, true);
         Video(2000000 - 1000001);
       },
       kInvalidTimestamp, "video timestamp wrapped pts:999999, last arriving pts:2000000"},
      {"key frame going back",
       [this] {
         Video(1000, true);
         Video(999, true);
       },
       kInvalidTimestamp,
       "video timestamp invalid and is key frame pts:999, last arriving pts:1000"},
      {"resolution change",
       [this] {
         Video(0, true, 640, 360);
         Video(33, false, 641, 360);
       },
       kResolutionChanged, "resolution changed to 641, 360"},
      {"reference picture selection on the first frame",
       [this] {
         auto frame = tarnel_test::MakeVideoFrame(0, true);
         frame->reference_mode = 12;
         recorder_->WriteVideoFrame(std::move(frame));
       },
       kUnsupportedRpsMode, "video do not supports rps mode"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    StartRecording(MakeParams(kMkv, kVideoOnly));
    c.feed();
    Idle();
    ExpectEndedWith(c.error, c.cause);
    // Ended: later frames are ignored and a stop says nothing more.
    const size_t completions = client_.CompletionResults().size();
    Video(5000000, true);
    StopRecording();
    EXPECT_EQ(client_.CompletionResults().size(), completions);
  }
}

TEST_F(LocalRecordingIntakeTest, LateVideoFramesAreDroppedAndEqualPtsReplaces) {
  StartRecording(MakeParams(kMkv, kVideoOnly));
  Video(1000000, true);
  Video(1000000 + 40);
  Video(40);  // 1000000 ms behind the last frame: a late frame, dropped silently.
  Video(1000000 + 40, false, 640, 360);  // Same pts: replaces the cached frame.
  auto other = tarnel_test::MakeVideoFrame(1000000 + 80, false);
  other->reference_mode = 10;  // Not a reference-picture-selection mode.
  recorder_->WriteVideoFrame(std::move(other));
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 V40 V80");
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
}

TEST_F(LocalRecordingIntakeTest, AudioTimestampsAreRepairedOrRefused) {
  // Repairs: a zero timestamp continues the last frame, an equal one moves 1 ms on, and
  // a jump of exactly 5000 ms passes while the input cache holds audio.
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Pcm(1000);
  Pcm(0);
  Pcm(1020);
  Pcm(6021);
  Video(1000, true);
  StopRecording();
  EXPECT_EQ(Timestamps(AudioPackets()), (std::vector<int64_t>{0, 20, 21, 5021}));

  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Pcm(1000);
  Pcm(6001);
  Idle();
  ExpectEndedWith(kInvalidTimestamp, "audio time stamp increased too fast 6001, 1000");

  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Pcm(2000000);
  Pcm(1000000);  // Exactly 1000000 back: accepted and the new reference.
  Pcm(1);        // 999999 back from it: accepted too.
  Pcm(1000002);  // Forward again, but more than 5000 ms: refused.
  Idle();
  ExpectEndedWith(kInvalidTimestamp, "audio time stamp increased too fast 1000002, 1");

  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Pcm(2000000);
  Pcm(999999);
  Idle();
  ExpectEndedWith(kInvalidTimestamp, "audio time stamp wrapped, 999999, 2000000");
}

TEST_F(LocalRecordingIntakeTest, CachesAreBoundedWhileWaitingForTheOtherStream) {
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Video(0, true);
  Video(10);
  Video(20, true);  // A new key frame before the muxer starts empties the cache.
  for (int i = 3; i <= 102; ++i) Video(static_cast<uint64_t>(i * 10));  // 101 frames.
  Idle();
  EXPECT_TRUE(logs_.Contains(
      "No audio frame was received and video frame cache is exceeded 100, clear video frame "
      "cache."));
  Video(1030);                  // Waits for a key frame again.
  Video(1040, true, 320, 240);  // Which may come with a new picture size.
  Aac(1040);
  StopRecording();
  EXPECT_EQ(WriteOrder(), "V0 A0");
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});

  // 101 PCM frames without video: the input cache starts over, and so does the encoder.
  StartRecording(MakeParams(kMp4, kAudioAndVideo));
  for (int i = 0; i <= 100; ++i) Pcm(static_cast<uint32_t>(i * 20));
  Pcm(2020);
  Idle();
  EXPECT_EQ(encoders_.state().created, 2);
  int first_frame_logs = 0;
  for (const auto& message : logs_.MessagesAtLeast(tarn_logging::LS_INFO)) {
    if (message.rfind("receive first audio frame, sample rate:48000", 0) == 0) ++first_frame_logs;
  }
  EXPECT_EQ(first_frame_logs, 3);  // One from the first recording, two here.
  StopRecording();
}

TEST_F(LocalRecordingIntakeTest, EncoderFailuresEndTheRecording) {
  encoders_.state().create_returns_null = true;
  StartRecording(MakeParams(kMp4, kAudioOnly));
  Pcm(0);
  Idle();
  ExpectEndedWith(kAudioEncoderFailed, "create aac encoder failed");

  encoders_.state().create_returns_null = false;
  encoders_.state().init_result = false;
  StartRecording(MakeParams(kMp4, kAudioOnly));
  Pcm(0);
  Idle();
  ExpectEndedWith(kAudioEncoderFailed, "init aac encoder failed, 48000, 16, 1");

  encoders_.state().init_result = true;
  encoders_.state().fail_encode_at = encoders_.state().encode_calls + 2;
  StartRecording(MakeParams(kMp4, kAudioOnly));
  for (int i = 0; i < 20; ++i) {
    Pcm(static_cast<uint32_t>(i * 20));
    Advance(20);
  }
  EXPECT_EQ(client_.CompletionResults().back(), kAudioEncoderFailed);
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
  struct Case {
    const uint8_t* bytes;
    size_t size;
    int32_t codec;
  } const kCases[] = {{kAvc, sizeof(kAvc), 0}, {kHevc, sizeof(kHevc), 1}, {kAvc, sizeof(kAvc), 7}};
  for (const Case& c : kCases) {
    StartRecording(MakeParams(kMp4, kVideoOnly));
    auto frame = tarnel_test::MakeVideoFrame(0, true, 1280, 720, c.codec);
    frame->data = CopyOnWriteBuffer(c.bytes, c.size);
    recorder_->WriteVideoFrame(std::move(frame));
    StopRecording();
  }
  const auto& sent = writer().video_metadata;
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].codec_type, 0);
  EXPECT_EQ(sent[0].width, 1280u);
  EXPECT_EQ(sent[0].height, 720u);
  EXPECT_TRUE(sent[0].vps.empty());
  EXPECT_EQ(sent[0].sps, CopyOnWriteBuffer(kAvc + 4, 5));
  EXPECT_EQ(sent[0].pps, CopyOnWriteBuffer(kAvc + 12, 4));
  EXPECT_EQ(sent[1].vps, CopyOnWriteBuffer(kHevc + 4, 3));
  EXPECT_EQ(sent[1].sps, CopyOnWriteBuffer(kHevc + 10, 3));
  EXPECT_EQ(sent[1].pps, CopyOnWriteBuffer(kHevc + 16, 3));
  // An unknown codec is described to the writer, which refuses it, but nothing parses
  // its bytes: not even the parser left from the previous recording.
  EXPECT_EQ(sent[2].codec_type, 7);
  EXPECT_TRUE(sent[2].vps.empty() && sent[2].sps.empty() && sent[2].pps.empty());
}

TEST_F(LocalRecordingIntakeTest, UnusableSilentTemplateTurnsFillingOff) {
  Params params = MakeParams(kMkv, kAudioOnly);
  params.fill_muted_frame = true;
  StartRecording(params);
  // 16 samples at 48 kHz: one third of a millisecond per frame.
  for (uint32_t t = 0; t < 10; ++t) {
    auto frame = std::make_unique<audio::AudioFrame>();
    const int16_t samples[16] = {100};
    frame->SetData(reinterpret_cast<const uint8_t*>(samples), sizeof(samples));
    frame->SetSampleRate(48000);
    frame->SetChannels(1);
    frame->SetTimestampInMs(t + 1);
    recorder_->WriteAudioFrame(std::move(frame));
  }
  Advance(1000);
  StopRecording();
  int warnings = 0;
  for (const auto& message : logs_.MessagesAtLeast(tarn_logging::LS_WARNING)) {
    if (message.find("is unusable") != std::string::npos) ++warnings;
  }
  EXPECT_EQ(warnings, 1);
  EXPECT_FALSE(logs_.Contains("muted frame added"));
  EXPECT_EQ(AudioPackets().size(), 10u) << "every real frame is still written";
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
