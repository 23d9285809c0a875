// End-to-end tests of the FFmpeg container writer: real H.264/H.265/AAC made by the
// ffmpeg CLI at run time go in, and the files that come out are checked with ffprobe
// and decoded with ffmpeg.
#include "sdk/media_stream_writer/ffmpeg/ffmpeg_stream_writer.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/media_stream_writer/ffmpeg/codec_config.h"
#include "sdk/media_stream_writer/video_parser.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel {
namespace extensions {
namespace local_recording {
namespace {

namespace fs = std::filesystem;
using media_stream_writer::MediaFormat;
using Bytes = std::vector<uint8_t>;

constexpr int kFps = 30;
constexpr int kAudioRate = 48000;

// ---------------------------------------------------------------------------------------
// Shell helpers.

std::string RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) output.append(buffer, n);
  pclose(pipe);
  return output;
}

std::string Quote(const std::string& path) { return "'" + path + "'"; }

Bytes ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// ffprobe's streams and format as "streams.stream.0.codec_name" -> "h264".
using ProbeResult = std::map<std::string, std::string>;

ProbeResult Probe(const std::string& path) {
  ProbeResult result;
  std::istringstream lines(
      RunCommand("ffprobe -v error -show_streams -show_format -count_frames "
                 "-count_packets -of flat " +
                 Quote(path)));
  std::string line;
  while (std::getline(lines, line)) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) {
      result["error"] += line;
      continue;
    }
    std::string value = line.substr(eq + 1);
    if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
    result[line.substr(0, eq)] = value;
  }
  return result;
}

// The "streams.stream.N." prefix of the first stream of `type`, or "".
std::string StreamKey(const ProbeResult& probe, const std::string& type) {
  for (int i = 0; i < 4; ++i) {
    const std::string prefix = "streams.stream." + std::to_string(i) + ".";
    auto it = probe.find(prefix + "codec_type");
    if (it != probe.end() && it->second == type) return prefix;
  }
  return "";
}

std::string Field(const ProbeResult& probe, const std::string& key) {
  auto it = probe.find(key);
  return it == probe.end() ? "" : it->second;
}

int IntField(const ProbeResult& probe, const std::string& key) {
  return std::atoi(Field(probe, key).c_str());
}

double DoubleField(const ProbeResult& probe, const std::string& key) {
  return std::atof(Field(probe, key).c_str());
}

// Everything ffmpeg complains about while decoding the whole file; empty when clean.
std::string DecodeErrors(const std::string& path, const std::string& output_options = "") {
  return RunCommand("ffmpeg -nostdin -v error -i " + Quote(path) + " " + output_options +
                    " -f null -");
}

struct ProbedPacket {
  int64_t pts;
  int64_t dts;
  bool key;
};

std::vector<ProbedPacket> Packets(const std::string& path, const std::string& selector) {
  std::vector<ProbedPacket> packets;
  std::istringstream lines(RunCommand("ffprobe -v error -select_streams " + selector +
                                      " -show_entries packet=pts,dts,flags -of csv=p=0 " +
                                      Quote(path)));
  std::string line;
  while (std::getline(lines, line)) {
    ProbedPacket packet{};
    char flags[16] = {};
    long long pts = 0;
    long long dts = 0;
    if (std::sscanf(line.c_str(), "%lld,%lld,%15s", &pts, &dts, flags) != 3) continue;
    packet.pts = pts;
    packet.dts = dts;
    packet.key = flags[0] == 'K';
    packets.push_back(packet);
  }
  return packets;
}

// ---------------------------------------------------------------------------------------
// Test media, made once per run.

struct VideoClip {
  int codec = video::kCodecH264;
  std::vector<Bytes> units;  // Annex-B access units.
  std::vector<bool> key;
  bool available() const { return !units.empty(); }
};

// Start-code positions (of the first zero) and NAL types of an Annex-B stream.
std::vector<std::pair<size_t, int>> ScanNals(const Bytes& data, bool hevc) {
  std::vector<std::pair<size_t, int>> nals;
  for (size_t i = 0; i + 3 < data.size(); ++i) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
      const size_t begin = (i > 0 && data[i - 1] == 0) ? i - 1 : i;
      const uint8_t header = data[i + 3];
      nals.emplace_back(begin, hevc ? (header >> 1) & 0x3f : header & 0x1f);
      i += 2;
    }
  }
  return nals;
}

// Splits a stream made with an access unit delimiter before every picture.
VideoClip SplitAtDelimiters(const Bytes& data, bool hevc) {
  VideoClip clip;
  clip.codec = hevc ? video::kCodecH265 : video::kCodecH264;
  const int aud = hevc ? 35 : 9;
  const auto nals = ScanNals(data, hevc);
  std::vector<size_t> starts;
  for (const auto& nal : nals) {
    if (nal.second == aud) starts.push_back(nal.first);
  }
  for (size_t i = 0; i < starts.size(); ++i) {
    const size_t end = i + 1 < starts.size() ? starts[i + 1] : data.size();
    clip.units.emplace_back(data.begin() + static_cast<std::ptrdiff_t>(starts[i]),
                            data.begin() + static_cast<std::ptrdiff_t>(end));
    bool key = false;
    for (const auto& nal : nals) {
      if (nal.first < starts[i] || nal.first >= end) continue;
      key = key || (hevc ? nal.second >= 16 && nal.second <= 21 : nal.second == 5);
    }
    clip.key.push_back(key);
  }
  return clip;
}

std::vector<Bytes> SplitAdts(const Bytes& data) {
  std::vector<Bytes> frames;
  size_t i = 0;
  while (i + 7 <= data.size() && data[i] == 0xff && (data[i + 1] & 0xf0) == 0xf0) {
    const size_t length =
        ((data[i + 3] & 0x03) << 11) | (data[i + 4] << 3) | ((data[i + 5] >> 5) & 0x07);
    if (length < 7 || i + length > data.size()) break;
    frames.emplace_back(data.begin() + static_cast<std::ptrdiff_t>(i),
                        data.begin() + static_cast<std::ptrdiff_t>(i + length));
    i += length;
  }
  return frames;
}

struct TestMedia {
  VideoClip h264;              // 4 s, 160x120, 30 fps, a key frame every 20 frames.
  VideoClip h265;              // Same, when an H.265 encoder is installed.
  std::vector<Bytes> aac;      // 48 kHz stereo ADTS frames, 4 s.
  std::vector<Bytes> impulse;  // 48 kHz mono ADTS frames: one click at sample 4800.
  std::string error;
};

