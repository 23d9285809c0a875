// How many recorders one process sustains in real time.
//
//   concurrent_benchmark --recorders 100 --seconds 30
//   concurrent_benchmark --sweep                  # N = 10, 25, 50, 75, 100, 150, ...
//
// Each recorder writes a real MP4 (H.264 + stereo AAC, the FFmpeg container backend)
// into a temp dir and is fed in real time with a looped pre-encoded 1280x720 30 fps
// H.264 stream (made once with ffmpeg, or --h264 FILE) and 48 kHz stereo PCM in 10 ms
// frames: by default 90 s of real music made by bench/real_audio.sh (pop, orchestral and
// electronic tracks from Debian packages), --audio speech for its real speech,
// --audio synthetic for the built-in music-like loop, or --wav FILE. The recorders start
// at places spread evenly over the audio loop. Feeding: by default one video and one
// audio thread per recorder, each handing its frames over at their due times; --pacers K
// uses K pacing threads instead, each serving every K-th recorder from a queue ordered
// by due time.
//
// A decorator around the real backend (installed with
// ScopedWriterBackendFactoryForTesting) counts the frames the writer accepts and takes
// the time from hand-over (WriteVideoFrame) to the writer (WriteVideoPacket) for every
// video frame, looked up by (recorder, pts) in a map the feeders fill.
//
// Reported: CPU of the process (getrusage) as % of one core, CPU the rest of the machine
// used meanwhile (/proc/stat), video frames handed over / accepted, audio handed over vs.
// accepted, hand-over-to-writer latency p50/p99/max, how late the feeders were (p99),
// VmRSS per recorder (VmRSS minus the VmRSS before the recorders were made, / N) at the
// peak, after the first third of the run and at its end, so that growth shows, and the
// frames the recorders dropped because their queue bound was reached (GetQueueStats;
// --max-queue-mb sets the bound). A run "sustains" N when no frame is lost or dropped, no
// recorder is short of more than 100 ms of audio and the p99 latency is under 500 ms.
// --sweep runs each N in a child process and reports the largest N sustained.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "bench/support/bench_input.h"
#include "sdk/base/logging.h"
#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media_stream_writer/ffmpeg/ffmpeg_stream_writer.h"
#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

namespace {

using Clock = std::chrono::steady_clock;
using tarnel::extensions::local_recording::FfmpegStreamWriter;
using tarnel::extensions::local_recording::LocalRecordingSegmentationWriter;
using tarnel::extensions::local_recording::LocalRecordingType;
using tarnel::extensions::local_recording::MediaStreamWriter;
using tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting;
using tarnel::recording::InternalError;
using tarnel::recording::LocalRecording;
using tarnel_bench::AccessUnit;
using tarnel_bench::MakeMusicLoop;
using tarnel_bench::ReadFile;
using tarnel_bench::SplitAccessUnits;
using tarnel_bench::VmRssKiB;

constexpr int kSampleRate = 48000;
constexpr int kChannels = 2;
constexpr int kAudioFrameMs = 10;
constexpr int kSamplesPerAudioFrame = kSampleRate * kAudioFrameMs / 1000;
constexpr int kFps = 30;
constexpr int kWidth = 1280;
constexpr int kHeight = 720;
// Timestamps of both streams start here, as a live source's clock would not be at 0.
constexpr int64_t kBaseMs = 100000;
constexpr int64_t kMaxP99Ms = 500;
constexpr int64_t kMaxAudioShortMs = 100;
// Length of the real recordings' loop: a third of it from each source.
constexpr int kRealAudioSeconds = 90;

struct Options {
  int recorders = 10;
  int seconds = 30;
  int pacers = 0;  // 0: one video and one audio thread per recorder.
  bool sweep = false;
  bool keep = false;
  bool machine = false;  // One "result ..." line for --sweep's parent.
  // "tarnel", "twoloop" or "fast", set on the encoder factory; empty: the default
  // (ours).
  std::string aac_coder;
  std::string h264;
  // "music" or "speech" (made by bench/real_audio.sh), or "synthetic" (MakeMusicLoop).
  std::string audio = "music";
  std::string wav;  // 48 kHz stereo s16 WAV to loop; overrides `audio`.
  std::string out_dir;
  std::vector<int> sweep_list;
  int max_queue_mb = 0;  // 0: the recorder's default bound.
};

// ---------------------------------------------------------------------------------------
// Input: access units of the H.264 stream and the PCM loop.

// ---------------------------------------------------------------------------------------
// Measuring.

// Hand-over times of video frames by (recorder, pts), filled by the feeders and emptied
// by the writers.
class HandOverMap {
 public:
  void Put(int recorder, uint64_t pts, Clock::time_point when) {
    std::lock_guard<std::mutex> lock(mutex_);
    map_[Key(recorder, pts)] = when;
  }
  bool Take(int recorder, uint64_t pts, Clock::time_point* when) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = map_.find(Key(recorder, pts));
    if (it == map_.end()) return false;
    *when = it->second;
    map_.erase(it);
    return true;
  }

