// The FFmpeg container writer fed real H.264/H.265/AAC made by the ffmpeg CLI at run
// time; the files are checked with ffprobe and decoded with ffmpeg.
#include "sdk/media_stream_writer/ffmpeg/ffmpeg_stream_writer.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/media_stream_writer/ffmpeg/codec_config.h"
#include "tests/support/e2e_util.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel {
namespace extensions {
namespace local_recording {
namespace {

namespace fs = std::filesystem;
namespace e2e = tarnel_e2e;
namespace msw = media_stream_writer;
using msw::MediaFormat;
using Bytes = std::vector<uint8_t>;

constexpr int kFps = 30;
constexpr int kAudioRate = 48000;

Bytes ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Shell(const std::string& command) { return e2e::RunCommand(command, true).output; }

int StreamInt(const std::string& path, size_t stream, const std::string& key) {
  const auto streams = e2e::ProbeStreams(path);
  return stream < streams.size() && streams[stream].count(key) ? std::stoi(streams[stream].at(key))
                                                               : -1;
}

// ---------------------------------------------------------------------------------------
// Test media, made once per run.

struct VideoClip {
  int codec = video::kCodecH264;
  std::vector<Bytes> units;  // Annex-B access units.
  std::vector<bool> key;
};

// Splits a stream made with an access unit delimiter before every picture.
VideoClip SplitAtDelimiters(const Bytes& data, bool hevc) {
  VideoClip clip;
  clip.codec = hevc ? video::kCodecH265 : video::kCodecH264;
  std::vector<size_t> starts;
  for (size_t i = 1; i + 3 < data.size(); ++i) {
    if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
    const int type = hevc ? (data[i + 3] >> 1) & 0x3f : data[i + 3] & 0x1f;
    if (type == (hevc ? 35 : 9)) {
      starts.push_back(data[i - 1] == 0 ? i - 1 : i);
      clip.key.push_back(false);
    } else if (!clip.key.empty() && (hevc ? type >= 16 && type <= 21 : type == 5)) {
      clip.key.back() = true;
    }
    i += 2;
  }
  starts.push_back(data.size());
  for (size_t u = 0; u + 1 < starts.size(); ++u) {
    clip.units.emplace_back(data.begin() + starts[u], data.begin() + starts[u + 1]);
  }
  return clip;
}

std::vector<Bytes> SplitAdts(const Bytes& data) {
  std::vector<Bytes> frames;
  for (size_t i = 0; i + 7 <= data.size() && data[i] == 0xff;) {
    const size_t length = ((data[i + 3] & 0x03) << 11) | (data[i + 4] << 3) | (data[i + 5] >> 5);
    if (length < 7 || i + length > data.size()) break;
    frames.emplace_back(data.begin() + i, data.begin() + i + length);
    i += length;
  }
  return frames;
}

struct TestMedia {
  VideoClip h264;              // 4 s, 160x120, 30 fps, a key frame every 20 frames.
  VideoClip h265;              // Same.
  std::vector<Bytes> aac;      // 48 kHz stereo ADTS frames, 4 s.
  std::vector<Bytes> impulse;  // 48 kHz mono ADTS frames: one click at sample 4800.
  // Codec name -> the decoder configuration FFmpeg's MP4 muxer makes of the above, in hex.
  std::map<std::string, std::string> extradata;
  std::string error;
};

const TestMedia& Media() {
  static TestMedia* media = [] {
    auto* made = new TestMedia;
    tarnel_test::ScopedTempDir dir;
    if (!dir.CreateUniqueTempDir()) return made;
    auto path = [&](const char* name) { return dir.GetPath().value() + "/" + name; };
    const std::string video = " -map 0 -pix_fmt yuv420p -bf 0 -bsf:v ";
    made->error = Shell(
        "ffmpeg -nostdin -v error -f lavfi -i testsrc=size=160x120:rate=30:d=4 -f lavfi -i "
        "sine=f=440:r=48000:d=4 -f lavfi -i \"aevalsrc='if(eq(n,4800),0.9,0)':s=48000:d=1\"" +
        video + "h264_metadata=aud=insert -c:v libx264 -g 20 " + e2e::Quote(path("v.h264")) +
        video + "hevc_metadata=aud=insert -c:v libx265 -x265-params " +
        "keyint=20:min-keyint=20:log-level=error " + e2e::Quote(path("v.hevc")) +
        " -map 1 -ac 2 -c:a aac " + e2e::Quote(path("a.aac")) + " -map 2 -c:a aac " +
        e2e::Quote(path("i.aac")));
    made->h264 = SplitAtDelimiters(ReadAll(path("v.h264")), false);
    made->h265 = SplitAtDelimiters(ReadAll(path("v.hevc")), true);
    made->aac = SplitAdts(ReadAll(path("a.aac")));
    made->impulse = SplitAdts(ReadAll(path("i.aac")));
    // FFmpeg's own MP4 of the same streams, H.265 tagged hvc1 as ours (its hvcC arrays
    // are then marked complete), and its Matroska (arrays not marked).
    made->error +=
        Shell("ffmpeg -nostdin -v error -i " + e2e::Quote(path("v.h264")) + " -i " +
              e2e::Quote(path("v.hevc")) + " -i " + e2e::Quote(path("a.aac")) +
              " -map 0 -map 1 -map 2 -c copy -tag:v:1 hvc1 " + e2e::Quote(path("ref.mp4")) +
              " -map 1 -c copy " + e2e::Quote(path("ref.mkv")));
    made->extradata = {{"h264", e2e::ProbeExtradataHex(path("ref.mp4"), 0)},
                       {"hevc", e2e::ProbeExtradataHex(path("ref.mp4"), 1)},
                       {"hevc in mkv", e2e::ProbeExtradataHex(path("ref.mkv"), 0)},
                       {"aac", e2e::ProbeExtradataHex(path("ref.mp4"), 2)},
                       {"pcm_s16le", ""}};
    return made;
  }();
  return *media;
}

// ---------------------------------------------------------------------------------------
// Frames.

uint64_t VideoPtsMs(int index) {
  return static_cast<uint64_t>(std::llround(index * 1000.0 / kFps));
}

uint32_t AacTimestampMs(int index) {
  return static_cast<uint32_t>(std::llround(index * 1024 * 1000.0 / kAudioRate));
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

enum AudioKind { kNoAudio, kAdtsAac, kRawAac, kPcmAudio };

// An AAC frame from `adts`, with or without its header, or 10 ms of stereo PCM.
std::unique_ptr<audio::AudioFrame> MakeAudio(AudioKind kind, const Bytes& adts, uint32_t ts,
                                             int channels = 2, int delay = 0) {
  auto frame = std::make_unique<audio::AudioFrame>();
  if (kind == kPcmAudio) {
    const std::vector<int16_t> pcm(kAudioRate / 100 * 2, 1000);
    frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t));
  } else {
    const size_t header = kind == kAdtsAac ? 0 : (adts[1] & 0x01) ? 7 : 9;
    frame->SetData(adts.data() + header, adts.size() - header);
    frame->SetAudioFrameFormat(audio::kAac);
  }
  frame->SetSampleRate(kAudioRate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(ts);
  frame->SetEncoderDelaySamples(delay);
  return frame;
}

class RecordingClient : public LocalRecordingSegmentationWriter::Client {
 public:
  void OnRecordingSegment(const std::string& path) override { paths.push_back(path); }
  std::vector<std::string> paths;
};

struct Feed {
  const VideoClip* video = nullptr;
  int video_frames = 0;
  AudioKind audio = kNoAudio;
  int audio_frames = 0;  // AAC frames, or 10 ms PCM frames.
  int first_video = 0;   // Feeds frames [first_video, video_frames) / [first_audio, ...).
  int first_audio = 0;
  const std::vector<Bytes>* aac = &Media().aac;
  int channels = 2;
  int delay = 0;
};

// Writes the planned frames in timestamp order, video first on ties; returns how many
// writes failed.
int Write(MediaStreamWriter* writer, const Feed& feed) {
  int failed = 0;
  auto audio_ms = [&](int i) -> uint32_t {
    return feed.audio == kPcmAudio ? uint32_t(i) * 10 : AacTimestampMs(i);
  };
  for (int v = feed.first_video, a = feed.first_audio;
       v < feed.video_frames || a < feed.audio_frames;) {
    if (v < feed.video_frames && (a >= feed.audio_frames || VideoPtsMs(v) <= audio_ms(a))) {
      failed += writer->WriteVideoPacket(MakeVideo(*feed.video, v, VideoPtsMs(v))) <= 0;
      ++v;
    } else {
      const Bytes& aac = (*feed.aac)[feed.audio == kPcmAudio ? 0 : size_t(a)];
      failed += writer->WriteAudioPacket(
                    MakeAudio(feed.audio, aac, audio_ms(a), feed.channels, feed.delay)) <= 0;
      ++a;
    }
  }
  return failed;
}

class FfmpegStreamWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Media().error, "");
    ASSERT_TRUE(Media().h264.units.size() == 120 && Media().h265.units.size() == 120 &&
                Media().aac.size() >= 187 && Media().impulse.size() >= 40 &&
                !Media().extradata.at("h264").empty() && !Media().extradata.at("hevc").empty() &&
                !Media().extradata.at("aac").empty());
    ASSERT_TRUE(dir_.CreateUniqueTempDir());
  }

