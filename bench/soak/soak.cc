// soak: one recorder, an hour of media in fast mode, fed the way a misbehaving live source
// feeds it, then every file checked with ffprobe and ffmpeg.
//
//   soak                                  # 60 minutes of media, a random seed
//   soak --minutes 4 --seed 7 --recording 40-60
//
// One LocalRecording object records H.264 (640x360 30 fps, looped from a 10 s stream made
// with ffmpeg at startup, key frames every 2 s) and 48 kHz stereo PCM in 10 ms frames of a
// music-like signal into MP4 files (the recorder encodes AAC and fills audio gaps with
// silence). The source, planned up front from --seed:
//   - reconnects: Stop, then Start into a new file with a new timestamp base, a new place
//     in both loops (the video mid-GOP, so the recording begins at the next key frame)
//     and audio starting up to 150 ms before or after the video;
//   - pauses of 1-3 s on both streams or on audio only: no frames for that stretch of the
//     source's clock. Where both streams pause, the feeder also hands nothing over for
//     as long in real time, as a live source would: the recorder runs dry and fills in
//     silence on its own clock, then the timestamp gap that is left;
//   - forward clock jumps of 0.5-4 s on both streams, audio only or video only (within
//     what the recorder follows: audio at most 5 s ahead of its last frame; the two
//     clocks kept within kMaxClockSkewMs of each other).
// Pacing as tarnel-record --fast: frames merged by timestamp, never more than kFastLeadMs
// of media ahead of what the recorder reports written (OnRecordingProgress). Stop comes
// right after the last frame, with up to that much media still in the recorder's caches
// for its flush, and no event in that stretch.
//
// Checked: one OnRecordingStarted(kOk) and one OnRecordingCompleted(kOk) per recording,
// no error logged by the recorder or libav; RSS (VmRSS after each recording completes)
// after the last recording within kMaxRssGrowthKiB of that after the second; every file
// probes (one video and one audio stream, durations within a second of what the
// timestamps handed over give, audio packets covering the audio stream, i.e. gaps
// filled), decodes with ffmpeg without a message, and has the size the recorder
// reported. Prints a markdown table and a verdict; exits 1 when a check fails.
//
// Threads: the main thread plans, feeds and checks; the recorder calls SoakClient on its
// worker thread; libav and the recorder log from that thread too.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "bench/support/bench_input.h"
#include "sdk/base/logging.h"
#include "sdk/common/local_recording/local_recording.h"

namespace {

using Clock = std::chrono::steady_clock;
using tarnel::recording::InternalError;
using tarnel::recording::InternalErrorToString;
using tarnel::recording::LocalRecording;
using tarnel_bench::AccessUnit;
using tarnel_bench::MakeMusicLoop;
using tarnel_bench::SplitAccessUnits;
using tarnel_bench::VmRssKiB;

constexpr int kSampleRate = 48000;
constexpr int kChannels = 2;
constexpr int kAudioFrameMs = 10;
constexpr int kSamplesPerAudioFrame = kSampleRate * kAudioFrameMs / 1000;
constexpr int kFps = 30;
constexpr int kWidth = 640;
constexpr int kHeight = 360;
// How far the feeder may run ahead of what the recorder has written, in media time, as
// tarnel-record --fast does; and how often the recorder reports what it has written.
constexpr int64_t kFastLeadMs = 10000;
constexpr int32_t kProgressIntervalMs = 50;
// A recorder that writes nothing new for this long, or does not answer Start or Stop,
// has hung.
constexpr auto kStallTimeout = std::chrono::seconds(60);
// Jumps of one stream keep the audio clock within this of the video clock: a regular
// write pass of the recorder goes no further than the stream that is behind.
constexpr int64_t kMaxClockSkewMs = 3000;
// Events keep this far from the start and the end of a recording: at the Stop the
// recorder flushes what it holds (up to the lead plus the skew) as it is, without
// filling gaps.
constexpr int64_t kStartMarginMs = 3000;
constexpr int64_t kEndMarginMs = kFastLeadMs + kMaxClockSkewMs + 2000;
constexpr double kDurationToleranceS = 1.0;
// Audio packets x 1024 samples against the audio stream's duration: an unfilled gap of
// the shortest kind (a 0.5 s jump) shows. The recorder fills a gap with 10 ms frames
// until less than five frame lengths are left, so up to 50 ms of each gap stays open;
// the encoder's start and end take the base.
constexpr double kCoverageBaseToleranceS = 0.1;
constexpr double kCoveragePerGapToleranceS = 0.05;
constexpr int64_t kMaxRssGrowthKiB = 8 * 1024;
// Timestamp bases are drawn below this by default: the recorder's muted-frame filling
// steps audio timestamps in single precision, exact only below 2^24 ms (about 4.7 hours
// of a source's clock); a recording of up to 8 minutes plus its jumps stays below that.
// --max-base raises it to show what happens above.
constexpr int64_t kDefaultMaxBaseMs = 15000000;

struct Options {
  int minutes = 60;
  uint64_t seed = 0;
  int64_t min_recording_s = 180;
  int64_t max_recording_s = 480;
  int64_t max_base_ms = kDefaultMaxBaseMs;
  std::string out_parent;
  bool keep = false;
};

// Uniform draws from a 64-bit Mersenne Twister, spelled out so that a seed gives the same
// run with any standard library.
class Rng {
 public:
  explicit Rng(uint64_t seed) : engine_(seed) {}
  // In [lo, hi].
  int64_t Between(int64_t lo, int64_t hi) {
    return lo + static_cast<int64_t>(engine_() % static_cast<uint64_t>(hi - lo + 1));
  }