const TestMedia& Media() {
  static TestMedia* media = [] {
    auto* made = new TestMedia;
    tarnel_test::ScopedTempDir dir;
    if (!dir.CreateUniqueTempDir()) {
      made->error = "no temp dir";
      return made;
    }
    const std::string base = dir.GetPath().value() + "/";
    const std::string video_in =
        "ffmpeg -nostdin -v error -y -f lavfi -i testsrc=size=160x120:rate=30 -t 4 "
        "-pix_fmt yuv420p ";
    std::string out = RunCommand(video_in +
                                 "-c:v libx264 -g 20 -bf 0 -bsf:v h264_metadata=aud=insert "
                                 "-f h264 " +
                                 Quote(base + "v.h264"));
    made->h264 = SplitAtDelimiters(ReadAll(base + "v.h264"), /*hevc=*/false);
    if (!made->h264.available()) made->error += "H.264: " + out;
    if (RunCommand("ffmpeg -hide_banner -encoders").find("libx265") != std::string::npos) {
      RunCommand(video_in +
                 "-c:v libx265 -x265-params keyint=20:min-keyint=20:bframes=0:log-level=error "
                 "-bsf:v hevc_metadata=aud=insert -f hevc " +
                 Quote(base + "v.hevc"));
      made->h265 = SplitAtDelimiters(ReadAll(base + "v.hevc"), /*hevc=*/true);
    }
    out = RunCommand(
        "ffmpeg -nostdin -v error -y -f lavfi -i sine=f=440:r=48000 -t 4 -ac 2 "
        "-c:a aac -f adts " +
        Quote(base + "a.aac"));
    made->aac = SplitAdts(ReadAll(base + "a.aac"));
    if (made->aac.empty()) made->error += "AAC: " + out;
    RunCommand(
        "ffmpeg -nostdin -v error -y -f lavfi -i "
        "\"aevalsrc='if(eq(n,4800),0.9,0)':s=48000:d=1\" -c:a aac -f adts " +
        Quote(base + "i.aac"));
    made->impulse = SplitAdts(ReadAll(base + "i.aac"));
    return made;
  }();
  return *media;
}

// ---------------------------------------------------------------------------------------
// Frames.

uint64_t VideoPtsMs(int index) {
  return static_cast<uint64_t>(std::llround(index * 1000.0 / kFps));
}

uint32_t AacTimestampMs(int index, int rate = kAudioRate) {
  return static_cast<uint32_t>(std::llround(index * 1024 * 1000.0 / rate));
}

std::unique_ptr<video::VideoFrame> MakeVideo(const VideoClip& clip, int index, uint64_t pts,
                                             uint64_t dts = 0) {
  auto frame = std::make_unique<video::VideoFrame>();
  const Bytes& unit = clip.units[static_cast<size_t>(index)];
  frame->data = CopyOnWriteBuffer(unit.data(), unit.size());
  frame->pts = pts;
  frame->dts = dts;
  frame->frame_type = clip.key[static_cast<size_t>(index)] ? video::kKeyFrame : video::kDeltaFrame;
  frame->codec_type = clip.codec;
  frame->width = 160;
  frame->height = 120;
  return frame;
}

std::unique_ptr<audio::AudioFrame> MakeAac(const Bytes& adts, bool keep_adts, uint32_t ts,
                                           int channels, int delay = 0) {
  auto frame = std::make_unique<audio::AudioFrame>();
  const size_t header = (adts[1] & 0x01) ? 7 : 9;
  if (keep_adts) {
    frame->SetData(adts.data(), adts.size());
  } else {
    frame->SetData(adts.data() + header, adts.size() - header);
  }
  frame->SetAudioFrameFormat(audio::kAac);
  frame->SetSampleRate(kAudioRate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(ts);
  frame->SetEncoderDelaySamples(delay);
  return frame;
}

// 10 ms of a 440 Hz tone at `ts`.
std::unique_ptr<audio::AudioFrame> MakePcm(uint32_t ts, int rate = kAudioRate, int channels = 2) {
  const int samples = rate / 100;
  std::vector<int16_t> pcm(static_cast<size_t>(samples * channels));
  for (int i = 0; i < samples; ++i) {
    const double t = (static_cast<double>(ts) * rate / 1000 + i) / rate;
    for (int c = 0; c < channels; ++c) {
      pcm[static_cast<size_t>(i * channels + c)] =
          static_cast<int16_t>(8000 * std::sin(2 * M_PI * 440 * t));
    }
  }
  auto frame = std::make_unique<audio::AudioFrame>();
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t));
  frame->SetSampleRate(rate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(ts);
  return frame;
}

// The metadata the recorder sends: parameter sets of the first key frame.
media_stream_writer::VideoMetadata MetadataFor(const VideoClip& clip) {
  media_stream_writer::VideoMetadata metadata;
  metadata.codec_type = clip.codec;
  metadata.width = 160;
  metadata.height = 120;
  std::unique_ptr<video::VideoParser> parser;
  if (clip.codec == video::kCodecH265) {
    parser = std::make_unique<video::VideoHEVCParser>();
  } else {
    parser = std::make_unique<video::VideoAVCParser>();
  }
  for (const auto& set : parser->ParseParameterSets(clip.units[0].data(), clip.units[0].size())) {
    if (set->type == video::kParameterSetVps) metadata.vps = set->data;
    if (set->type == video::kParameterSetSps) metadata.sps = set->data;
    if (set->type == video::kParameterSetPps) metadata.pps = set->data;
  }
  return metadata;
}

class RecordingClient : public LocalRecordingSegmentationWriter::Client {
 public:
  void OnRecordingSegment(const std::string& path) override { paths.push_back(path); }
  std::vector<std::string> paths;
};

enum class AudioKind { kNone, kAdts, kRawAac, kPcm };

struct Feed {
  const VideoClip* video = nullptr;
  int video_frames = 0;
  AudioKind audio = AudioKind::kNone;
  int audio_frames = 0;  // AAC frames, or 10 ms PCM frames.
  int encoder_delay = 0;
  const std::vector<Bytes>* aac = nullptr;  // Defaults to the stereo tone.
  int aac_channels = 2;
  int first_video = 0;  // Feed frames [first_video, video_frames) / [first_audio, ...).
  int first_audio = 0;
};

struct FeedResult {
  int video_ok = 0;
  int audio_ok = 0;
  int failed = 0;
};

