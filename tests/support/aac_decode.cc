#include "tests/support/aac_decode.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "sdk/media/aac/aac_syntax.h"
#include "sdk/media/ffmpeg/ffmpeg_ptr.h"

namespace tarnel_test {

DecodedAudio DecodeAac(const std::vector<std::shared_ptr<tarnel::audio::AudioFrame>>& access_units,
                       int sample_rate, int channels, bool raw) {
  DecodedAudio out;
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  tarnel::FfmpegPtr<AVCodecContext> context(avcodec_alloc_context3(codec));
  tarnel::FfmpegPtr<AVPacket> packet(av_packet_alloc());
  tarnel::FfmpegPtr<AVFrame> frame(av_frame_alloc());
  if (raw) {
    context->extradata = static_cast<uint8_t*>(av_mallocz(2 + AV_INPUT_BUFFER_PADDING_SIZE));
    context->extradata_size = 2;
    tarnel::audio::aac::MakeAudioSpecificConfig(
        context->extradata, tarnel::audio::aac::SamplingFrequencyIndex(sample_rate), channels);
  }
  if (avcodec_open2(context.get(), codec, nullptr) < 0) {
    out.errors = static_cast<int>(access_units.size());
  } else {
    for (const auto& unit : access_units) {
      if (!unit || av_new_packet(packet.get(), static_cast<int>(unit->GetSize())) < 0) {
        ++out.errors;
        continue;
      }
      std::memcpy(packet->data, unit->GetData(), unit->GetSize());
      if (avcodec_send_packet(context.get(), packet.get()) < 0) ++out.errors;
      av_packet_unref(packet.get());
      while (avcodec_receive_frame(context.get(), frame.get()) >= 0) {
        ++out.frames;
        const int frame_channels = frame->ch_layout.nb_channels;
        if (frame_channels != channels || frame->format != AV_SAMPLE_FMT_FLTP ||
            frame->sample_rate != sample_rate) {
          ++out.errors;
          continue;
        }
        for (int i = 0; i < frame->nb_samples; ++i) {
          for (int c = 0; c < channels; ++c) {
            out.samples.push_back(reinterpret_cast<const float*>(frame->data[c])[i] * 32768.0f);
          }
        }
      }
    }
  }
  return out;
}

}  // namespace tarnel_test
