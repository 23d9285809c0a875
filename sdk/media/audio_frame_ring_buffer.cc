#include "sdk/media/audio_frame_ring_buffer.h"

#include <cstring>
#include <limits>
#include <utility>

namespace tarnel {
namespace audio {
namespace {

// Time, in ms truncated toward zero, that `bytes` of 16-bit PCM take. 0 when the format
// does not say (rate or channel count not positive). The product fits in 64 bits for
// any byte count the ring can hold.
uint32_t BytesToMs(uint64_t bytes, int32_t sample_rate, int32_t channels) {
  if (sample_rate <= 0 || channels <= 0) return 0;
  const uint64_t bytes_per_second =
      2u * static_cast<uint64_t>(channels) * static_cast<uint64_t>(sample_rate);
  return static_cast<uint32_t>(bytes * 1000u / bytes_per_second);
}

}  // namespace

AudioFrameRingBuffer::AudioFrameRingBuffer() = default;
AudioFrameRingBuffer::~AudioFrameRingBuffer() = default;

void AudioFrameRingBuffer::Write(std::unique_ptr<AudioFrame> frame) {
  if (!frame) return;
  std::vector<uint8_t> bytes = std::move(frame->data_);
  Append(std::move(bytes), *frame);
}

void AudioFrameRingBuffer::Write(const AudioFrame& frame) { Append(frame.data_, frame); }

// Frames that would push the count past int32_t are dropped: the count is what callers
// compare against, and no encoder lags two gigabytes behind its input.
void AudioFrameRingBuffer::Append(std::vector<uint8_t> bytes, const AudioFrame& source) {
  if (bytes.empty()) return;
  if (bytes.size() > static_cast<uint64_t>(std::numeric_limits<int32_t>::max() - size_in_bytes_)) {
    return;
  }
  size_in_bytes_ += static_cast<int32_t>(bytes.size());
  Chunk chunk;
  chunk.bytes = std::move(bytes);
  chunk.sample_rate = source.sample_rate_;
  chunk.channels = source.channels_;
  chunk.format = source.format_;
  chunk.timestamp_ms = source.timestamp_ms_;
  end_timestamp_ms_ =
      chunk.timestamp_ms + BytesToMs(chunk.bytes.size(), chunk.sample_rate, chunk.channels);
  chunks_.push_back(std::move(chunk));
}

// Null, leaving the queue untouched, when `size` is not positive or more than is held;
// callers wait for GetSizeInBytes() to reach the piece size.
std::unique_ptr<AudioFrame> AudioFrameRingBuffer::ReadInBytes(int size) {
  if (size <= 0 || size > size_in_bytes_) return nullptr;

  // The piece takes its format and time from the chunk its first byte comes from.
  const Chunk& first = chunks_.front();
  auto frame = std::make_unique<AudioFrame>();
  frame->sample_rate_ = first.sample_rate;
  frame->channels_ = first.channels;
  frame->format_ = first.format;
  // Unsigned arithmetic: the timestamp wraps like the input's.
  frame->timestamp_ms_ =
      first.timestamp_ms + BytesToMs(first.read_offset, first.sample_rate, first.channels);

  frame->data_.resize(static_cast<size_t>(size));
  uint8_t* out = frame->data_.data();
  size_t wanted = static_cast<size_t>(size);
  // size <= size_in_bytes_, so the chunks hold enough and the loop never empties the
  // deque before `wanted` reaches zero.
  while (wanted > 0) {
    Chunk& chunk = chunks_.front();
    const size_t available = chunk.bytes.size() - chunk.read_offset;
    const size_t take = wanted < available ? wanted : available;
    std::memcpy(out, chunk.bytes.data() + chunk.read_offset, take);
    out += take;
    wanted -= take;
    chunk.read_offset += take;
    if (chunk.read_offset == chunk.bytes.size()) chunks_.pop_front();
  }
  size_in_bytes_ -= size;
  return frame;
}

}  // namespace audio
}  // namespace tarnel