// Writes the planned frames in timestamp order, video first on ties.
FeedResult Write(MediaStreamWriter* writer, const Feed& feed) {
  FeedResult result;
  const std::vector<Bytes>& aac = feed.aac ? *feed.aac : Media().aac;
  int v = feed.first_video;
  int a = feed.first_audio;
  auto audio_time = [&](int index) -> uint64_t {
    return feed.audio == AudioKind::kPcm ? static_cast<uint64_t>(index) * 10
                                         : AacTimestampMs(index);
  };
  while (v < feed.video_frames || a < feed.audio_frames) {
    const bool take_video =
        v < feed.video_frames && (a >= feed.audio_frames || VideoPtsMs(v) <= audio_time(a));
    if (take_video) {
      const int r = writer->WriteVideoPacket(MakeVideo(*feed.video, v, VideoPtsMs(v)));
      (r > 0 ? result.video_ok : result.failed)++;
      ++v;
      continue;
    }
    std::unique_ptr<audio::AudioFrame> frame;
    if (feed.audio == AudioKind::kPcm) {
      frame = MakePcm(static_cast<uint32_t>(audio_time(a)));
    } else {
      frame = MakeAac(aac[static_cast<size_t>(a)], feed.audio == AudioKind::kAdts,
                      static_cast<uint32_t>(audio_time(a)), feed.aac_channels, feed.encoder_delay);
    }
    const int r = writer->WriteAudioPacket(std::move(frame));
    (r > 0 ? result.audio_ok : result.failed)++;
    ++a;
  }
  return result;
}

class FfmpegStreamWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Media().error.empty()) << Media().error;
    ASSERT_TRUE(dir_.CreateUniqueTempDir());
  }

  std::string PathOf(const std::string& name) const { return dir_.GetPath().value() + "/" + name; }

  std::vector<std::string> FilesInDir() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_.GetPath().value())) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  tarnel_test::ScopedTempDir dir_;
  RecordingClient client_;
};

// ---------------------------------------------------------------------------------------
// Refusals.

TEST_F(FfmpegStreamWriterTest, StartRefusesFormatsAndRecordTypesItCannotWrite) {
  struct Case {
    uint32_t format;
    LocalRecordingType type;
    const char* log;
  };
  const Case cases[] = {
      {0, kAudioAndVideo, "unsupported media format 0"},
      {9, kAudioOnly, "unsupported media format 9"},
      {media_stream_writer::kWav, kVideoOnly, "WAV cannot carry video"},
      {media_stream_writer::kWav, kAudioAndVideo, "WAV cannot carry video"},
      {media_stream_writer::kM4a, kAudioAndVideo, "M4A cannot carry video"},
      {media_stream_writer::kAac, kVideoOnly, "AAC (ADTS) cannot carry video"},
      {media_stream_writer::kMp4, static_cast<LocalRecordingType>(7), "unknown record type 7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log);
    tarnel_test::ScopedLogCapture logs;
    FfmpegStreamWriter writer(&client_);
    EXPECT_EQ(writer.Start(PathOf("out.bin"), static_cast<MediaFormat>(c.format), c.type, 0), -1);
    EXPECT_TRUE(logs.Contains(c.log));
    EXPECT_LE(writer.WriteAudioPacket(MakePcm(0)), 0);
    EXPECT_EQ(writer.Stop(), 0);
  }
  // An unwritable path fails at Start, not at the first packet.
  FfmpegStreamWriter writer(&client_);
  EXPECT_EQ(writer.Start(PathOf("missing/out.mp4"), media_stream_writer::kMp4, kVideoOnly, 0), -1);
  EXPECT_EQ(writer.Stop(), 0);
  // A video codec other than H.264/H.265 in the metadata is refused at Start.
  media_stream_writer::VideoMetadata vp8;
  vp8.codec_type = 5;
  FfmpegStreamWriter other(&client_);
  other.SetVideoMetaData(vp8);
  EXPECT_EQ(other.Start(PathOf("out.mkv"), media_stream_writer::kMkv, kVideoOnly, 0), -1);

  EXPECT_TRUE(FilesInDir().empty());
  EXPECT_TRUE(client_.paths.empty());
}

TEST_F(FfmpegStreamWriterTest, FirstAudioPacketOfTheWrongCodecFails) {
  struct Case {
    MediaFormat format;
    bool pcm;
    const char* log;
  };
  const Case cases[] = {
      {media_stream_writer::kMp4, true, "MP4 cannot carry PCM audio"},
      {media_stream_writer::kM4a, true, "M4A cannot carry PCM audio"},
      {media_stream_writer::kAac, true, "AAC (ADTS) cannot carry PCM audio"},
      {media_stream_writer::kWav, false, "WAV cannot carry AAC audio"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.log);
    tarnel_test::ScopedLogCapture logs;
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(PathOf("wrong.out"), c.format, kAudioOnly, 0), 0);
    auto frame = c.pcm ? MakePcm(0) : MakeAac(Media().aac[0], true, 0, 2);
    EXPECT_LE(writer.WriteAudioPacket(std::move(frame)), 0);
    EXPECT_TRUE(logs.Contains(c.log));
    // Nothing usable arrived: the empty file Start created goes away.
    EXPECT_EQ(writer.Stop(), 0);
    EXPECT_FALSE(fs::exists(PathOf("wrong.out")));
  }
}

TEST_F(FfmpegStreamWriterTest, StopWithoutPacketsLeavesNothingBehind) {
  FfmpegStreamWriter writer(&client_);
  ASSERT_EQ(writer.Start(PathOf("empty.mp4"), media_stream_writer::kMp4, kAudioAndVideo, 0), 0);
  // The file exists from Start on and the client heard of it.
  EXPECT_TRUE(fs::exists(PathOf("empty.mp4")));
  EXPECT_EQ(client_.paths, std::vector<std::string>{PathOf("empty.mp4")});
  EXPECT_EQ(writer.Stop(), 0);
  EXPECT_TRUE(FilesInDir().empty());
  EXPECT_LE(writer.WriteAudioPacket(MakeAac(Media().aac[0], true, 0, 2)), 0);
  EXPECT_EQ(writer.Stop(), 0);
}

// ---------------------------------------------------------------------------------------
// What goes in comes out.