  std::string PathOf(const std::string& name) const { return dir_.GetPath().value() + "/" + name; }
  long FileCount() const { return std::distance(fs::directory_iterator(PathOf("")), {}); }

  tarnel_test::ScopedTempDir dir_;
  RecordingClient client_;
};

// ---------------------------------------------------------------------------------------
// Refusals and Stop.

// Refused at Start: nothing is created. Started, but nothing usable arrives: Stop
// removes the file Start made. Either way the writer takes nothing afterwards.
TEST_F(FfmpegStreamWriterTest, RefusalsLeaveNoFile) {
  struct Case {
    const char* name;
    uint32_t format;
    uint32_t type;
    bool starts;
    AudioKind first;
    const char* log;
  };
  const Case cases[] = {
      {"out.bin", 0, kAudioAndVideo, false, kNoAudio, "unsupported media format 0"},
      {"out.bin", 9, kAudioOnly, false, kNoAudio, "unsupported media format 9"},
      {"out.wav", msw::kWav, kVideoOnly, false, kNoAudio, "WAV cannot carry video"},
      {"out.wav", msw::kWav, kAudioAndVideo, false, kNoAudio, "WAV cannot carry video"},
      {"out.m4a", msw::kM4a, kAudioAndVideo, false, kNoAudio, "M4A cannot carry video"},
      {"out.aac", msw::kAac, kVideoOnly, false, kNoAudio, "AAC (ADTS) cannot carry video"},
      {"out.mp4", msw::kMp4, 7, false, kNoAudio, "unknown record type 7"},
      {"missing/out.mp4", msw::kMp4, kVideoOnly, false, kNoAudio, ""},
      {"out.mp4", msw::kMp4, kAudioAndVideo, true, kNoAudio, "stopped before any packet"},
      {"out.mp4", msw::kMp4, kAudioOnly, true, kPcmAudio, "MP4 cannot carry PCM audio"},
      {"out.m4a", msw::kM4a, kAudioOnly, true, kPcmAudio, "M4A cannot carry PCM audio"},
      {"out.aac", msw::kAac, kAudioOnly, true, kPcmAudio, "AAC (ADTS) cannot carry PCM audio"},
      {"out.wav", msw::kWav, kAudioOnly, true, kAdtsAac, "WAV cannot carry AAC audio"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + std::string(" ") + c.log);
    tarnel_test::ScopedLogCapture logs;
    client_.paths.clear();
    const std::string path = PathOf(c.name);
    FfmpegStreamWriter writer(&client_);
    ASSERT_EQ(writer.Start(path, static_cast<MediaFormat>(c.format),
                           static_cast<LocalRecordingType>(c.type), 0),
              c.starts ? 0 : -1);
    EXPECT_EQ(fs::exists(path), c.starts);
    EXPECT_EQ(client_.paths.size(), c.starts ? 1u : 0u);
    if (c.first != kNoAudio) {
      EXPECT_LE(writer.WriteAudioPacket(MakeAudio(c.first, Media().aac[0], 0)), 0);
    }
    EXPECT_EQ(writer.Stop(), 0);
    EXPECT_TRUE(logs.Contains(c.log));
    EXPECT_EQ(FileCount(), 0);
    EXPECT_LE(writer.WriteAudioPacket(MakeAudio(kAdtsAac, Media().aac[0], 0)), 0);
    EXPECT_EQ(writer.Stop(), 0);
  }
  msw::VideoMetadata vp8;
  vp8.codec_type = 5;
  FfmpegStreamWriter writer(nullptr);
  writer.SetVideoMetaData(vp8);
  EXPECT_EQ(writer.Start(PathOf("out.mkv"), msw::kMkv, kVideoOnly, 0), -1);
  EXPECT_EQ(FileCount(), 0);
}

