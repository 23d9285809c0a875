// Inputs the recorder fuzzer (fuzz/recorder_fuzzer.cc) found troublesome, replayed
// through the public API on virtual time.
#include "tests/common/local_recording/recorder_fixture.h"

namespace tarnel {
namespace recording {
namespace {

using media_stream_writer::kMp4;

class LocalRecordingFuzzRegressionTest : public tarnel_test::RecorderFixture {};

TEST_F(LocalRecordingFuzzRegressionTest, AudioFarAfterTheFirstPictureGetsNoMutedLeadIn) {
  // The first audio frame is stamped 10 minutes after the first picture. The muted
  // lead-in used to clone one silent frame per 20 ms of that gap at the muxer start
  // (30 000 here; with a wrapped 32-bit timestamp, gigabytes).
  Params params = MakeParams(kMp4, kAudioAndVideo);
  params.fill_muted_frame = true;
  StartRecording(params);
  Video(1000, /*key=*/true);
  Pcm(1000 + 10 * 60 * 1000);
  Idle();
  EXPECT_TRUE(logs_.Contains("too late for a muted lead-in"));
  StopRecording();
  ASSERT_EQ(client_.CompletionResults().size(), 1u);
  EXPECT_EQ(client_.CompletionResults()[0], kOk);
  EXPECT_LE(encoders_.state().encode_calls, 2) << "only the real 20 ms were encoded";

  // A lead-in of a few frames is still filled.
  StartRecording(params);
  Video(1000, /*key=*/true);
  Pcm(1200);
  Idle();
  EXPECT_TRUE(logs_.Contains("total muted frame added count9"));
  StopRecording();
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