TEST_F(FfmpegStreamWriterTest, WritesEveryVideoContainerAndCodec) {
  constexpr int kFrames = 60;
  constexpr int kAacFrames = 94;  // 2.005 s
  struct Case {
    MediaFormat format;
    const VideoClip* clip;
    LocalRecordingType type;
    AudioKind audio;
    bool metadata;
    const char* video_codec;
    const char* audio_codec;
  };
  const VideoClip& h264 = Media().h264;
  const VideoClip& h265 = Media().h265;
  const Case cases[] = {
      {media_stream_writer::kMp4, &h264, kAudioAndVideo, AudioKind::kAdts, true, "h264", "aac"},
      {media_stream_writer::kMp4, &h264, kVideoOnly, AudioKind::kNone, false, "h264", ""},
      {media_stream_writer::kMp4, &h265, kAudioAndVideo, AudioKind::kRawAac, true, "hevc", "aac"},
      {media_stream_writer::kMkv, &h264, kAudioAndVideo, AudioKind::kPcm, false, "h264",
       "pcm_s16le"},
      {media_stream_writer::kMkv, &h265, kAudioAndVideo, AudioKind::kAdts, false, "hevc", "aac"},
      {media_stream_writer::kMkv, &h265, kVideoOnly, AudioKind::kNone, true, "hevc", ""},
  };
  int index = 0;
  for (const Case& c : cases) {
    const std::string name =
        "av" + std::to_string(index++) + (c.format == media_stream_writer::kMp4 ? ".mp4" : ".mkv");
    SCOPED_TRACE(name + " " + c.video_codec + " " + c.audio_codec);
    if (!c.clip->available()) {
      ADD_FAILURE() << "no H.265 encoder in this ffmpeg; H.265 not covered";
      continue;
    }
    FfmpegStreamWriter writer(nullptr);
    if (c.metadata) writer.SetVideoMetaData(MetadataFor(*c.clip));
    audio::AudioMetadata audio_metadata;
    audio_metadata.sample_rate = kAudioRate;
    audio_metadata.channels = 2;
    writer.SetAudioMetaData(audio_metadata);
    ASSERT_EQ(writer.Start(PathOf(name), c.format, c.type, 0), 0);
    Feed feed;
    feed.video = c.clip;
    feed.video_frames = kFrames;
    feed.audio = c.audio;
    feed.audio_frames = c.audio == AudioKind::kPcm    ? 200
                        : c.audio == AudioKind::kNone ? 0
                                                      : kAacFrames;
    const FeedResult fed = Write(&writer, feed);
    EXPECT_EQ(fed.failed, 0);
    const int64_t size = writer.Stop();
    EXPECT_EQ(size, static_cast<int64_t>(fs::file_size(PathOf(name))));

    const ProbeResult probe = Probe(PathOf(name));
    EXPECT_EQ(Field(probe, "error"), "");
    const bool has_audio = c.audio != AudioKind::kNone;
    EXPECT_EQ(IntField(probe, "format.nb_streams"), has_audio ? 2 : 1);
    const std::string v = StreamKey(probe, "video");
    ASSERT_NE(v, "");
    EXPECT_EQ(Field(probe, v + "codec_name"), c.video_codec);
    EXPECT_EQ(IntField(probe, v + "width"), 160);
    EXPECT_EQ(IntField(probe, v + "height"), 120);
    EXPECT_EQ(IntField(probe, v + "nb_read_frames"), kFrames);
    if (has_audio) {
      const std::string a = StreamKey(probe, "audio");
      ASSERT_NE(a, "");
      EXPECT_EQ(Field(probe, a + "codec_name"), c.audio_codec);
      EXPECT_EQ(IntField(probe, a + "sample_rate"), kAudioRate);
      EXPECT_EQ(IntField(probe, a + "channels"), 2);
      EXPECT_EQ(IntField(probe, a + "nb_read_packets"), feed.audio_frames);
    }
    // 60 frames at 30 fps, audio to 2.005 s: two seconds give or take a frame.
    EXPECT_NEAR(DoubleField(probe, "format.duration"), 2.0, 1.0 / kFps + 0.001);
    EXPECT_EQ(DecodeErrors(PathOf(name)), "");
  }
}

TEST_F(FfmpegStreamWriterTest, WritesEveryAudioContainer) {
  constexpr int kAacFrames = 94;
  struct Case {
    MediaFormat format;
    const char* name;
    AudioKind audio;
    const char* codec;
    const char* format_name;
  };
  const Case cases[] = {
      {media_stream_writer::kMp4, "a.mp4", AudioKind::kAdts, "aac", "mov,mp4,m4a,3gp,3g2,mj2"},
      {media_stream_writer::kM4a, "a.m4a", AudioKind::kRawAac, "aac", "mov,mp4,m4a,3gp,3g2,mj2"},
      {media_stream_writer::kM4a, "b.m4a", AudioKind::kAdts, "aac", "mov,mp4,m4a,3gp,3g2,mj2"},
      {media_stream_writer::kAac, "a.aac", AudioKind::kAdts, "aac", "aac"},
      {media_stream_writer::kAac, "b.aac", AudioKind::kRawAac, "aac", "aac"},
      {media_stream_writer::kMkv, "a.mkv", AudioKind::kRawAac, "aac", "matroska,webm"},
      {media_stream_writer::kMkv, "b.mkv", AudioKind::kPcm, "pcm_s16le", "matroska,webm"},
      {media_stream_writer::kWav, "a.wav", AudioKind::kPcm, "pcm_s16le", "wav"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(PathOf(c.name), c.format, kAudioOnly, 0), 0);
    Feed feed;
    feed.audio = c.audio;
    feed.audio_frames = c.audio == AudioKind::kPcm ? 200 : kAacFrames;
    const FeedResult fed = Write(&writer, feed);
    EXPECT_EQ(fed.failed, 0);
    const int64_t size = writer.Stop();
    EXPECT_EQ(size, static_cast<int64_t>(fs::file_size(PathOf(c.name))));

    const ProbeResult probe = Probe(PathOf(c.name));
    EXPECT_EQ(Field(probe, "format.format_name"), c.format_name);
    EXPECT_EQ(IntField(probe, "format.nb_streams"), 1);
    const std::string a = StreamKey(probe, "audio");
    ASSERT_NE(a, "");
    EXPECT_EQ(Field(probe, a + "codec_name"), c.codec);
    EXPECT_EQ(IntField(probe, a + "sample_rate"), kAudioRate);
    EXPECT_EQ(IntField(probe, a + "channels"), 2);
    if (c.audio == AudioKind::kPcm) {
      EXPECT_NEAR(DoubleField(probe, "format.duration"), 2.0, 0.001);
    } else {
      EXPECT_EQ(IntField(probe, a + "nb_read_packets"), kAacFrames);
      if (c.format != media_stream_writer::kAac) {  // ADTS has no index to tell duration.
        EXPECT_NEAR(DoubleField(probe, "format.duration"), kAacFrames * 1024.0 / kAudioRate, 0.001);
      }
    }
    EXPECT_EQ(DecodeErrors(PathOf(c.name)), "");
  }
}

