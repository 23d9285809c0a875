// Real recordings through the real writer, encoder and resampler, driven by the
// tarnel-record tool, checked with ffprobe and ffmpeg.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/base/file_path.h"
#include "sdk/base/file_util.h"
#include "tests/support/e2e_util.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel_e2e {
namespace {

const std::string kTool = TARNEL_RECORD_BIN;
const std::string kSample = TARNEL_SAMPLE;

class TarnelRecordTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(inputs_.CreateUniqueTempDir());
    // Two seconds of H.264 and of H.265 with 48 kHz stereo AAC, 320x240.
    for (const char* codec : {"libx264", "libx265"}) {
      const std::string out = Input(codec == std::string("libx264") ? "h264.mp4" : "h265.mp4");
      const CommandResult made = RunCommand(
          "ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i "
          "sine=frequency=660:sample_rate=48000 -t 2 -ac 2 -c:v " +
              std::string(codec) + " -preset ultrafast -bf 0 -g 25 " +
              (codec == std::string("libx265") ? "-x265-params log-level=error " : "") +
              "-pix_fmt yuv420p -c:a aac -b:a 96k " + Quote(out),
          true);
      ASSERT_EQ(made.exit_code, 0) << made.output;
    }
  }

  void SetUp() override { ASSERT_TRUE(dir_.CreateUniqueTempDir()); }

  static std::string Input(const std::string& name) {
    return inputs_.GetPath().Append(name).value();
  }
  std::string Output(const std::string& name) { return dir_.GetPath().Append(name).value(); }

  // Runs the tool with --json (and --fast unless `args` choose the pacing).
  CommandResult Record(const std::string& args) {
    const bool paced = args.find("--realtime") != std::string::npos;
    return RunCommand(kTool + " --json " + (paced ? "" : "--fast ") + args, false);
  }

  static void ExpectStreams(const std::string& path, const std::vector<std::string>& codecs) {
    const auto streams = ProbeStreams(path);
    ASSERT_EQ(streams.size(), codecs.size()) << path;
    for (size_t i = 0; i < codecs.size(); ++i) EXPECT_EQ(streams[i].at("codec_name"), codecs[i]);
    EXPECT_EQ(DecodeErrors(path), "") << path;
  }

  static tarnel_test::ScopedTempDir inputs_;
  tarnel_test::ScopedTempDir dir_;
};

tarnel_test::ScopedTempDir TarnelRecordTest::inputs_;

// The 16-bit samples of a WAV file's data chunk (FAAD2's output).
std::vector<int16_t> WavSamples(const std::string& path) {
  std::string bytes;
  std::vector<int16_t> samples;
  if (!tarn_base::ReadFileToString(tarn_base::FilePath(path), &bytes)) return samples;
  const size_t data = bytes.find("data", 12);
  if (data == std::string::npos || data + 8 > bytes.size()) return samples;
  samples.resize((bytes.size() - data - 8) / 2);
  std::memcpy(samples.data(), bytes.data() + data + 8, samples.size() * 2);
  return samples;
}

// The file's first audio stream, decoded by FFmpeg to interleaved 16-bit samples.
std::vector<int16_t> FfmpegSamples(const std::string& path) {
  const CommandResult decoded =
      RunCommand("ffmpeg -nostdin -v error -i " + Quote(path) + " -map 0:a:0 -f s16le -");
  std::vector<int16_t> samples(decoded.output.size() / 2);
  std::memcpy(samples.data(), decoded.output.data(), samples.size() * 2);
  return samples;
}

// The largest difference between `a` from frame `lag` on and `b`, over `frames`
// stereo frames (all of the overlap when 0).
int MaxDifference(const std::vector<int16_t>& a, const std::vector<int16_t>& b, long lag,
                  size_t frames) {
  const size_t a0 = static_cast<size_t>(std::max(0L, lag)) * 2;
  const size_t b0 = static_cast<size_t>(std::max(0L, -lag)) * 2;
  if (a0 >= a.size() || b0 >= b.size()) return 1 << 16;
  size_t n = std::min(a.size() - a0, b.size() - b0);
  if (frames > 0) n = std::min(n, frames * 2);
  int worst = 0;
  for (size_t i = 0; i < n; ++i) worst = std::max(worst, std::abs(a[a0 + i] - b[b0 + i]));
  return worst;
}