 private:
  std::mt19937_64 engine_;
};

// ---------------------------------------------------------------------------------------
// Input: access units of the H.264 loop and the PCM loop.

// ---------------------------------------------------------------------------------------
// Processes and the system.

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

struct CommandResult {
  int exit_code = -1;
  std::string output;  // stdout and stderr.
};

CommandResult RunCommand(const std::string& command) {
  CommandResult result;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[4096];
  size_t read;
  while ((read = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0)
    result.output.append(buffer, read);
  const int status = pclose(pipe);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

double CpuSeconds(int who) {
  rusage usage;
  getrusage(who, &usage);
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec / 1e6;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// Warnings and errors of the recorder (its log sink) and of libav (its log callback),
// counted, the first few kept for the report. Called from the recorder's worker thread.
class LogCounter : public tarn_logging::LogSink {
 public:
  void OnLogMessage(const tarn_logging::LogRecord& record) override {
    if (record.severity < tarn_logging::LS_WARNING) return;
    Add(record.severity >= tarn_logging::LS_ERROR,
        std::string(record.config ? record.config->component : "?") + ": " + record.message);
  }
  void Add(bool error, const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    (error ? errors_ : warnings_)++;
    if (kept_.size() < 12) kept_.push_back((error ? "error: " : "warning: ") + message);
  }
  int errors() {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }
  int warnings() {
    std::lock_guard<std::mutex> lock(mutex_);
    return warnings_;
  }
  std::vector<std::string> kept() {
    std::lock_guard<std::mutex> lock(mutex_);
    return kept_;
  }

 private:
  std::mutex mutex_;
  int errors_ = 0;
  int warnings_ = 0;
  std::vector<std::string> kept_;
};

LogCounter* g_log = nullptr;

void OnAvLog(void* context, int level, const char* format, va_list args) {
  if (level > AV_LOG_WARNING || g_log == nullptr) return;
  char line[512];
  int print_prefix = 1;
  av_log_format_line(context, level, format, args, line, sizeof(line), &print_prefix);
  std::string text = line;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  g_log->Add(level <= AV_LOG_ERROR, "libav: " + text);
}

// ---------------------------------------------------------------------------------------
// The plan: recordings and what the source does in each.

enum class EventKind { kPauseBoth, kPauseAudio, kJumpBoth, kJumpAudio, kJumpVideo };

struct Event {
  int64_t at_ms = 0;  // On the recording's source clock.
  EventKind kind = EventKind::kPauseBoth;
  int64_t length_ms = 0;  // Pause length or jump size.
};

bool AffectsVideo(EventKind kind) {
  return kind == EventKind::kPauseBoth || kind == EventKind::kJumpBoth ||
         kind == EventKind::kJumpVideo;
}
bool AffectsAudio(EventKind kind) { return kind != EventKind::kJumpVideo; }
bool IsPause(EventKind kind) {
  return kind == EventKind::kPauseBoth || kind == EventKind::kPauseAudio;
}

struct RecordingPlan {
  int64_t length_ms = 0;  // Source clock from the first frame to the end.
  int64_t base_ms = 0;    // Timestamp of the source clock's 0.
  int64_t audio_skew_ms = 0;
  size_t video_start = 0;  // Places in the loops.
  size_t audio_start = 0;
  std::vector<Event> events;
};

std::vector<RecordingPlan> MakePlan(const Options& options, size_t units, size_t audio_frames,
                                    Rng* rng) {
  std::vector<RecordingPlan> plan;
  const int64_t total_ms = options.minutes * 60000LL;
  const int64_t min_ms = options.min_recording_s * 1000;
  int64_t planned = 0;
  while (planned < total_ms) {
    RecordingPlan recording;
    int64_t length = rng->Between(min_ms, options.max_recording_s * 1000);
    // The last recording takes what is left rather than leave a stub.
    if (total_ms - planned - length < min_ms) length = total_ms - planned;
    recording.length_ms = length;
    planned += length;
    recording.base_ms = rng->Between(10000, options.max_base_ms);
    recording.audio_skew_ms = rng->Between(-150, 150);
    recording.video_start = static_cast<size_t>(rng->Between(0, static_cast<int64_t>(units) - 1));
    recording.audio_start =
        static_cast<size_t>(rng->Between(0, static_cast<int64_t>(audio_frames) - 1));
    // Events a twentieth to a sixth of the recording apart (2 s at least).
    int64_t t = kStartMarginMs;
    int64_t skew = 0;  // Audio clock minus video clock.
    for (;;) {
      t += std::max<int64_t>(2000, rng->Between(length / 20, length / 6));
      Event event;
      event.at_ms = t;
      const int64_t roll = rng->Between(0, 99);
      event.kind = roll < 30   ? EventKind::kPauseBoth
                   : roll < 55 ? EventKind::kPauseAudio
                   : roll < 75 ? EventKind::kJumpBoth
                   : roll < 90 ? EventKind::kJumpAudio
                               : EventKind::kJumpVideo;
      event.length_ms = IsPause(event.kind) ? rng->Between(1000, 3000) : rng->Between(500, 4000);
      // A jump of one stream that would take the clocks too far apart goes to the other
      // stream, or to both.
      const int64_t step = event.length_ms;
      auto too_far = [&](EventKind kind) {
        return (kind == EventKind::kJumpAudio && skew + step > kMaxClockSkewMs) ||
               (kind == EventKind::kJumpVideo && skew - step < -kMaxClockSkewMs);
      };
      if (too_far(event.kind)) {
        event.kind =
            event.kind == EventKind::kJumpAudio ? EventKind::kJumpVideo : EventKind::kJumpAudio;
        if (too_far(event.kind)) event.kind = EventKind::kJumpBoth;
      }
      if (event.kind == EventKind::kJumpAudio) skew += step;
      if (event.kind == EventKind::kJumpVideo) skew -= step;
      if (t + event.length_ms + kEndMarginMs > length) break;
      recording.events.push_back(event);
      t += event.length_ms;
    }
    plan.push_back(std::move(recording));
  }
  return plan;
}

// One stream of a recording as the source produces it: the next frame's place in the
// content and on the source clock, and the timestamp it carries.
class StreamClock {
 public:
  StreamClock(bool video, const RecordingPlan& plan) : video_(video), plan_(plan) {}

  // Applies the events the next frame has reached: a pause moves it past the pause, a
  // jump adds to every timestamp from here on.
  void ApplyEvents() {
    while (next_event_ < plan_.events.size() &&
           SourceUs() >= plan_.events[next_event_].at_ms * 1000) {
      const Event& event = plan_.events[next_event_];
      if (video_ ? AffectsVideo(event.kind) : AffectsAudio(event.kind)) {
        if (IsPause(event.kind)) {
          paused_us_ += event.length_ms * 1000;
        } else {
          shift_ms_ += event.length_ms;
        }
      }
      ++next_event_;
    }
  }
  bool more() const { return SourceUs() < plan_.length_ms * 1000; }
  int64_t stamp_ms() const { return plan_.base_ms + SourceUs() / 1000 + shift_ms_; }
  // Whether the next frame comes after event `index` on this clock.
  bool past(size_t index) const { return next_event_ > index; }
  int64_t index() const { return index_; }
  void Advance() { ++index_; }

 private:
  int64_t SourceUs() const {
    const int64_t content_us = video_ ? index_ * 1000000 / kFps
                                      : plan_.audio_skew_ms * 1000 + index_ * kAudioFrameMs * 1000;
    return content_us + paused_us_;
  }

  const bool video_;
  const RecordingPlan& plan_;
  int64_t index_ = 0;  // Frames handed over.
  int64_t paused_us_ = 0;
  int64_t shift_ms_ = 0;
  size_t next_event_ = 0;
};

// ---------------------------------------------------------------------------------------
// The recorder's client.

// What one recording got back from the recorder, and what went into it.
struct Outcome {
  int starts = 0;
  int completions = 0;
  InternalError start_result = tarnel::recording::kOk;
  InternalError result = tarnel::recording::kOk;
  int64_t reported_ms = 0;
  int64_t reported_size = 0;
  int64_t rss_kib = 0;  // After it completed.
  // Timestamps handed over (ms) and counts.
  int64_t first_key_ms = -1;
  int64_t last_video_ms = -1;
  int64_t last_audio_ms = -1;
  int64_t video_frames = 0;
  int64_t audio_frames = 0;
  int pause_stops = 0;
  std::string path;
  // From the checks.
  double format_s = -1, video_s = -1, audio_s = -1, covered_s = -1;
  std::string problems;
};

// Counts the callbacks of each recording. The feeding thread names the current one
// before each Start; callbacks come on the recorder's worker thread.
class SoakClient : public LocalRecording::Client {
 public:
  explicit SoakClient(std::vector<Outcome>* outcomes) : outcomes_(outcomes) {}

  void Begin(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    current_ = static_cast<int>(index);
    started_ = completed_ = false;
    recorded_ms_ = 0;
  }
  void OnRecordingStarted(LocalRecording*, InternalError error) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (current_ < 0) {
      ++stray_;
      return;
    }
    Outcome& outcome = (*outcomes_)[static_cast<size_t>(current_)];
    ++outcome.starts;
    outcome.start_result = error;
    started_ = true;
    changed_.notify_all();
  }
  void OnRecordingProgress(LocalRecording*, int64_t duration_ms) override {
    recorded_ms_ = duration_ms;
  }
  void OnRecordingSegment(LocalRecording*, const std::string&) override {}
  void OnRecordingCompleted(LocalRecording*, InternalError error, int64_t duration_ms,
                            int64_t file_size) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (current_ < 0) {
      ++stray_;
      return;
    }
    Outcome& outcome = (*outcomes_)[static_cast<size_t>(current_)];
    ++outcome.completions;
    outcome.result = error;
    outcome.reported_ms = duration_ms;
    outcome.reported_size = file_size;
    completed_ = true;
    changed_.notify_all();
  }

  bool WaitStarted() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kStallTimeout, [&] { return started_; });
  }
  bool WaitCompleted() {
    std::unique_lock<std::mutex> lock(mutex_);
    const bool done = changed_.wait_for(lock, kStallTimeout, [&] { return completed_; });
    current_ = -1;  // Later callbacks belong to no recording.
    return done;
  }
  bool completed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return completed_;
  }
  int stray() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stray_;
  }
  int64_t recorded_ms() const { return recorded_ms_; }

 private:
  std::vector<Outcome>* outcomes_;
  std::atomic<int64_t> recorded_ms_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  int current_ = -1;
  bool started_ = false;
  bool completed_ = false;
  int stray_ = 0;  // Callbacks outside any recording.
};