// The AAC encoder's output begins D samples before its stamp. The file drops the
// priming packets and places the rest D samples early, so the decoded audio at time 0
// is the first input sample, aligned with the video's first picture, in any player.
TEST_F(FfmpegStreamWriterTest, EncoderDelayIsRemovedToTheSample) {
  const std::vector<Bytes>& impulse = Media().impulse;
  ASSERT_GE(impulse.size(), 40u);
  FfmpegStreamWriter writer(nullptr);
  writer.SetVideoMetaData(MetadataFor(Media().h264));
  ASSERT_EQ(writer.Start(PathOf("delay.mp4"), media_stream_writer::kMp4, kAudioAndVideo, 0), 0);
  Feed feed;
  feed.video = &Media().h264;
  feed.video_frames = 30;
  feed.audio = AudioKind::kAdts;
  feed.aac = &impulse;
  feed.aac_channels = 1;
  feed.audio_frames = static_cast<int>(impulse.size());
  // ffmpeg's AAC encoder primes with 1024 samples, and its ADTS output starts with them.
  feed.encoder_delay = 1024;
  EXPECT_EQ(Write(&writer, feed).failed, 0);
  ASSERT_GT(writer.Stop(), 0);

  const std::vector<ProbedPacket> audio = Packets(PathOf("delay.mp4"), "a:0");
  ASSERT_EQ(audio.size(), impulse.size() - 1) << "the priming packet is dropped";
  EXPECT_EQ(audio[0].pts, 0);
  const std::vector<ProbedPacket> video = Packets(PathOf("delay.mp4"), "v:0");
  ASSERT_FALSE(video.empty());
  EXPECT_EQ(video[0].pts, 0);

  // Decoded from its first sample, without regard to timestamps: the click must sit at
  // sample 4800 as in the source; left in, the priming would put it 1024 samples late.
  const std::string raw = PathOf("delay.raw");
  EXPECT_EQ(RunCommand("ffmpeg -nostdin -v error -i " + Quote(PathOf("delay.mp4")) +
                       " -map 0:a -f s16le -ac 1 " + Quote(raw)),
            "");
  const Bytes bytes = ReadAll(raw);
  ASSERT_GT(bytes.size(), 2u * 6000);
  size_t peak = 0;
  int peak_value = 0;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const int value = std::abs(static_cast<int16_t>(bytes[i] | (bytes[i + 1] << 8)));
    if (value > peak_value) {
      peak_value = value;
      peak = i / 2;
    }
  }
  EXPECT_GT(peak_value, 10000);
  EXPECT_NEAR(static_cast<double>(peak), 4800.0, 2.0);
  EXPECT_EQ(DecodeErrors(PathOf("delay.mp4")), "");
}

TEST_F(FfmpegStreamWriterTest, StreamsTheRecordTypeExcludesAreDiscarded) {
  {
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(PathOf("v.mp4"), media_stream_writer::kMp4, kVideoOnly, 0), 0);
    Feed feed;
    feed.video = &Media().h264;
    feed.video_frames = 30;
    feed.audio = AudioKind::kAdts;
    feed.audio_frames = 47;
    const FeedResult fed = Write(&writer, feed);
    EXPECT_EQ(fed.failed, 0);
    EXPECT_EQ(fed.audio_ok, 47);
    EXPECT_GT(writer.Stop(), 0);
    const ProbeResult probe = Probe(PathOf("v.mp4"));
    EXPECT_EQ(IntField(probe, "format.nb_streams"), 1);
    EXPECT_EQ(IntField(probe, StreamKey(probe, "video") + "nb_read_frames"), 30);
  }
  {
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(PathOf("a.mkv"), media_stream_writer::kMkv, kAudioOnly, 0), 0);
    Feed feed;
    feed.video = &Media().h264;
    feed.video_frames = 30;
    feed.audio = AudioKind::kPcm;
    feed.audio_frames = 100;
    const FeedResult fed = Write(&writer, feed);
    EXPECT_EQ(fed.failed, 0);
    EXPECT_EQ(fed.video_ok, 30);
    EXPECT_GT(writer.Stop(), 0);
    const ProbeResult probe = Probe(PathOf("a.mkv"));
    EXPECT_EQ(IntField(probe, "format.nb_streams"), 1);
    EXPECT_EQ(StreamKey(probe, "video"), "");
  }
}

TEST_F(FfmpegStreamWriterTest, NonIncreasingVideoDtsIsRepairedOnce) {
  for (MediaFormat format : {media_stream_writer::kMp4, media_stream_writer::kMkv}) {
    const std::string name = format == media_stream_writer::kMp4 ? "dts.mp4" : "dts.mkv";
    SCOPED_TRACE(name);
    tarnel_test::ScopedLogCapture logs;
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(PathOf(name), format, kVideoOnly, 0), 0);
    const VideoClip& clip = Media().h264;
    constexpr int kFrames = 30;
    for (int i = 0; i < kFrames; ++i) {
      uint64_t pts = VideoPtsMs(i);
      uint64_t dts = 0;
      if (i == 10) pts = VideoPtsMs(9);   // Same time as the frame before.
      if (i == 20) dts = VideoPtsMs(18);  // Goes back.
      EXPECT_GT(writer.WriteVideoPacket(MakeVideo(clip, i, pts, dts)), 0) << i;
    }
    EXPECT_GT(writer.Stop(), 0);
    int repairs = 0;
    for (const std::string& message : logs.MessagesAtLeast(tarn_logging::LS_WARNING)) {
      if (message.find("does not increase") != std::string::npos) ++repairs;
    }
    EXPECT_EQ(repairs, 1);
    const std::vector<ProbedPacket> packets = Packets(PathOf(name), "v:0");
    ASSERT_EQ(packets.size(), static_cast<size_t>(kFrames));
    for (size_t i = 1; i < packets.size(); ++i) {
      EXPECT_GT(packets[i].dts, packets[i - 1].dts) << i;
      EXPECT_GE(packets[i].pts, packets[i].dts) << i;
    }
    // Two pictures 1 ms (MKV) or 1/90000 s (MP4) apart fall into one slot of the CLI's
    // default 1/30 s encoder time base, which it reports as an error of its own; keep
    // the decoded frames' time base instead.
    EXPECT_EQ(DecodeErrors(PathOf(name), "-enc_time_base -1"), "");
  }
}

