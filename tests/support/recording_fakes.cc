#include "tests/support/recording_fakes.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace tarnel_test {

using tarnel::audio::AudioFrame;
using tarnel::extensions::local_recording::LocalRecordingSegmentationWriter;
using tarnel::extensions::local_recording::LocalRecordingType;
using tarnel::extensions::local_recording::MediaStreamWriter;

void RecordingClient::Add(ClientEvent event) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(std::move(event));
}

std::vector<ClientEvent> RecordingClient::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return events_;
}

std::vector<ClientEvent> RecordingClient::EventsOf(ClientEvent::Kind kind) const {
  std::vector<ClientEvent> out;
  for (const ClientEvent& event : events()) {
    if (event.kind == kind) out.push_back(event);
  }
  return out;
}

std::vector<InternalError> RecordingClient::ErrorsOf(ClientEvent::Kind kind) const {
  std::vector<InternalError> out;
  for (const ClientEvent& event : EventsOf(kind)) out.push_back(event.error);
  return out;
}

// ---------------------------------------------------------------------------------------

namespace {

class FakeStreamWriter : public MediaStreamWriter {
 public:
  FakeStreamWriter(std::shared_ptr<FakeWriterState> state,
                   LocalRecordingSegmentationWriter::Client* client)
      : state_(std::move(state)) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    ++state_->constructed;
    state_->client = client;
  }
  ~FakeStreamWriter() override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    ++state_->destroyed;
  }

  void SetVideoMetaData(const tarnel::media_stream_writer::VideoMetadata& metadata) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->calls.push_back("SetVideoMetaData");
    state_->video_metadata.push_back(metadata);
  }
  void SetAudioMetaData(const tarnel::audio::AudioMetadata&) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->calls.push_back("SetAudioMetaData");
  }
  int Start(const std::string&, tarnel::media_stream_writer::MediaFormat, LocalRecordingType,
            int) override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->calls.push_back("Start");
    return state_->start_result;
  }
  int WriteVideoPacket(std::unique_ptr<tarnel::video::VideoFrame> frame) override {
    return Book("WriteVideoPacket",
                {true, static_cast<int64_t>(frame->pts), static_cast<int64_t>(frame->dts)});
  }
  int WriteAudioPacket(std::unique_ptr<AudioFrame> frame) override {
    const int64_t ts = frame->GetTimestampInMs();
    return Book("WriteAudioPacket",
                {false, ts, ts, frame->GetAudioFrameFormat(),
                 std::all_of(frame->GetData(), frame->GetData() + frame->GetSize(),
                             [](uint8_t byte) { return byte == 0; })});
  }
  int64_t Stop() override {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->calls.push_back("Stop");
    return state_->stop_result;
  }

 private:
  int Book(const char* call, const WrittenPacket& packet) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->calls.push_back(call);
    state_->packets.push_back(packet);
    return state_->write_result(state_->packets.size() - 1);
  }

  std::shared_ptr<FakeWriterState> state_;
};

class FakeAudioEncoder : public tarnel::audio::AudioEncoder {
 public:
  explicit FakeAudioEncoder(std::shared_ptr<FakeEncoderState> state) : state_(std::move(state)) {}

  bool Init(const tarnel::audio::AudioEncodeParams& params) override {
    state_->init_params.push_back(params);
    params_ = params;
    return state_->init_result;
  }
  int32_t GetSampleRate() const override { return params_.sample_rate; }
  int32_t GetChannels() const override { return params_.channels; }
  int32_t GetBitrate() const override { return params_.bitrate; }
  int32_t GetInputSizeInBytes() const override {
    return state_->input_size_override != 0
               ? state_->input_size_override
               : tarnel::audio::kAacSamplesPerFrame * params_.channels * 2;
  }
  int32_t GetPrimingSamples() const override { return 0; }
  std::shared_ptr<AudioFrame> Encode(std::shared_ptr<AudioFrame> input) override {
    const int call = state_->encode_calls++;
    if (call == state_->fail_encode_at) return nullptr;
    return MakeAacFrame(input->GetTimestampInMs(), params_.sample_rate, params_.channels);
  }