// ---------------------------------------------------------------------------------------
// Feeding one recording.

struct Input {
  std::vector<AccessUnit> units;
  std::vector<int16_t> pcm;
  size_t audio_frames() const { return pcm.size() / (kSamplesPerAudioFrame * kChannels); }
};

class Feeder {
 public:
  Feeder(LocalRecording* recorder, SoakClient* client, const Input& input)
      : recorder_(recorder), client_(client), input_(input) {}

  // Hands over the recording's media; false when the recorder stalled or ended early.
  bool Feed(const RecordingPlan& plan, Outcome* outcome) {
    StreamClock video(true, plan), audio(false, plan);
    size_t stops_done = 0;  // Pauses of both streams dealt with, in plan order.
    for (;;) {
      video.ApplyEvents();
      audio.ApplyEvents();
      if (!video.more() && !audio.more()) break;
      const bool take_video =
          video.more() && (!audio.more() || video.stamp_ms() <= audio.stamp_ms());
      StreamClock& stream = take_video ? video : audio;
      const int64_t stamp = stream.stamp_ms();

      // The first frame after a pause of both streams: first be silent in real time for
      // as long as the audio's gap. The recorder runs through what it holds, then adds
      // silence on its own clock, never more than the gap. Not where the audio has not
      // reached the pause yet (the clocks apart after jumps of one stream).
      for (; stops_done < plan.events.size() && stream.past(stops_done); ++stops_done) {
        if (plan.events[stops_done].kind != EventKind::kPauseBoth || !audio.past(stops_done) ||
            outcome->last_audio_ms < 0) {
          continue;
        }
        const int64_t gap_ms = audio.stamp_ms() - (outcome->last_audio_ms + kAudioFrameMs);
        if (gap_ms <= 0) continue;
        std::this_thread::sleep_for(std::chrono::milliseconds(gap_ms));
        ++outcome->pause_stops;
      }
      // Never more than kFastLeadMs ahead of what the recorder has written; once the
      // other stream has ended it writes nothing more before the Stop.
      const bool other_ended = take_video ? !audio.more() : !video.more();
      if (outcome->first_key_ms >= 0 && !other_ended &&
          !WaitWritten(stamp - outcome->first_key_ms - kFastLeadMs)) {
        return false;
      }
      if (take_video) {
        HandVideo(plan, stream.index(), stamp, outcome);
      } else {
        HandAudio(plan, stream.index(), stamp, outcome);
      }
      stream.Advance();
    }
    return true;
  }

