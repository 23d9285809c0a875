// Feeds the container writer (LocalRecordingSegmentationWriter with its built-in FFmpeg
// backend) metadata, a Start and a run of packets decoded from the input, into a temp
// directory: valid parameter sets and slice headers with fuzzed tails, wrong codecs,
// broken AAC, odd PCM sizes, timestamps that repeat, step back or jump. The writer
// must not crash, every call must return, and a successful Stop must report exactly
// the bytes of the files it left (segment files included).
#include <dirent.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "sdk/base/logging.h"
#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"
#include "tests/support/scoped_temp_dir.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using tarnel::CopyOnWriteBuffer;
using tarnel::audio::AudioFrame;
using tarnel::extensions::local_recording::LocalRecordingSegmentationWriter;
using tarnel::extensions::local_recording::LocalRecordingType;
using tarnel::video::VideoFrame;
using Bytes = std::vector<uint8_t>;

// Parameter sets and slice-header starts of a 64x48 picture from x264 / x265.
const Bytes kAvcSps = {0x67, 0x42, 0xc0, 0x0a, 0xda, 0x11, 0xec, 0x04, 0x40, 0x00, 0x00,
                       0x03, 0x00, 0x40, 0x00, 0x00, 0x05, 0x03, 0xc4, 0x89, 0xa8};
const Bytes kAvcPps = {0x68, 0xce, 0x0f, 0xc8};
const Bytes kAvcIdr = {0x65, 0x88, 0x84, 0x3a, 0x0c, 0x60, 0x00, 0x80, 0x00, 0x20, 0x04, 0x25};
const Bytes kAvcNonIdr = {0x41, 0x9a, 0x22, 0x6c, 0x41, 0xff};
const Bytes kHevcVps = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                        0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1e, 0x95, 0x94, 0x09};
const Bytes kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                        0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x1e, 0xa0, 0x20, 0x83, 0x16,
                        0x59, 0x59, 0x52, 0x93, 0x0b, 0xc0, 0x5a, 0x02, 0x00, 0x00, 0x03,
                        0x00, 0x02, 0x00, 0x00, 0x03, 0x00, 0x14, 0x10};
const Bytes kHevcPps = {0x44, 0x01, 0xc0, 0x73, 0xc0, 0x89};
const Bytes kHevcIdr = {0x28, 0x01, 0xac, 0x46, 0x98, 0x94, 0xa4, 0xad, 0x93, 0x4c, 0xeb, 0x30};
const Bytes kHevcTrail = {0x02, 0x01, 0xd0, 0x09, 0x7e};

void Append(Bytes* out, const Bytes& unit) {
  out->insert(out->end(), {0, 0, 0, 1});
  out->insert(out->end(), unit.begin(), unit.end());
}

CopyOnWriteBuffer Buffer(const Bytes& bytes) {
  return bytes.empty() ? CopyOnWriteBuffer() : CopyOnWriteBuffer(bytes.data(), bytes.size());
}

class SegmentLog : public LocalRecordingSegmentationWriter::Client {
 public:
  void OnRecordingSegment(const std::string& path) override { paths.push_back(path); }
  std::vector<std::string> paths;
};

int64_t BytesInDirectory(const std::string& dir) {
  int64_t total = 0;
  DIR* d = opendir(dir.c_str());
  if (!d) abort();
  while (dirent* entry = readdir(d)) {
    struct stat st;
    const std::string path = dir + "/" + entry->d_name;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) total += st.st_size;
  }
  closedir(d);
  return total;
}

class Packets {
 public:
  explicit Packets(FuzzedDataProvider* in) : in_(*in) {}

