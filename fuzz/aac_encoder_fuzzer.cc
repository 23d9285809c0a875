// Feeds our AAC-LC encoder (AacEncoder, 48 kHz) PCM pieces built from compact
// descriptions in the input: full-scale noise, DC, impulses, Nyquist-rate alternation,
// square waves, sweeps near Nyquist, tones, silence, steps and raw input bytes, with
// stereo channels equal, opposite, one-sided or different. Every piece must give an
// access unit that fits the decoder's buffer, at the stream's constant rate, with a
// valid ADTS header when it has one; the whole stream must then decode without a
// single error in both libavcodec's decoder and FAAD2, and the two decoders must agree
// sample by sample.
//
// Input layout (bytes; a missing byte reads as 0):
//   [0]      setup: bit 0 stereo, bit 1 raw access units (else ADTS), bits 2-7 rate:
//            0 = the recorder's (196608 b/s stereo, 64000 mono), 1..63 = 32000 plus
//            (value - 1) x 224000 / 62, i.e. 32..256 kb/s for the stream.
//   then up to kMaxPieces pieces of 5 bytes:
//            kind/mode: bits 0-3 kind (modulo kKinds, see Kind), bits 4-5 how the right
//                       channel relates to the left (see Stereo), bits 6-7 where the
//                       signal is on (see Edge);
//            level:     >= 0x80 full scale, else 0.75 dB quieter per step below 0x80;
//            param:     two bytes, little-endian: seed, position, frequency or size;
//            edge:      x 4 = the sample where a step happens.
//            A kRawBytes piece then takes 2 x (1 + param % 2048) more bytes (fewer at
//            the end of the input) and repeats them as samples over the piece.
// One silent piece always follows, so that the last described piece is decoded too
// (the decoded audio lags the input by one frame).
//
// Seeds named regression-* failed on earlier encoders: -mismatched-overlap (a switch from
// a long-ending window straight to eight short ones after a frame with content:
// libavcodec and FAAD2 overlap different parts of that frame and disagreed by ~11000 in
// a silent block), -muted-after-noise (under ~48 kb/s one block of loud noise left every
// later frame empty: silence for the rest of the stream).
#include <neaacdec.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "sdk/base/logging.h"
#include "sdk/media/aac/aac_encoder.h"
#include "sdk/media/aac/aac_syntax.h"
#include "tests/support/aac_decode.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using tarnel::audio::AudioEncodeParams;
using tarnel::audio::AudioFrame;
using tarnel::audio::kAacSamplesPerFrame;
using tarnel::audio::aac::AacEncoder;
namespace aac = tarnel::audio::aac;

constexpr int kSampleRate = 48000;
constexpr int kFrame = kAacSamplesPerFrame;
constexpr int kMaxPieces = 8;
constexpr int kMaxBitsPerChannel = 6144;
// The recorder's rates (local_recording_impl.cc and AudioEncodeParams' default).
constexpr int kRecorderStereoBitrate = 196608;
constexpr int kRecorderMonoBitrate = 64000;
// libavcodec and FAAD2 both decode in single precision, with different transforms:
// on full-scale streams they differ by a few hundredths of a 16-bit step. Temporal noise
// shaping runs an all-pole filter over the spectrum, whose coefficients each decoder
// derives its own way: with it, loud frames differ by up to ~2e-5 of their peak (0.56
// in a stream peaking at 32885). A coding error shows as differences of hundreds.
constexpr float kDecoderTolerance = 0.5f;
constexpr float kDecoderRelativeTolerance = 1e-4f;  // Of the frame's peak.
// A decoded sample this far past full scale means the encoder coded something grossly
// wrong (a band several times too loud), not quantisation noise.
constexpr float kMostDecodedMagnitude = 4.0f * 32768.0f;

enum Kind {
  kSilence,
  kWhiteNoise,
  kDc,
  kImpulse,
  kAlternating,  // +A, -A, +A, ...: all energy at Nyquist.
  kSquare,
  kSweepNearNyquist,
  kTone,
  kRawBytes,
  kKinds
};

enum Stereo { kSame, kOpposite, kLeftOnly, kDifferent };

enum Edge {
  kWhole,
  kStepUp,    // Silence, then the signal from the edge sample on.
  kStepDown,  // The signal, then silence from the edge sample on.
  kWhole2,
};