 private:
  std::shared_ptr<FakeEncoderState> state_;
  tarnel::audio::AudioEncodeParams params_;
};

class FakeResampler : public tarnel::audio::AudioResampleInterface {
 public:
  int Configure(int in_rate, int in_channels, int out_rate, int out_channels) override {
    ++FakeResamplerScope::configure_calls;
    std::tie(in_rate_, in_channels_, out_rate_, out_channels_) =
        std::tie(in_rate, in_channels, out_rate, out_channels);
    return 0;
  }
  int Resample(const AudioFrame& input, AudioFrame* output) override {
    if (in_rate_ <= 0 || in_channels_ <= 0) return -1;
    const auto* in = reinterpret_cast<const int16_t*>(input.GetData());
    const size_t out_samples = input.GetSize() / (2 * in_channels_) * out_rate_ / in_rate_;
    std::vector<int16_t> out(out_samples * out_channels_);
    for (size_t i = 0; i < out_samples; ++i) {
      const size_t src = i * in_rate_ / out_rate_;
      for (int c = 0; c < out_channels_; ++c) {
        out[i * out_channels_ + c] = in[src * in_channels_ + std::min(c, in_channels_ - 1)];
      }
    }
    output->SetData(reinterpret_cast<const uint8_t*>(out.data()), out.size() * 2);
    return 0;
  }

 private:
  int in_rate_ = 0, in_channels_ = 0, out_rate_ = 0, out_channels_ = 0;
};

std::unique_ptr<tarnel::audio::AudioResampleInterface> MakeFakeResampler(int) {
  return std::make_unique<FakeResampler>();
}

}  // namespace

FakeWriterFactory::FakeWriterFactory()
    : scope_([state = state_](LocalRecordingSegmentationWriter::Client* client) {
        return std::make_unique<FakeStreamWriter>(state, client);
      }) {}

FakeEncoderFactory::FakeEncoderFactory()
    : scope_([state = state_](int type) -> std::unique_ptr<tarnel::audio::AudioEncoder> {
        ++state->created;
        if (type != tarnel::audio::kAudioEncoderAac || state->create_returns_null) return nullptr;
        return std::make_unique<FakeAudioEncoder>(state);
      }) {}

FakeResamplerScope::FakeResamplerScope() : scope_(&MakeFakeResampler) { configure_calls = 0; }

// ---------------------------------------------------------------------------------------

std::unique_ptr<tarnel::video::VideoFrame> MakeVideoFrame(uint64_t pts, bool key, uint32_t width,
                                                          uint32_t height, int32_t codec) {
  auto frame = std::make_unique<tarnel::video::VideoFrame>();
  // A start code and a slice NAL header: enough to pass the intake's size check.
  const uint8_t bytes[] = {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88, 0x84};
  frame->data = tarnel::CopyOnWriteBuffer(bytes, sizeof(bytes));
  frame->pts = pts;
  frame->dts = pts;
  frame->frame_type = key ? tarnel::video::kKeyFrame : tarnel::video::kDeltaFrame;
  frame->codec_type = codec;
  frame->width = width;
  frame->height = height;
  return frame;
}

std::unique_ptr<AudioFrame> MakePcmFrame(uint32_t timestamp_ms, int duration_ms, int sample_rate,
                                         int channels) {
  auto frame = std::make_unique<AudioFrame>();
  const std::vector<int16_t> pcm(static_cast<size_t>(sample_rate) * duration_ms / 1000 * channels,
                                 1000);
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t));
  frame->SetSampleRate(sample_rate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(timestamp_ms);
  frame->SetAudioFrameFormat(tarnel::audio::kPcm);
  return frame;
}

std::unique_ptr<AudioFrame> MakeAacFrame(uint32_t timestamp_ms, int sample_rate, int channels) {
  auto frame = MakePcmFrame(timestamp_ms, 0, sample_rate, channels);
  const uint8_t payload[6] = {0x21, 0x10, 0x04, 0x60, 0x8c, 0x1c};
  frame->SetData(payload, sizeof(payload));
  frame->SetAudioFrameFormat(tarnel::audio::kAac);
  return frame;
}

}  // namespace tarnel_test