TEST_F(FfmpegStreamWriterTest, MissingStreamIsGivenUpAfterTheHoldLimit) {
  tarnel_test::ScopedLogCapture logs;
  FfmpegStreamWriter writer(nullptr);
  ASSERT_EQ(writer.Start(PathOf("noaudio.mp4"), media_stream_writer::kMp4, kAudioAndVideo, 0), 0);
  Feed feed;
  feed.video = &Media().h264;
  feed.video_frames = 90;  // 3 s: more than the writer holds while waiting for audio.
  EXPECT_EQ(Write(&writer, feed).failed, 0);
  EXPECT_TRUE(logs.Contains("without audio"));
  // Audio that comes after the file started without it cannot be added.
  EXPECT_LE(writer.WriteAudioPacket(MakeAac(Media().aac[0], true, 3000, 2)), 0);
  EXPECT_GT(writer.Stop(), 0);
  const ProbeResult probe = Probe(PathOf("noaudio.mp4"));
  EXPECT_EQ(IntField(probe, "format.nb_streams"), 1);
  // The held frames were written, none lost.
  EXPECT_EQ(IntField(probe, StreamKey(probe, "video") + "nb_read_frames"), 90);
  EXPECT_EQ(DecodeErrors(PathOf("noaudio.mp4")), "");
}

// AAC stamps are whole ms; the packets must still follow each other sample for sample,
// through jitter, and a real gap must stay a gap.
TEST_F(FfmpegStreamWriterTest, AacPacketsAreSampleExactThroughJitterAndGaps) {
  FfmpegStreamWriter writer(nullptr);
  ASSERT_EQ(writer.Start(PathOf("timing.m4a"), media_stream_writer::kM4a, kAudioOnly, 0), 0);
  constexpr int kFrames = 120;
  constexpr int kGapStart = 50;
  constexpr int kGapFrames = 25;  // 533 ms missing.
  std::vector<int64_t> expected;
  for (int k = 0; k < kFrames; ++k) {
    if (k >= kGapStart && k < kGapStart + kGapFrames) continue;
    // Up to 4 ms late, as a capture clock might stamp it.
    const uint32_t ts = AacTimestampMs(k) + static_cast<uint32_t>(k % 5);
    ASSERT_GT(writer.WriteAudioPacket(MakeAac(Media().aac[static_cast<size_t>(k)], true, ts, 2)),
              0);
    // Where the frame belongs: continuing the previous one, or, after the gap, where
    // its stamp says.
    expected.push_back(k == kGapStart + kGapFrames ? std::llround(ts * 48.0)
                       : expected.empty()          ? 0
                                                   : expected.back() + 1024);
  }
  EXPECT_GT(writer.Stop(), 0);
  const std::vector<ProbedPacket> packets = Packets(PathOf("timing.m4a"), "a:0");
  ASSERT_EQ(packets.size(), expected.size());
  for (size_t i = 0; i < packets.size(); ++i) EXPECT_EQ(packets[i].pts, expected[i]) << i;
}

TEST_F(FfmpegStreamWriterTest, FramesBeforeTheFirstKeyFrameAreDropped) {
  tarnel_test::ScopedLogCapture logs;
  FfmpegStreamWriter writer(nullptr);
  ASSERT_EQ(writer.Start(PathOf("late.mkv"), media_stream_writer::kMkv, kVideoOnly, 0), 0);
  // Frames 5..19 precede the key frame at 20.
  for (int i = 5; i < 60; ++i) {
    EXPECT_GT(writer.WriteVideoPacket(MakeVideo(Media().h264, i, VideoPtsMs(i))), 0) << i;
  }
  EXPECT_GT(writer.Stop(), 0);
  EXPECT_TRUE(logs.Contains("before the first key frame"));
  const std::vector<ProbedPacket> packets = Packets(PathOf("late.mkv"), "v:0");
  ASSERT_EQ(packets.size(), 40u);
  EXPECT_TRUE(packets[0].key);
  EXPECT_EQ(DecodeErrors(PathOf("late.mkv")), "");
}

// ---------------------------------------------------------------------------------------
// Segments.

TEST_F(FfmpegStreamWriterTest, SegmentsStartAtKeyFramesAndLoseNothing) {
  // Key frames every 20 frames (667 ms); 1 s segments cut at 1333 ms and 2667 ms.
  constexpr int kFrames = 120;
  constexpr int kAacFrames = 187;
  FfmpegStreamWriter writer(&client_);
  writer.SetVideoMetaData(MetadataFor(Media().h264));
  ASSERT_EQ(writer.Start(PathOf("seg.mp4"), media_stream_writer::kMp4, kAudioAndVideo, 1), 0);
  Feed feed;
  feed.video = &Media().h264;
  feed.video_frames = kFrames;
  feed.audio = AudioKind::kAdts;
  feed.audio_frames = kAacFrames;
  EXPECT_EQ(Write(&writer, feed).failed, 0);
  const int64_t total = writer.Stop();

  const std::vector<std::string> expected = {PathOf("seg_1.mp4"), PathOf("seg_2.mp4"),
                                             PathOf("seg_3.mp4")};
  ASSERT_EQ(client_.paths, expected);
  EXPECT_EQ(FilesInDir(), (std::vector<std::string>{"seg_1.mp4", "seg_2.mp4", "seg_3.mp4"}));
  int64_t sizes = 0;
  int frames = 0;
  int audio_packets = 0;
  for (const std::string& path : expected) {
    SCOPED_TRACE(path);
    sizes += static_cast<int64_t>(fs::file_size(path));
    const ProbeResult probe = Probe(path);
    frames += IntField(probe, StreamKey(probe, "video") + "nb_read_frames");
    audio_packets += IntField(probe, StreamKey(probe, "audio") + "nb_read_packets");
    const std::vector<ProbedPacket> video = Packets(path, "v:0");
    ASSERT_FALSE(video.empty());
    EXPECT_EQ(video[0].pts, 0);
    EXPECT_TRUE(video[0].key);
    EXPECT_EQ(DecodeErrors(path), "");
  }
  EXPECT_EQ(total, sizes);
  EXPECT_EQ(frames, kFrames);
  EXPECT_EQ(audio_packets, kAacFrames);
  // The cut points: 40 frames (1333 ms) per segment.
  EXPECT_EQ(IntField(Probe(expected[0]), "streams.stream.0.nb_read_frames"), 40);
  EXPECT_NEAR(DoubleField(Probe(expected[1]), "format.duration"), 1.333, 0.04);
}