  std::unique_ptr<VideoFrame> Video(int32_t codec) {
    auto f = std::make_unique<VideoFrame>();
    const int step = in_.ConsumeIntegralInRange(0, 9);
    pts_ += step == 0   ? -in_.ConsumeIntegralInRange<int64_t>(0, 100)
            : step == 1 ? in_.ConsumeIntegralInRange<int64_t>(0, 1 << 20)
                        : 33;
    if (pts_ < 0) pts_ = 0;
    f->pts = static_cast<uint64_t>(pts_);
    f->dts = in_.ConsumeBool()
                 ? f->pts
                 : f->pts - std::min<uint64_t>(f->pts, in_.ConsumeIntegral<uint8_t>());
    f->codec_type =
        in_.ConsumeIntegralInRange(0, 7) == 0 ? in_.ConsumeIntegralInRange(-1, 3) : codec;
    const bool hevc = f->codec_type == tarnel::video::kCodecH265;
    f->frame_type = in_.ConsumeIntegralInRange(0, 3) == 0 ? tarnel::video::kKeyFrame
                                                          : tarnel::video::kDeltaFrame;
    f->width = 64;
    f->height = 48;
    if (in_.ConsumeIntegralInRange(0, 15) == 0) {
      f->width = in_.ConsumeIntegral<uint16_t>();
      f->height = in_.ConsumeIntegral<uint16_t>();
    }
    Bytes data;
    switch (in_.ConsumeIntegralInRange(0, 3)) {
      case 0:  // Raw bytes.
        break;
      case 1:  // A key frame with its parameter sets.
        if (hevc) Append(&data, kHevcVps);
        Append(&data, hevc ? kHevcSps : kAvcSps);
        Append(&data, hevc ? kHevcPps : kAvcPps);
        Append(&data, hevc ? kHevcIdr : kAvcIdr);
        break;
      default:  // A slice without parameter sets.
        Append(&data, f->frame_type == tarnel::video::kKeyFrame ? (hevc ? kHevcIdr : kAvcIdr)
                                                                : (hevc ? kHevcTrail : kAvcNonIdr));
        break;
    }
    const Bytes tail = in_.ConsumeBytes<uint8_t>(in_.ConsumeIntegralInRange(0, 64));
    data.insert(data.end(), tail.begin(), tail.end());
    f->data = Buffer(data);
    return f;
  }

  std::unique_ptr<AudioFrame> Audio(int32_t rate, int32_t channels) {
    auto f = std::make_unique<AudioFrame>();
    if (in_.ConsumeIntegralInRange(0, 7) == 0) {
      rate = in_.ConsumeIntegralInRange(-1, 200000);
      channels = in_.ConsumeIntegralInRange(-1, 9);
    }
    f->SetSampleRate(rate);
    f->SetChannels(channels);
    const bool aac = in_.ConsumeBool();
    f->SetAudioFrameFormat(aac ? tarnel::audio::kAac : tarnel::audio::kPcm);
    Bytes data;
    if (aac) {
      if (in_.ConsumeBool()) {
        // An ADTS header (AAC-LC, 48 kHz, stereo) with a fuzzed length field.
        const uint16_t length = in_.ConsumeIntegral<uint16_t>() & 0x1fff;
        data = {0xff,
                0xf1,
                0x4c,
                static_cast<uint8_t>(0x80 | (length >> 11)),
                static_cast<uint8_t>(length >> 3),
                static_cast<uint8_t>((length << 5) | 0x1f),
                0xfc};
      }
      const Bytes payload = in_.ConsumeBytes<uint8_t>(in_.ConsumeIntegralInRange(0, 300));
      data.insert(data.end(), payload.begin(), payload.end());
      static constexpr int32_t kDelays[] = {0, 0, 1024, 2112, -5, 100000};
      f->SetEncoderDelaySamples(in_.PickValueInArray(kDelays));
    } else {
      const size_t ms = in_.ConsumeIntegralInRange(0, 40);
      size_t size = rate > 0 && channels > 0 && rate < 200000
                        ? static_cast<size_t>(rate) * ms / 1000 * channels * 2
                        : ms * 10;
      if (in_.ConsumeIntegralInRange(0, 7) == 0) size += 1;  // Half a sample.
      data.assign(size, 0x11);
    }
    if (!data.empty()) f->SetData(data.data(), data.size());
    const int step = in_.ConsumeIntegralInRange(0, 9);
    ts_ += step == 0   ? -in_.ConsumeIntegralInRange<int64_t>(0, 100)
           : step == 1 ? in_.ConsumeIntegralInRange<int64_t>(0, 1 << 20)
                       : 21;
    if (ts_ < 0) ts_ = 0;
    f->SetTimestampInMs(static_cast<uint32_t>(ts_));
    return f;
  }