 private:
  static uint64_t Key(int recorder, uint64_t pts) {
    return (static_cast<uint64_t>(recorder) << 44) | pts;
  }
  std::mutex mutex_;
  std::unordered_map<uint64_t, Clock::time_point> map_;
};

// What the writer of one recorder saw; written only on that recorder's worker thread,
// read after the recording completed.
struct WriterStats {
  int64_t video_accepted = 0;
  int64_t video_refused = 0;
  int64_t audio_accepted = 0;  // AAC frames.
  int64_t audio_refused = 0;
  int64_t unmatched = 0;  // Written video frames with no hand-over time.
  bool has_offset = false;
  int64_t pts_offset = 0;  // Handed-over pts minus written pts.
  std::vector<int32_t> latency_us;
};

struct Shared {
  HandOverMap hand_over;
  std::vector<WriterStats> stats;
  std::vector<int64_t> first_video_pts;  // Per recorder, set before feeding.
  std::atomic<int> next_recorder{0};
};

Shared* g_shared = nullptr;

// Wraps the real container backend: counts and times what reaches it.
class MeasuringWriter : public MediaStreamWriter {
 public:
  MeasuringWriter(int recorder, std::unique_ptr<MediaStreamWriter> real)
      : recorder_(recorder), real_(std::move(real)), stats_(&g_shared->stats[recorder]) {}

  void SetVideoMetaData(const tarnel::media_stream_writer::VideoMetadata& metadata) override {
    real_->SetVideoMetaData(metadata);
  }
  void SetAudioMetaData(const tarnel::audio::AudioMetadata& metadata) override {
    real_->SetAudioMetaData(metadata);
  }
  int Start(const std::string& path, tarnel::media_stream_writer::MediaFormat format,
            LocalRecordingType type, int segment_interval) override {
    return real_->Start(path, format, type, segment_interval);
  }
  int WriteVideoPacket(std::unique_ptr<tarnel::video::VideoFrame> frame) override {
    const Clock::time_point now = Clock::now();
    const int64_t pts = static_cast<int64_t>(frame->pts);
    if (!stats_->has_offset) {
      // The first frame written is the first one handed over (a key frame).
      stats_->pts_offset = g_shared->first_video_pts[recorder_] - pts;
      stats_->has_offset = true;
    }
    Clock::time_point handed;
    if (g_shared->hand_over.Take(recorder_, static_cast<uint64_t>(pts + stats_->pts_offset),
                                 &handed)) {
      stats_->latency_us.push_back(static_cast<int32_t>(
          std::chrono::duration_cast<std::chrono::microseconds>(now - handed).count()));
    } else {
      ++stats_->unmatched;
    }
    const int result = real_->WriteVideoPacket(std::move(frame));
    ++(result > 0 ? stats_->video_accepted : stats_->video_refused);
    return result;
  }
  int WriteAudioPacket(std::unique_ptr<tarnel::audio::AudioFrame> frame) override {
    const int result = real_->WriteAudioPacket(std::move(frame));
    ++(result > 0 ? stats_->audio_accepted : stats_->audio_refused);
    return result;
  }
  int64_t Stop() override { return real_->Stop(); }

 private:
  const int recorder_;
  std::unique_ptr<MediaStreamWriter> real_;
  WriterStats* stats_;
};

class Client : public LocalRecording::Client {
 public:
  void OnRecordingStarted(LocalRecording*, InternalError error) override {
    std::lock_guard<std::mutex> lock(mutex_);
    started_ = true;
    start_result_ = error;
    changed_.notify_all();
  }
  void OnRecordingProgress(LocalRecording*, int64_t) override {}
  void OnRecordingSegment(LocalRecording*, const std::string&) override {}
  void OnRecordingCompleted(LocalRecording*, InternalError error, int64_t duration_ms,
                            int64_t) override {
    std::lock_guard<std::mutex> lock(mutex_);
    completed_ = true;
    result_ = error;
    duration_ms_ = duration_ms;
    changed_.notify_all();
  }
  InternalError WaitStarted() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return started_; });
    return start_result_;
  }
  InternalError WaitCompleted() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return completed_; });
    return result_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool started_ = false;
  InternalError start_result_ = tarnel::recording::kOk;
  bool completed_ = false;
  InternalError result_ = tarnel::recording::kOk;
  int64_t duration_ms_ = 0;
};

double ProcessCpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec / 1e6;
}

// Busy CPU seconds of the whole machine so far.
double MachineBusySeconds() {
  std::ifstream stat("/proc/stat");
  std::string cpu;
  uint64_t user = 0, nice = 0, system = 0, idle = 0, iowait = 0, irq = 0, softirq = 0, steal = 0;
  stat >> cpu >> user >> nice >> system >> idle >> iowait >> irq >> softirq >> steal;
  return static_cast<double>(user + nice + system + irq + softirq) / sysconf(_SC_CLK_TCK);
}

double Percentile(std::vector<int32_t>* values, double p) {
  if (values->empty()) return 0;
  const size_t index =
      std::min(values->size() - 1, static_cast<size_t>(std::ceil(p * values->size())) - 1);
  std::nth_element(values->begin(), values->begin() + static_cast<long>(index), values->end());
  return (*values)[index] / 1000.0;
}