// ---------------------------------------------------------------------------------------
// What goes in comes out.

// Each container from each kind of input: AAC with and without ADTS headers, PCM, video
// configured from its first key frame, streams the record type excludes dropped. The
// decoder configurations (avcC, hvcC, AudioSpecificConfig from ADTS headers or from rate
// and channels) are byte for byte FFmpeg's. A copy taken before Stop (what a killed
// process leaves) plays.
TEST_F(FfmpegStreamWriterTest, WritesEachContainerAndACopyTakenMidRecordingPlays) {
  struct Case {
    const char* name;
    MediaFormat format;
    LocalRecordingType type;
    const VideoClip* video;
    AudioKind audio;
    const char* codecs;
  };
  const VideoClip* h264 = &Media().h264;
  const VideoClip* h265 = &Media().h265;
  const Case cases[] = {
      {"a.mp4", msw::kMp4, kAudioAndVideo, h264, kAdtsAac, "h264,aac"},
      {"b.mp4", msw::kMp4, kAudioAndVideo, h265, kRawAac, "hevc,aac"},
      {"c.mp4", msw::kMp4, kVideoOnly, h264, kAdtsAac, "h264"},
      {"a.mkv", msw::kMkv, kAudioAndVideo, h265, kAdtsAac, "hevc,aac"},
      {"b.mkv", msw::kMkv, kAudioOnly, h264, kPcmAudio, "pcm_s16le"},
      {"a.m4a", msw::kM4a, kAudioOnly, nullptr, kRawAac, "aac"},
      {"a.aac", msw::kAac, kAudioOnly, nullptr, kRawAac, "aac"},
      {"b.aac", msw::kAac, kAudioOnly, nullptr, kAdtsAac, "aac"},
      {"a.wav", msw::kWav, kAudioOnly, nullptr, kPcmAudio, "pcm_s16le"},
  };
  const char* format_names[] = {"",    "mov,mp4,m4a,3gp,3g2,mj2", "matroska,webm",
                                "wav", "mov,mp4,m4a,3gp,3g2,mj2", "aac"};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = PathOf(c.name);
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(path, c.format, c.type, 0), 0);
    Feed feed;
    feed.video = c.video;
    feed.video_frames = c.video ? 60 : 0;
    feed.audio = c.audio;
    feed.audio_frames = c.audio == kPcmAudio ? 200 : 94;  // 2 s, 2.005 s.
    EXPECT_EQ(Write(&writer, feed), 0);
    const bool has_video = c.type != kAudioOnly;
    const bool has_audio = c.type != kVideoOnly;

    // The last half second may still be in a fragment or held, not more.
    const std::string copy = PathOf(std::string("copy_") + c.name);
    fs::copy_file(path, copy);
    EXPECT_EQ(e2e::DecodeErrors(copy), "");
    if (has_video) {
      EXPECT_GE(StreamInt(copy, 0, "nb_read_frames"), 60 - 17);
    }
    if (has_audio) {
      EXPECT_GE(e2e::DecodeAudio(copy, kAudioRate).size(), 1.44 * kAudioRate);
    }

    const int64_t size = writer.Stop();
    EXPECT_EQ(size, static_cast<int64_t>(fs::file_size(path)));
    EXPECT_EQ(Shell("ffprobe -v error -show_entries format=format_name -of default=nw=1:nk=1 " +
                    e2e::Quote(path)),
              format_names[c.format] + std::string("\n"));
    std::string codecs;
    const auto streams = e2e::ProbeStreams(path);
    for (size_t i = 0; i < streams.size(); ++i) {
      const std::string& codec = streams[i].at("codec_name");
      codecs += (i ? "," : "") + codec;
      const std::string key = codec == "hevc" && c.format == msw::kMkv ? "hevc in mkv" : codec;
      EXPECT_EQ(e2e::ProbeExtradataHex(path, int(i)),
                c.format == msw::kAac ? "" : Media().extradata.at(key));
      if (codec == "hevc" && c.format == msw::kMp4) {
        EXPECT_EQ(Shell("ffprobe -v error -show_entries stream=codec_tag_string -of csv=p=0 " +
                        e2e::Quote(path)),
                  "hvc1\nmp4a\n");
      }
    }
    EXPECT_EQ(codecs, c.codecs);
    if (c.format == msw::kMp4 || c.format == msw::kM4a) {
      // Finished in place: a standard file, the fragments inside the mdat.
      EXPECT_EQ(e2e::TopLevelBoxes(path), "ftyp free mdat moov");
      EXPECT_EQ(e2e::TopLevelBoxes(copy).substr(0, 19), "ftyp free moov moof");
    }
    if (has_video) {
      EXPECT_EQ(StreamInt(path, 0, "nb_read_frames"), 60);
    }
    if (has_audio) {
      EXPECT_NEAR(e2e::DecodeAudio(path, kAudioRate).size(),
                  c.audio == kPcmAudio ? 96000 : 94 * 1024, 1);
    }
    EXPECT_EQ(e2e::DecodeErrors(path), "");
  }
  const Bytes& frame = Media().aac[1];
  msw::AdtsHeader header;
  EXPECT_FALSE(msw::ParseAdtsHeader(frame.data(), frame.size() - 1, &header));  // Truncated.
}

