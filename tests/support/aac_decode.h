// Decoding AAC access units with libavcodec's decoder, for tests that check what an
// encoder made.
#ifndef TESTS_SUPPORT_AAC_DECODE_H_
#define TESTS_SUPPORT_AAC_DECODE_H_

#include <memory>
#include <vector>

#include "sdk/media/audio_frame.h"

namespace tarnel_test {

struct DecodedAudio {
  std::vector<float> samples;  // Interleaved, 16-bit PCM scale (full scale 32768).
  int errors = 0;  // Access units the decoder refused, and frames of another layout or rate.
  int frames = 0;  // Decoded frames (1024 samples each).
};

// Decodes `access_units` in order: ADTS frames as they are; raw access units with an
// AAC-LC AudioSpecificConfig for `sample_rate` and `channels` as the stream's header.
DecodedAudio DecodeAac(const std::vector<std::shared_ptr<tarnel::audio::AudioFrame>>& access_units,
                       int sample_rate, int channels, bool raw);

}  // namespace tarnel_test

#endif  // TESTS_SUPPORT_AAC_DECODE_H_