TEST_F(FfmpegStreamWriterTest, AudioOnlySegmentsCutAtTheFirstFrameAfterTheInterval) {
  FfmpegStreamWriter writer(&client_);
  ASSERT_EQ(writer.Start(PathOf("seg.wav"), media_stream_writer::kWav, kAudioOnly, 1), 0);
  Feed feed;
  feed.audio = AudioKind::kPcm;
  feed.audio_frames = 250;  // 2.5 s of 10 ms frames.
  EXPECT_EQ(Write(&writer, feed).failed, 0);
  const int64_t total = writer.Stop();
  ASSERT_EQ(client_.paths.size(), 3u);
  int64_t sizes = 0;
  double seconds = 0;
  for (size_t i = 0; i < client_.paths.size(); ++i) {
    EXPECT_EQ(client_.paths[i], PathOf("seg_" + std::to_string(i + 1) + ".wav"));
    sizes += static_cast<int64_t>(fs::file_size(client_.paths[i]));
    const double duration = DoubleField(Probe(client_.paths[i]), "format.duration");
    if (i < 2) {
      EXPECT_NEAR(duration, 1.0, 0.0001);
    }
    seconds += duration;
    EXPECT_EQ(DecodeErrors(client_.paths[i]), "");
  }
  EXPECT_EQ(total, sizes);
  EXPECT_NEAR(seconds, 2.5, 0.0001);
}

// ---------------------------------------------------------------------------------------
// Crash safety and write failures.

// The bytes on disk at any moment are what a killed process leaves behind.
TEST_F(FfmpegStreamWriterTest, FileCopiedMidRecordingPlays) {
  struct Case {
    MediaFormat format;
    const char* name;
    bool video;
    AudioKind audio;
  };
  const Case cases[] = {
      {media_stream_writer::kMp4, "k.mp4", true, AudioKind::kAdts},
      {media_stream_writer::kMkv, "k.mkv", true, AudioKind::kPcm},
      {media_stream_writer::kM4a, "k.m4a", false, AudioKind::kRawAac},
      {media_stream_writer::kWav, "k.wav", false, AudioKind::kPcm},
      {media_stream_writer::kAac, "k.aac", false, AudioKind::kAdts},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FfmpegStreamWriter writer(nullptr);
    writer.SetVideoMetaData(MetadataFor(Media().h264));
    ASSERT_EQ(writer.Start(PathOf(c.name), c.format, c.video ? kAudioAndVideo : kAudioOnly, 0), 0);
    // 2 s in, then copy.
    Feed feed;
    feed.video = &Media().h264;
    feed.video_frames = c.video ? 60 : 0;
    feed.audio = c.audio;
    feed.audio_frames = c.audio == AudioKind::kPcm ? 200 : 94;
    EXPECT_EQ(Write(&writer, feed).failed, 0);
    const std::string copy = PathOf(std::string("copy_") + c.name);
    fs::copy_file(PathOf(c.name), copy);

    const ProbeResult probe = Probe(copy);
    EXPECT_EQ(Field(probe, "error"), "");
    EXPECT_EQ(DecodeErrors(copy), "");
    if (c.video) {
      // Everything up to half a second (a fragment) and a held frame before the copy.
      EXPECT_GE(IntField(probe, StreamKey(probe, "video") + "nb_read_frames"), 60 - 17);
    }
    const std::string a = StreamKey(probe, "audio");
    if (c.audio == AudioKind::kPcm) {
      // The stream duration: WAV has no frame count.
      const double seconds = std::max(DoubleField(probe, "format.duration"),
                                      IntField(probe, a + "nb_read_packets") * 0.01);
      EXPECT_GE(seconds, 2.0 - 0.55);
    } else {
      EXPECT_GE(IntField(probe, a + "nb_read_packets"), 94 - 26);
    }
    EXPECT_GT(writer.Stop(), 0);
  }
}

TEST_F(FfmpegStreamWriterTest, ProcessKilledMidRecordingLeavesAPlayableFile) {
  const std::string path = PathOf("killed.mp4");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    FfmpegStreamWriter writer(nullptr);
    writer.SetVideoMetaData(MetadataFor(Media().h264));
    if (writer.Start(path, media_stream_writer::kMp4, kAudioAndVideo, 0) != 0) _exit(1);
    Feed feed;
    feed.video = &Media().h264;
    feed.video_frames = 75;  // 2.5 s
    feed.audio = AudioKind::kAdts;
    feed.audio_frames = 117;
    Write(&writer, feed);
    const char byte = 1;
    if (write(ready[1], &byte, 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));

  const ProbeResult probe = Probe(path);
  EXPECT_EQ(Field(probe, "error"), "");
  EXPECT_EQ(DecodeErrors(path), "");
  EXPECT_GE(IntField(probe, StreamKey(probe, "video") + "nb_read_frames"), 75 - 17);
  EXPECT_GE(IntField(probe, StreamKey(probe, "audio") + "nb_read_packets"), 117 - 26);
}

struct ChildReport {
  int failed_writes;
  int64_t stop_result;
};

// Runs `body` in a child process whose files may not grow past `limit` bytes (SIGXFSZ
// ignored, so writes fail with EFBIG) and returns what it reported.
template <typename Body>
ChildReport RunWithFileSizeLimit(rlim_t limit, Body body) {
  int report_pipe[2];
  if (pipe(report_pipe) != 0) return {-1, 0};
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit limited = old;
    limited.rlim_cur = limit;
    setrlimit(RLIMIT_FSIZE, &limited);
    const ChildReport report = body(old);
    const ssize_t n = write(report_pipe[1], &report, sizeof(report));
    _exit(n == sizeof(report) ? 0 : 1);
  }
  close(report_pipe[1]);
  ChildReport report{-1, 0};
  if (read(report_pipe[0], &report, sizeof(report)) != sizeof(report)) report.failed_writes = -1;
  close(report_pipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return report;
}