TEST_F(TarnelRecordTest, SampleIntoMp4IsCompleteAndInSync) {
  const std::string out = Output("out.mp4");
  const CommandResult run = Record("--stereo -i " + Quote(kSample) + " -o " + Quote(out));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  EXPECT_EQ(JsonField(run.output, "result"), "Ok");
  EXPECT_EQ(JsonField(run.output, "video_frames_in"), "300");
  EXPECT_EQ(JsonField(run.output, "video_frames_written"), "300");

  const auto streams = ProbeStreams(out);
  ASSERT_EQ(streams.size(), 2u);
  EXPECT_EQ(streams[0].at("codec_name"), "h264");
  EXPECT_EQ(streams[0].at("width"), "640");
  EXPECT_EQ(streams[0].at("nb_read_frames"), "300");
  EXPECT_EQ(streams[1].at("codec_name"), "aac");
  EXPECT_EQ(streams[1].at("sample_rate"), "48000");
  EXPECT_EQ(streams[1].at("channels"), "2");
  EXPECT_NEAR(ProbeDuration(out), 10.0, 0.05);
  EXPECT_EQ(DecodeErrors(out), "");

  // Every second the sample flashes white and beeps at the same instant.
  const std::vector<double> flashes = FindBrightFrames(out, 200);
  const std::vector<double> beeps = FindBursts(DecodeAudio(out, 48000), 48000, 0.3f, 0.5);
  ASSERT_EQ(flashes.size(), 10u);
  ASSERT_EQ(beeps.size(), 10u);
  for (size_t i = 0; i < flashes.size(); ++i) {
    EXPECT_NEAR(beeps[i], flashes[i], 0.010)
        << "second " << i << ": beep at " << beeps[i] << " s, flash at " << flashes[i] << " s";
  }
}

// A flash and a beep share a timestamp at the input every second; after decoding they
// are within a millisecond in the finished MP4, in one killed while recording (the
// fragmented file) and in Matroska, and the M4A's beeps fall where the source's do.
TEST_F(TarnelRecordTest, AudioAndVideoLineUpToTheMillisecondInEveryContainer) {
  const std::vector<double> source = FindBursts(DecodeAudio(kSample, 48000), 48000, 0.3f, 0.5);
  ASSERT_EQ(source.size(), 10u);
  const std::string killed = Output("killed.mp4");
  const CommandResult killed_run =
      RunCommand("timeout -s KILL 4.5 " + kTool + " --realtime --stereo -i " + Quote(kSample) +
                 " -o " + Quote(killed));
  ASSERT_NE(killed_run.exit_code, 0);
  for (const std::string name : {"finished.mp4", "killed.mp4", "sync.mkv", "sync.m4a"}) {
    SCOPED_TRACE(name);
    const std::string out = Output(name);
    if (name != "killed.mp4") {
      const CommandResult run = Record("--stereo -i " + Quote(kSample) + " -o " + Quote(out));
      ASSERT_EQ(run.exit_code, 0) << run.output;
    }
    EXPECT_EQ(DecodeErrors(out), "");
    const std::vector<double> beeps = FindBursts(DecodeAudio(out, 48000), 48000, 0.3f, 0.5);
    const std::vector<double> flashes = name == "sync.m4a" ? source : FindBrightFrames(out, 200);
    ASSERT_GE(beeps.size(), name == "killed.mp4" ? 3u : 10u);
    ASSERT_GE(flashes.size(), beeps.size());
    for (size_t i = 0; i < beeps.size(); ++i) {
      EXPECT_NEAR(beeps[i], flashes[i], 0.001) << "second " << i;
    }
  }
}

