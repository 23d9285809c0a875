// Overload: frames delivered faster than the worker takes them in are dropped beyond the
// queue bound, by rules that keep the file decodable and in sync.
//
// A burst is written while the worker is held in a task of the test's, so that the
// whole burst meets the bound before the worker takes any of it in.
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sdk/base/callback.h"
#include "sdk/common/local_recording/local_recording_impl.h"
#include "tests/common/local_recording/recorder_fixture.h"

namespace tarnel {
namespace recording {
namespace {

using media_stream_writer::kMkv;
using media_stream_writer::kMp4;

constexpr int64_t kSmallBound = 40 << 10;
constexpr int kKeyIntervalMs = 400;

class LocalRecordingOverloadTest : public tarnel_test::RecorderFixture {
 protected:
  // 20 ms PCM frames and 25 fps video stamped [from, to), a key frame every 400 ms; 20 ms
  // of time pass after each audio frame, or, for a `burst`, none while the worker is held.
  // Returns the queue as the burst left it.
  LocalRecordingQueueStats Feed(uint32_t from, uint32_t to, bool burst) {
    std::promise<void> release;
    if (burst) {
      std::shared_future<void> released = release.get_future().share();
      static_cast<LocalRecordingImpl*>(recorder_.get())
          ->task_runner()
          ->PostTask(FROM_HERE, tarn_base::BindOnce([released] { released.wait(); }));
    }
    for (uint32_t t = from; t < to; t += 20) {
      Pcm(t);
      if (t % 40 == 0) Video(t, t % kKeyIntervalMs == 0);
      if (!burst) Advance(20);
    }
    const LocalRecordingQueueStats stats = recorder_->GetQueueStats();
    if (burst) release.set_value();
    return stats;
  }
  std::vector<int64_t> VideoPts() {
    std::vector<int64_t> out;
    for (const auto& p : writer().packets) {
      if (p.is_video) out.push_back(p.pts);
    }
    return out;
  }
  int Warnings(const std::string& prefix) {
    int n = 0;
    for (const std::string& line : logs_.MessagesAtLeast(tarn_logging::LS_WARNING)) {
      n += line.rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return n;
  }
};

TEST_F(LocalRecordingOverloadTest, BacklogIsDroppedToTheBoundAndTheFileStaysInSync) {
  recorder_->SetMaxQueueBytes(kSmallBound);
  StartRecording(MakeParams(kMp4, kAudioAndVideo));
  Feed(0, 1000, /*burst=*/false);
  // 7 s at once: far more than 40 KiB.
  const LocalRecordingQueueStats during = Feed(1000, 8000, /*burst=*/true);
  EXPECT_LE(during.queued_bytes, kSmallBound);
  EXPECT_GT(during.queued_bytes, kSmallBound / 2);
  Feed(8000, 10000, /*burst=*/false);
  StopRecording();
  ASSERT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
  EXPECT_TRUE(logs_.MessagesAtLeast(tarn_logging::LS_ERROR).empty());

  const LocalRecordingQueueStats stats = recorder_->GetQueueStats();
  EXPECT_EQ(stats.max_queue_bytes, kSmallBound);
  EXPECT_EQ(stats.queued_bytes, 0);
  EXPECT_EQ(stats.overload_episodes, 1);
  EXPECT_EQ(Warnings("recording queue full"), 1);
  // More than 5 s of audio went, a jump the source's checks would have refused.
  EXPECT_GT(stats.dropped_audio_frames, 250);
  EXPECT_GT(stats.dropped_video_frames, 0);

  // Video: everything written decodes, so a hole in the pictures ends at a key frame.
  const std::vector<int64_t> video = VideoPts();
  ASSERT_FALSE(video.empty());
  int holes = 0;
  for (size_t i = 1; i < video.size(); ++i) {
    if (video[i] - video[i - 1] == 40) continue;
    ++holes;
    EXPECT_EQ(video[i] % kKeyIntervalMs, 0) << "picture after a hole at " << video[i];
  }
  EXPECT_EQ(holes, 1);
  const int64_t admitted_video = static_cast<int64_t>(video.size());
  EXPECT_EQ(admitted_video + stats.dropped_video_frames, 10000 / 40);

  // Audio: the encoded stream runs on without a hole (silence where frames were
  // dropped) and ends with the video.
  const std::vector<int64_t> audio = AudioTimestamps();
  EXPECT_TRUE(Rising(audio, /*max_step=*/23));
  ASSERT_FALSE(audio.empty());
  EXPECT_NEAR(audio.back(), video.back(), 50);
}

TEST_F(LocalRecordingOverloadTest, DroppedAudioIsFilledByTheMutedFrameTimerWithoutTimestampError) {
  recorder_->SetMaxQueueBytes(kSmallBound);
  StartRecording(MakeParams(kMkv, kAudioAndVideo, /*fill_muted_frame=*/true));
  Feed(0, 1000, /*burst=*/false);
  Feed(1000, 8000, /*burst=*/true);
  Feed(8000, 12000, /*burst=*/false);
  StopRecording();
  ASSERT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
  EXPECT_TRUE(logs_.MessagesAtLeast(tarn_logging::LS_ERROR).empty());

  const LocalRecordingQueueStats stats = recorder_->GetQueueStats();
  EXPECT_GT(stats.dropped_audio_frames, 250);
  int silent = 0;
  for (const auto& p : writer().packets) silent += !p.is_video && p.silent ? 1 : 0;
  // Holes are filled to within the filling's tolerance of five frames each, so the
  // audio ends with the video.
  EXPECT_LE(silent, stats.dropped_audio_frames);
  EXPECT_GE(silent, stats.dropped_audio_frames * 9 / 10);
  const std::vector<int64_t> audio = AudioTimestamps();
  EXPECT_TRUE(Rising(audio, /*max_step=*/21 * 5));
  ASSERT_FALSE(audio.empty());
  EXPECT_NEAR(audio.back(), VideoPts().back(), 5 * 20);
}

TEST_F(LocalRecordingOverloadTest, BothStreamsStopAndRestartTogether) {
  // Matroska keeps PCM as it arrives, so the holes show in the written timestamps.
  recorder_->SetMaxQueueBytes(kSmallBound);
  StartRecording(MakeParams(kMkv, kAudioAndVideo));
  Feed(0, 1000, /*burst=*/false);
  Feed(1000, 8000, /*burst=*/true);
  Feed(8000, 10000, /*burst=*/false);
  StopRecording();
  ASSERT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
  // The one hole in each stream: the last frame before it and the first after it.
  auto hole = [](const std::vector<int64_t>& t, int64_t step) {
    for (size_t i = 1; i < t.size(); ++i) {
      if (t[i] - t[i - 1] > step) return std::make_pair(t[i - 1], t[i]);
    }
    return std::make_pair(int64_t{-1}, int64_t{-1});
  };
  const auto video = hole(VideoPts(), 40);
  const auto audio = hole(AudioTimestamps(), 20);
  ASSERT_GE(video.first, 0);
  ASSERT_GE(audio.first, 0);
  // Audio stops with the video, give or take the frames in flight, and comes back with
  // the key frame that restarts it.
  EXPECT_NEAR(audio.first, video.first, 100);
  EXPECT_EQ(video.second % kKeyIntervalMs, 0);
  EXPECT_NEAR(audio.second, video.second, 40);
}

TEST_F(LocalRecordingOverloadTest, BurstFillingHalfTheBoundIsWrittenBeforeTheNextTick) {
  recorder_->SetMaxQueueBytes(kSmallBound);
  StartRecording(MakeParams(kMp4, kAudioAndVideo));
  Feed(0, 200, /*burst=*/false);
  Idle();
  const size_t before = writer().packets.size();
  // About 28 KiB held, no time passing: only the early pass can write it.
  const LocalRecordingQueueStats burst = Feed(200, 440, /*burst=*/true);
  EXPECT_GT(burst.queued_bytes, kSmallBound / 2);
  EXPECT_EQ(burst.dropped_audio_frames + burst.dropped_video_frames, 0);
  Idle();
  EXPECT_GT(writer().packets.size(), before);
  EXPECT_LT(recorder_->GetQueueStats().queued_bytes, kSmallBound / 2);
  StopRecording();
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kOk});
}

TEST_F(LocalRecordingOverloadTest, DefaultBoundLetsABurstThroughAndCountsStartAgain) {
  recorder_->SetMaxQueueBytes(kSmallBound);
  StartRecording(MakeParams(kMp4, kAudioAndVideo));
  Feed(0, 3000, /*burst=*/true);
  StopRecording();
  EXPECT_GT(recorder_->GetQueueStats().dropped_audio_frames, 0);

  recorder_->SetMaxQueueBytes(0);
  const size_t first_packets = writer().packets.size();
  StartRecording(MakeParams(kMp4, kAudioAndVideo));
  Feed(0, 3000, /*burst=*/true);
  Feed(3000, 4000, /*burst=*/false);
  StopRecording();
  const LocalRecordingQueueStats stats = recorder_->GetQueueStats();
  EXPECT_EQ(stats.max_queue_bytes, kDefaultMaxQueueBytes);
  EXPECT_EQ(stats.dropped_audio_frames + stats.dropped_video_frames + stats.overload_episodes, 0);
  EXPECT_GT(stats.peak_queued_bytes, 150 * 1920);  // The burst was held, all of it.
  EXPECT_EQ(client_.CompletionResults(), (std::vector<InternalError>{kOk, kOk}));
  size_t video = 0;
  for (size_t i = first_packets; i < writer().packets.size(); ++i)
    video += writer().packets[i].is_video;
  EXPECT_EQ(video, 4000u / 40);
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