[[noreturn]] void Fail(const char* what, long a = 0, long b = 0) {
  std::fprintf(stderr, "aac_encoder_fuzzer: %s (%ld, %ld)\n", what, a, b);
  std::abort();
}

class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t Next() { return pos_ < size_ ? data_[pos_++] : 0; }
  size_t remaining() const { return size_ - pos_; }
  const uint8_t* Take(size_t* count) {
    *count = std::min(*count, remaining());
    const uint8_t* at = data_ + pos_;
    pos_ += *count;
    return at;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

int16_t ToPcm(double value) {
  return static_cast<int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0)));
}

// One channel's signal; phases carry over from piece to piece.
class Generator {
 public:
  void Render(Kind kind, double amplitude, uint16_t param, const uint8_t* raw, size_t raw_bytes,
              int16_t* out) {
    const bool full_scale = amplitude >= 32767.0;
    switch (kind) {
      case kSilence:
      case kKinds:
        std::fill(out, out + kFrame, 0);
        break;
      case kWhiteNoise: {
        uint32_t state = param * 2654435761u + 1;
        for (int i = 0; i < kFrame; ++i) {
          state = state * 1664525u + 1013904223u;
          const int32_t r = static_cast<int16_t>(state >> 16);  // -32768..32767
          out[i] = full_scale ? static_cast<int16_t>(r) : ToPcm(r * amplitude / 32768.0);
        }
        break;
      }
      case kDc: {
        const int16_t value =
            param & 1 ? (full_scale && param & 2 ? -32768 : ToPcm(-amplitude)) : ToPcm(amplitude);
        std::fill(out, out + kFrame, value);
        break;
      }
      case kImpulse:
        std::fill(out, out + kFrame, 0);
        out[param % kFrame] = ToPcm(param & 0x400 ? -amplitude : amplitude);
        break;
      case kAlternating:
        for (int i = 0; i < kFrame; ++i) {
          out[i] = ToPcm((clock_ + i) % 2 ? -amplitude : amplitude);
        }
        break;
      case kSquare: {
        const int64_t half_period = 1 + param % 256;
        for (int i = 0; i < kFrame; ++i) {
          out[i] = ToPcm((clock_ + i) / half_period % 2 ? -amplitude : amplitude);
        }
        break;
      }
      case kSweepNearNyquist: {
        // Linear chirp from up to 4 kHz below Nyquist up to Nyquist over the piece.
        const double start = 0.5 - (param % 4000) / static_cast<double>(kSampleRate);
        for (int i = 0; i < kFrame; ++i) {
          const double frequency = start + (0.5 - start) * i / kFrame;  // Cycles a sample.
          out[i] = ToPcm(amplitude * std::sin(phase_));
          phase_ = std::fmod(phase_ + 2.0 * M_PI * frequency, 2.0 * M_PI);
        }
        break;
      }
      case kTone: {
        const double step = 2.0 * M_PI * param / 131072.0;  // 0 .. Nyquist.
        for (int i = 0; i < kFrame; ++i) {
          out[i] = ToPcm(amplitude * std::sin(phase_));
          phase_ = std::fmod(phase_ + step, 2.0 * M_PI);
        }
        break;
      }
      case kRawBytes: {
        const size_t samples = raw_bytes / 2;
        for (int i = 0; i < kFrame; ++i) {
          if (samples == 0) {
            out[i] = 0;
            continue;
          }
          const uint8_t* at = raw + 2 * (i % samples);
          out[i] = static_cast<int16_t>(at[0] | at[1] << 8);
        }
        break;
      }
    }
    clock_ += kFrame;
  }

 private:
  int64_t clock_ = 0;
  double phase_ = 0.0;
};

struct Piece {
  std::vector<int16_t> pcm;  // Interleaved.
  // Loud, steady content well inside the band any of our bit rates codes (white noise,
  // tones of 100 Hz to 3 kHz and square waves under 3 kHz, at -40 dBFS or more, over the
  // whole piece): its decoded frame must not be silent.
  bool audible = false;
  double rms = 0.0;  // Of the first channel.
};