// A recording killed mid-way is fragmented; --repair turns it, in place, into the
// standard file a clean stop makes, in sync, with a torn last fragment cut off. A
// repair interrupted after writing its moov leaves a file that plays and that a second
// repair finishes. Files the repair cannot vouch for are left byte for byte.
TEST_F(TarnelRecordTest, RepairFinishesAKilledRecording) {
  const std::string killed = Output("killed.mp4");
  ASSERT_NE(RunCommand("timeout -s KILL 3.5 " + kTool + " --realtime --stereo -i " +
                       Quote(kSample) + " -o " + Quote(killed))
                .exit_code,
            0);
  ASSERT_EQ(TopLevelBoxes(killed).substr(0, 24), "ftyp free moov free moof");
  const int kept_frames = std::stoi(ProbeStreams(killed)[0].at("nb_read_frames"));
  // A torn fragment at the end, as a power cut leaves it.
  ASSERT_EQ(RunCommand("head -c 3000 " + Quote(kSample) + " >> " + Quote(killed)).exit_code, 0);

  const std::string repair = kTool + " --repair ";
  const CommandResult repaired = RunCommand(repair + Quote(killed), true);
  ASSERT_EQ(repaired.exit_code, 0) << repaired.output;
  EXPECT_NE(repaired.output.find("3000 bytes after the last one dropped"), std::string::npos)
      << repaired.output;
  EXPECT_EQ(TopLevelBoxes(killed), "ftyp free mdat moov");
  EXPECT_EQ(DecodeErrors(killed), "");
  const auto streams = ProbeStreams(killed);
  ASSERT_EQ(streams.size(), 2u);
  EXPECT_EQ(std::stoi(streams[0].at("nb_read_frames")), kept_frames);
  for (const auto& stream : streams) EXPECT_EQ(stream.at("start_time"), "0.000000");
  const std::vector<double> beeps = FindBursts(DecodeAudio(killed, 48000), 48000, 0.3f, 0.5);
  const std::vector<double> flashes = FindBrightFrames(killed, 200);
  ASSERT_GE(beeps.size(), 2u);
  for (size_t i = 0; i < beeps.size(); ++i) EXPECT_NEAR(beeps[i], flashes.at(i), 0.001) << i;
  std::string finished;
  ASSERT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(killed), &finished));
  EXPECT_EQ(RunCommand(repair + Quote(killed)).exit_code, 0);  // Already finished.

  // Interrupted between its two writes: the moov is there, the header not yet.
  const size_t slot = 36;  // After our ftyp.
  std::string interrupted = finished;
  interrupted.replace(slot, 16,
                      std::string("\0\0\0\x10"
                                  "freeTARNELv1",
                                  16));
  ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(killed), interrupted));
  EXPECT_EQ(DecodeErrors(killed), "");
  EXPECT_EQ(std::stoi(ProbeStreams(killed)[0].at("nb_read_frames")), kept_frames);
  EXPECT_EQ(RunCommand(repair + Quote(killed)).exit_code, 0);
  std::string again;
  ASSERT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(killed), &again));
  EXPECT_TRUE(again == finished);

  // Not ours: FFmpeg's own fragmented MP4, and a file that is no MP4 at all.
  const std::string foreign = Output("foreign.mp4");
  ASSERT_EQ(RunCommand("ffmpeg -nostdin -v error -i " + Quote(kSample) +
                       " -t 2 -c copy -movflags frag_keyframe+empty_moov " + Quote(foreign))
                .exit_code,
            0);
  for (const std::string& path : {foreign, std::string(kSample)}) {
    std::string before;
    ASSERT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(path), &before));
    const CommandResult refused = RunCommand(repair + Quote(path), true);
    if (path == foreign) {
      EXPECT_EQ(refused.exit_code, 2);
      EXPECT_NE(refused.output.find("not written by this recorder"), std::string::npos)
          << refused.output;
    }
    std::string after;
    ASSERT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(path), &after));
    EXPECT_TRUE(after == before);
  }
  const std::string text = Output("notes.mp4");
  ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(text), "not a movie at all"));
  EXPECT_EQ(RunCommand(repair + Quote(text)).exit_code, 2);
}