// ---------------------------------------------------------------------------------------
// Feeding.

struct Feed {
  LocalRecording* recorder = nullptr;
  int id = 0;
  Clock::time_point t0;  // Due time of the first frames.
  int64_t video_index = 0;
  int64_t audio_index = 0;
  size_t au_start = 0;  // Where in the access-unit loop this recorder starts.
  size_t pcm_start = 0;
  int64_t video_handed = 0;
  int64_t audio_handed = 0;
  std::vector<int32_t> lateness_us;  // Hand-over time minus due time.
};

struct Input {
  std::vector<AccessUnit> units;
  std::vector<int16_t> pcm;
};

uint64_t VideoPts(int64_t index) { return kBaseMs + static_cast<uint64_t>(index * 1000 / kFps); }

Clock::time_point VideoDue(const Feed& feed, int64_t index) {
  return feed.t0 + std::chrono::microseconds(index * 1000000 / kFps);
}
Clock::time_point AudioDue(const Feed& feed, int64_t index) {
  return feed.t0 + std::chrono::milliseconds(index * kAudioFrameMs);
}

void HandVideo(const Input& input, Feed* feed) {
  const AccessUnit& unit =
      input.units[(feed->au_start + static_cast<size_t>(feed->video_index)) % input.units.size()];
  auto frame = std::make_unique<tarnel::video::VideoFrame>();
  frame->data = tarnel::CopyOnWriteBuffer(unit.bytes.data(), unit.bytes.size());
  frame->pts = frame->dts = VideoPts(feed->video_index);
  frame->frame_type = unit.key ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
  frame->codec_type = tarnel::video::kCodecH264;
  frame->width = kWidth;
  frame->height = kHeight;
  const Clock::time_point now = Clock::now();
  feed->lateness_us.push_back(
      static_cast<int32_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                               now - VideoDue(*feed, feed->video_index))
                               .count()));
  g_shared->hand_over.Put(feed->id, frame->pts, now);
  feed->recorder->WriteVideoFrame(std::move(frame));
  ++feed->video_index;
  ++feed->video_handed;
}

void HandAudio(const Input& input, Feed* feed) {
  const size_t frames_in_loop = input.pcm.size() / (kSamplesPerAudioFrame * kChannels);
  const size_t which = (feed->pcm_start + static_cast<size_t>(feed->audio_index)) % frames_in_loop;
  auto frame = std::make_unique<tarnel::audio::AudioFrame>();
  frame->SetData(reinterpret_cast<const uint8_t*>(input.pcm.data() +
                                                  which * kSamplesPerAudioFrame * kChannels),
                 kSamplesPerAudioFrame * kChannels * sizeof(int16_t));
  frame->SetSampleRate(kSampleRate);
  frame->SetChannels(kChannels);
  frame->SetTimestampInMs(static_cast<uint32_t>(kBaseMs + feed->audio_index * kAudioFrameMs));
  feed->recorder->WriteAudioFrame(std::move(frame));
  ++feed->audio_index;
  ++feed->audio_handed;
}

