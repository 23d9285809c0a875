// AAC encoding cost per 1024-sample piece of 48 kHz audio for our encoder and
// libavcodec's two-loop and fast coders, at the recorder's bit rates (stereo at 196608
// b/s, mono at the default AudioEncodeParams rate), on generated signals (music-like,
// speech-like, a loud tone, a loud tone over a quiet chord) and, when given, real
// recordings: TARNEL_BENCH_MUSIC and TARNEL_BENCH_SPEECH name raw 48 kHz stereo s16le
// files (bench/run_aac_benchmark.sh makes them from Debian-packaged recordings).
//
// Each benchmark also encodes its whole signal once, decodes it with libavcodec's aac
// decoder, drops the encoder delay and reports against the source:
//   snr_db      SNR over the whole signal;
//   seg_snr_db  mean of per-1024-sample-block SNRs (each clamped to [-10, 60] dB; silent
//               blocks skipped), which weighs quiet passages like loud ones.
// Waveform SNR is no quality measure for a perceptual coder (it ranks the fast coder
// above two-loop on music); bench/quality/ has the noise-to-mask ratio that is.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "benchmark/benchmark.h"
#include "sdk/base/logging.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_frame.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"

namespace {

using tarnel::audio::AacEncoderKind;
using tarnel::audio::AudioEncodeParams;
using tarnel::audio::AudioEncoder;
using tarnel::audio::AudioFrame;
using tarnel::audio::kAacSamplesPerFrame;

constexpr int kRate = 48000;
constexpr int kSeconds = 10;
constexpr int kPieces = kSeconds * kRate / kAacSamplesPerFrame;
constexpr double kPi = 3.14159265358979323846;

enum class Signal { kMusic, kSpeech, kLoudTone, kToneOverChord, kRealMusic, kRealSpeech };

int16_t ToS16(double value) {
  return static_cast<int16_t>(std::lround(std::clamp(value, -1.0, 1.0) * 32767.0));
}

// A sustained A-major chord with harmonics and 5 Hz vibrato, a new chord voicing every
// two seconds, plucked-note envelopes and a little noise; the two channels get the
// voices panned differently.
std::vector<int16_t> MakeMusic(int channels, int samples) {
  const double roots[] = {220.0, 246.94, 196.0, 261.63, 220.0};
  const double intervals[] = {1.0, 1.2599, 1.4983, 2.0};  // Root, third, fifth, octave.
  std::mt19937 rng(11);
  std::normal_distribution<double> noise(0.0, 0.004);
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels);
  std::vector<double> phase(4, 0.0);
  for (int i = 0; i < samples; ++i) {
    const double t = static_cast<double>(i) / kRate;
    const double root = roots[(i / (2 * kRate)) % 5];
    const double vibrato = 1.0 + 0.005 * std::sin(2 * kPi * 5.0 * t);
    const double note_time = std::fmod(t, 0.5);
    const double envelope = 0.3 + 0.7 * std::exp(-4.0 * note_time);
    double left = 0;
    double right = 0;
    for (int v = 0; v < 4; ++v) {
      phase[v] += 2 * kPi * root * intervals[v] * vibrato / kRate;
      double voice = 0;
      for (int h = 1; h <= 6; ++h) voice += std::sin(h * phase[v]) / (h * h);
      const double pan = (v + 0.5) / 4.0;
      left += voice * (1.0 - pan);
      right += voice * pan;
    }
    const double n = noise(rng);
    if (channels == 1) {
      pcm[i] = ToS16(0.12 * envelope * (left + right) + n);
    } else {
      pcm[2 * i] = ToS16(0.2 * envelope * left + n);
      pcm[2 * i + 1] = ToS16(0.2 * envelope * right + noise(rng));
    }
  }
  return pcm;
}