// Players other than FFmpeg: GStreamer's discoverer and headless Chromium (over HTTP,
// in a <video> element) open the finished MP4, know its duration and seek in it.
TEST_F(TarnelRecordTest, RealPlayersOpenAndSeekTheFinishedFiles) {
  const std::string mp4 = Output("play.mp4");
  const std::string m4a = Output("play.m4a");
  for (const std::string& out : {mp4, m4a}) {
    const CommandResult run = Record("--stereo -i " + Quote(kSample) + " -o " + Quote(out));
    ASSERT_EQ(run.exit_code, 0) << run.output;
    EXPECT_EQ(TopLevelBoxes(out), "ftyp free mdat moov");
  }
  if (RunCommand("command -v gst-discoverer-1.0").exit_code != 0) {
    GTEST_SKIP() << "gst-discoverer-1.0 is not installed (scripts/install-deps.sh)";
  }
  for (const std::string& out : {mp4, m4a}) {
    const std::string report = RunCommand("gst-discoverer-1.0 " + Quote(out), true).output;
    EXPECT_NE(report.find("Duration: 0:00:10.0"), std::string::npos) << report;
    EXPECT_NE(report.find("Seekable: yes"), std::string::npos) << report;
  }

  if (RunCommand("command -v chromium").exit_code != 0) {
    GTEST_SKIP() << "chromium is not installed (scripts/install-deps.sh)";
  }
  const std::string page = R"(<!doctype html><body><div id="result">pending</div>
<video id="v" muted preload="auto" src="play.mp4"></video><script>
const v = document.getElementById('v'), out = document.getElementById('result');
v.onerror = () => { out.textContent = 'error ' + v.error.code; };
v.onloadedmetadata = () => {
  const duration = v.duration;
  v.onseeked = () => { out.textContent = 'duration=' + duration + ' at=' + v.currentTime; };
  v.currentTime = duration / 2;
};
</script></body>)";
  ASSERT_TRUE(tarn_base::WriteFile(dir_.GetPath().Append("play.html"), page));
  // The server answers range requests: a browser only seeks in media served that way.
  const std::string server =
      tarn_base::FilePath(__FILE__).DirName().Append("range_http_server.py").value();
  const std::string port_file = Output("port");
  const std::string pid_file = Output("pid");
  ASSERT_EQ(RunCommand("python3 " + Quote(server) + " " + Quote(dir_.GetPath().value()) + " > " +
                       Quote(port_file) + " 2>/dev/null & echo $! > " + Quote(pid_file) +
                       "; for i in $(seq 50); do [ -s " + Quote(port_file) +
                       " ] && break; sleep 0.1; done")
                .exit_code,
            0);
  std::string port;
  std::string pid;
  tarn_base::ReadFileToString(tarn_base::FilePath(port_file), &port);
  tarn_base::ReadFileToString(tarn_base::FilePath(pid_file), &pid);
  ASSERT_FALSE(port.empty());
  const CommandResult dom = RunCommand(
      "timeout 60 chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
      "--disable-background-networking --disable-component-update --disable-sync "
      "--user-data-dir=" +
      Quote(Output("profile")) + " --virtual-time-budget=10000 --dump-dom http://127.0.0.1:" +
      port.substr(0, port.find('\n')) + "/play.html 2>/dev/null");
  RunCommand("kill " + pid);
  const size_t at = dom.output.find("duration=");
  ASSERT_NE(at, std::string::npos) << dom.output;
  double duration = 0;
  double position = 0;
  ASSERT_EQ(std::sscanf(dom.output.c_str() + at, "duration=%lf at=%lf", &duration, &position), 2);
  EXPECT_NEAR(duration, 10.0, 0.05);
  EXPECT_NEAR(position, duration / 2, 0.05);
}

