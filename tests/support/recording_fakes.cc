#include "tests/support/recording_fakes.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace tarnel_test {

using tarnel::audio::AudioFrame;
using tarnel::extensions::local_recording::LocalRecordingSegmentationWriter;
using tarnel::extensions::local_recording::LocalRecordingType;
using tarnel::extensions::local_recording::MediaStreamWriter;

// ---------------------------------------------------------------------------------------

void RecordingClient::OnRecordingStarted(LocalRecording*, InternalError error) {
  Add({ClientEvent::kStarted, error, 0, 0, ""});
}

void RecordingClient::OnRecordingProgress(LocalRecording*, int64_t duration_ms) {
  Add({ClientEvent::kProgress, tarnel::recording::kOk, duration_ms, 0, ""});
}

void RecordingClient::OnRecordingSegment(LocalRecording*, const std::string& path) {
  Add({ClientEvent::kSegment, tarnel::recording::kOk, 0, 0, path});
}

void RecordingClient::OnRecordingCompleted(LocalRecording*, InternalError error,
                                           int64_t duration_ms, int64_t file_size) {
  Add({ClientEvent::kCompleted, error, duration_ms, file_size, ""});
}

void RecordingClient::Add(ClientEvent event) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
  }
  if (on_event_) on_event_(event);
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

std::vector<InternalError> RecordingClient::StartResults() const {
  std::vector<InternalError> out;
  for (const ClientEvent& event : EventsOf(ClientEvent::kStarted)) out.push_back(event.error);
  return out;
}

std::vector<InternalError> RecordingClient::CompletionResults() const {
  std::vector<InternalError> out;
  for (const ClientEvent& event : EventsOf(ClientEvent::kCompleted)) out.push_back(event.error);
  return out;
}

// ---------------------------------------------------------------------------------------

namespace {

class FakeStreamWriter : public MediaStreamWriter {
 public:
  FakeStreamWriter(std::shared_ptr<FakeWriterState> state,
                   LocalRecordingSegmentationWriter::Client* client)
      : state_(std::move(state)) {
    ++state_->constructed;
    state_->client = client;
  }
  ~FakeStreamWriter() override { ++state_->destroyed; }

  void SetVideoMetaData(const tarnel::media_stream_writer::VideoMetadata& metadata) override {
    state_->calls.push_back("SetVideoMetaData");
    state_->video_metadata.push_back(metadata);
  }
  void SetAudioMetaData(const tarnel::audio::AudioMetadata& metadata) override {
    state_->calls.push_back("SetAudioMetaData");
    state_->audio_metadata.push_back(metadata);
  }
  int Start(const std::string& path, tarnel::media_stream_writer::MediaFormat format,
            LocalRecordingType type, int segment_interval) override {
    state_->calls.push_back("Start");
    state_->start_path = path;
    state_->start_format = format;
    state_->start_type = type;
    state_->start_segment_interval = segment_interval;
    return state_->start_result;
  }
  int WriteVideoPacket(std::unique_ptr<tarnel::video::VideoFrame> frame) override {
    state_->calls.push_back("WriteVideoPacket");
    WrittenPacket packet;
    packet.is_video = true;
    packet.pts = static_cast<int64_t>(frame->pts);
    packet.dts = static_cast<int64_t>(frame->dts);
    packet.size = frame->data.size();
    return Book(packet);
  }
  int WriteAudioPacket(std::unique_ptr<AudioFrame> frame) override {
    state_->calls.push_back("WriteAudioPacket");
    WrittenPacket packet;
    packet.pts = frame->GetTimestampInMs();
    packet.dts = packet.pts;
    packet.audio_format = frame->GetAudioFrameFormat();
    packet.size = frame->GetSize();
    packet.silent = std::all_of(frame->GetData(), frame->GetData() + frame->GetSize(),
                                [](uint8_t byte) { return byte == 0; });
    return Book(packet);
  }
  int64_t Stop() override {
    state_->calls.push_back("Stop");
    return state_->stop_result;
  }

 private:
  int Book(const WrittenPacket& packet) {
    const size_t index = state_->packets.size();
    state_->packets.push_back(packet);
    return state_->write_result(index);
  }

  std::shared_ptr<FakeWriterState> state_;
};

}  // namespace

FakeWriterFactory::FakeWriterFactory() : state_(std::make_shared<FakeWriterState>()) {
  std::shared_ptr<FakeWriterState> state = state_;
  scope_ =
      std::make_unique<tarnel::extensions::local_recording::ScopedWriterBackendFactoryForTesting>(
          [state](LocalRecordingSegmentationWriter::Client* client) {
            return std::make_unique<FakeStreamWriter>(state, client);
          });
}