 private:
  // Waits until the recorder reports at least `target_ms` written. False when it wrote
  // nothing new for kStallTimeout or the recording ended.
  bool WaitWritten(int64_t target_ms) {
    int64_t seen = client_->recorded_ms();
    Clock::time_point changed = Clock::now();
    while (seen < target_ms) {
      if (client_->completed() || Clock::now() - changed > kStallTimeout) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const int64_t now = client_->recorded_ms();
      if (now != seen) changed = Clock::now();
      seen = now;
    }
    return true;
  }

  void HandVideo(const RecordingPlan& plan, int64_t index, int64_t stamp, Outcome* outcome) {
    const AccessUnit& unit =
        input_.units[(plan.video_start + static_cast<size_t>(index)) % input_.units.size()];
    auto frame = std::make_unique<tarnel::video::VideoFrame>();
    frame->data = tarnel::CopyOnWriteBuffer(unit.bytes.data(), unit.bytes.size());
    frame->pts = frame->dts = static_cast<uint64_t>(stamp);
    frame->frame_type = unit.key ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
    frame->codec_type = tarnel::video::kCodecH264;
    frame->width = kWidth;
    frame->height = kHeight;
    // The recorder drops what precedes the first key frame; the file starts there.
    if (unit.key && outcome->first_key_ms < 0) outcome->first_key_ms = stamp;
    recorder_->WriteVideoFrame(std::move(frame));
    outcome->last_video_ms = stamp;
    ++outcome->video_frames;
  }