// FAAD2's command-line decoder reads an MP4 by its first chunk offset and the sample
// sizes alone, frame after frame, so it decodes an M4A only when the audio lies in one
// run. A finished M4A and a killed one after --repair must decode in it without error
// and give FFmpeg's samples: FAAD2 drops the first frame (the encoder delay) where
// FFmpeg follows the edit list, so they agree at a lag found by search, to rounding.
TEST_F(TarnelRecordTest, Faad2DecodesTheM4aAsFfmpegDoes) {
  if (RunCommand("command -v faad").exit_code != 0) {
    GTEST_SKIP() << "faad is not installed (scripts/install-deps.sh)";
  }
  const std::string wav = Output("tones.wav");
  ASSERT_EQ(RunCommand("ffmpeg -nostdin -v error -f lavfi -i sine=frequency=440:duration=6 -f "
                       "lavfi -i sine=frequency=1250:duration=6 -filter_complex amerge -ar 48000 " +
                       Quote(wav))
                .exit_code,
            0);
  const std::string finished = Output("finished.m4a");
  const CommandResult run = Record("--stereo -i " + Quote(wav) + " -o " + Quote(finished));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  const std::string killed = Output("killed.m4a");
  ASSERT_NE(RunCommand("timeout -s KILL 3 " + kTool + " --realtime --stereo -i " + Quote(wav) +
                       " -o " + Quote(killed))
                .exit_code,
            0);
  EXPECT_EQ(DecodeErrors(killed), "") << "the killed file plays as it is";
  const CommandResult repaired = RunCommand(kTool + " --repair " + Quote(killed), true);
  ASSERT_EQ(repaired.exit_code, 0) << repaired.output;

  for (const std::string& m4a : {finished, killed}) {
    SCOPED_TRACE(m4a);
    EXPECT_EQ(TopLevelBoxes(m4a), "ftyp free mdat moov");
    const std::string out = m4a + ".faad.wav";
    const CommandResult faad = RunCommand("faad -q -o " + Quote(out) + " " + Quote(m4a), true);
    EXPECT_EQ(faad.output.find("Error"), std::string::npos) << faad.output;
    EXPECT_EQ(faad.output.find("Warning"), std::string::npos) << faad.output;
    EXPECT_EQ(faad.output.find("can't read frame"), std::string::npos) << faad.output;
    const std::vector<int16_t> faad_samples = WavSamples(out);
    const std::vector<int16_t> ffmpeg_samples = FfmpegSamples(m4a);
    ASSERT_GT(ffmpeg_samples.size(), 2u * 48000);
    // FAAD2 stops at the first frame it cannot read: all of the audio must be there.
    EXPECT_NEAR(static_cast<double>(faad_samples.size()),
                static_cast<double>(ffmpeg_samples.size()), 2 * 2048.0);
    long lag = 0;
    int best = 1 << 16;
    for (long candidate = -2048; candidate <= 2048; ++candidate) {
      const int difference = MaxDifference(faad_samples, ffmpeg_samples, candidate, 4800);
      if (difference < best) {
        best = difference;
        lag = candidate;
      }
    }
    EXPECT_LE(MaxDifference(faad_samples, ffmpeg_samples, lag, 0), 4) << "at lag " << lag;
  }
}

TEST_F(TarnelRecordTest, EveryFormatWithTheStreamsItCarries) {
  struct Case {
    std::string name, input, args;
    std::vector<std::string> codecs;
  } const kCases[] = {
      {"h264.mp4", "h264.mp4", "", {"h264", "aac"}},
      {"h265.mp4", "h265.mp4", "", {"hevc", "aac"}},
      {"h264.mkv", "h264.mp4", "", {"h264", "pcm_s16le"}},
      {"h265.mkv", "h265.mp4", "--audio-passthrough", {"hevc", "aac"}},
      {"video.mp4", "h264.mp4", "--type video", {"h264"}},
      {"audio.wav", "h264.mp4", "--stereo", {"pcm_s16le"}},
      {"audio.m4a", "h265.mp4", "", {"aac"}},
      {"audio.aac", "h264.mp4", "", {"aac"}},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const std::string out = Output(c.name);
    const CommandResult run = Record(c.args + " -i " + Quote(Input(c.input)) + " -o " + Quote(out));
    ASSERT_EQ(run.exit_code, 0) << run.output;
    ExpectStreams(out, c.codecs);
    EXPECT_EQ(JsonField(run.output, "video_frames_written"),
              c.codecs[0] == "h264" || c.codecs[0] == "hevc" ? "50" : "0");
    const auto streams = ProbeStreams(out);
    const auto& audio = streams.back();
    if (audio.count("sample_rate")) {
      EXPECT_EQ(audio.at("sample_rate"), "48000");
    }
    // ADTS has no index: ffprobe only estimates its duration, so count what decodes.
    const double duration =
        c.name == "audio.aac" ? DecodeAudio(out, 48000).size() / 48000.0 : ProbeDuration(out);
    EXPECT_NEAR(duration, 2.0, 0.08);
  }
}

