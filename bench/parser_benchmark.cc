// Per-frame costs on the recorder's worker thread: finding the parameter sets of a key
// frame, and re-cutting PCM into encoder-sized pieces; and on the writer's: turning an
// Annex-B access unit into the length-prefixed form MP4 and MKV store.
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "benchmark/benchmark.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/audio_frame_ring_buffer.h"
#include "sdk/media_stream_writer/ffmpeg/codec_config.h"
#include "sdk/media_stream_writer/video_parser.h"

namespace {

// AUD, SPS, PPS, SEI and a ~30 KB IDR slice of random bytes, kept free of start codes the
// way an encoder's emulation prevention keeps real slice data.
std::vector<uint8_t> MakeKeyFrame() {
  std::vector<uint8_t> au = {0,    0,    0,    1,    0x09, 0xf0,  // AUD
                             0,    0,    0,    1,    0x67, 0x64, 0x00, 0x28, 0xac, 0xd9,
                             0x40, 0x78, 0x02, 0x27, 0xe5, 0x84, 0x00, 0x00, 0x03, 0x00,
                             0x04, 0x00, 0x00, 0x03, 0x00, 0xf0, 0x3c, 0x60, 0xc6, 0x58,  // SPS
                             0,    0,    0,    1,    0x68, 0xeb, 0xe3, 0xcb, 0x22, 0xc0,  // PPS
                             0,    0,    1,    0x06, 0x05, 0x10, 0xaa, 0x80,              // SEI
                             0,    0,    1,    0x65, 0x88, 0x84};                         // IDR
  std::mt19937 rng(7);
  int zeros = 0;
  for (int i = 0; i < 30 * 1024; ++i) {
    uint8_t byte = static_cast<uint8_t>(rng());
    if (zeros >= 2 && byte <= 3) {
      au.push_back(0x03);
      zeros = 0;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    au.push_back(byte);
  }
  au.push_back(0x80);
  return au;
}

void BM_AvcParameterSetsOfKeyFrame(benchmark::State& state) {
  const std::vector<uint8_t> au = MakeKeyFrame();
  tarnel::video::VideoAVCParser parser;
  if (parser.ParseParameterSets(au.data(), au.size()).size() != 2) {
    state.SkipWithError("the synthetic key frame should carry one SPS and one PPS");
    return;
  }
  for (auto _ : state) {
    tarnel::video::ParameterSetList sets = parser.ParseParameterSets(au.data(), au.size());
    benchmark::DoNotOptimize(sets.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(au.size()));
}
BENCHMARK(BM_AvcParameterSetsOfKeyFrame);

void BM_AnnexBToLengthPrefixedKeyFrame(benchmark::State& state) {
  const std::vector<uint8_t> au = MakeKeyFrame();
  for (auto _ : state) {
    auto out = tarnel::media_stream_writer::AnnexBToLengthPrefixed(au.data(), au.size());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(au.size()));
}
BENCHMARK(BM_AnnexBToLengthPrefixedKeyFrame);

// One iteration: one 10 ms 48 kHz stereo frame in, every whole 4096-byte piece out.
void BM_RingBufferTenMsFramesInto4096BytePieces(benchmark::State& state) {
  constexpr int32_t kRate = 48000;
  constexpr int32_t kChannels = 2;
  constexpr int kPiece = 4096;
  const std::vector<uint8_t> pcm(kRate / 100 * kChannels * 2, 0x5a);
  tarnel::audio::AudioFrameRingBuffer ring;
  uint32_t timestamp_ms = 0;
  for (auto _ : state) {
    auto frame = std::make_unique<tarnel::audio::AudioFrame>();
    frame->SetData(pcm.data(), pcm.size());
    frame->SetSampleRate(kRate);
    frame->SetChannels(kChannels);
    frame->SetTimestampInMs(timestamp_ms);
    timestamp_ms += 10;
    ring.Write(std::move(frame));
    while (ring.GetSizeInBytes() >= kPiece) {
      std::unique_ptr<tarnel::audio::AudioFrame> piece = ring.ReadInBytes(kPiece);
      benchmark::DoNotOptimize(piece.get());
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(pcm.size()));
}
BENCHMARK(BM_RingBufferTenMsFramesInto4096BytePieces);

}  // namespace