FakeWriterFactory::~FakeWriterFactory() = default;

// ---------------------------------------------------------------------------------------

namespace {

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
    if (state_->input_size_override != 0) return state_->input_size_override;
    return tarnel::audio::kAacSamplesPerFrame * params_.channels * 2;
  }
  int32_t GetPrimingSamples() const override { return 0; }
  std::shared_ptr<AudioFrame> Encode(std::shared_ptr<AudioFrame> input) override {
    const int call = state_->encode_calls++;
    state_->input_timestamps.push_back(input->GetTimestampInMs());
    if (call == state_->fail_encode_at) return nullptr;
    auto out = std::make_shared<AudioFrame>();
    const uint8_t payload[8] = {0x21, 0x10, 0x04, 0x60, 0x8c, 0x1c, 0, 0};
    out->SetData(payload, sizeof(payload));
    out->SetSampleRate(params_.sample_rate);
    out->SetChannels(params_.channels);
    out->SetAudioFrameFormat(tarnel::audio::kAac);
    out->SetTimestampInMs(input->GetTimestampInMs());
    return out;
  }

 private:
  std::shared_ptr<FakeEncoderState> state_;
  tarnel::audio::AudioEncodeParams params_;
};

}  // namespace

FakeEncoderFactory::FakeEncoderFactory() : state_(std::make_shared<FakeEncoderState>()) {
  SetInstanceForTesting(this);
}

FakeEncoderFactory::~FakeEncoderFactory() { SetInstanceForTesting(nullptr); }

std::unique_ptr<tarnel::audio::AudioEncoder> FakeEncoderFactory::CreateAudioEncoder(int type) {
  ++state_->created;
  if (type != tarnel::audio::kAudioEncoderAac || state_->create_returns_null) return nullptr;
  return std::make_unique<FakeAudioEncoder>(state_);
}

// ---------------------------------------------------------------------------------------

namespace {

std::atomic<int> g_configure_calls{0};

class FakeResampler : public tarnel::audio::AudioResampleInterface {
 public:
  int Configure(int in_rate, int in_channels, int out_rate, int out_channels) override {
    ++g_configure_calls;
    in_rate_ = in_rate;
    in_channels_ = in_channels;
    out_rate_ = out_rate;
    out_channels_ = out_channels;
    return 0;
  }
  int Resample(const AudioFrame& input, AudioFrame* output) override {
    if (in_rate_ <= 0 || in_channels_ <= 0) return -1;
    const auto* in = reinterpret_cast<const int16_t*>(input.GetData());
    const size_t in_samples = input.GetSize() / (2 * in_channels_);
    const size_t out_samples = in_samples * out_rate_ / in_rate_;
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

FakeResamplerScope::FakeResamplerScope() {
  g_configure_calls = 0;
  tarnel::audio::AudioResampleInterface::SetFactoryForTesting(&MakeFakeResampler);
}

FakeResamplerScope::~FakeResamplerScope() {
  tarnel::audio::AudioResampleInterface::SetFactoryForTesting(nullptr);
}

int FakeResamplerScope::configure_calls() { return g_configure_calls; }

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
                                         int channels, int16_t value) {
  auto frame = std::make_unique<AudioFrame>();
  const size_t samples = static_cast<size_t>(sample_rate) * duration_ms / 1000 * channels;
  std::vector<int16_t> pcm(samples, value);
  frame->SetData(reinterpret_cast<const uint8_t*>(pcm.data()), pcm.size() * sizeof(int16_t));
  frame->SetSampleRate(sample_rate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(timestamp_ms);
  frame->SetAudioFrameFormat(tarnel::audio::kPcm);
  return frame;
}

std::unique_ptr<AudioFrame> MakeAacFrame(uint32_t timestamp_ms, int sample_rate, int channels) {
  auto frame = std::make_unique<AudioFrame>();
  const uint8_t payload[6] = {0x21, 0x10, 0x04, 0x60, 0x8c, 0x1c};
  frame->SetData(payload, sizeof(payload));
  frame->SetSampleRate(sample_rate);
  frame->SetChannels(channels);
  frame->SetTimestampInMs(timestamp_ms);
  frame->SetAudioFrameFormat(tarnel::audio::kAac);
  return frame;
}

}  // namespace tarnel_test