// Raw H.264 and raw PCM carry no timing and no format of their own: each input gets
// its own -f, frame rate and PCM layout, given before its -i as in ffmpeg. A frame rate
// that reached the wrong input would leave the video at 25 fps, 3.6 s long.
TEST_F(TarnelRecordTest, EachInputTakesTheOptionsGivenBeforeIt) {
  const std::string video = Output("cam.h264");
  const std::string audio = Output("mic.pcm");
  ASSERT_EQ(RunCommand("ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=30 -t 3 "
                       "-c:v libx264 -preset ultrafast -bf 0 -g 30 -pix_fmt yuv420p -f h264 " +
                       Quote(video) +
                       " -f lavfi -i sine=frequency=440:sample_rate=48000 -t 3 -ac 2 -f s16le " +
                       Quote(audio))
                .exit_code,
            0);
  const std::string out = Output("call.mp4");
  const CommandResult run = Record("-f h264 --video-fps 30 -i " + Quote(video) +
                                   " -f s16le --pcm-rate 48000 --pcm-channels 2 -i " +
                                   Quote(audio) + " -o " + Quote(out));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  EXPECT_EQ(JsonField(run.output, "video_frames_written"), "90");
  ExpectStreams(out, {"h264", "aac"});
  // Read as mono or at another rate, the PCM would last twice as long or not as long.
  EXPECT_NEAR(ProbeDuration(out), 3.0, 0.05);
  EXPECT_NEAR(DecodeAudio(out, 48000).size() / 48000.0, 3.0, 0.05);
}

// --burst hands the whole sample over at once, into a recorder that may hold 1 MiB:
// whatever it dropped is reported, every video frame is either written or counted as
// dropped, and the file still decodes.
TEST_F(TarnelRecordTest, BurstIntoABoundedQueueReportsWhatWasDropped) {
  const std::string out = Output("burst.mp4");
  const CommandResult run = RunCommand(kTool + " --json --burst --max-queue-mb 1 -i " +
                                       Quote(kSample) + " -o " + Quote(out));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  for (const char* field :
       {"dropped_video_frames", "dropped_audio_frames", "overload_episodes", "peak_queued_bytes"}) {
    EXPECT_NE(JsonField(run.output, field), "") << field << " in " << run.output;
  }
  EXPECT_EQ(std::stoll(JsonField(run.output, "video_frames_written")) +
                std::stoll(JsonField(run.output, "dropped_video_frames")),
            300)
      << run.output;
  EXPECT_GT(std::stoll(JsonField(run.output, "peak_queued_bytes")), 0);
  ExpectStreams(out, {"h264", "aac"});
}

TEST_F(TarnelRecordTest, SegmentsArePlayableOnTheirOwnAndLoseNothing) {
  const std::string out = Output("seg.mp4");
  const CommandResult run = Record("--segment 3 -i " + Quote(kSample) + " -o " + Quote(out));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  int total_frames = 0;
  int segments = 0;
  for (int i = 1; i <= 10; ++i) {
    const std::string segment = Output("seg_" + std::to_string(i) + ".mp4");
    if (!tarn_base::PathExists(tarn_base::FilePath(segment))) break;
    ++segments;
    SCOPED_TRACE(segment);
    ExpectStreams(segment, {"h264", "aac"});
    total_frames += std::stoi(ProbeStreams(segment)[0].at("nb_read_frames"));
    const CommandResult first = RunCommand(
        "ffprobe -v error -select_streams v -read_intervals %+#1 -show_entries "
        "frame=key_frame,pts_time -of csv=p=0 " +
        Quote(segment));
    EXPECT_EQ(first.output.substr(0, 2), "1,") << "starts at a key frame";
    EXPECT_NEAR(std::atof(first.output.c_str() + 2), 0.0, 0.001) << "starts at 0";
  }
  EXPECT_GE(segments, 3);
  EXPECT_EQ(total_frames, 300);
  EXPECT_FALSE(tarn_base::PathExists(tarn_base::FilePath(out)));
}