  void HandAudio(const RecordingPlan& plan, int64_t index, int64_t stamp, Outcome* outcome) {
    const size_t which = (plan.audio_start + static_cast<size_t>(index)) % input_.audio_frames();
    auto frame = std::make_unique<tarnel::audio::AudioFrame>();
    frame->SetData(reinterpret_cast<const uint8_t*>(input_.pcm.data() +
                                                    which * kSamplesPerAudioFrame * kChannels),
                   kSamplesPerAudioFrame * kChannels * sizeof(int16_t));
    frame->SetSampleRate(kSampleRate);
    frame->SetChannels(kChannels);
    frame->SetTimestampInMs(static_cast<uint32_t>(stamp));
    recorder_->WriteAudioFrame(std::move(frame));
    outcome->last_audio_ms = stamp;
    ++outcome->audio_frames;
  }

  LocalRecording* recorder_;
  SoakClient* client_;
  const Input& input_;
};

// ---------------------------------------------------------------------------------------
// Checking the files.

// What the timestamps handed over give: the file starts at the first key frame; video
// ends a frame after its last one, audio a frame after its last (gaps filled).
double ExpectedVideoS(const Outcome& o) {
  return (o.last_video_ms - o.first_key_ms + 1000.0 / kFps) / 1000.0;
}
double ExpectedAudioS(const Outcome& o) {
  return (o.last_audio_ms + kAudioFrameMs - o.first_key_ms) / 1000.0;
}
double ExpectedS(const Outcome& o) { return std::max(ExpectedVideoS(o), ExpectedAudioS(o)); }

void AddProblem(Outcome* o, const std::string& problem) {
  o->problems += (o->problems.empty() ? "" : "; ") + problem;
}

bool Near(double got, double expected, double tolerance) {
  return got >= 0 && std::fabs(got - expected) <= tolerance;
}

// ffprobe: streams, durations, audio packets; anything else it says is a problem.
void ProbeFile(Outcome* o) {
  const CommandResult probe = RunCommand(
      "ffprobe -v error -count_packets -show_entries "
      "stream=codec_type,duration,nb_read_packets:format=duration -of compact=p=0 " +
      Quote(o->path));
  int videos = 0, audios = 0;
  int64_t audio_packets = -1;
  std::istringstream lines(probe.output);
  std::string line;
  while (std::getline(lines, line)) {
    double duration = -1;
    long long packets = -1;
    char kind[16] = {0};
    if (std::sscanf(line.c_str(), "codec_type=%15[a-z]|duration=%lf|nb_read_packets=%lld", kind,
                    &duration, &packets) == 3) {
      if (std::string(kind) == "video") {
        ++videos;
        o->video_s = duration;
      } else if (std::string(kind) == "audio") {
        ++audios;
        o->audio_s = duration;
        audio_packets = packets;
      }
    } else if (std::sscanf(line.c_str(), "duration=%lf", &duration) == 1) {
      o->format_s = duration;
    } else {
      AddProblem(o, "ffprobe said: " + line);
    }
  }
  if (probe.exit_code != 0) AddProblem(o, "ffprobe exit " + std::to_string(probe.exit_code));
  if (videos != 1 || audios != 1) {
    AddProblem(o,
               std::to_string(videos) + " video and " + std::to_string(audios) + " audio streams");
  }
  if (audio_packets >= 0) {
    o->covered_s = static_cast<double>(audio_packets) * 1024 / kSampleRate;
  }
}

void CheckFile(const RecordingPlan& plan, Outcome* o) {
  char text[160];
  if (o->first_key_ms < 0) {
    AddProblem(o, "no key frame handed over");
    return;
  }
  ProbeFile(o);
  if (!Near(o->format_s, ExpectedS(*o), kDurationToleranceS)) {
    std::snprintf(text, sizeof(text), "duration %.3f s, expected %.3f s", o->format_s,
                  ExpectedS(*o));
    AddProblem(o, text);
  }
  if (!Near(o->video_s, ExpectedVideoS(*o), kDurationToleranceS)) {
    std::snprintf(text, sizeof(text), "video %.3f s, expected %.3f s", o->video_s,
                  ExpectedVideoS(*o));
    AddProblem(o, text);
  }
  if (!Near(o->audio_s, ExpectedAudioS(*o), kDurationToleranceS)) {
    std::snprintf(text, sizeof(text), "audio %.3f s, expected %.3f s", o->audio_s,
                  ExpectedAudioS(*o));
    AddProblem(o, text);
  }
  const auto audio_gaps =
      std::count_if(plan.events.begin(), plan.events.end(),
                    [](const Event& event) { return AffectsAudio(event.kind); });
  if (!Near(
          o->covered_s, o->audio_s,
          kCoverageBaseToleranceS + kCoveragePerGapToleranceS * static_cast<double>(audio_gaps))) {
    std::snprintf(text, sizeof(text), "audio packets cover %.3f s of %.3f s", o->covered_s,
                  o->audio_s);
    AddProblem(o, text);
  }
  if (!Near(o->reported_ms / 1000.0, ExpectedS(*o), kDurationToleranceS)) {
    std::snprintf(text, sizeof(text), "reported duration %.3f s, expected %.3f s",
                  o->reported_ms / 1000.0, ExpectedS(*o));
    AddProblem(o, text);
  }
  struct stat info;
  const int64_t size = stat(o->path.c_str(), &info) == 0 ? info.st_size : -1;
  if (size != o->reported_size) {
    AddProblem(o, "size on disk " + std::to_string(size) + ", reported " +
                      std::to_string(o->reported_size));
  }
  // The null output keeps the file's time base: in ffmpeg's default 1/30 s one, frames
  // 33 ms apart after a gap of a length that is no multiple of 1/30 s round onto the same
  // tick and the null muxer reports that as an error of its own.
  const CommandResult decode =
      RunCommand("ffmpeg -nostdin -v error -i " + Quote(o->path) + " -enc_time_base -1 -f null -");
  if (decode.exit_code != 0 || !decode.output.empty()) {
    std::string said = decode.output.substr(0, decode.output.find('\n'));
    AddProblem(o, "decode exit " + std::to_string(decode.exit_code) +
                      (said.empty() ? "" : ", first message: " + said));
  }
}