// Speech-like: a glottal pulse train (pitch gliding 100..150 Hz) through three formant
// resonators whose frequencies change per 180 ms syllable, syllables separated by short
// pauses, and a noise burst (fricative) at the end of every third one.
std::vector<int16_t> MakeSpeech(int channels, int samples) {
  struct Vowel {
    double f1, f2, f3;
  };
  const Vowel vowels[] = {{730, 1090, 2440}, {270, 2290, 3010}, {530, 1840, 2480},
                          {570, 840, 2410},  {300, 870, 2240},  {660, 1720, 2410}};
  std::mt19937 rng(5);
  std::normal_distribution<double> white(0.0, 1.0);
  const int syllable = kRate * 18 / 100;
  const int pause = kRate * 7 / 100;
  // Two-pole resonator state per formant.
  double y1[3] = {0, 0, 0};
  double y2[3] = {0, 0, 0};
  double pitch_phase = 0;
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels);
  for (int i = 0; i < samples; ++i) {
    const int index = i / (syllable + pause);
    const int within = i % (syllable + pause);
    double value = 0;
    if (within < syllable) {
      const Vowel& v = vowels[index % 6];
      const double t = static_cast<double>(within) / syllable;
      const double f0 = 100.0 + 50.0 * std::sin(kPi * t) + 10.0 * (index % 3);
      pitch_phase += f0 / kRate;
      double excitation = 0;
      if (pitch_phase >= 1.0) {
        pitch_phase -= 1.0;
        excitation = 1.0;
      }
      const bool fricative = index % 3 == 2 && t > 0.75;
      if (fricative) excitation = 0.15 * white(rng);
      const double formants[3] = {v.f1, v.f2, fricative ? 4500.0 : v.f3};
      const double bandwidths[3] = {80, 100, fricative ? 1500.0 : 150};
      for (int f = 0; f < 3; ++f) {
        const double r = std::exp(-kPi * bandwidths[f] / kRate);
        const double a1 = 2 * r * std::cos(2 * kPi * formants[f] / kRate);
        const double a2 = -r * r;
        const double y = (1 - r) * excitation + a1 * y1[f] + a2 * y2[f];
        y2[f] = y1[f];
        y1[f] = y;
        value += y / (f + 1);
      }
      value *= 4.0 * std::sin(kPi * t);  // Syllable envelope; peaks near -6 dBFS.
    }
    for (int c = 0; c < channels; ++c) pcm[static_cast<size_t>(i) * channels + c] = ToS16(value);
  }
  return pcm;
}

// A 1 kHz sine at -3 dBFS in every channel: a beep, a whistle, a held note.
std::vector<int16_t> MakeLoudTone(int channels, int samples) {
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels);
  for (int i = 0; i < samples; ++i) {
    const int16_t value = ToS16(0.7 * std::sin(2 * kPi * 1000.0 * i / kRate));
    for (int c = 0; c < channels; ++c) pcm[static_cast<size_t>(i) * channels + c] = value;
  }
  return pcm;
}

// Left: the loud tone; right: a quiet two-note chord. The fast coder spends its whole
// budget on this and still clips the tone.
std::vector<int16_t> MakeToneOverChord(int samples) {
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * 2);
  for (int i = 0; i < samples; ++i) {
    const double t = static_cast<double>(i) / kRate;
    pcm[2 * static_cast<size_t>(i)] = ToS16(0.7 * std::sin(2 * kPi * 1000.0 * t));
    pcm[2 * static_cast<size_t>(i) + 1] =
        ToS16(0.1 * std::sin(2 * kPi * 220.0 * t) + 0.1 * std::sin(2 * kPi * 330.0 * t));
  }
  return pcm;
}

// kSeconds of the raw 48 kHz stereo s16le file named by `variable` (looped if shorter),
// mixed down for mono; empty when the variable is unset or the file unreadable.
std::vector<int16_t> ReadRecording(const char* variable, int channels, int samples) {
  const char* path = std::getenv(variable);
  if (path == nullptr) return {};
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
  std::vector<int16_t> stereo(bytes.size() / 4 * 2);
  std::memcpy(stereo.data(), bytes.data(), stereo.size() * sizeof(int16_t));
  if (stereo.empty()) return {};
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels);
  const size_t frames = stereo.size() / 2;
  for (size_t i = 0; i < static_cast<size_t>(samples); ++i) {
    const int16_t* in = &stereo[2 * (i % frames)];
    if (channels == 2) {
      pcm[2 * i] = in[0];
      pcm[2 * i + 1] = in[1];
    } else {
      pcm[i] = static_cast<int16_t>((in[0] + in[1]) / 2);
    }
  }
  return pcm;
}