 private:
  FuzzedDataProvider& in_;
  int64_t pts_ = 0;
  int64_t ts_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const bool verbose = getenv("TARNEL_FUZZ_LOG") != nullptr;
  tarn_logging::SetStderrLoggingEnabled(verbose);
  av_log_set_level(verbose ? AV_LOG_WARNING : AV_LOG_QUIET);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  tarnel_test::ScopedTempDir dir;
  if (!dir.CreateUniqueTempDir()) abort();
  const std::string root = dir.GetPath().value();

  SegmentLog segments;
  int64_t stop_result = 0;
  {
    LocalRecordingSegmentationWriter writer(&segments);
    const int32_t codec = in.ConsumeBool() ? tarnel::video::kCodecH264 : tarnel::video::kCodecH265;
    const bool hevc = codec == tarnel::video::kCodecH265;
    if (in.ConsumeBool()) {
      tarnel::media_stream_writer::VideoMetadata video;
      video.codec_type =
          in.ConsumeIntegralInRange(0, 7) == 0 ? in.ConsumeIntegral<int8_t>() : codec;
      video.width = in.ConsumeBool() ? 64 : in.ConsumeIntegral<uint16_t>();
      video.height = in.ConsumeBool() ? 48 : in.ConsumeIntegral<uint16_t>();
      switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:  // None.
          break;
        case 1:  // Fuzzed.
          video.vps = Buffer(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 40)));
          video.sps = Buffer(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 40)));
          video.pps = Buffer(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 10)));
          break;
        default:
          if (hevc) video.vps = Buffer(kHevcVps);
          video.sps = Buffer(hevc ? kHevcSps : kAvcSps);
          video.pps = Buffer(hevc ? kHevcPps : kAvcPps);
          break;
      }
      writer.SetVideoMetaData(video);
    }
    static constexpr int32_t kRates[] = {48000, 48000, 44100, 16000, 8000, 0, -1, 96000};
    static constexpr int32_t kChannels[] = {1, 2, 2, 1, 0, -1, 6, 3};
    const int32_t rate = in.PickValueInArray(kRates);
    const int32_t channels = in.PickValueInArray(kChannels);
    if (in.ConsumeBool()) {
      tarnel::audio::AudioMetadata audio;
      audio.sample_rate = rate;
      audio.channels = channels;
      audio.codec_format = in.ConsumeBool() ? tarnel::audio::kPcm : tarnel::audio::kAac;
      writer.SetAudioMetaData(audio);
    }

    const auto format =
        static_cast<tarnel::media_stream_writer::MediaFormat>(in.ConsumeIntegralInRange(0, 6));
    const auto type = static_cast<LocalRecordingType>(in.ConsumeIntegralInRange(0, 3));
    static constexpr int kSegments[] = {0, 0, -1, 1, 2};
    const int segment_interval = in.PickValueInArray(kSegments);
    std::string path = root + "/out.bin";
    if (in.ConsumeIntegralInRange(0, 15) == 0) path = root + "/missing/out.bin";

    if (writer.Start(path, format, type, segment_interval) == 0) {
      Packets packets(&in);
      for (int i = 0; i < 400 && in.remaining_bytes() > 0; ++i) {
        if (in.ConsumeBool()) {
          writer.WriteVideoPacket(packets.Video(codec));
        } else {
          writer.WriteAudioPacket(packets.Audio(rate, channels));
        }
      }
    }
    stop_result = writer.Stop();
    if (writer.Stop() != stop_result) abort();  // Repeated Stop reports the first result.
  }
  for (const std::string& path : segments.paths) {
    if (path.compare(0, root.size() + 1, root + "/") != 0) abort();
  }
  const int64_t on_disk = BytesInDirectory(root);
  if (stop_result >= 0 && stop_result != on_disk) {
    fprintf(stderr, "Stop reported %lld bytes, the files hold %lld\n",
            static_cast<long long>(stop_result), static_cast<long long>(on_disk));
    abort();
  }
  return 0;
}