TEST_F(FfmpegStreamWriterTest, FileSizeLimitFailsWritesAndKeepsWhatWasWritten) {
  const std::string path = PathOf("limited.mp4");
  const ChildReport report = RunWithFileSizeLimit(20000, [&](const rlimit&) {
    FfmpegStreamWriter writer(nullptr);
    writer.SetVideoMetaData(MetadataFor(Media().h264));
    if (writer.Start(path, media_stream_writer::kMp4, kAudioAndVideo, 0) != 0) {
      return ChildReport{-1, 0};
    }
    Feed feed;
    feed.video = &Media().h264;
    feed.video_frames = 120;
    feed.audio = AudioKind::kAdts;
    feed.audio_frames = 187;
    const FeedResult fed = Write(&writer, feed);
    return ChildReport{fed.failed, writer.Stop()};
  });
  EXPECT_GT(report.failed_writes, 0);
  EXPECT_LT(report.stop_result, 0);
  EXPECT_LE(fs::file_size(path), 20000u);
  const ProbeResult probe = Probe(path);
  EXPECT_EQ(Field(probe, "error"), "");
  EXPECT_GT(IntField(probe, StreamKey(probe, "video") + "nb_read_frames"), 0);
  EXPECT_EQ(DecodeErrors(path), "");
}

TEST_F(FfmpegStreamWriterTest, WritesResumeWithNothingLostOnceTheDiskTakesBytesAgain) {
  const std::string path = PathOf("resumed.mkv");
  const ChildReport report = RunWithFileSizeLimit(20000, [&](const rlimit& old) {
    FfmpegStreamWriter writer(nullptr);
    if (writer.Start(path, media_stream_writer::kMkv, kAudioAndVideo, 0) != 0) {
      return ChildReport{-1, 0};
    }
    Feed feed;
    feed.video = &Media().h264;
    feed.audio = AudioKind::kAdts;
    int failed = 0;
    // Write until the limit bites, go on a little, then lift the limit.
    for (int step = 1; step <= 12; ++step) {
      feed.first_video = feed.video_frames;
      feed.first_audio = feed.audio_frames;
      feed.video_frames = step * 10;
      feed.audio_frames = static_cast<int>(step * 10 * 1000 / kFps * kAudioRate / 1024 / 1000);
      failed += Write(&writer, feed).failed;
      if (failed > 0 && step < 12) setrlimit(RLIMIT_FSIZE, &old);
    }
    return ChildReport{failed, writer.Stop()};
  });
  EXPECT_GT(report.failed_writes, 0);
  EXPECT_GT(report.stop_result, 20000);
  const ProbeResult probe = Probe(path);
  EXPECT_EQ(IntField(probe, StreamKey(probe, "video") + "nb_read_frames"), 120);
  EXPECT_EQ(DecodeErrors(path), "");
}

// ---------------------------------------------------------------------------------------
// Codec configuration records, against the ones FFmpeg builds from the same streams.

class FfmpegWriterCodecConfigTest : public FfmpegStreamWriterTest {
 protected:
  // The extradata ffmpeg's MP4 muxer writes for the elementary stream in `file`.
  Bytes FfmpegExtradata(const std::string& file, const std::string& input_options = "") {
    const std::string mp4 = file + ".mp4";
    RunCommand("ffmpeg -nostdin -v error -y " + input_options + " -i " + Quote(file) + " -c copy " +
               Quote(mp4));
    const ProbeResult probe = [&] {
      ProbeResult result;
      std::istringstream lines(
          RunCommand("ffprobe -v error -show_streams -show_data -of flat " + Quote(mp4)));
      std::string line;
      while (std::getline(lines, line)) {
        const size_t eq = line.find('=');
        if (eq != std::string::npos) result[line.substr(0, eq)] = line.substr(eq + 1);
      }
      return result;
    }();
    // A hex dump: "\n00000000: 0164 000b ...  .d..\n00000010: ...".
    const std::string dump = Field(probe, "streams.stream.0.extradata");
    Bytes bytes;
    size_t at = 0;
    while ((at = dump.find(": ", at)) != std::string::npos) {
      const std::string hex = dump.substr(at + 2, 39);
      at += 2;
      for (size_t i = 0; i + 1 < hex.size(); ++i) {
        if (hex[i] == ' ') continue;
        if (!std::isxdigit(static_cast<unsigned char>(hex[i])) ||
            !std::isxdigit(static_cast<unsigned char>(hex[i + 1]))) {
          break;
        }
        bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        ++i;
      }
    }
    return bytes;
  }

  std::string WriteStream(const std::string& name, const std::vector<Bytes>& units) {
    const std::string path = PathOf(name);
    std::ofstream out(path, std::ios::binary);
    for (const Bytes& unit : units)
      out.write(reinterpret_cast<const char*>(unit.data()),
                static_cast<std::streamsize>(unit.size()));
    return path;
  }
};

TEST_F(FfmpegWriterCodecConfigTest, DecoderConfigurationRecordsMatchFfmpegs) {
  for (const VideoClip* clip : {&Media().h264, &Media().h265}) {
    if (!clip->available()) continue;
    const bool hevc = clip->codec == video::kCodecH265;
    SCOPED_TRACE(hevc ? "hvcC" : "avcC");
    const media_stream_writer::VideoMetadata sets = MetadataFor(*clip);
    auto bytes = [](const CopyOnWriteBuffer& b) { return Bytes(b.data(), b.data() + b.size()); };
    const Bytes ours =
        hevc ? media_stream_writer::BuildHevcDecoderConfig({bytes(sets.vps)}, {bytes(sets.sps)},
                                                           {bytes(sets.pps)})
             : media_stream_writer::BuildAvcDecoderConfig({bytes(sets.sps)}, {bytes(sets.pps)});
    const Bytes theirs = FfmpegExtradata(
        WriteStream(hevc ? "es.hevc" : "es.h264",
                    std::vector<Bytes>(clip->units.begin(), clip->units.begin() + 1)));
    ASSERT_FALSE(theirs.empty());
    EXPECT_EQ(ours, theirs);
  }
}

TEST_F(FfmpegWriterCodecConfigTest, AudioSpecificConfigMatchesFfmpegs) {
  const Bytes theirs = FfmpegExtradata(WriteStream("es.aac", Media().aac));
  ASSERT_FALSE(theirs.empty());
  media_stream_writer::AdtsHeader header;
  ASSERT_TRUE(
      media_stream_writer::ParseAdtsHeader(Media().aac[1].data(), Media().aac[1].size(), &header));
  EXPECT_EQ(header.frame_size, static_cast<int>(Media().aac[1].size()));
  EXPECT_EQ(media_stream_writer::AudioSpecificConfigFromAdts(header), theirs);
  // Built from the rate and channel count alone, as for raw AAC.
  EXPECT_EQ(media_stream_writer::BuildAacLcAudioSpecificConfig(kAudioRate, 2), theirs);
  // A truncated frame is not taken for a whole one.
  EXPECT_FALSE(media_stream_writer::ParseAdtsHeader(Media().aac[1].data(),
                                                    Media().aac[1].size() - 1, &header));
}

}  // namespace
}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel
