// tarnel-record: feeds a live or recorded stream through LocalRecording, the way an
// application does, and reports what the recorder says.
//
// Threads: one demuxing thread per input fills a bounded queue per stream. With
// --realtime a video thread and an audio thread take the frames out and hand them over
// at their own timestamps; with --fast one thread hands them over in timestamp order as
// fast as the recorder keeps up (at most kFastLeadMs ahead of what it has written); with
// --burst that thread does not wait for the recorder at all, so the recorder's queue
// bound decides what is kept. The recorder calls the client on its own worker thread,
// which also prints the status line.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "sdk/base/logging.h"
#include "sdk/common/local_recording/local_recording.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"
#include "sdk/media_stream_writer/mp4/mp4_repair.h"
#include "tools/tarnel_record/media_source.h"
#include "tools/tarnel_record/options.h"
#include "tools/tarnel_record/status_line.h"

namespace tarnel_record {
namespace {

using Clock = std::chrono::steady_clock;
using tarnel::recording::InternalError;
using tarnel::recording::InternalErrorToString;
using tarnel::recording::LocalRecording;

// How far --fast may run ahead of what the recorder has written, in media time: bounds
// the memory the recorder's caches take.
constexpr int64_t kFastLeadMs = 10000;
constexpr size_t kQueueCapacity = 256;

std::atomic<bool> g_interrupted{false};

void OnSignal(int) { g_interrupted = true; }

// A bounded queue of frames of one stream, filled by a demuxing thread.
class FrameQueue {
 public:
  // Blocks while full. False when the queue was cancelled.
  bool Push(SourceFrame frame) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return frames_.size() < kQueueCapacity || cancelled_; });
    if (cancelled_) return false;
    frames_.push_back(std::move(frame));
    changed_.notify_all();
    return true;
  }
  // The source has no more frames.
  void Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }
  void Cancel() {
    std::lock_guard<std::mutex> lock(mutex_);
    cancelled_ = true;
    changed_.notify_all();
  }
  // Waits for a frame; returns its time, or false at the end.
  bool PeekTime(int64_t* time_ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !frames_.empty() || closed_ || cancelled_; });
    if (frames_.empty() || cancelled_) return false;
    *time_ms = frames_.front().time_ms;
    return true;
  }
  // Without waiting: whether a frame is there (and its time), and whether the queue can
  // still get one or is full.
  enum class State { kFrame, kWaiting, kFull, kEnded };
  State Peek(int64_t* time_ms) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (cancelled_ || (frames_.empty() && closed_)) return State::kEnded;
    if (frames_.empty()) return State::kWaiting;
    *time_ms = frames_.front().time_ms;
    return frames_.size() >= kQueueCapacity ? State::kFull : State::kFrame;
  }

  bool Pop(SourceFrame* frame) {
    int64_t unused;
    if (!PeekTime(&unused)) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    *frame = std::move(frames_.front());
    frames_.pop_front();
    changed_.notify_all();
    return true;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<SourceFrame> frames_;
  bool closed_ = false;
  bool cancelled_ = false;
};

int64_t TotalSize(const std::vector<std::string>& paths) {
  int64_t total = 0;
  for (const std::string& path : paths) {
    struct stat info;
    if (stat(path.c_str(), &info) == 0) total += info.st_size;
  }
  return total;
}

class ToolClient : public LocalRecording::Client {
 public:
  // On a terminal the status line is rewritten in place at every progress report;
  // piped, it is printed as one line per report when --progress-ms asks for them;
  // with --json there is none.
  explicit ToolClient(const Options& options) : options_(options) {
    show_progress_ = !options.json && (options.progress_ms_given || isatty(STDERR_FILENO));
    terminal_ = isatty(STDERR_FILENO);
  }

  void OnRecordingStarted(LocalRecording*, InternalError error) override {
    started_at_ = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    start_result_ = error;
    started_ = true;
    changed_.notify_all();
  }

  void OnRecordingProgress(LocalRecording* recorder, int64_t duration_ms) override {
    recorded_ms_ = duration_ms;
    if (!show_progress_) return;
    const auto now = Clock::now();
    if (now < next_print_) return;
    // A little under the period, so that timer jitter does not skip every other report.
    next_print_ = now + std::chrono::milliseconds(std::max(options_.progress_ms, 100) * 9 / 10);
    RecordingStatus status;
    status.media_ms = duration_ms;
    status.bytes = TotalSize(Files());
    status.wall_seconds = std::chrono::duration<double>(now - started_at_).count();
    const tarnel::recording::LocalRecordingQueueStats queue = recorder->GetQueueStats();
    status.dropped_frames = queue.dropped_video_frames + queue.dropped_audio_frames;
    // On a terminal the cursor is left at the start of the line, as ffmpeg does: the
    // next status line, or a log message, is written over it.
    std::fprintf(stderr, "%s%s", FormatStatusLine(status).c_str(), terminal_ ? "  \r" : "\n");
    std::fflush(stderr);
  }

  void OnRecordingSegment(LocalRecording*, const std::string& path) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      segments_.push_back(path);
    }
    if (!options_.json)
      std::fprintf(stderr, "%ssegment: %s\n", terminal_ ? "\r" : "", path.c_str());
  }

  void OnRecordingCompleted(LocalRecording*, InternalError error, int64_t duration_ms,
                            int64_t file_size) override {
    std::lock_guard<std::mutex> lock(mutex_);
    result_ = error;
    duration_ms_ = duration_ms;
    file_size_ = file_size;
    ended_ = true;
    changed_.notify_all();
  }

  // Ends a progress line that is still open on the terminal.
  void EndProgressLine() {
    if (show_progress_ && terminal_) std::fprintf(stderr, "\n");
  }

  InternalError WaitForStart() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return started_; });
    return start_result_;
  }
  void WaitForEnd() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return ended_; });
  }
  bool ended() {
    std::lock_guard<std::mutex> lock(mutex_);
    return ended_;
  }
  // The files written: the segments, or the one output.
  std::vector<std::string> Files() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!segments_.empty()) return segments_;
    return {options_.output};
  }

  int64_t recorded_ms() const { return recorded_ms_; }
  InternalError result() const { return result_; }
  int64_t duration_ms() const { return duration_ms_; }
  int64_t file_size() const { return file_size_; }

 private:
  const Options& options_;
  bool show_progress_ = false;
  bool terminal_ = false;
  // Worker thread only.
  Clock::time_point started_at_;
  Clock::time_point next_print_;
  std::atomic<int64_t> recorded_ms_{0};

  std::mutex mutex_;
  std::condition_variable changed_;
  bool started_ = false;
  InternalError start_result_ = tarnel::recording::kOk;
  bool ended_ = false;
  InternalError result_ = tarnel::recording::kOk;
  int64_t duration_ms_ = 0;
  int64_t file_size_ = 0;
  std::vector<std::string> segments_;
};

// Applies the fault-injection options. Returns false for a frame that is left out.
bool Inject(const Options& options, SourceFrame* frame) {
  if (frame->video) {
    if (options.jump_video && frame->time_ms >= options.jump_video->at_ms) {
      const auto delta = static_cast<uint64_t>(options.jump_video->delta_ms);
      frame->video->pts += delta;
      if (frame->video->dts != 0) frame->video->dts += delta;
    }
    if (options.resize_at_ms && frame->time_ms >= *options.resize_at_ms) {
      frame->video->width += 16;
    }
    return true;
  }
  if (options.drop_audio_ms && frame->time_ms >= options.drop_audio_ms->first &&
      frame->time_ms < options.drop_audio_ms->second) {
    return false;
  }
  if (options.jump_audio && frame->time_ms >= options.jump_audio->at_ms) {
    frame->audio->SetTimestampInMs(frame->audio->GetTimestampInMs() +
                                   static_cast<uint32_t>(options.jump_audio->delta_ms));
  }
  return true;
}

