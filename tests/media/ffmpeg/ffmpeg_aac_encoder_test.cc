#include "sdk/media/ffmpeg/ffmpeg_aac_encoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/media/audio_encoder.h"
#include "tests/support/aac_decode.h"
#include "tests/support/log_capture.h"

namespace tarnel {
namespace audio {
namespace {

constexpr int kRate = 48000;
// What a packet decodes to lags its input by: the encoder's own priming and the frame of
// silence fed ahead of the input.
constexpr int kDelay = 2048;
constexpr double kTwoPiKHz = 2 * M_PI * 1000 / kRate;  // A 1 kHz tone's phase step.

std::shared_ptr<AudioFrame> Piece(const int16_t* pcm, int channels) {
  auto frame = std::make_shared<AudioFrame>();
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm),
                 kAacSamplesPerFrame * channels * sizeof(int16_t));
  frame->SetSampleRate(kRate);
  frame->SetChannels(channels);
  return frame;
}

TEST(FfmpegAacEncoderTest, InitAcceptsAacLcMonoAndStereoAndRefusesTheRest) {
  struct Case {
    const char* what;
    bool ok;
    void (*apply)(AudioEncodeParams*);
  };
  const Case cases[] = {
      {"stereo", true, [](AudioEncodeParams* p) { p->channels = 2, p->bitrate = 196608; }},
      {"mono", true, [](AudioEncodeParams* p) { p->channels = 1, p->bitrate = 64000; }},
      {"44100 Hz", true, [](AudioEncodeParams* p) { p->sample_rate = 44100; }},
      {"3 channels", false, [](AudioEncodeParams* p) { p->channels = 3; }},
      {"0 channels", false, [](AudioEncodeParams* p) { p->channels = 0; }},
      {"12345 Hz", false, [](AudioEncodeParams* p) { p->sample_rate = 12345; }},
      {"HE-AAC", false, [](AudioEncodeParams* p) { p->aac_profile = 5; }},
      {"PCM output", false, [](AudioEncodeParams* p) { p->codec_format = kPcm; }},
      {"24-bit input", false, [](AudioEncodeParams* p) { p->bits_per_sample = 24; }},
      {"no bit rate", false, [](AudioEncodeParams* p) { p->bitrate = 0; }},
  };
  const std::vector<int16_t> silence(1024);
  AudioEncoderFactory2* factory = AudioEncoderFactory2::GetInstance();
  EXPECT_EQ(factory->aac_encoder_kind(), AacEncoderKind::kBuiltIn);
  // Every encoder the factory can be set to serves the same parameters; ours decodes one
  // frame late, libavcodec's two.
  for (const AacEncoderKind kind :
       {AacEncoderKind::kBuiltIn, AacEncoderKind::kFfmpegTwoLoop, AacEncoderKind::kFfmpegFast}) {
    factory->SetAacEncoderKind(kind);
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << AacEncoderKindName(kind) << ": " << c.what);
      tarnel_test::ScopedLogCapture logs;
      auto encoder = factory->CreateAudioEncoder(kAudioEncoderAac);
      ASSERT_NE(encoder, nullptr);
      AudioEncodeParams params;
      c.apply(&params);
      ASSERT_EQ(encoder->Init(params), c.ok);
      EXPECT_EQ(logs.MessagesAtLeast(tarn_logging::LS_ERROR).empty(), c.ok);
      EXPECT_EQ(encoder->GetInputSizeInBytes(), c.ok ? 1024 * params.channels * 2 : 0);
      EXPECT_EQ(encoder->GetPrimingSamples(), !c.ok                              ? 0
                                              : kind == AacEncoderKind::kBuiltIn ? 1024
                                                                                 : kDelay);
      EXPECT_TRUE(!c.ok || (encoder->GetSampleRate() == params.sample_rate &&
                            encoder->GetChannels() == params.channels));
      EXPECT_TRUE(c.ok || encoder->Encode(Piece(silence.data(), 1)) == nullptr);
    }
  }
  factory->SetAacEncoderKind(AacEncoderKind::kBuiltIn);
  AacEncoderKind parsed;
  EXPECT_TRUE(ParseAacEncoderKind("twoloop", &parsed) && parsed == AacEncoderKind::kFfmpegTwoLoop);
  EXPECT_FALSE(ParseAacEncoderKind("faac", &parsed));
  tarnel_test::ScopedLogCapture logs;
  EXPECT_EQ(AudioEncoderFactory2::GetInstance()->CreateAudioEncoder(kAudioEncoderAac + 1), nullptr);
  EXPECT_TRUE(logs.Contains("no audio encoder of type"));
}