std::vector<int16_t> MakeSignal(Signal signal, int channels) {
  const int samples = kPieces * kAacSamplesPerFrame;
  switch (signal) {
    case Signal::kRealMusic:
      return ReadRecording("TARNEL_BENCH_MUSIC", channels, samples);
    case Signal::kRealSpeech:
      return ReadRecording("TARNEL_BENCH_SPEECH", channels, samples);
    case Signal::kMusic:
      return MakeMusic(channels, samples);
    case Signal::kSpeech:
      return MakeSpeech(channels, samples);
    case Signal::kLoudTone:
      return MakeLoudTone(channels, samples);
    case Signal::kToneOverChord:
      return MakeToneOverChord(samples);  // Stereo only.
  }
  return {};
}

std::shared_ptr<AudioFrame> Piece(const std::vector<int16_t>& pcm, int channels, int index) {
  auto frame = std::make_shared<AudioFrame>();
  const size_t values = static_cast<size_t>(kAacSamplesPerFrame) * channels;
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data() + index * values),
                 values * sizeof(int16_t));
  frame->SetSampleRate(kRate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(static_cast<uint32_t>(index * 1000LL * kAacSamplesPerFrame / kRate));
  return frame;
}

// Decoded interleaved s16-scale samples of raw 48 kHz AAC-LC access units.
std::vector<double> Decode(const std::vector<std::shared_ptr<AudioFrame>>& frames, int channels) {
  std::vector<double> pcm;
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  tarnel::FfmpegPtr<AVCodecContext> context(avcodec_alloc_context3(codec));
  // The two-byte MPEG-4 audio config: AAC-LC, 48 kHz (index 3), `channels`.
  context->extradata = static_cast<uint8_t*>(av_mallocz(2 + AV_INPUT_BUFFER_PADDING_SIZE));
  context->extradata[0] = (2 << 3) | (3 >> 1);
  context->extradata[1] = static_cast<uint8_t>(((3 & 1) << 7) | (channels << 3));
  context->extradata_size = 2;
  tarnel::FfmpegPtr<AVPacket> packet(av_packet_alloc());
  tarnel::FfmpegPtr<AVFrame> frame(av_frame_alloc());
  if (avcodec_open2(context.get(), codec, nullptr) >= 0) {
    for (const auto& encoded : frames) {
      if (av_new_packet(packet.get(), static_cast<int>(encoded->GetSize())) < 0) break;
      std::memcpy(packet->data, encoded->GetData(), encoded->GetSize());
      const int sent = avcodec_send_packet(context.get(), packet.get());
      av_packet_unref(packet.get());
      if (sent < 0) break;
      while (avcodec_receive_frame(context.get(), frame.get()) >= 0) {
        for (int i = 0; i < frame->nb_samples; ++i) {
          for (int c = 0; c < channels; ++c) {
            pcm.push_back(reinterpret_cast<const float*>(frame->data[c])[i] * 32768.0);
          }
        }
      }
    }
  }
  return pcm;
}

struct Quality {
  double snr_db = 0;
  double seg_snr_db = 0;
};