// ---------------------------------------------------------------------------------------

int Count(const RecordingPlan& plan, EventKind kind) {
  return static_cast<int>(std::count_if(plan.events.begin(), plan.events.end(),
                                        [kind](const Event& event) { return event.kind == kind; }));
}

double Mib(int64_t kib) { return kib / 1024.0; }

void Usage() {
  std::printf(
      "Usage: soak [--minutes N] [--seed S] [--recording MIN-MAX] [--max-base MS] [--out DIR]\n"
      "            [--keep]\n"
      "  --minutes N          media recorded in all, in minutes             (default 60)\n"
      "  --seed S             plan of recordings, pauses and jumps   (default: from the clock)\n"
      "  --recording MIN-MAX  length of each recording in seconds of media  (default 180-480)\n"
      "  --max-base MS        largest timestamp base of a recording  (default 15000000, < 2^24)\n"
      "  --out DIR            where the work dir is made                  (default /tmp)\n"
      "  --keep               keep the work dir and its files\n");
}

bool ParseOptions(int argc, char** argv, Options* options) {
  options->seed = static_cast<uint64_t>(Clock::now().time_since_epoch().count()) % 1000000007;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    if (arg == "--minutes" && has_value) {
      options->minutes = std::atoi(argv[++i]);
    } else if (arg == "--seed" && has_value) {
      options->seed = std::strtoull(argv[++i], nullptr, 10);
    } else if (arg == "--recording" && has_value) {
      long long low = 0, high = 0;
      if (std::sscanf(argv[++i], "%lld-%lld", &low, &high) != 2) return false;
      options->min_recording_s = low;
      options->max_recording_s = high;
    } else if (arg == "--max-base" && has_value) {
      options->max_base_ms = std::atoll(argv[++i]);
    } else if (arg == "--out" && has_value) {
      options->out_parent = argv[++i];
    } else if (arg == "--keep") {
      options->keep = true;
    } else {
      return false;
    }
  }
  return options->minutes >= 1 && options->min_recording_s >= 10 && options->max_base_ms >= 10000 &&
         options->max_base_ms <= 4000000000LL &&
         options->max_recording_s >= options->min_recording_s;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    Usage();
    return 2;
  }
  for (const char* tool : {"ffmpeg", "ffprobe"}) {
    if (RunCommand(std::string(tool) + " -version").exit_code != 0) {
      std::fprintf(stderr, "error: %s is not available\n", tool);
      return 2;
    }
  }
  std::string pattern = (options.out_parent.empty() ? "/tmp" : options.out_parent) + "/soak-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::fprintf(stderr, "error: cannot make a work dir from %s\n", pattern.c_str());
    return 2;
  }
  const std::string work_dir = pattern;

  // The H.264 loop: 10 s, a key frame every 2 s, no B-frames.
  const std::string h264 = work_dir + "/loop.h264";
  const CommandResult made =
      RunCommand("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=" + std::to_string(kWidth) +
                 "x" + std::to_string(kHeight) + ":rate=" + std::to_string(kFps) +
                 " -t 10 -c:v libx264 -preset veryfast -bf 0 -g 60 -keyint_min 60 -sc_threshold 0 "
                 "-b:v 800k -f h264 " +
                 Quote(h264));
  Input input;
  std::ifstream in(h264, std::ios::binary);
  const std::vector<uint8_t> stream((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
  input.units = SplitAccessUnits(stream);
  if (made.exit_code != 0 || input.units.empty() || !input.units[0].key) {
    std::fprintf(stderr, "error: cannot make the H.264 loop with ffmpeg: %s\n",
                 made.output.c_str());
    return 2;
  }
  input.pcm = MakeMusicLoop();

  Rng rng(options.seed);
  const std::vector<RecordingPlan> plan =
      MakePlan(options, input.units.size(), input.audio_frames(), &rng);
  std::printf(
      "soak --minutes %d --seed %llu --recording %lld-%lld --max-base %lld: %zu recordings into "
      "%s\n\n",
      options.minutes, static_cast<unsigned long long>(options.seed),
      static_cast<long long>(options.min_recording_s),
      static_cast<long long>(options.max_recording_s), static_cast<long long>(options.max_base_ms),
      plan.size(), work_dir.c_str());
  std::fflush(stdout);

  LogCounter log;
  g_log = &log;
  tarn_logging::SetMinSeverity(tarn_logging::LS_WARNING);
  tarn_logging::SetStderrLoggingEnabled(false);
  tarn_logging::AddLogSink(&log);
  av_log_set_level(AV_LOG_WARNING);
  av_log_set_callback(OnAvLog);

  // ---- Recording.
  std::vector<Outcome> outcomes(plan.size());
  SoakClient client(&outcomes);
  tarn_base::scoped_refptr<LocalRecording> recorder = LocalRecording::Create(&client);
  if (!recorder) {
    std::fprintf(stderr, "error: cannot create the recorder\n");
    return 2;
  }
  // The peak while recording, from VmRSS every 200 ms (the kernel's VmHWM is only
  // brought up to date now and then).
  std::atomic<bool> sampling{true};
  std::atomic<int64_t> rss_peak{0};
  std::thread sampler([&] {
    while (sampling) {
      rss_peak = std::max<int64_t>(rss_peak, VmRssKiB());
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  const double cpu_begin = CpuSeconds(RUSAGE_SELF);
  const Clock::time_point wall_begin = Clock::now();
  bool hung = false;
  size_t done = 0;
  {
    Feeder feeder(recorder.get(), &client, input);
    for (; done < plan.size() && !hung; ++done) {
      Outcome& outcome = outcomes[done];
      char name[32];
      std::snprintf(name, sizeof(name), "/soak_%02zu.mp4", done + 1);
      outcome.path = work_dir + name;
      tarnel::recording::LocalRecordingInitialParams params;
      params.file_path = outcome.path;
      params.media_format = tarnel::media_stream_writer::kMp4;
      params.record_type = tarnel::recording::kAudioAndVideo;
      params.progress_interval_ms = kProgressIntervalMs;
      params.fill_muted_frame = true;
      params.stereo_audio = true;
      const Clock::time_point begin = Clock::now();
      client.Begin(done);
      recorder->Start(params);
      if (!client.WaitStarted()) {
        hung = true;
        AddProblem(&outcome, "no OnRecordingStarted");
        break;
      }
      if (outcome.start_result == tarnel::recording::kOk && !feeder.Feed(plan[done], &outcome) &&
          !client.completed()) {
        AddProblem(&outcome, "the recorder stopped writing");
      }
      recorder->Stop();
      if (!client.WaitCompleted()) {
        hung = true;
        AddProblem(&outcome, "no OnRecordingCompleted");
      }
      outcome.rss_kib = VmRssKiB();
      std::fprintf(stderr, "recording %zu/%zu: %.1f s of media, %s, %.1f s wall, RSS %.1f MiB\n",
                   done + 1, plan.size(), plan[done].length_ms / 1000.0,
                   InternalErrorToString(outcome.result).c_str(), Seconds(Clock::now() - begin),
                   Mib(outcome.rss_kib));
    }
  }
  recorder = nullptr;  // The last reference: ends the worker thread.
  const double wall = Seconds(Clock::now() - wall_begin);
  sampling = false;
  sampler.join();
  const double cpu = CpuSeconds(RUSAGE_SELF) - cpu_begin;

  // ---- Checking the files.
  const double children_begin = CpuSeconds(RUSAGE_CHILDREN);
  const Clock::time_point check_begin = Clock::now();
  for (size_t i = 0; i < done; ++i) CheckFile(plan[i], &outcomes[i]);
  const double check_wall = Seconds(Clock::now() - check_begin);
  const double check_cpu = CpuSeconds(RUSAGE_CHILDREN) - children_begin;
  av_log_set_callback(av_log_default_callback);
  tarn_logging::RemoveLogSink(&log);
  g_log = nullptr;

  // ---- Report.
  std::printf(
      "| # | media s | pauses A+V / A (stops) | jumps A+V / A / V | started / completed | result "
      "| expected s | reported s | file s | video exp / got s | audio exp / got / covered s | RSS "
      "MiB | problems |\n"
      "|---:|---:|---|---|---|---|---:|---:|---:|---|---|---:|---|\n");
  int callback_failures = 0, file_failures = 0;
  double media_s = 0, expected_total_s = 0, file_total_s = 0;
  int pauses_both = 0, pauses_audio = 0, jumps_both = 0, jumps_audio = 0, jumps_video = 0;
  int stops = 0;
  int64_t video_frames = 0, audio_frames = 0;
  for (size_t i = 0; i < done; ++i) {
    const Outcome& o = outcomes[i];
    const RecordingPlan& p = plan[i];
    const bool callbacks_ok = o.starts == 1 && o.completions == 1 &&
                              o.start_result == tarnel::recording::kOk &&
                              o.result == tarnel::recording::kOk;
    callback_failures += !callbacks_ok;
    file_failures += !o.problems.empty();
    media_s += p.length_ms / 1000.0;
    expected_total_s += ExpectedS(o);
    file_total_s += std::max(o.format_s, 0.0);
    pauses_both += Count(p, EventKind::kPauseBoth);
    pauses_audio += Count(p, EventKind::kPauseAudio);
    jumps_both += Count(p, EventKind::kJumpBoth);
    jumps_audio += Count(p, EventKind::kJumpAudio);
    jumps_video += Count(p, EventKind::kJumpVideo);
    stops += o.pause_stops;
    video_frames += o.video_frames;
    audio_frames += o.audio_frames;
    std::printf(
        "| %zu | %.1f | %d / %d (%d) | %d / %d / %d | %d / %d | %s | %.3f | %.3f | %.3f | %.3f / "
        "%.3f | %.3f / %.3f / %.3f | %.1f | %s |\n",
        i + 1, p.length_ms / 1000.0, Count(p, EventKind::kPauseBoth),
        Count(p, EventKind::kPauseAudio), o.pause_stops, Count(p, EventKind::kJumpBoth),
        Count(p, EventKind::kJumpAudio), Count(p, EventKind::kJumpVideo), o.starts, o.completions,
        InternalErrorToString(o.result).c_str(), ExpectedS(o), o.reported_ms / 1000.0, o.format_s,
        ExpectedVideoS(o), o.video_s, ExpectedAudioS(o), o.audio_s, o.covered_s, Mib(o.rss_kib),
        o.problems.empty() ? "-" : o.problems.c_str());
  }

  int64_t rss_max = 0;
  for (size_t i = 0; i < done; ++i) rss_max = std::max(rss_max, outcomes[i].rss_kib);
  const int64_t rss_first = done > 0 ? outcomes[0].rss_kib : 0;
  const int64_t rss_last = done > 0 ? outcomes[done - 1].rss_kib : 0;
  // The first recording sets up what every later one reuses (encoder tables, heap
  // arenas); growth is measured from the second.
  const size_t reference = done > 1 ? 1 : 0;
  const int64_t rss_reference = done > 0 ? outcomes[reference].rss_kib : 0;
  const int64_t growth = rss_last - rss_reference;

  const int stray = client.stray();
  const bool complete = done == plan.size() && !hung;
  const bool callbacks_pass = complete && callback_failures == 0 && stray == 0;
  const bool memory_pass = complete && growth <= kMaxRssGrowthKiB;
  const bool files_pass = complete && file_failures == 0;
  const bool log_pass = log.errors() == 0;

  std::printf("\n| | |\n|---|---|\n");
  std::printf("| seed | %llu |\n", static_cast<unsigned long long>(options.seed));
  std::printf("| recordings (reconnects) | %zu of %zu (%zu) |\n", done, plan.size(),
              done > 0 ? done - 1 : 0);
  std::printf("| media fed, source clock | %.1f min |\n", media_s / 60);
  std::printf("| frames handed over | %lld video, %lld audio |\n",
              static_cast<long long>(video_frames), static_cast<long long>(audio_frames));
  std::printf("| files, expected / ffprobe | %.1f / %.1f min |\n", expected_total_s / 60,
              file_total_s / 60);
  std::printf(
      "| events | pauses: %d of both streams (%d with the feeder silent), %d of audio only; "
      "clock jumps: %d of both, %d of audio, %d of video; %zu reconnects |\n",
      pauses_both, stops, pauses_audio, jumps_both, jumps_audio, jumps_video,
      done > 0 ? done - 1 : 0);
  std::printf("| recording wall | %.1f s (%.1fx real time) |\n", wall,
              media_s / std::max(wall, 1e-9));
  std::printf("| recording CPU (getrusage, this process) | %.1f s (%.0f%% of a core) |\n", cpu,
              100 * cpu / std::max(wall, 1e-9));
  std::printf("| checks: wall / ffprobe+ffmpeg CPU | %.1f s / %.1f s |\n", check_wall, check_cpu);
  std::printf(
      "| RSS after each recording: first / second / last / max | %.1f / %.1f / %.1f / "
      "%.1f MiB |\n",
      Mib(rss_first), Mib(rss_reference), Mib(rss_last), Mib(rss_max));
  std::printf("| peak RSS while recording (sampled every 200 ms) | %.1f MiB |\n",
              Mib(rss_peak.load()));
  std::printf("| recorder + libav log | %d errors, %d warnings |\n", log.errors(), log.warnings());
  for (const std::string& message : log.kept()) std::printf("\n    %s", message.c_str());
  if (!log.kept().empty()) std::printf("\n");

  std::printf(
      "\n- %s: every recording got one OnRecordingStarted(kOk) and one "
      "OnRecordingCompleted(kOk)%s\n",
      callbacks_pass ? "PASS" : "FAIL",
      stray > 0 ? (", but " + std::to_string(stray) + " callbacks came outside one").c_str() : "");
  std::printf(
      "- %s: memory flat: RSS after the last recording %+.1f MiB from after recording %zu "
      "(limit %+.1f)\n",
      memory_pass ? "PASS" : "FAIL", Mib(growth), reference + 1, Mib(kMaxRssGrowthKiB));
  std::printf(
      "- %s: every file probes, has the expected durations, decodes cleanly and has the "
      "reported size (%d of %zu with problems)\n",
      files_pass ? "PASS" : "FAIL", file_failures, done);
  std::printf("- %s: no error logged by the recorder or libav\n", log_pass ? "PASS" : "FAIL");
  const bool pass = callbacks_pass && memory_pass && files_pass && log_pass;
  std::printf("\n**Verdict: %s**\n", pass ? "PASS" : "FAIL");

  if (options.keep) {
    std::printf("\nfiles kept in %s\n", work_dir.c_str());
  } else {
    std::error_code error;
    std::filesystem::remove_all(work_dir, error);
  }
  return pass ? 0 : 1;
}