// Counts the packets of each kind in the files written.
void CountWritten(const std::vector<std::string>& files, int64_t* video, int64_t* audio) {
  *video = *audio = 0;
  tarnel::FfmpegPtr<AVPacket> packet(av_packet_alloc());
  if (!packet) return;
  for (const std::string& path : files) {
    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) continue;
    const tarnel::FfmpegInputPtr format(opened);
    if (avformat_find_stream_info(format.get(), nullptr) < 0) continue;
    while (av_read_frame(format.get(), packet.get()) >= 0) {
      const AVMediaType kind = format->streams[packet->stream_index]->codecpar->codec_type;
      if (kind == AVMEDIA_TYPE_VIDEO) ++*video;
      if (kind == AVMEDIA_TYPE_AUDIO) ++*audio;
      av_packet_unref(packet.get());
    }
  }
}

std::string JsonEscape(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

int Run(const Options& options) {
  tarnel::recording::LocalRecordingInitialParams params;
  std::string error;
  if (!ToRecordingParams(options, &params, &error)) {
    std::fprintf(stderr, "error: %s\n", error.c_str());
    return 1;
  }
  const bool want_video = params.record_type != tarnel::recording::kAudioOnly;
  const bool want_audio = params.record_type != tarnel::recording::kVideoOnly;

  std::vector<std::unique_ptr<MediaSource>> sources;
  for (size_t i = 0; i < options.inputs.size(); ++i) {
    SourceOptions source_options = options.inputs[i];
    source_options.audio_passthrough = options.audio_passthrough;
    // With two inputs the first gives the video and the second the audio.
    source_options.use_video = want_video && (options.inputs.size() == 1 || i == 0);
    source_options.use_audio = want_audio && (options.inputs.size() == 1 || i == 1);
    std::unique_ptr<MediaSource> source = MediaSource::Open(source_options, &error);
    if (!source ||
        !CheckInputOptionsApply(source_options, source->has_video(), source->has_audio(), &error)) {
      std::fprintf(stderr, "error: %s\n", error.c_str());
      return 1;
    }
    if (!options.json)
      std::fprintf(stderr, "input %s: %s\n", source_options.url.c_str(),
                   source->Describe().c_str());
    sources.push_back(std::move(source));
  }

  // AAC handed over as it is must already be in the recording's format: the recorder
  // converts sample rate and channel count only for PCM.
  if (options.audio_passthrough) {
    for (const auto& source : sources) {
      if (!source->has_audio()) continue;
      if (source->audio_sample_rate() != 48000 || source->audio_channels() > 2) {
        std::fprintf(stderr,
                     "error: --audio-passthrough needs 48000 Hz mono or stereo AAC; the input "
                     "has %d Hz, %d channels\n",
                     source->audio_sample_rate(), source->audio_channels());
        return 1;
      }
      params.stereo_audio = source->audio_channels() == 2;
    }
  }

  bool live = false;
  for (const auto& source : sources) live = live || source->is_live();
  const bool fast = options.pacing == Options::Pacing::kFast;
  const bool burst = options.pacing == Options::Pacing::kBurst;
  // --fast paces itself on the recorder's progress, which it needs often.
  if (fast) params.progress_interval_ms = std::min(std::max(options.progress_ms, 1), 100);

  tarnel::audio::AacEncoderKind aac_kind = tarnel::audio::AacEncoderKind::kBuiltIn;
  tarnel::audio::ParseAacEncoderKind(options.aac_encoder, &aac_kind);  // Checked when parsed.
  tarnel::audio::AudioEncoderFactory2::GetInstance()->SetAacEncoderKind(aac_kind);

  std::atomic<int64_t> video_in{0}, audio_in{0};
  ToolClient client(options);
  tarn_base::scoped_refptr<LocalRecording> recorder = LocalRecording::Create(&client);
  if (!recorder) {
    std::fprintf(stderr, "error: cannot create the recorder\n");
    return 2;
  }
  if (options.max_queue_mb) recorder->SetMaxQueueBytes(*options.max_queue_mb << 20);
  recorder->Start(params);
  const InternalError start_result = client.WaitForStart();
  if (start_result != tarnel::recording::kOk) {
    std::fprintf(stderr, "error: the recorder refused to start: %s (%s)\n",
                 InternalErrorToString(start_result).c_str(), options.output.c_str());
    return 2;
  }

  FrameQueue video_queue, audio_queue;
  std::vector<std::thread> threads;
  std::atomic<int> demuxers_left{static_cast<int>(sources.size())};
  std::mutex error_mutex;
  std::string read_error;
  for (auto& source : sources) {
    threads.emplace_back([&, source = source.get()] {
      SourceFrame frame;
      std::string source_error;
      while (source->Next(&frame, &source_error)) {
        FrameQueue& queue = frame.video ? video_queue : audio_queue;
        if (!queue.Push(std::move(frame))) break;
      }
      if (!source_error.empty()) {
        std::lock_guard<std::mutex> lock(error_mutex);
        read_error = source_error;
      }
      if (--demuxers_left == 0) {
        video_queue.Close();
        audio_queue.Close();
      }
    });
  }

  auto keep_going = [&] { return !g_interrupted && !client.ended(); };
  auto hand_over = [&](SourceFrame frame) {
    if (!Inject(options, &frame)) return;
    if (frame.video) {
      recorder->WriteVideoFrame(std::move(frame.video));
      ++video_in;
    } else {
      recorder->WriteAudioFrame(std::move(frame.audio));
      ++audio_in;
    }
  };

  const Clock::time_point begin = Clock::now();
  if (fast || burst) {
    // One thread, both streams merged by time; with --fast never far ahead of the
    // writer, with --burst as far ahead as the inputs can be read.
    threads.emplace_back([&] {
      while (keep_going()) {
        // Merge by time. A stream that has nothing yet is waited for, unless the other
        // one's queue is full: the demuxer is then blocked on it, and the missing stream
        // lies further on in the input (or has ended early).
        int64_t video_time = 0, audio_time = 0;
        const FrameQueue::State video = video_queue.Peek(&video_time);
        const FrameQueue::State audio = audio_queue.Peek(&audio_time);
        using State = FrameQueue::State;
        const bool has_video = video == State::kFrame || video == State::kFull;
        const bool has_audio = audio == State::kFrame || audio == State::kFull;
        if (!has_video && !has_audio && video == State::kEnded && audio == State::kEnded) break;
        const bool must_wait = (video == State::kWaiting && audio != State::kFull) ||
                               (audio == State::kWaiting && video != State::kFull);
        if (must_wait) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
          continue;
        }
        const bool take_video = has_video && (!has_audio || video_time <= audio_time);
        const int64_t time = take_video ? video_time : audio_time;
        while (!burst && keep_going() && time - client.recorded_ms() > kFastLeadMs) {
          std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        SourceFrame frame;
        if ((take_video ? video_queue : audio_queue).Pop(&frame)) hand_over(std::move(frame));
      }
    });
  } else {
    // One thread per stream, each handing frames over at their own time, as live
    // sources do. Live inputs arrive in real time already.
    for (FrameQueue* queue : {&video_queue, &audio_queue}) {
      threads.emplace_back([&, queue] {
        SourceFrame frame;
        while (keep_going() && queue->Pop(&frame)) {
          if (!live) {
            const auto due = begin + std::chrono::milliseconds(std::max<int64_t>(frame.time_ms, 0));
            while (keep_going() && Clock::now() < due) {
              std::this_thread::sleep_for(
                  std::min<Clock::duration>(due - Clock::now(), std::chrono::milliseconds(50)));
            }
            if (!keep_going()) break;
          }
          hand_over(std::move(frame));
        }
      });
    }
  }

  // Feeding threads end at the end of the input, on Ctrl-C, or when the recording ended.
  for (size_t i = sources.size(); i < threads.size(); ++i) threads[i].join();
  video_queue.Cancel();
  audio_queue.Cancel();
  for (size_t i = 0; i < sources.size(); ++i) threads[i].join();

  recorder->Stop();
  client.WaitForEnd();
  // The recording's counts stay until the next Start.
  const tarnel::recording::LocalRecordingQueueStats queue = recorder->GetQueueStats();
  recorder = nullptr;
  client.EndProgressLine();

  const std::vector<std::string> files = client.Files();
  int64_t video_written = 0, audio_written = 0;
  CountWritten(files, &video_written, &audio_written);
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const InternalError result = client.result();
  if (options.json) {
    std::printf(
        "{\"result\": \"%s\", \"code\": %d, \"duration_ms\": %lld, \"file_size\": %lld, "
        "\"files\": [",
        InternalErrorToString(result).c_str(), static_cast<int>(result),
        static_cast<long long>(client.duration_ms()), static_cast<long long>(client.file_size()));
    for (size_t i = 0; i < files.size(); ++i) {
      std::printf("%s\"%s\"", i ? ", " : "", JsonEscape(files[i]).c_str());
    }
    std::printf(
        "], \"video_frames_in\": %lld, \"audio_frames_in\": %lld, "
        "\"video_frames_written\": %lld, \"audio_frames_written\": %lld, "
        "\"dropped_video_frames\": %lld, \"dropped_audio_frames\": %lld, "
        "\"overload_episodes\": %lld, \"peak_queued_bytes\": %lld, "
        "\"wall_seconds\": %.3f, \"interrupted\": %s}\n",
        static_cast<long long>(video_in.load()), static_cast<long long>(audio_in.load()),
        static_cast<long long>(video_written), static_cast<long long>(audio_written),
        static_cast<long long>(queue.dropped_video_frames),
        static_cast<long long>(queue.dropped_audio_frames),
        static_cast<long long>(queue.overload_episodes),
        static_cast<long long>(queue.peak_queued_bytes), seconds, g_interrupted ? "true" : "false");
  } else {
    std::printf("result:   %s\n", InternalErrorToString(result).c_str());
    std::printf("duration: %.3f s\n", client.duration_ms() / 1000.0);
    std::printf("size:     %lld bytes (%s) in %zu file%s\n",
                static_cast<long long>(client.file_size()), HumanSize(client.file_size()).c_str(),
                files.size(), files.size() == 1 ? "" : "s");
    for (const std::string& file : files) std::printf("file:     %s\n", file.c_str());
    std::printf("video:    %lld frames handed over, %lld written\n",
                static_cast<long long>(video_in.load()), static_cast<long long>(video_written));
    std::printf("audio:    %lld frames handed over, %lld written\n",
                static_cast<long long>(audio_in.load()), static_cast<long long>(audio_written));
    std::printf("dropped:  %lld video frames, %lld audio frames, in %lld overload episode%s\n",
                static_cast<long long>(queue.dropped_video_frames),
                static_cast<long long>(queue.dropped_audio_frames),
                static_cast<long long>(queue.overload_episodes),
                queue.overload_episodes == 1 ? "" : "s");
    std::printf("queue:    peak %s held, of at most %s\n",
                HumanSize(queue.peak_queued_bytes).c_str(),
                HumanSize(queue.max_queue_bytes).c_str());
  }
  if (!read_error.empty())
    std::fprintf(stderr, "warning: input stopped early: %s\n", read_error.c_str());
  return result == tarnel::recording::kOk ? 0 : 2;
}

}  // namespace
}  // namespace tarnel_record

int main(int argc, char** argv) {
  tarnel_record::Options options;
  bool help = false;
  std::string error;
  if (!tarnel_record::ParseOptions(argc, argv, &options, &help, &error)) {
    std::fprintf(stderr, "error: %s\n", error.c_str());
    return 1;
  }
  if (help) {
    std::fputs(tarnel_record::HelpText().c_str(), stdout);
    return 0;
  }
  if (!options.repair.empty()) {
    std::string message;
    const auto result = tarnel::media_stream_writer::mp4::RepairMp4File(options.repair, &message);
    using tarnel::media_stream_writer::mp4::RepairResult;
    const bool ok = result == RepairResult::kRepaired || result == RepairResult::kAlreadyFinished;
    std::fprintf(ok ? stdout : stderr, "%s%s\n", ok ? "" : "error: ", message.c_str());
    return ok ? 0 : 2;
  }
  std::signal(SIGINT, tarnel_record::OnSignal);
  std::signal(SIGTERM, tarnel_record::OnSignal);
  av_log_set_level(AV_LOG_ERROR);
  // The recorder's information lines are for debugging; the tool shows its own.
  tarn_logging::SetMinSeverity(tarn_logging::LS_WARNING);
  return tarnel_record::Run(options);
}