// Encodes and decodes `pcm` and compares the decoded audio, less the delay, with it.
Quality Measure(AacEncoderKind kind, const std::vector<int16_t>& pcm, int channels, int bitrate) {
  std::unique_ptr<AudioEncoder> encoder = tarnel::audio::CreateAacEncoder(kind);
  AudioEncodeParams params;
  params.channels = channels;
  params.bitrate = bitrate;
  params.raw_access_units = 1;
  std::vector<std::shared_ptr<AudioFrame>> frames;
  if (!encoder->Init(params)) return {};
  for (int n = 0; n < kPieces; ++n) {
    std::shared_ptr<AudioFrame> out = encoder->Encode(Piece(pcm, channels, n));
    if (!out) return {};
    frames.push_back(out);
  }
  const std::vector<double> decoded = Decode(frames, channels);
  const size_t skip = static_cast<size_t>(encoder->GetPrimingSamples()) * channels;
  if (decoded.size() <= skip) return {};
  const size_t compared = decoded.size() - skip;
  const size_t block = static_cast<size_t>(kAacSamplesPerFrame) * channels;

  double signal = 0;
  double noise = 0;
  double seg_sum = 0;
  int seg_count = 0;
  for (size_t start = 0; start + block <= compared; start += block) {
    double block_signal = 0;
    double block_noise = 0;
    for (size_t i = start; i < start + block; ++i) {
      const double error = decoded[i + skip] - pcm[i];
      block_signal += static_cast<double>(pcm[i]) * pcm[i];
      block_noise += error * error;
    }
    signal += block_signal;
    noise += block_noise;
    if (block_signal > 1.0 * block) {  // Skip digital silence and near-silence.
      seg_sum +=
          std::clamp(10 * std::log10(block_signal / std::max(block_noise, 1e-9)), -10.0, 60.0);
      ++seg_count;
    }
  }
  Quality quality;
  quality.snr_db = 10 * std::log10(signal / std::max(noise, 1e-9));
  quality.seg_snr_db = seg_count > 0 ? seg_sum / seg_count : 0;
  return quality;
}

void BM_AacEncodePiece(benchmark::State& state, AacEncoderKind kind, Signal signal, int channels,
                       int bitrate) {
  tarn_logging::SetMinSeverity(tarn_logging::LS_WARNING);
  const std::vector<int16_t> pcm = MakeSignal(signal, channels);
  if (pcm.empty()) {
    state.SkipWithError("no recording: set TARNEL_BENCH_MUSIC / TARNEL_BENCH_SPEECH");
    return;
  }
  std::vector<std::shared_ptr<AudioFrame>> pieces;
  for (int n = 0; n < kPieces; ++n) pieces.push_back(Piece(pcm, channels, n));

  std::unique_ptr<AudioEncoder> encoder = tarnel::audio::CreateAacEncoder(kind);
  AudioEncodeParams params;
  params.channels = channels;
  params.bitrate = bitrate;
  params.raw_access_units = 1;
  if (!encoder->Init(params)) {
    state.SkipWithError("Init failed");
    return;
  }
  size_t bytes = 0;
  int n = 0;
  for (auto _ : state) {
    std::shared_ptr<AudioFrame> out = encoder->Encode(pieces[n]);
    if (!out) {
      state.SkipWithError("Encode failed");
      return;
    }
    bytes += out->GetSize();
    n = (n + 1) % kPieces;
  }
  const Quality quality = Measure(kind, pcm, channels, bitrate);
  state.counters["snr_db"] = quality.snr_db;
  state.counters["seg_snr_db"] = quality.seg_snr_db;
  // What the encoder actually spent, against the asked-for rate.
  state.counters["kbps"] = static_cast<double>(bytes) * 8 * kRate / kAacSamplesPerFrame /
                           static_cast<double>(state.iterations()) / 1000.0;
}

const int kMonoBitrate = AudioEncodeParams().bitrate;

// Every encoder on every signal, stereo at the recorder's rate; music, speech and the
// tone in mono too.
void RegisterAll() {
  const struct {
    const char* name;
    Signal signal;
    bool mono;
  } signals[] = {
      {"real_music", Signal::kRealMusic, true}, {"real_speech", Signal::kRealSpeech, true},
      {"music", Signal::kMusic, true},          {"speech", Signal::kSpeech, true},
      {"loud_tone", Signal::kLoudTone, true},   {"tone_over_chord", Signal::kToneOverChord, false},
  };
  for (const auto& signal : signals) {
    for (const AacEncoderKind kind :
         {AacEncoderKind::kBuiltIn, AacEncoderKind::kFfmpegTwoLoop, AacEncoderKind::kFfmpegFast}) {
      const std::string base =
          std::string(tarnel::audio::AacEncoderKindName(kind)) + "_" + signal.name;
      benchmark::RegisterBenchmark((base + "_stereo_196608").c_str(), BM_AacEncodePiece, kind,
                                   signal.signal, 2, 196608);
      if (signal.mono) {
        benchmark::RegisterBenchmark((base + "_mono_default").c_str(), BM_AacEncodePiece, kind,
                                     signal.signal, 1, kMonoBitrate);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  RegisterAll();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