// AAC stamps are whole ms, and the encoder's output begins D samples before its stamp.
// The packets after the priming are placed D samples early, one after the other to the
// sample through jitter, a real gap staying a gap. While recording (the fragmented file
// a crash leaves) the priming packet is left out; the finished file keeps it as decoder
// pre-roll before 0, hidden by its edit list. Either way the decoded audio at time 0 is
// the first input sample, aligned with the first picture.
TEST_F(FfmpegStreamWriterTest, EncoderDelayIsRemovedToTheSample) {
  const std::vector<Bytes>& impulse = Media().impulse;
  const std::string path = PathOf("delay.mp4");
  const std::string crashed = PathOf("crashed.mp4");
  FfmpegStreamWriter writer(nullptr);
  ASSERT_EQ(writer.Start(path, msw::kMp4, kAudioAndVideo, 0), 0);
  std::vector<int64_t> expected;
  int v = 0;
  for (int k = 0; k < static_cast<int>(impulse.size()); ++k) {
    if (k >= 30 && k < 38) continue;                                       // 171 ms missing.
    const uint32_t ts = AacTimestampMs(k) + static_cast<uint32_t>(k % 5);  // Up to 4 ms late.
    for (; VideoPtsMs(v) <= ts; ++v) {
      ASSERT_GT(writer.WriteVideoPacket(MakeVideo(Media().h264, v, VideoPtsMs(v))), 0);
    }
    // ffmpeg's AAC encoder primes with 1024 samples, and its ADTS output starts with them.
    ASSERT_GT(writer.WriteAudioPacket(MakeAudio(kAdtsAac, impulse[size_t(k)], ts, 1, 1024)), 0);
    if (k > 0) {
      expected.push_back(k == 38 ? ts * 48 - 1024 : expected.empty() ? 0 : expected.back() + 1024);
    }
  }
  fs::copy_file(path, crashed);
  ASSERT_GT(writer.Stop(), 0);

  for (const std::string& file : {crashed, path}) {
    SCOPED_TRACE(file);
    std::vector<e2e::ProbedPacket> audio = e2e::ProbePackets(file, "a:0");
    if (file == path) {
      ASSERT_FALSE(audio.empty());
      EXPECT_EQ(audio[0].pts, -1024);  // The priming packet.
      audio.erase(audio.begin());
      ASSERT_EQ(audio.size(), expected.size());
    } else {
      ASSERT_GE(audio.size(), expected.size() - 12);  // The last fragment is still open.
    }
    for (size_t i = 0; i < audio.size(); ++i) EXPECT_EQ(audio[i].pts, expected[i]) << i;
    EXPECT_EQ(e2e::ProbePackets(file, "v:0").at(0).pts, 0);
    // Decoded from its first sample, the click sits at sample 4800 as in the source; left
    // in, the priming would put it 1024 samples late.
    const std::vector<float> decoded = e2e::DecodeAudio(file, kAudioRate);
    ASSERT_GT(decoded.size(), 6000u);
    const auto peak = std::max_element(decoded.begin(), decoded.end(), [](float x, float y) {
      return std::fabs(x) < std::fabs(y);
    });
    EXPECT_GT(std::fabs(*peak), 0.3f);
    EXPECT_NEAR(peak - decoded.begin(), 4800, 2);
    EXPECT_EQ(e2e::DecodeErrors(file), "");
  }
}

