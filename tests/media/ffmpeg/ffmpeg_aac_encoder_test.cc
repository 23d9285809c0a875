#include "sdk/media/ffmpeg/ffmpeg_aac_encoder.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
}

#include "gtest/gtest.h"
#include "sdk/media/audio_encoder.h"
#include "sdk/media/audio_frame.h"
#include "tests/support/log_capture.h"

namespace tarnel {
namespace audio {
namespace {

constexpr int kRate = 48000;
constexpr double kPi = 3.14159265358979323846;

// Interleaved s16: silence for `onset` samples, then a `frequency` sine at `amplitude`
// (fraction of full scale); channel c is scaled by 1 / (c + 1) to tell channels apart.
std::vector<int16_t> Tone(int channels, int samples, int onset, double frequency,
                          double amplitude) {
  std::vector<int16_t> pcm(static_cast<size_t>(samples) * channels, 0);
  for (int i = onset; i < samples; ++i) {
    const double value = amplitude * 32767.0 * std::sin(2 * kPi * frequency * (i - onset) / kRate);
    for (int c = 0; c < channels; ++c) {
      pcm[static_cast<size_t>(i) * channels + c] =
          static_cast<int16_t>(std::lround(value / (c + 1)));
    }
  }
  return pcm;
}

std::shared_ptr<AudioFrame> Piece(const std::vector<int16_t>& pcm, int channels, int index,
                                  uint32_t timestamp_ms) {
  auto frame = std::make_shared<AudioFrame>();
  const size_t values = static_cast<size_t>(kAacSamplesPerFrame) * channels;
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data() + index * values),
                 values * sizeof(int16_t));
  frame->SetSampleRate(kRate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(timestamp_ms);
  return frame;
}

// Runs `pcm` (a whole number of pieces) through a fresh encoder; stamps piece n at
// n x 1024 samples in ms.
std::vector<std::shared_ptr<AudioFrame>> EncodeAll(const std::vector<int16_t>& pcm, int channels,
                                                   int bitrate, bool raw) {
  FfmpegAacEncoder encoder;
  AudioEncodeParams params;
  params.channels = channels;
  params.bitrate = bitrate;
  params.raw_access_units = raw ? 1 : 0;
  std::vector<std::shared_ptr<AudioFrame>> out;
  if (!encoder.Init(params)) return out;
  const int pieces = static_cast<int>(pcm.size() / channels / kAacSamplesPerFrame);
  for (int n = 0; n < pieces; ++n) {
    out.push_back(encoder.Encode(Piece(pcm, channels, n, n * kAacSamplesPerFrame * 1000 / kRate)));
  }
  return out;
}

// Decodes with libavcodec's aac decoder into interleaved floats at s16 scale. Raw
// access units need the two-byte MPEG-4 audio config; ADTS frames carry their own.
std::vector<float> Decode(const std::vector<std::shared_ptr<AudioFrame>>& frames, int channels,
                          bool raw) {
  std::vector<float> pcm;
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  AVCodecContext* context = avcodec_alloc_context3(codec);
  if (raw) {
    // AAC-LC (2), 48 kHz (index 3), `channels`.
    context->extradata = static_cast<uint8_t*>(av_mallocz(2 + AV_INPUT_BUFFER_PADDING_SIZE));
    context->extradata[0] = static_cast<uint8_t>((2 << 3) | (3 >> 1));
    context->extradata[1] = static_cast<uint8_t>(((3 & 1) << 7) | (channels << 3));
    context->extradata_size = 2;
  }
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  EXPECT_GE(avcodec_open2(context, codec, nullptr), 0);
  for (const auto& encoded : frames) {
    if (!encoded) continue;
    av_new_packet(packet, static_cast<int>(encoded->GetSize()));
    std::memcpy(packet->data, encoded->GetData(), encoded->GetSize());
    EXPECT_GE(avcodec_send_packet(context, packet), 0);
    av_packet_unref(packet);
    while (avcodec_receive_frame(context, frame) >= 0) {
      EXPECT_EQ(frame->ch_layout.nb_channels, channels);
      EXPECT_EQ(frame->format, AV_SAMPLE_FMT_FLTP);
      for (int i = 0; i < frame->nb_samples; ++i) {
        for (int c = 0; c < channels; ++c) {
          pcm.push_back(reinterpret_cast<const float*>(frame->data[c])[i] * 32768.0f);
        }
      }
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  return pcm;
}

// Samples of `channel` from `first` on.
std::vector<double> Channel(const std::vector<float>& pcm, int channels, int channel, int first) {
  std::vector<double> out;
  for (size_t i = static_cast<size_t>(first) * channels + channel; i < pcm.size(); i += channels) {
    out.push_back(pcm[i]);
  }
  return out;
}
std::vector<double> Channel(const std::vector<int16_t>& pcm, int channels, int channel) {
  std::vector<double> out;
  for (size_t i = channel; i < pcm.size(); i += channels) out.push_back(pcm[i]);
  return out;
}

// SNR in dB of `decoded` against `source` over [begin, end), with decoded[i + lag]
// taken as source[i].
double SnrDb(const std::vector<double>& source, const std::vector<double>& decoded, int lag,
             int begin, int end) {
  double signal = 0;
  double noise = 0;
  for (int i = begin; i < end; ++i) {
    const double error = decoded[i + lag] - source[i];
    signal += source[i] * source[i];
    noise += error * error;
  }
  return 10 * std::log10(signal / std::max(noise, 1e-9));
}

// Positive-going zero crossings per second over [begin, end).
double FrequencyHz(const std::vector<double>& x, int begin, int end) {
  int first = -1;
  int last = -1;
  int crossings = 0;
  for (int i = begin + 1; i < end; ++i) {
    if (x[i - 1] < 0 && x[i] >= 0) {
      if (first < 0) first = i;
      last = i;
      ++crossings;
    }
  }
  return crossings < 2 ? 0 : (crossings - 1) * static_cast<double>(kRate) / (last - first);
}

TEST(FfmpegAacEncoderTest, InitAcceptsAacLcMonoAndStereoAndRefusesTheRest) {
  for (int channels : {1, 2}) {
    FfmpegAacEncoder encoder;
    EXPECT_EQ(encoder.GetInputSizeInBytes(), 0);
    AudioEncodeParams params;
    params.channels = channels;
    params.bitrate = channels == 2 ? 196608 : 64000;
    ASSERT_TRUE(encoder.Init(params)) << channels;
    EXPECT_EQ(encoder.GetSampleRate(), 48000);
    EXPECT_EQ(encoder.GetChannels(), channels);
    EXPECT_EQ(encoder.GetBitrate(), params.bitrate);
    EXPECT_EQ(encoder.GetInputSizeInBytes(), 1024 * channels * 2);
    EXPECT_EQ(encoder.GetPrimingSamples(), 2048);
  }
  {
    AudioEncodeParams params;
    params.sample_rate = 44100;
    EXPECT_TRUE(FfmpegAacEncoder().Init(params));
  }

  struct Bad {
    const char* what;
    void (*apply)(AudioEncodeParams*);
  };
  const Bad bad[] = {
      {"3 channels", [](AudioEncodeParams* p) { p->channels = 3; }},
      {"0 channels", [](AudioEncodeParams* p) { p->channels = 0; }},
      {"12345 Hz", [](AudioEncodeParams* p) { p->sample_rate = 12345; }},
      {"HE-AAC", [](AudioEncodeParams* p) { p->aac_profile = 5; }},
      {"PCM output", [](AudioEncodeParams* p) { p->codec_format = kPcm; }},
      {"24-bit input", [](AudioEncodeParams* p) { p->bits_per_sample = 24; }},
      {"no bit rate", [](AudioEncodeParams* p) { p->bitrate = 0; }},
  };
  for (const Bad& b : bad) {
    tarnel_test::ScopedLogCapture logs;
    FfmpegAacEncoder encoder;
    AudioEncodeParams params;
    b.apply(&params);
    EXPECT_FALSE(encoder.Init(params)) << b.what;
    EXPECT_FALSE(logs.MessagesAtLeast(tarn_logging::LS_ERROR).empty()) << b.what;
    EXPECT_EQ(encoder.GetInputSizeInBytes(), 0) << b.what;
    EXPECT_EQ(encoder.Encode(Piece(std::vector<int16_t>(1024), 1, 0, 0)), nullptr) << b.what;
  }
}

TEST(FfmpegAacEncoderTest, EveryInputFromTheFirstYieldsOneStampedAccessUnit) {
  const int channels = 2;
  const std::vector<int16_t> pcm = Tone(channels, 40 * 1024, 0, 1000, 0.5);
  const auto frames = EncodeAll(pcm, channels, 196608, /*raw=*/true);
  ASSERT_EQ(frames.size(), 40u);
  uint32_t previous = 0;
  for (size_t n = 0; n < frames.size(); ++n) {
    ASSERT_NE(frames[n], nullptr) << n;
    EXPECT_GT(frames[n]->GetSize(), 0u) << n;
    EXPECT_EQ(frames[n]->GetAudioFrameFormat(), kAac);
    EXPECT_EQ(frames[n]->GetSampleRate(), kRate);
    EXPECT_EQ(frames[n]->GetChannels(), channels);
    EXPECT_EQ(frames[n]->GetEncoderDelaySamples(), 2048);
    EXPECT_EQ(frames[n]->GetTimestampInMs(), n * 1024 * 1000 / kRate);
    if (n > 0) {
      EXPECT_GT(frames[n]->GetTimestampInMs(), previous);
    }
    previous = frames[n]->GetTimestampInMs();
    // A raw access unit never starts with an ADTS sync word.
    EXPECT_FALSE(frames[n]->GetSize() >= 2 && frames[n]->GetData()[0] == 0xFF &&
                 (frames[n]->GetData()[1] & 0xF0) == 0xF0);
  }
}

TEST(FfmpegAacEncoderTest, RefusesInputThatIsNotOnePieceOfItsPcm) {
  FfmpegAacEncoder encoder;
  AudioEncodeParams params;
  params.channels = 2;
  ASSERT_TRUE(encoder.Init(params));
  const std::vector<int16_t> pcm(4 * 1024, 0);
  EXPECT_EQ(encoder.Encode(nullptr), nullptr);
  EXPECT_EQ(encoder.Encode(Piece(pcm, 1, 0, 0)), nullptr);  // Half the bytes.
  auto mono_labelled = Piece(pcm, 2, 0, 0);
  mono_labelled->SetChannels(1);
  EXPECT_EQ(encoder.Encode(mono_labelled), nullptr);
  auto wrong_rate = Piece(pcm, 2, 0, 0);
  wrong_rate->SetSampleRate(44100);
  EXPECT_EQ(encoder.Encode(wrong_rate), nullptr);
  auto encoded = Piece(pcm, 2, 0, 0);
  encoded->SetAudioFrameFormat(kAac);
  EXPECT_EQ(encoder.Encode(encoded), nullptr);
  // None of that disturbed the stream.
  EXPECT_NE(encoder.Encode(Piece(pcm, 2, 0, 0)), nullptr);
}

// The audio decoded from the packets, less the 2048 delay samples, is the input: same
// tone, same frequency, aligned to the sample, in raw and ADTS framing.
TEST(FfmpegAacEncoderTest, DecodedAudioLinesUpWithTheInputAfterTheDelay) {
  struct Case {
    int channels;
    int bitrate;
    bool raw;
    double min_snr_db;
  };
  for (const Case& c :
       {Case{2, 196608, true, 40}, Case{1, 64000, true, 30}, Case{2, 196608, false, 40}}) {
    SCOPED_TRACE(testing::Message()
                 << c.channels << " channels, " << c.bitrate << (c.raw ? " raw" : " ADTS"));
    // Silence, then the tone, so that the onset pins the alignment down to
    // the tone's period and the phase within it.
    const int kOnset = 3000;
    const int kPieces = 60;
    const std::vector<int16_t> pcm = Tone(c.channels, kPieces * 1024, kOnset, 1000, 0.5);
    const auto frames = EncodeAll(pcm, c.channels, c.bitrate, c.raw);
    ASSERT_EQ(frames.size(), static_cast<size_t>(kPieces));
    const std::vector<float> decoded = Decode(frames, c.channels, c.raw);
    // Every packet decodes to 1024 samples; the last 2048 input samples are still inside
    // the encoder.
    ASSERT_EQ(decoded.size(), static_cast<size_t>(kPieces) * 1024 * c.channels);

    const int kUsable = kPieces * 1024 - 2048;
    for (int ch = 0; ch < c.channels; ++ch) {
      SCOPED_TRACE(ch);
      const std::vector<double> source = Channel(pcm, c.channels, ch);
      const std::vector<double> out = Channel(decoded, c.channels, ch, 2048);
      ASSERT_EQ(out.size(), static_cast<size_t>(kUsable));

      // Coarse: where the decoded tone first reaches half its amplitude, to within a
      // fraction of a period.
      const double half = 0.25 * 32767 / (ch + 1);
      int source_start = 0;
      while (std::fabs(source[source_start]) < half) ++source_start;
      int out_start = 0;
      while (out_start < kUsable && std::fabs(out[out_start]) < half) ++out_start;
      EXPECT_NEAR(out_start, source_start, 12);

      // Fine: the lag that matches best within the period the coarse check found (the
      // tone repeats every 48 samples, so look less than half a period either side).
      int best_lag = 0;
      double best_snr = -1e9;
      for (int lag = -20; lag <= 20; ++lag) {
        const double snr = SnrDb(source, out, lag, kOnset + 1024, kUsable - 64);
        if (snr > best_snr) {
          best_snr = snr;
          best_lag = lag;
        }
      }
      EXPECT_LE(std::abs(best_lag), 2);
      EXPECT_GT(SnrDb(source, out, 0, kOnset + 1024, kUsable - 64), c.min_snr_db);
      EXPECT_NEAR(FrequencyHz(out, kOnset + 1024, kUsable), 1000.0, 2.0);
      // The silence before the onset stays quiet (no misplaced audio), apart from the
      // codec's pre-echo just ahead of the onset.
      for (int i = 0; i < kOnset - 1024; ++i) ASSERT_LT(std::fabs(out[i]), 200) << i;
    }
  }
}

TEST(FfmpegAacEncoderTest, AdtsHeadersDescribeTheFrame) {
  const int channels = 2;
  const auto frames = EncodeAll(Tone(channels, 8 * 1024, 0, 440, 0.3), channels, 128000, false);
  ASSERT_EQ(frames.size(), 8u);
  for (const auto& frame : frames) {
    ASSERT_NE(frame, nullptr);
    ASSERT_GT(frame->GetSize(), 7u);
    const uint8_t* h = frame->GetData();
    EXPECT_EQ(h[0], 0xFF);
    EXPECT_EQ(h[1], 0xF1);                          // MPEG-4, no CRC.
    EXPECT_EQ(h[2] >> 6, 1);                        // AAC-LC.
    EXPECT_EQ((h[2] >> 2) & 0xF, 3);                // 48 kHz.
    EXPECT_EQ(((h[2] & 1) << 2) | (h[3] >> 6), 2);  // Channel configuration.
    const size_t length = ((h[3] & 3u) << 11) | (h[4] << 3) | (h[5] >> 5);
    EXPECT_EQ(length, frame->GetSize());
  }
}

TEST(FfmpegAacEncoderTest, FactoryMakesTheAacEncoderOnly) {
  std::unique_ptr<AudioEncoder> aac =
      AudioEncoderFactory2::GetInstance()->CreateAudioEncoder(kAudioEncoderAac);
  ASSERT_NE(aac, nullptr);
  AudioEncodeParams params;
  EXPECT_TRUE(aac->Init(params));
  EXPECT_EQ(aac->GetPrimingSamples(), 2048);

  tarnel_test::ScopedLogCapture logs;
  EXPECT_EQ(AudioEncoderFactory2::GetInstance()->CreateAudioEncoder(kAudioEncoderAac + 1), nullptr);
  EXPECT_TRUE(logs.Contains("no audio encoder of type"));
}

}  // namespace
}  // namespace audio
}  // namespace tarnel