// Every piece, from the first, yields one access unit stamped with the piece's time and
// the encoder's delay, raw or behind an ADTS header. Decoded and advanced by that delay
// it is the input: a 1 kHz tone after silence, aligned to the sample. Input that is not
// one piece of the configured PCM is refused without disturbing the stream.
TEST(FfmpegAacEncoderTest, DecodedAudioIsTheInputDelayedByTheEncoderDelay) {
  constexpr int kOnset = 3000;
  constexpr int kSamples = 60 * 1024;
  auto in = [](int i, int ch) {  // Silence, then the tone; channel ch at 1 / (ch + 1).
    return i < kOnset ? 0 : std::round(16384 / (ch + 1) * std::sin(kTwoPiKHz * (i - kOnset)));
  };
  for (const int channels : {1, 2}) {
    SCOPED_TRACE(testing::Message() << channels << " channels");
    std::vector<int16_t> pcm(size_t(kSamples) * channels);
    for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = int16_t(in(i / channels, i % channels));
    FfmpegAacEncoder adts_encoder, raw_encoder;
    AudioEncodeParams params;
    params.channels = channels;
    params.bitrate = channels == 2 ? 196608 : 64000;
    const int delay = kDelay;
    ASSERT_TRUE(adts_encoder.Init(params));
    params.raw_access_units = 1;
    ASSERT_TRUE(raw_encoder.Init(params));

    auto piece = [&](int n) { return Piece(&pcm[size_t(n) * 1024 * channels], channels); };
    EXPECT_EQ(raw_encoder.Encode(nullptr), nullptr);
    for (int variant = 0; variant < 4; ++variant) {
      auto bad = piece(0);
      if (variant == 0) bad->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), 1024);
      if (variant == 1) bad->SetChannels(3);
      if (variant == 2) bad->SetSampleRate(44100);
      if (variant == 3) bad->SetAudioFrameFormat(kAac);
      EXPECT_EQ(raw_encoder.Encode(bad), nullptr) << variant;
    }

    std::vector<std::shared_ptr<AudioFrame>> frames;  // ADTS.
    for (int n = 0; n < kSamples / 1024; ++n) {
      auto input = piece(n);
      input->SetTimestampInMs(n * 1024 * 1000 / kRate);
      const auto raw = raw_encoder.Encode(input);
      frames.push_back(adts_encoder.Encode(input));
      ASSERT_TRUE(raw && frames.back()) << n;
      EXPECT_EQ(raw->GetTimestampInMs(), input->GetTimestampInMs());
      EXPECT_EQ(raw->GetEncoderDelaySamples(), delay);
      // ADTS: a 7-byte header that gives the frame's length, then the raw access unit.
      const uint8_t* h = frames.back()->GetData();
      const size_t size = frames.back()->GetSize();
      EXPECT_TRUE(h[0] == 0xFF && (h[1] & 0xF6) == 0xF0 &&
                  (((h[3] & 3u) << 11) | (h[4] << 3) | (h[5] >> 5)) == size);
      EXPECT_EQ(std::vector<uint8_t>(h + 7, h + size),
                std::vector<uint8_t>(raw->GetData(), raw->GetData() + raw->GetSize()));
    }
    // One 1024-sample frame per packet; the last `delay` input samples are still inside.
    const tarnel_test::DecodedAudio result = tarnel_test::DecodeAac(frames, kRate, channels,
                                                                    /*raw=*/false);
    EXPECT_EQ(result.errors, 0);
    const std::vector<float>& decoded = result.samples;
    ASSERT_EQ(decoded.size(), pcm.size());
    const int usable = kSamples - delay;
    for (int ch = 0; ch < channels; ++ch) {
      auto out = [&](int i) { return double(decoded[size_t(i + delay) * channels + ch]); };
      // Where the tone begins, to within a fraction of its 48-sample period; then the
      // waveform to the sample (one sample off would cost the SNR 18 dB).
      int onset = 0;
      while (onset < usable && std::fabs(out(onset)) < 4096.0 / (ch + 1)) ++onset;
      EXPECT_NEAR(onset, kOnset, 12) << ch;
      double signal = 0, noise = 0;
      for (int i = kOnset + 1024; i < usable - 64; ++i) {
        signal += in(i, ch) * in(i, ch);
        noise += (out(i) - in(i, ch)) * (out(i) - in(i, ch));
      }
      EXPECT_GT(10 * std::log10(signal / noise), channels == 2 ? 40 : 30) << ch;
    }
  }
}

}  // namespace
}  // namespace audio
}  // namespace tarnel