// Builds the next piece from its description.
Piece NextPiece(Reader* reader, int channels, Generator generators[2]) {
  const uint8_t mode = reader->Next();
  const uint8_t level = reader->Next();
  const uint16_t param = static_cast<uint16_t>(reader->Next() | reader->Next() << 8);
  const int edge = reader->Next() * 4 % kFrame;
  const Kind kind = static_cast<Kind>((mode & 0xF) % kKinds);
  const Stereo stereo = static_cast<Stereo>(mode >> 4 & 3);
  const Edge where = static_cast<Edge>(mode >> 6 & 3);
  const double amplitude =
      level >= 0x80 ? 32767.0 : 32767.0 * std::pow(10.0, -(0x80 - level) * 0.75 / 20.0);
  const uint8_t* raw = nullptr;
  size_t raw_bytes = 0;
  if (kind == kRawBytes) {
    raw_bytes = 2 * (1 + static_cast<size_t>(param % 2048));
    raw = reader->Take(&raw_bytes);
  }

  int16_t left[kFrame];
  int16_t right[kFrame];
  generators[0].Render(kind, amplitude, param, raw, raw_bytes, left);
  if (channels == 2) {
    if (stereo == kDifferent) {
      generators[1].Render(kind, amplitude, static_cast<uint16_t>(param ^ 0x5A5A),
                           raw_bytes > 2 ? raw + 2 : raw, raw_bytes > 2 ? raw_bytes - 2 : raw_bytes,
                           right);
    } else {
      generators[1].Render(kSilence, 0.0, 0, nullptr, 0, right);
      for (int i = 0; i < kFrame; ++i) {
        right[i] = stereo == kSame       ? left[i]
                   : stereo == kOpposite ? ToPcm(-static_cast<double>(left[i]))
                                         : 0;
      }
    }
  }
  Piece piece;
  piece.pcm.resize(static_cast<size_t>(kFrame) * channels);
  double energy = 0.0;
  for (int i = 0; i < kFrame; ++i) {
    const bool on = where == kStepUp ? i >= edge : where == kStepDown ? i < edge : true;
    piece.pcm[static_cast<size_t>(i) * channels] = on ? left[i] : 0;
    if (channels == 2) piece.pcm[static_cast<size_t>(i) * 2 + 1] = on ? right[i] : 0;
    energy += on ? static_cast<double>(left[i]) * left[i] : 0.0;
  }
  piece.rms = std::sqrt(energy / kFrame);
  const bool low = kind == kWhiteNoise || (kind == kTone && param >= 300 && param < 8192) ||
                   (kind == kSquare && param % 256 + 1 >= 8);
  piece.audible = low && (where == kWhole || where == kWhole2) && level >= 0x80 - 53;
  return piece;
}

// The window sequence of a raw data block (its first element, a single channel or a
// channel pair), or -1 when the block starts otherwise.
int WindowSequenceOf(const AudioFrame& unit, int header_bytes) {
  const uint8_t* d = unit.GetData() + header_bytes;
  const size_t size = unit.GetSize() - header_bytes;
  auto bits = [&](int at, int count) {
    uint32_t value = 0;
    for (int i = at; i < at + count; ++i) {
      const size_t byte = static_cast<size_t>(i) / 8;
      value = value << 1 | (byte < size ? d[byte] >> (7 - i % 8) & 1 : 0);
    }
    return static_cast<int>(value);
  };
  // id_syn_ele(3) element_instance_tag(4), then for a single channel global_gain(8) and
  // for a pair common_window(1) (without it, the first channel's global_gain(8)); then
  // ics_info's reserved bit and the 2-bit window_sequence.
  switch (bits(0, 3)) {
    case 0:
      return bits(7 + 8 + 1, 2);
    case 1:
      return bits(7, 1) ? bits(7 + 1 + 1, 2) : bits(7 + 1 + 8 + 1, 2);
    default:
      return -1;
  }
}

