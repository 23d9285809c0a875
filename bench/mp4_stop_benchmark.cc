// The cost of finishing an MP4 in place: a recording of N seconds of media (30 fps
// H.264-sized video at ~2 Mb/s with a key frame every 2 s, 48 kHz AAC) is written into
// a temporary file untimed; only the muxer's Finish (the stop) is timed. It writes the
// last fragment, a moov with every sample's entry, syncs the file and rewrites the 16
// bytes after the ftyp, so it should grow with the number of samples, not with the
// bytes of media.
//
//   build-bench/bench/mp4_stop_benchmark
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "sdk/media_stream_writer/container_muxer.h"

namespace {

using tarnel::media_stream_writer::AudioStreamConfig;
using tarnel::media_stream_writer::Bytes;
using tarnel::media_stream_writer::ContainerMuxer;
using tarnel::media_stream_writer::VideoStreamConfig;

constexpr int kFps = 30;
constexpr int kAudioRate = 48000;

// An avcC for 1280x720 High profile: only its SPS header fields are read.
const Bytes kAvcC = {0x01, 0x64, 0x00, 0x1f, 0xff, 0xe1, 0x00, 0x04, 0x67, 0x64,
                     0x00, 0x1f, 0x01, 0x00, 0x04, 0x68, 0xee, 0x3c, 0x80};

std::string TempPath() {
  char name[] = "/tmp/mp4_stop_benchmark_XXXXXX";
  const int fd = mkstemp(name);
  if (fd >= 0) close(fd);
  return name;
}

// Writes `seconds` of media into a new muxer at `path`, interleaved by time.
std::unique_ptr<ContainerMuxer> Record(const std::string& path, int seconds) {
  std::unique_ptr<ContainerMuxer> muxer = ContainerMuxer::Create(ContainerMuxer::kMp4, path);
  VideoStreamConfig video;
  video.width = 1280;
  video.height = 720;
  video.decoder_config = kAvcC;
  video.time_base_den = 90000;
  AudioStreamConfig audio;
  audio.aac = true;
  audio.sample_rate = kAudioRate;
  audio.channels = 2;
  audio.audio_specific_config = {0x11, 0x90};
  const int v = muxer->AddVideoStream(video);
  const int a = muxer->AddAudioStream(audio);
  muxer->WriteHeader();
  const Bytes key(60000, 0x11);
  const Bytes delta(7500, 0x22);
  const Bytes aac(512, 0x33);
  const int64_t frames = int64_t{seconds} * kFps;
  int64_t audio_frame = 0;
  for (int64_t f = 0; f < frames; ++f) {
    const int64_t pts = f * 90000 / kFps;
    for (; audio_frame * 1024 * 90000 / kAudioRate <= pts; ++audio_frame) {
      muxer->WritePacket(a, aac.data(), aac.size(), audio_frame * 1024, audio_frame * 1024, 1024,
                         true);
    }
    const bool is_key = f % (2 * kFps) == 0;
    const Bytes& sample = is_key ? key : delta;
    muxer->WritePacket(v, sample.data(), sample.size(), pts, pts, 3000, is_key);
  }
  return muxer;
}

void BM_Mp4Stop(benchmark::State& state) {
  const int seconds = static_cast<int>(state.range(0));
  int64_t size = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = TempPath();
    std::unique_ptr<ContainerMuxer> muxer = Record(path, seconds);
    sync();  // The media of this round on disk, so that only the stop's own bytes count.
    state.ResumeTiming();
    size = muxer->Finish();
    state.PauseTiming();
    std::remove(path.c_str());
    state.ResumeTiming();
  }
  state.counters["file_MB"] = static_cast<double>(size) / 1e6;
  state.counters["media_s"] = seconds;
}
BENCHMARK(BM_Mp4Stop)->Arg(10)->Iterations(20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Mp4Stop)->Arg(3600)->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