TEST_F(TarnelRecordTest, SourcePauseIsFilledWithSilence) {
  const std::string out = Output("pause.mkv");
  const CommandResult run = Record("--realtime --fill-muted --drop-audio 500-1200 -i " +
                                   Quote(Input("h264.mp4")) + " -o " + Quote(out));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  ExpectStreams(out, {"h264", "pcm_s16le"});
  // The decoded track is as long as the recording: the pause became silence, not a
  // hole that players close up.
  const std::vector<float> audio = DecodeAudio(out, 48000);
  EXPECT_NEAR(audio.size() / 48000.0, 2.0, 0.12);
  int silent_ms = 0;
  for (size_t ms = 0; ms + 1 < audio.size() / 48; ++ms) {
    float peak = 0;
    for (size_t i = ms * 48; i < ms * 48 + 48; ++i) peak = std::max(peak, std::fabs(audio[i]));
    if (peak < 1e-3f) ++silent_ms;
  }
  EXPECT_GT(silent_ms, 500);
}

TEST_F(TarnelRecordTest, FastFeedingOfOneStreamDoesNotStall) {
  // More frames than a feeding queue holds, and no video at all: --fast must not wait
  // for the stream that never comes.
  const std::string wav = Output("long.wav");
  ASSERT_EQ(RunCommand("ffmpeg -nostdin -v error -f lavfi -i sine=d=15 " + Quote(wav)).exit_code,
            0);
  const CommandResult run = RunCommand("timeout 60 " + kTool + " --json --fast -i " + Quote(wav) +
                                       " -o " + Quote(Output("long.m4a")));
  ASSERT_EQ(run.exit_code, 0) << run.output;
  // All of it: the encoder is drained at stop, so even its last ~43 ms are in the file.
  EXPECT_NEAR(DecodeAudio(Output("long.m4a"), 48000).size() / 48000.0, 15.0, 0.025);
}

TEST_F(TarnelRecordTest, FullDiskEndsTheRecordingAndKeepsWhatWasWritten) {
  // A 300 KiB file-size limit with SIGXFSZ ignored: writes past it fail as on a full
  // disk. The recording must end with one completion, and the part before must play.
  const std::string out = Output("full.mp4");
  const CommandResult run =
      RunCommand("bash -c " + Quote("trap '' XFSZ; ulimit -f 300; exec " + kTool +
                                    " --json --fast -i " + Quote(kSample) + " -o " + Quote(out)));
  EXPECT_EQ(run.exit_code, 2) << run.output;
  EXPECT_EQ(JsonField(run.output, "result"), "StreamWriterFailed");
  const auto streams = ProbeStreams(out);
  ASSERT_EQ(streams.size(), 2u);
  EXPECT_GT(std::stoi(streams[0].at("nb_read_frames")), 30);
  EXPECT_EQ(DecodeErrors(out), "");
}

TEST_F(TarnelRecordTest, RefusalsEndWithTheirCodeAndLeaveNoFile) {
  const std::string existing = Output("exists.mp4");
  ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(existing), "x"));
  struct Case {
    std::string args, result;
    int exit_code;
    std::string leftover;
  } const kCases[] = {
      {"-i " + Quote(kSample) + " -o " + Quote(existing), "", 2, ""},
      {"-i " + Quote(kSample) + " -o " + Quote(Output("missing/out.mp4")), "", 2, ""},
      {"--resize-at 1000 -i " + Quote(Input("h264.mp4")) + " -o " + Quote(Output("r.mp4")),
       "ResolutionChanged", 2, ""},
      // Audio only in, audio and video wanted: the video never arrives.
      {"-f wav -i " + Quote(Output("tone.wav")) + " -o " + Quote(Output("none.mp4")),
       "NoStreamArrived", 2, Output("none.mp4")},
  };
  ASSERT_EQ(RunCommand("ffmpeg -nostdin -v error -f lavfi -i sine=d=1 " + Quote(Output("tone.wav")))
                .exit_code,
            0);
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.args);
    const CommandResult run = Record(c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << run.output;
    if (!c.result.empty()) {
      EXPECT_EQ(JsonField(run.output, "result"), c.result);
    }
    if (!c.leftover.empty()) {
      EXPECT_FALSE(tarn_base::PathExists(tarn_base::FilePath(c.leftover)));
    }
  }
  std::string kept;
  ASSERT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(existing), &kept));
  EXPECT_EQ(kept, "x");
}

}  // namespace
}  // namespace tarnel_e2e