// Checks the 7-byte ADTS header in front of `unit`.
void CheckAdtsHeader(const AudioFrame& unit, int channels) {
  const uint8_t* h = unit.GetData();
  if (unit.GetSize() < static_cast<uint64_t>(aac::kAdtsHeaderBytes)) {
    Fail("ADTS frame shorter than its header", static_cast<long>(unit.GetSize()));
  }
  // Sync word, MPEG-4, layer 0, no CRC.
  if (h[0] != 0xFF || (h[1] & 0xF7) != 0xF1) Fail("bad ADTS sync/layer/protection", h[0], h[1]);
  const int profile = h[2] >> 6;
  const int frequency_index = h[2] >> 2 & 0xF;
  const int channel_config = (h[2] & 1) << 2 | h[3] >> 6;
  const long length = (h[3] & 3) << 11 | h[4] << 3 | h[5] >> 5;
  const int fullness = (h[5] & 0x1F) << 6 | h[6] >> 2;
  const int blocks = h[6] & 3;
  if (profile != 1) Fail("ADTS profile is not AAC-LC", profile);
  if (frequency_index != aac::SamplingFrequencyIndex(kSampleRate)) {
    Fail("ADTS sampling index", frequency_index);
  }
  if (channel_config != channels) Fail("ADTS channel configuration", channel_config, channels);
  if (length != static_cast<long>(unit.GetSize())) {
    Fail("ADTS frame length is not the frame's size", length, static_cast<long>(unit.GetSize()));
  }
  if (fullness > 0x7FF) Fail("ADTS buffer fullness", fullness);
  if (blocks != 0) Fail("ADTS frame holds more than one raw data block", blocks);
}

struct FaadOutput {
  std::vector<float> samples;  // Interleaved at the stream's channel count, 16-bit scale.
  int frames = 0;
};

// Decodes the stream with FAAD2 in single precision. Aborts on any decoder error.
// FAAD2 delivers nothing for the first access unit (it keeps the first frame's output,
// which is all overlap from before the stream, to itself), so its output starts one
// frame after libavcodec's. It also turns a mono stream into two equal channels (room
// for parametric stereo); we check they are equal and keep one.
FaadOutput DecodeWithFaad(const std::vector<std::shared_ptr<AudioFrame>>& units, int channels,
                          bool raw) {
  FaadOutput out;
  NeAACDecHandle decoder = NeAACDecOpen();
  NeAACDecConfigurationPtr config = NeAACDecGetCurrentConfiguration(decoder);
  config->outputFormat = FAAD_FMT_FLOAT;
  config->dontUpSampleImplicitSBR = 1;
  config->defObjectType = LC;
  NeAACDecSetConfiguration(decoder, config);
  unsigned long rate = 0;
  unsigned char decoder_channels = 0;
  if (raw) {
    uint8_t asc[2];
    aac::MakeAudioSpecificConfig(asc, aac::SamplingFrequencyIndex(kSampleRate), channels);
    if (NeAACDecInit2(decoder, asc, sizeof(asc), &rate, &decoder_channels) < 0) {
      Fail("FAAD2 refused the AudioSpecificConfig", asc[0], asc[1]);
    }
  } else if (NeAACDecInit(decoder, units[0]->GetData(), units[0]->GetSize(), &rate,
                          &decoder_channels) != 0) {
    Fail("FAAD2 refused the first ADTS header");
  }
  if (rate != static_cast<unsigned long>(kSampleRate)) Fail("FAAD2 sample rate", rate);
  for (size_t n = 0; n < units.size(); ++n) {
    NeAACDecFrameInfo info;
    auto* pcm = static_cast<const float*>(NeAACDecDecode(
        decoder, &info, const_cast<uint8_t*>(units[n]->GetData()), units[n]->GetSize()));
    if (info.error != 0) {
      std::fprintf(stderr, "FAAD2, access unit %zu: %s\n", n, NeAACDecGetErrorMessage(info.error));
      Fail("FAAD2 could not decode an access unit", static_cast<long>(n), info.error);
    }
    if (info.bytesconsumed != units[n]->GetSize()) {
      Fail("FAAD2 read a different length than the access unit's",
           static_cast<long>(info.bytesconsumed), static_cast<long>(units[n]->GetSize()));
    }
    if (info.samples == 0) {
      if (n != 0) Fail("FAAD2 gave no audio for an access unit", static_cast<long>(n));
      continue;
    }
    const int faad_channels = info.channels;
    if ((faad_channels != channels && !(channels == 1 && faad_channels == 2)) ||
        info.samples != static_cast<unsigned long>(kFrame * faad_channels) || !pcm) {
      Fail("FAAD2 frame shape", faad_channels, static_cast<long>(info.samples));
    }
    for (int i = 0; i < kFrame; ++i) {
      const float* sample = pcm + static_cast<size_t>(i) * faad_channels;
      if (faad_channels != channels && sample[0] != sample[1]) {
        Fail("FAAD2 made two different channels of a mono stream", i);
      }
      for (int c = 0; c < channels; ++c) out.samples.push_back(sample[c] * 32768.0f);
    }
    ++out.frames;
  }
  NeAACDecClose(decoder);
  return out;
}