// Frames before the first key frame are dropped; a missing video dts is the pts, and one
// that does not increase is repaired, with one warning.
TEST_F(FfmpegStreamWriterTest, VideoStartsAtAKeyFrameWithIncreasingDts) {
  for (MediaFormat format : {msw::kMp4, msw::kMkv}) {
    const std::string path = PathOf(format == msw::kMp4 ? "dts.mp4" : "dts.mkv");
    SCOPED_TRACE(path);
    tarnel_test::ScopedLogCapture logs;
    FfmpegStreamWriter writer(nullptr);
    ASSERT_EQ(writer.Start(path, format, kVideoOnly, 0), 0);
    for (int i = 5; i < 60; ++i) {                        // The first key frame is frame 20.
      const uint64_t pts = VideoPtsMs(i == 30 ? 29 : i);  // Same time as the frame before.
      const uint64_t dts = i == 40 ? VideoPtsMs(38) : 0;  // Goes back.
      EXPECT_GT(writer.WriteVideoPacket(MakeVideo(Media().h264, i, pts, dts)), 0) << i;
    }
    EXPECT_GT(writer.Stop(), 0);
    EXPECT_TRUE(logs.Contains("before the first key frame"));
    int repairs = 0;
    for (const std::string& message : logs.MessagesAtLeast(tarn_logging::LS_WARNING)) {
      repairs += message.find("does not increase") != std::string::npos;
    }
    EXPECT_EQ(repairs, 1);
    const std::vector<e2e::ProbedPacket> packets = e2e::ProbePackets(path, "v:0");
    ASSERT_EQ(packets.size(), 40u);
    EXPECT_TRUE(packets[0].key);
    for (size_t i = 1; i < packets.size(); ++i) {
      EXPECT_GT(packets[i].dts, packets[i - 1].dts) << i;
      EXPECT_GE(packets[i].pts, packets[i].dts) << i;
      // Only frame 40's dts was given (and repaired); the others are their pts.
      if (i != 20) {
        EXPECT_EQ(packets[i].dts, packets[i].pts) << i;
      }
    }
    // Two pictures 1 ms (MKV) or 1/90000 s (MP4) apart fall into one slot of the CLI's
    // default 1/30 s encoder time base; keep the decoded frames' time base instead.
    EXPECT_EQ(
        Shell("ffmpeg -nostdin -v error -i " + e2e::Quote(path) + " -enc_time_base -1 -f null -"),
        "");
  }
}