// One thread per stream and recorder.
void FeedPerRecorder(const Input& input, std::vector<Feed>* feeds, Clock::time_point end) {
  std::vector<std::thread> threads;
  for (Feed& feed : *feeds) {
    threads.emplace_back([&input, &feed, end] {
      while (VideoDue(feed, feed.video_index) < end) {
        std::this_thread::sleep_until(VideoDue(feed, feed.video_index));
        HandVideo(input, &feed);
      }
    });
    threads.emplace_back([&input, &feed, end] {
      while (AudioDue(feed, feed.audio_index) < end) {
        std::this_thread::sleep_until(AudioDue(feed, feed.audio_index));
        HandAudio(input, &feed);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// `pacers` threads; each hands over the frames of its recorders in due-time order.
void FeedWithPacers(const Input& input, std::vector<Feed>* feeds, Clock::time_point end,
                    int pacers) {
  std::vector<std::thread> threads;
  for (int p = 0; p < pacers; ++p) {
    threads.emplace_back([&input, feeds, end, pacers, p] {
      struct Due {
        Clock::time_point when;
        Feed* feed;
        bool video;
        bool operator>(const Due& other) const { return when > other.when; }
      };
      std::priority_queue<Due, std::vector<Due>, std::greater<Due>> queue;
      for (size_t i = static_cast<size_t>(p); i < feeds->size(); i += static_cast<size_t>(pacers)) {
        Feed* feed = &(*feeds)[i];
        queue.push({VideoDue(*feed, 0), feed, true});
        queue.push({AudioDue(*feed, 0), feed, false});
      }
      while (!queue.empty()) {
        Due next = queue.top();
        queue.pop();
        if (next.when >= end) continue;
        std::this_thread::sleep_until(next.when);
        if (next.video) {
          HandVideo(input, next.feed);
          queue.push({VideoDue(*next.feed, next.feed->video_index), next.feed, true});
        } else {
          HandAudio(input, next.feed);
          queue.push({AudioDue(*next.feed, next.feed->audio_index), next.feed, false});
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// ---------------------------------------------------------------------------------------

struct RunResult {
  int recorders = 0;
  double cpu_percent = 0;    // Of one core, while feeding.
  double other_percent = 0;  // The rest of the machine meanwhile.
  int64_t video_handed = 0;
  int64_t video_accepted = 0;
  int64_t video_refused = 0;
  int64_t unmatched = 0;
  double audio_handed_s = 0;
  double audio_accepted_s = 0;
  double audio_short_max_ms = 0;  // Worst recorder.
  double p50_ms = 0, p99_ms = 0, max_ms = 0;
  double late_p99_ms = 0;
  double rss_per_recorder_mib = 0;
  double rss_third_mib = 0;  // Per recorder, after the first third of the run.
  double rss_end_mib = 0;    // Per recorder, at its end.
  int64_t dropped_video = 0;
  int64_t dropped_audio = 0;
  int failed_recordings = 0;
  bool sustained = false;
};

bool MakeH264(const std::string& dir, std::string* path) {
  *path = dir + "/loop.h264";
  const std::string command =
      "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1280x720:rate=30 -t 10 -c:v libx264 "
      "-preset veryfast -bf 0 -g 60 -b:v 2500k -f h264 '" +
      *path + "'";
  return std::system(command.c_str()) == 0;
}

// Writes `kind` ("music" or "speech") of real recordings into dir with
// bench/real_audio.sh; *sources gets its provenance lines.
bool MakeRealAudio(const std::string& kind, const std::string& dir, std::string* path,
                   std::string* sources) {
  *path = dir + "/" + kind + ".wav";
  const std::string command = std::string("bash '") + TARNEL_REAL_AUDIO_SCRIPT + "' " + kind + " " +
                              std::to_string(kRealAudioSeconds) + " '" + *path + "'";
  if (std::system(command.c_str()) != 0) return false;
  std::ifstream in(*path + ".sources");
  std::stringstream text;
  text << in.rdbuf();
  *sources = text.str();
  return true;
}

// The samples of a 48 kHz stereo 16-bit PCM WAV file.
bool LoadWav(const std::string& path, std::vector<int16_t>* pcm) {
  std::vector<uint8_t> data;
  if (!ReadFile(path, &data) || data.size() < 12 || std::memcmp(data.data(), "RIFF", 4) != 0 ||
      std::memcmp(data.data() + 8, "WAVE", 4) != 0) {
    return false;
  }
  auto u16 = [&](size_t at) { return static_cast<uint32_t>(data[at] | data[at + 1] << 8); };
  auto u32 = [&](size_t at) { return u16(at) | u16(at + 2) << 16; };
  bool format_ok = false;
  for (size_t at = 12; at + 8 <= data.size();) {
    const uint32_t size = u32(at + 4);
    const size_t body = at + 8;
    if (std::memcmp(data.data() + at, "fmt ", 4) == 0 && body + 16 <= data.size()) {
      format_ok = u16(body) == 1 && u16(body + 2) == kChannels && u32(body + 4) == kSampleRate &&
                  u16(body + 14) == 16;
    } else if (std::memcmp(data.data() + at, "data", 4) == 0) {
      if (!format_ok) return false;
      const size_t bytes = std::min<size_t>(size, data.size() - body) / 4 * 4;
      pcm->resize(bytes / 2);
      std::memcpy(pcm->data(), data.data() + body, bytes);
      return pcm->size() >= static_cast<size_t>(kSamplesPerAudioFrame * kChannels);
    }
    at = body + size + (size & 1);
  }
  return false;
}

bool LoadInput(const std::string& h264, const std::string& wav, Input* input) {
  std::vector<uint8_t> data;
  if (!ReadFile(h264, &data)) {
    std::fprintf(stderr, "error: cannot read %s\n", h264.c_str());
    return false;
  }
  input->units = SplitAccessUnits(data);
  if (input->units.empty() || !input->units[0].key) {
    std::fprintf(stderr, "error: %s does not start with a key frame\n", h264.c_str());
    return false;
  }
  // The loop wraps onto the first unit, a key frame with its parameter sets.
  if (wav.empty()) {  // --audio synthetic; main makes the real recordings into a WAV.
    input->pcm = MakeMusicLoop();
  } else if (!LoadWav(wav, &input->pcm)) {
    std::fprintf(stderr, "error: %s is not a 48 kHz stereo 16-bit PCM WAV\n", wav.c_str());
    return false;
  }
  return true;
}

RunResult RunOnce(const Options& options, const Input& input, const std::string& out_dir) {
  const int n = options.recorders;
  Shared shared;
  shared.stats.resize(static_cast<size_t>(n));
  shared.first_video_pts.assign(static_cast<size_t>(n), static_cast<int64_t>(VideoPts(0)));
  g_shared = &shared;

  tarnel::audio::AacEncoderKind aac_kind = tarnel::audio::AacEncoderKind::kBuiltIn;
  if (!options.aac_coder.empty()) tarnel::audio::ParseAacEncoderKind(options.aac_coder, &aac_kind);
  tarnel::audio::AudioEncoderFactory2::GetInstance()->SetAacEncoderKind(aac_kind);
  const int64_t rss_before = VmRssKiB();
  ScopedWriterBackendFactoryForTesting measuring(
      [](LocalRecordingSegmentationWriter::Client* client) -> std::unique_ptr<MediaStreamWriter> {
        return std::make_unique<MeasuringWriter>(g_shared->next_recorder.load(),
                                                 std::make_unique<FfmpegStreamWriter>(client));
      });

  std::vector<std::unique_ptr<Client>> clients;
  std::vector<tarn_base::scoped_refptr<LocalRecording>> recorders;
  std::vector<Feed> feeds(static_cast<size_t>(n));
  RunResult result;
  result.recorders = n;
  for (int i = 0; i < n; ++i) {
    clients.push_back(std::make_unique<Client>());
    recorders.push_back(LocalRecording::Create(clients.back().get()));
    tarnel::recording::LocalRecordingInitialParams params;
    params.file_path = out_dir + "/rec_" + std::to_string(i) + ".mp4";
    params.media_format = tarnel::media_stream_writer::kMp4;
    params.stereo_audio = true;
    // The writer for recorder i is made inside Start; one Start at a time.
    shared.next_recorder = i;
    if (options.max_queue_mb > 0) {
      recorders.back()->SetMaxQueueBytes(int64_t{options.max_queue_mb} << 20);
    }
    recorders.back()->Start(params);
    if (clients.back()->WaitStarted() != tarnel::recording::kOk) {
      std::fprintf(stderr, "error: recorder %d did not start\n", i);
      ++result.failed_recordings;
    }
  }

  // Streams start spread over one video frame interval, and at places spread over the
  // audio loop, as independent calls would.
  const size_t audio_frames_in_loop = input.pcm.size() / (kSamplesPerAudioFrame * kChannels);
  const Clock::time_point start = Clock::now() + std::chrono::milliseconds(200);
  const Clock::time_point end = start + std::chrono::seconds(options.seconds);
  for (int i = 0; i < n; ++i) {
    Feed& feed = feeds[static_cast<size_t>(i)];
    feed.recorder = recorders[static_cast<size_t>(i)].get();
    feed.id = i;
    feed.t0 = start + std::chrono::microseconds((i * 33333LL / std::max(n, 1)) % 33333);
    feed.au_start = 0;  // The first frame handed over must be a key frame.
    feed.pcm_start = audio_frames_in_loop * static_cast<size_t>(i) / static_cast<size_t>(n);
    feed.lateness_us.reserve(static_cast<size_t>(options.seconds) * kFps + 16);
  }

  std::atomic<bool> sampling{true};
  std::atomic<int64_t> rss_peak{0};
  std::atomic<int64_t> rss_third{0};  // Sampled once a third of the run is over.
  std::atomic<int64_t> rss_last{0};
  std::thread sampler([&] {
    const Clock::time_point third = start + std::chrono::seconds(options.seconds) / 3;
    while (sampling) {
      const int64_t rss = VmRssKiB();
      rss_peak = std::max<int64_t>(rss_peak, rss);
      rss_last = rss;
      if (rss_third == 0 && Clock::now() >= third) rss_third = rss;
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
  });

  std::this_thread::sleep_until(start);
  const double cpu_begin = ProcessCpuSeconds();
  const double busy_begin = MachineBusySeconds();
  const Clock::time_point wall_begin = Clock::now();
  if (options.pacers > 0) {
    FeedWithPacers(input, &feeds, end, options.pacers);
  } else {
    FeedPerRecorder(input, &feeds, end);
  }
  const double wall = std::chrono::duration<double>(Clock::now() - wall_begin).count();
  const double cpu = ProcessCpuSeconds() - cpu_begin;
  const double busy = MachineBusySeconds() - busy_begin;
  sampling = false;
  sampler.join();

  for (auto& recorder : recorders) recorder->Stop();
  for (auto& client : clients) {
    if (client->WaitCompleted() != tarnel::recording::kOk) ++result.failed_recordings;
  }
  for (auto& recorder : recorders) {
    const tarnel::recording::LocalRecordingQueueStats queue = recorder->GetQueueStats();
    result.dropped_video += queue.dropped_video_frames;
    result.dropped_audio += queue.dropped_audio_frames;
  }
  recorders.clear();
  g_shared = nullptr;
  tarnel::audio::AudioEncoderFactory2::GetInstance()->SetAacEncoderKind(
      tarnel::audio::AacEncoderKind::kBuiltIn);

  result.cpu_percent = 100 * cpu / wall;
  result.other_percent = std::max(0.0, 100 * (busy - cpu) / wall);
  std::vector<int32_t> latencies, lateness;
  double worst_short_ms = 0;
  for (int i = 0; i < n; ++i) {
    const Feed& feed = feeds[static_cast<size_t>(i)];
    WriterStats& stats = shared.stats[static_cast<size_t>(i)];
    result.video_handed += feed.video_handed;
    result.video_accepted += stats.video_accepted;
    result.video_refused += stats.video_refused + stats.audio_refused;
    result.unmatched += stats.unmatched;
    const double handed_s = feed.audio_handed * kAudioFrameMs / 1000.0;
    const double accepted_s = stats.audio_accepted *
                              static_cast<double>(tarnel::audio::kAacSamplesPerFrame) / kSampleRate;
    result.audio_handed_s += handed_s;
    result.audio_accepted_s += accepted_s;
    worst_short_ms = std::max(worst_short_ms, (handed_s - accepted_s) * 1000);
    latencies.insert(latencies.end(), stats.latency_us.begin(), stats.latency_us.end());
    lateness.insert(lateness.end(), feed.lateness_us.begin(), feed.lateness_us.end());
  }
  result.audio_short_max_ms = worst_short_ms;
  result.p50_ms = Percentile(&latencies, 0.50);
  result.p99_ms = Percentile(&latencies, 0.99);
  result.max_ms =
      latencies.empty() ? 0 : *std::max_element(latencies.begin(), latencies.end()) / 1000.0;
  result.late_p99_ms = Percentile(&lateness, 0.99);
  result.rss_per_recorder_mib = (rss_peak - rss_before) / 1024.0 / std::max(n, 1);
  result.rss_third_mib = (rss_third - rss_before) / 1024.0 / std::max(n, 1);
  result.rss_end_mib = (rss_last - rss_before) / 1024.0 / std::max(n, 1);
  result.sustained = result.failed_recordings == 0 && result.dropped_video == 0 &&
                     result.dropped_audio == 0 && result.video_accepted == result.video_handed &&
                     result.video_refused == 0 && result.unmatched == 0 &&
                     result.audio_short_max_ms <= kMaxAudioShortMs && result.p99_ms < kMaxP99Ms;
  return result;
}

std::string ResultLine(const RunResult& r) {
  char line[512];
  std::snprintf(
      line, sizeof(line),
      "result %d %.1f %.1f %lld %lld %lld %lld %.2f %.2f %.1f %.1f %.1f %.1f %.1f %.2f %.2f %.2f "
      "%lld %lld %d %d",
      r.recorders, r.cpu_percent, r.other_percent, static_cast<long long>(r.video_handed),
      static_cast<long long>(r.video_accepted), static_cast<long long>(r.video_refused),
      static_cast<long long>(r.unmatched), r.audio_handed_s, r.audio_accepted_s,
      r.audio_short_max_ms, r.p50_ms, r.p99_ms, r.max_ms, r.late_p99_ms, r.rss_per_recorder_mib,
      r.rss_third_mib, r.rss_end_mib, static_cast<long long>(r.dropped_video),
      static_cast<long long>(r.dropped_audio), r.failed_recordings, r.sustained ? 1 : 0);
  return line;
}

bool ParseResultLine(const std::string& line, RunResult* r) {
  std::istringstream in(line);
  std::string word;
  long long handed, accepted, refused, unmatched, dropped_video, dropped_audio;
  int sustained;
  in >> word >> r->recorders >> r->cpu_percent >> r->other_percent >> handed >> accepted >>
      refused >> unmatched >> r->audio_handed_s >> r->audio_accepted_s >> r->audio_short_max_ms >>
      r->p50_ms >> r->p99_ms >> r->max_ms >> r->late_p99_ms >> r->rss_per_recorder_mib >>
      r->rss_third_mib >> r->rss_end_mib >> dropped_video >> dropped_audio >>
      r->failed_recordings >> sustained;
  if (!in || word != "result") return false;
  r->video_handed = handed;
  r->video_accepted = accepted;
  r->video_refused = refused;
  r->unmatched = unmatched;
  r->dropped_video = dropped_video;
  r->dropped_audio = dropped_audio;
  r->sustained = sustained != 0;
  return true;
}

void PrintHeader() {
  std::printf(
      "| N | CPU %% of a core | CPU %% per recorder | others' CPU %% | video handed / accepted "
      "| refused / unmatched | audio handed / accepted s | worst audio short ms | latency p50 / "
      "p99 / max ms "
      "| feeder late p99 ms | RSS MiB per recorder: peak / at 1/3 / end | dropped video / audio "
      "| failed | sustained |\n"
      "|---:|---:|---:|---:|---|---:|---|---:|---|---:|---|---|---:|---|\n");
}

void PrintRow(const RunResult& r) {
  std::printf(
      "| %d | %.1f | %.2f | %.1f | %lld / %lld | %lld / %lld | %.1f / %.1f | %.0f | %.0f / %.0f / "
      "%.0f "
      "| %.1f | %.2f / %.2f / %.2f | %lld / %lld | %d | %s |\n",
      r.recorders, r.cpu_percent, r.cpu_percent / std::max(r.recorders, 1), r.other_percent,
      static_cast<long long>(r.video_handed), static_cast<long long>(r.video_accepted),
      static_cast<long long>(r.video_refused), static_cast<long long>(r.unmatched),
      r.audio_handed_s, r.audio_accepted_s, r.audio_short_max_ms, r.p50_ms, r.p99_ms, r.max_ms,
      r.late_p99_ms, r.rss_per_recorder_mib, r.rss_third_mib, r.rss_end_mib,
      static_cast<long long>(r.dropped_video), static_cast<long long>(r.dropped_audio),
      r.failed_recordings, r.sustained ? "yes" : "no");
  std::fflush(stdout);
}

std::string MakeTempDir(const std::string& parent, const char* prefix) {
  std::string pattern = (parent.empty() ? std::string("/tmp") : parent) + "/" + prefix + "XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) return "";
  return buffer.data();
}

void RemoveDir(const std::string& dir) {
  const std::string command = "rm -rf '" + dir + "'";
  if (std::system(command.c_str()) != 0)
    std::fprintf(stderr, "warning: cannot remove %s\n", dir.c_str());
}

// Runs one N in a child process (a fresh heap for the RSS figure).
bool RunChild(const Options& options, const std::string& self, const std::string& h264, int n,
              RunResult* result) {
  std::string command =
      "'" + self + "' --machine --recorders " + std::to_string(n) + " --seconds " +
      std::to_string(options.seconds) + " --pacers " + std::to_string(options.pacers) +
      " --max-queue-mb " + std::to_string(options.max_queue_mb) + " --h264 '" + h264 + "'" +
      (options.aac_coder.empty() ? "" : " --aac-coder " + options.aac_coder) + " --audio " +
      options.audio + (options.wav.empty() ? "" : " --wav '" + options.wav + "'");
  if (!options.out_dir.empty()) command += " --out-dir '" + options.out_dir + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  char line[1024];
  bool parsed = false;
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    if (ParseResultLine(line, result)) parsed = true;
  }
  const int status = pclose(pipe);
  return parsed && status == 0;
}

void Usage() {
  std::printf(
      "Usage: concurrent_benchmark [--recorders N] [--seconds S] [--pacers K] [--h264 FILE]\n"
      "                            [--audio KIND] [--wav FILE] [--out-dir DIR] [--keep]\n"
      "                            [--aac-coder C]\n"
      "                            [--sweep [N,N,...]]\n"
      "  --recorders N  recorders in this process                       (default 10)\n"
      "  --seconds S    real-time seconds fed to each                   (default 30)\n"
      "  --pacers K     K pacing threads instead of a video and an audio thread per\n"
      "                 recorder                                        (default 0: per recorder)\n"
      "  --h264 FILE    720p30 Annex-B H.264 to loop        (default: made with ffmpeg, 10 s)\n"
      "  --audio KIND   music or speech: 90 s of real recordings made by\n"
      "                 bench/real_audio.sh (Debian packages, installed when missing and\n"
      "                 root); synthetic: the built-in music-like loop, 8 s (default: music)\n"
      "  --wav FILE     48 kHz stereo s16 WAV to loop instead              (default: none)\n"
      "  --out-dir DIR  where the MP4s go (a temp dir under it)          (default /tmp)\n"
      "  --max-queue-mb M  each recorder's queue bound          (default: the recorder's, 64)\n"
      "  --keep         keep the MP4s\n"
      "  --aac-coder C  tarnel (the recorder's own encoder), or twoloop or fast:\n"
      "                 libavcodec's coder, put in through the encoder factory (default: tarnel)\n"
      "  --sweep        N = 10, 25, 50, 75, 100, 150, 200, ... until one fails, then halves\n"
      "                 the gap; or the given list. Reports the largest N sustained: no video\n"
      "                 frame lost or dropped, no recorder short of more than 100 ms of audio, "
      "p99\n"
      "                 hand-over-to-writer latency under 500 ms.\n");
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "error: %s needs a value\n", arg.c_str());
        std::exit(1);
      }
      return argv[++i];
    };
    if (arg == "--recorders") {
      options.recorders = std::atoi(next().c_str());
    } else if (arg == "--seconds") {
      options.seconds = std::atoi(next().c_str());
    } else if (arg == "--pacers") {
      options.pacers = std::atoi(next().c_str());
    } else if (arg == "--h264") {
      options.h264 = next();
    } else if (arg == "--audio") {
      options.audio = next();
      if (options.audio != "music" && options.audio != "speech" && options.audio != "synthetic") {
        std::fprintf(stderr, "error: --audio is music, speech or synthetic\n");
        return 1;
      }
    } else if (arg == "--wav") {
      options.wav = next();
    } else if (arg == "--out-dir") {
      options.out_dir = next();
    } else if (arg == "--aac-coder") {
      const std::string coder = next();
      tarnel::audio::AacEncoderKind kind;
      if (!tarnel::audio::ParseAacEncoderKind(coder, &kind)) {
        std::fprintf(stderr, "error: --aac-coder is tarnel, twoloop or fast\n");
        return 1;
      }
      options.aac_coder = coder;
    } else if (arg == "--max-queue-mb") {
      options.max_queue_mb = std::atoi(next().c_str());
    } else if (arg == "--keep") {
      options.keep = true;
    } else if (arg == "--machine") {
      options.machine = true;
    } else if (arg == "--sweep") {
      options.sweep = true;
      if (i + 1 < argc && argv[i + 1][0] != '-') {
        std::stringstream list(argv[++i]);
        std::string item;
        while (std::getline(list, item, ',')) options.sweep_list.push_back(std::atoi(item.c_str()));
      }
    } else if (arg == "-h" || arg == "--help") {
      Usage();
      return 0;
    } else {
      std::fprintf(stderr, "error: unknown option %s\n", arg.c_str());
      Usage();
      return 1;
    }
  }
  if (options.recorders < 1 || options.seconds < 1 || options.pacers < 0) {
    std::fprintf(stderr, "error: --recorders and --seconds must be at least 1\n");
    return 1;
  }
  tarn_logging::SetMinSeverity(tarn_logging::LS_WARNING);
  av_log_set_level(AV_LOG_ERROR);  // Not the encoders' statistics at every close.

  std::string temp_input;
  std::string h264 = options.h264;
  const bool real_audio = options.wav.empty() && options.audio != "synthetic";
  if (h264.empty() || real_audio) {
    temp_input = MakeTempDir(options.out_dir, "tarnel-concurrent-input-");
    if (temp_input.empty()) {
      std::fprintf(stderr, "error: cannot make a temp dir\n");
      return 1;
    }
  }
  if (h264.empty() && !MakeH264(temp_input, &h264)) {
    std::fprintf(stderr, "error: cannot make the H.264 input with ffmpeg\n");
    RemoveDir(temp_input);
    return 1;
  }
  std::string audio_description = options.wav;
  if (real_audio) {
    // Made once here; a --sweep's children get it as --wav.
    std::string sources;
    if (!MakeRealAudio(options.audio, temp_input, &options.wav, &sources)) {
      std::fprintf(stderr, "error: cannot make the real %s with bench/real_audio.sh\n",
                   options.audio.c_str());
      RemoveDir(temp_input);
      return 1;
    }
    audio_description = "real " + options.audio + ", " + std::to_string(kRealAudioSeconds) +
                        " s looped (bench/real_audio.sh):\n" + sources;
  } else if (audio_description.empty()) {
    audio_description = "built-in music-like loop";
  }

  int exit_code = 0;
  if (options.sweep) {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0) return 1;
    self[length] = '\0';
    std::printf(
        "Feeding: %s; %d s per N; 1280x720 30 fps H.264 + 48 kHz stereo PCM into MP4 "
        "(AAC 196608 b/s, %s coder); %ld cores. Audio: %s\n\n",
        options.pacers > 0 ? (std::to_string(options.pacers) + " pacing threads").c_str()
                           : "one video and one audio thread per recorder",
        options.seconds, options.aac_coder.empty() ? "own" : options.aac_coder.c_str(),
        sysconf(_SC_NPROCESSORS_ONLN), audio_description.c_str());
    PrintHeader();
    int best = 0;
    std::vector<int> list = options.sweep_list;
    const bool given = !list.empty();
    if (!given) list = {10, 25, 50, 75, 100, 150, 200, 300, 400};
    int last_good = 0, first_bad = 0;
    for (int n : list) {
      RunResult result;
      if (!RunChild(options, self, h264, n, &result)) {
        std::fprintf(stderr, "error: the run with %d recorders failed\n", n);
        exit_code = 1;
        break;
      }
      PrintRow(result);
      if (result.sustained) {
        best = std::max(best, n);
        last_good = n;
      } else {
        first_bad = n;
        if (!given) break;
      }
    }
    // Narrow the gap between the last N sustained and the first that was not.
    while (!given && first_bad > 0 && first_bad - last_good > 10 && exit_code == 0) {
      const int n = (last_good + first_bad) / 2 / 5 * 5;
      if (n <= last_good) break;
      RunResult result;
      if (!RunChild(options, self, h264, n, &result)) {
        exit_code = 1;
        break;
      }
      PrintRow(result);
      if (result.sustained) {
        last_good = best = n;
      } else {
        first_bad = n;
      }
    }
    std::printf("\nLargest N sustained: %d\n", best);
  } else {
    Input input;
    if (!LoadInput(h264, options.wav, &input)) return 1;
    const std::string out_dir = MakeTempDir(options.out_dir, "tarnel-concurrent-");
    if (out_dir.empty()) {
      std::fprintf(stderr, "error: cannot make a temp dir\n");
      return 1;
    }
    const RunResult result = RunOnce(options, input, out_dir);
    if (options.machine) {
      std::printf("%s\n", ResultLine(result).c_str());
    } else {
      std::printf(
          "%zu access units in the loop; feeding: %s; audio: %s\n\n", input.units.size(),
          options.pacers > 0 ? "pacing threads" : "one video and one audio thread per recorder",
          audio_description.c_str());
      PrintHeader();
      PrintRow(result);
    }
    if (!options.keep) {
      RemoveDir(out_dir);
    } else if (!options.machine) {
      std::printf("\nfiles in %s\n", out_dir.c_str());
    }
    exit_code = result.sustained ? 0 : 3;
    if (options.machine) exit_code = 0;
  }
  if (!temp_input.empty()) RemoveDir(temp_input);
  return exit_code;
}