// libavcodec's complaints about the stream, even those it decodes through.
int g_libav_complaints = 0;
void CountLibavComplaints(void*, int level, const char* format, va_list args) {
  if (level > AV_LOG_WARNING) return;
  ++g_libav_complaints;
  std::fprintf(stderr, "libavcodec: ");
  std::vfprintf(stderr, format, args);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // TARNEL_FUZZ_LOG=1 shows the encoder's log when reproducing a finding.
  tarn_logging::SetStderrLoggingEnabled(std::getenv("TARNEL_FUZZ_LOG") != nullptr);
  av_log_set_callback(CountLibavComplaints);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Reader reader(data, size);
  const uint8_t setup = reader.Next();
  const int channels = setup & 1 ? 2 : 1;
  const bool raw = setup & 2;
  const int rate_choice = setup >> 2;
  const int bitrate = rate_choice == 0
                          ? (channels == 2 ? kRecorderStereoBitrate : kRecorderMonoBitrate)
                          : 32000 + (rate_choice - 1) * 224000 / 62;

  AacEncoder encoder;
  AudioEncodeParams params;
  params.sample_rate = kSampleRate;
  params.channels = channels;
  params.bitrate = bitrate;
  params.raw_access_units = raw ? 1 : 0;
  if (!encoder.Init(params)) Fail("Init refused supported parameters", channels, bitrate);

  Generator generators[2];
  std::vector<Piece> pieces;
  while (pieces.size() < static_cast<size_t>(kMaxPieces) && reader.remaining() > 0) {
    pieces.push_back(NextPiece(&reader, channels, generators));
  }
  pieces.emplace_back();
  pieces.back().pcm.assign(static_cast<size_t>(kFrame) * channels, 0);

  // The stream's payload must keep to the channel's constant rate through a decoder
  // buffer of kMaxBitsPerChannel a channel: however full the encoder starts its
  // reservoir, the bits that arrived minus the bits sent after n frames may swing over
  // no more than the buffer holds.
  const int buffer_bits = kMaxBitsPerChannel * channels;
  const int header_bytes = raw ? 0 : aac::kAdtsHeaderBytes;
  int64_t payload_bits = 0;
  int64_t lowest_ahead = 0;
  int64_t highest_ahead = 0;
  std::vector<std::shared_ptr<AudioFrame>> units;
  std::vector<int> sequences;
  for (size_t n = 0; n < pieces.size(); ++n) {
    const std::vector<int16_t>& pcm = pieces[n].pcm;
    auto input = std::make_shared<AudioFrame>();
    input->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * 2);
    input->SetSampleRate(kSampleRate);
    input->SetChannels(channels);
    const uint32_t stamp = static_cast<uint32_t>(n * kFrame * 1000 / kSampleRate);
    input->SetTimestampInMs(stamp);
    std::shared_ptr<AudioFrame> unit = encoder.Encode(input);
    if (!unit) Fail("Encode returned no frame", static_cast<long>(n));
    if (unit->GetAudioFrameFormat() != tarnel::audio::kAac || unit->GetTimestampInMs() != stamp ||
        unit->GetChannels() != channels || unit->GetSampleRate() != kSampleRate) {
      Fail("access unit's format, timestamp, channels or rate", static_cast<long>(n));
    }
    if (unit->GetSize() <= static_cast<uint64_t>(header_bytes)) {
      Fail("empty access unit", static_cast<long>(n));
    }
    if (!raw) CheckAdtsHeader(*unit, channels);
    const int64_t bits = static_cast<int64_t>(unit->GetSize() - header_bytes) * 8;
    if (bits > buffer_bits) Fail("access unit exceeds 6144 bits a channel", bits, channels);
    payload_bits += bits;
    const int64_t arrived = static_cast<int64_t>(bitrate) * kFrame * (n + 1) / kSampleRate;
    lowest_ahead = std::min(lowest_ahead, arrived - payload_bits);
    highest_ahead = std::max(highest_ahead, arrived - payload_bits);
    if (highest_ahead - lowest_ahead > buffer_bits) {
      Fail("stream swings off its constant rate by more than the decoder buffer",
           static_cast<long>(lowest_ahead), static_cast<long>(highest_ahead));
    }
    sequences.push_back(WindowSequenceOf(*unit, header_bytes));
    if (sequences.back() < 0) Fail("access unit starts with neither channel element");
    units.push_back(std::move(unit));
  }

  g_libav_complaints = 0;
  const tarnel_test::DecodedAudio libav = tarnel_test::DecodeAac(units, kSampleRate, channels, raw);
  if (libav.errors != 0 || g_libav_complaints != 0) {
    Fail("libavcodec could not decode the stream", libav.errors, g_libav_complaints);
  }
  if (libav.frames != static_cast<int>(units.size())) {
    Fail("libavcodec frame count", libav.frames, static_cast<long>(units.size()));
  }
  const FaadOutput faad = DecodeWithFaad(units, channels, raw);
  if (faad.frames != libav.frames - 1) Fail("FAAD2 frame count", faad.frames, libav.frames);

  const size_t frame_samples = static_cast<size_t>(kFrame) * channels;
  float peak = 0.0f;
  float most_apart = 0.0f;
  for (size_t n = 0; n < units.size(); ++n) {
    const float* a = libav.samples.data() + n * frame_samples;
    double energy = 0.0;
    for (size_t i = 0; i < frame_samples; ++i) {
      if (!std::isfinite(a[i]) || std::fabs(a[i]) > kMostDecodedMagnitude) {
        Fail("decoded sample out of range", static_cast<long>(n), std::lround(a[i]));
      }
      peak = std::max(peak, std::fabs(a[i]));
      if (i % channels == 0) energy += static_cast<double>(a[i]) * a[i];
    }
    // Frame n plays piece n - 1.
    if (n > 0 && pieces[n - 1].audible && std::sqrt(energy / kFrame) < 0.01 * pieces[n - 1].rms) {
      Fail("a loud piece decoded to (near) silence", static_cast<long>(n - 1),
           std::lround(pieces[n - 1].rms));
    }
    // FAAD2's frame n - 1 is libavcodec's frame n.
    if (n == 0) continue;
    const float* b = faad.samples.data() + (n - 1) * frame_samples;
    size_t worst = 0;
    float frame_peak = 0.0f;
    for (size_t i = 0; i < frame_samples; ++i) {
      frame_peak = std::max(frame_peak, std::fabs(a[i]));
      if (!std::isfinite(b[i]))
        Fail("FAAD2 decoded a sample that is not finite", static_cast<long>(n),
             static_cast<long>(i));
      if (std::fabs(a[i] - b[i]) > std::fabs(a[worst] - b[worst])) worst = i;
    }
    const float apart = std::fabs(a[worst] - b[worst]);
    most_apart = std::max(most_apart, apart);
    if (!(apart <= kDecoderTolerance + kDecoderRelativeTolerance * frame_peak)) {
      std::fprintf(stderr,
                   "frame %zu (window sequences %d then %d), worst at sample %zu channel %zu: "
                   "libavcodec %.3f, FAAD2 %.3f\n",
                   n, sequences[n - 1], sequences[n], worst / channels, worst % channels, a[worst],
                   b[worst]);
      Fail("the decoders disagree", static_cast<long>(n), std::lround(a[worst] - b[worst]));
    }
  }
  if (std::getenv("TARNEL_FUZZ_LOG")) {
    std::fprintf(stderr,
                 "%d ch, %d b/s, %s, %zu pieces, %lld payload bits; decoded peak %.1f, "
                 "decoders at most %.4f apart\n",
                 channels, bitrate, raw ? "raw" : "ADTS", pieces.size(),
                 static_cast<long long>(payload_bits), peak, most_apart);
  }
  return 0;
}