TEST_F(FfmpegStreamWriterTest, MissingStreamIsGivenUpAfterTheHoldLimit) {
  tarnel_test::ScopedLogCapture logs;
  const std::string path = PathOf("noaudio.mp4");
  FfmpegStreamWriter writer(nullptr);
  ASSERT_EQ(writer.Start(path, msw::kMp4, kAudioAndVideo, 0), 0);
  Feed feed;
  feed.video = &Media().h264;
  feed.video_frames = 90;  // 3 s: more than the writer holds while waiting for audio.
  EXPECT_EQ(Write(&writer, feed), 0);
  EXPECT_TRUE(logs.Contains("without audio"));
  // Audio that comes after the file started without it cannot be added.
  EXPECT_LE(writer.WriteAudioPacket(MakeAudio(kAdtsAac, Media().aac[0], 3000)), 0);
  EXPECT_GT(writer.Stop(), 0);
  EXPECT_EQ(e2e::ProbeStreams(path).size(), 1u);
  EXPECT_EQ(StreamInt(path, 0, "nb_read_frames"), 90);  // The held frames too.
  EXPECT_EQ(e2e::DecodeErrors(path), "");
}

// A new file starts at the first video key frame (audio only: frame) at or after the
// interval; the client hears of each, and Stop reports all their bytes. Every stream of
// every MP4 segment starts at 0, and the audio is split at the cut to the sample: the
// packets around it are in both files, hidden by the edit lists where they are not
// presented, so the presented audio adds up to exactly what went in.
TEST_F(FfmpegStreamWriterTest, SegmentsCutAtTheFirstFrameAfterTheIntervalAndLoseNothing) {
  struct Case {
    const char* ext;
    MediaFormat format;
    LocalRecordingType type;
    Feed feed;
    std::vector<double> durations;
    double tolerance;
  };
  Feed av;  // Key frames every 667 ms: 1 s segments cut at 1333 ms and 2667 ms.
  av.video = &Media().h264;
  av.video_frames = 120;
  av.audio = kAdtsAac;
  av.audio_frames = 187;
  Feed pcm;
  pcm.audio = kPcmAudio;
  pcm.audio_frames = 250;
  const Case cases[] = {
      {".mp4", msw::kMp4, kAudioAndVideo, av, {1.333, 1.333, 1.333}, 0.04},
      {".wav", msw::kWav, kAudioOnly, pcm, {1.0, 1.0, 0.5}, 0.0001},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ext);
    client_.paths.clear();
    FfmpegStreamWriter writer(&client_);
    ASSERT_EQ(writer.Start(PathOf(std::string("seg") + c.ext), c.format, c.type, 1), 0);
    EXPECT_EQ(Write(&writer, c.feed), 0);
    const int64_t total = writer.Stop();
    ASSERT_EQ(client_.paths.size(), c.durations.size());
    EXPECT_EQ(FileCount(), static_cast<long>(c.durations.size()));
    int64_t sizes = 0;
    int frames[2] = {0, 0};  // Video, audio.
    double audio_seconds = 0;
    for (size_t i = 0; i < client_.paths.size(); ++i) {
      const std::string& path = client_.paths[i];
      EXPECT_EQ(path, PathOf("seg_" + std::to_string(i + 1) + c.ext));
      sizes += static_cast<int64_t>(fs::file_size(path));
      EXPECT_NEAR(e2e::ProbeDuration(path), c.durations[i], c.tolerance);
      for (const auto& stream : e2e::ProbeStreams(path)) {
        const bool audio = stream.at("codec_type") == "audio";
        frames[audio] += std::stoi(stream.at("nb_read_frames"));
        if (audio) audio_seconds += std::stod(stream.at("duration"));
        if (c.format == msw::kMp4) {
          EXPECT_EQ(stream.at("start_time"), "0.000000") << stream.at("codec_type");
        }
      }
      if (c.format == msw::kMp4) {
        EXPECT_EQ(e2e::TopLevelBoxes(path), "ftyp free mdat moov");
      }
      EXPECT_EQ(e2e::DecodeErrors(path), "");
      fs::remove(path);
    }
    EXPECT_EQ(total, sizes);
    EXPECT_EQ(frames[0], c.feed.video_frames);
    if (c.format == msw::kMp4) {
      EXPECT_NEAR(audio_seconds, c.feed.audio_frames * 1024.0 / kAudioRate, 1.0 / kAudioRate);
    }
  }
}

// ---------------------------------------------------------------------------------------
// Write failures: a file may not grow past 20000 bytes (SIGXFSZ ignored, so writes fail
// with EFBIG). What was written stays playable; once the disk takes bytes again, nothing
// held back is lost.
TEST_F(FfmpegStreamWriterTest, FileSizeLimitFailsWritesAndKeepsTheFilePlayable) {
  for (const bool lift : {false, true}) {
    const std::string path = PathOf(lift ? "resumed.mkv" : "limited.mp4");
    SCOPED_TRACE(path);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      signal(SIGXFSZ, SIG_IGN);
      rlimit old{};
      getrlimit(RLIMIT_FSIZE, &old);
      rlimit limited = old;
      limited.rlim_cur = 20000;
      setrlimit(RLIMIT_FSIZE, &limited);
      FfmpegStreamWriter writer(nullptr);
      if (writer.Start(path, lift ? msw::kMkv : msw::kMp4, kAudioAndVideo, 0) != 0) _exit(64);
      Feed feed;
      feed.video = &Media().h264;
      feed.audio = kAdtsAac;
      int failed = 0;
      for (int step = 1; step <= 12; ++step) {
        feed.first_video = feed.video_frames;
        feed.first_audio = feed.audio_frames;
        feed.video_frames = step * 10;
        feed.audio_frames = step * 10 * kAudioRate / kFps / 1024;
        failed += Write(&writer, feed);
        if (lift && failed > 0 && step < 12) setrlimit(RLIMIT_FSIZE, &old);
      }
      const int64_t stopped = writer.Stop();
      _exit((failed > 0) | (stopped < 0) << 1 | (stopped > 20000) << 2);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    // Bit 0: some writes failed; bit 1: Stop failed; bit 2: Stop reports the bytes.
    EXPECT_EQ(WEXITSTATUS(status), lift ? 1 | 4 : 1 | 2);
    EXPECT_EQ(e2e::DecodeErrors(path), "");
    if (lift) {
      EXPECT_EQ(StreamInt(path, 0, "nb_read_frames"), 120);
    } else {
      EXPECT_LE(fs::file_size(path), 20000u);
      EXPECT_GT(StreamInt(path, 0, "nb_read_frames"), 0);
    }
  }
}

}  // namespace
}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel
