// A PCM byte queue that cuts frames of any length into pieces of a fixed size (the
// size an encoder consumes) and keeps the timeline: every piece carries the time of its
// first byte.
//
//   AudioFrameRingBuffer ring;
//   ring.Write(std::move(pcm_frame));                 // any length
//   while (ring.GetSizeInBytes() >= n) encode(ring.ReadInBytes(n));
#ifndef SDK_MEDIA_AUDIO_FRAME_RING_BUFFER_H_
#define SDK_MEDIA_AUDIO_FRAME_RING_BUFFER_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "sdk/media/audio_frame.h"

namespace tarnel {
namespace audio {

// Not thread-safe; used from the recorder's worker thread.
class AudioFrameRingBuffer {
 public:
  AudioFrameRingBuffer();
  ~AudioFrameRingBuffer();
  AudioFrameRingBuffer(const AudioFrameRingBuffer&) = delete;
  AudioFrameRingBuffer& operator=(const AudioFrameRingBuffer&) = delete;

  // Appends the frame's PCM bytes; takes the frame.
  void Write(std::unique_ptr<AudioFrame> frame);
  // Appends a copy of the frame's PCM bytes; keeps no reference to it.
  void Write(const AudioFrame& frame);

  // Takes `size` bytes from the front. The frame carries the sample rate, channel count
  // and format of the bytes' source and the timestamp (ms, on the input timeline) of
  // its first byte. Null, taking nothing, unless 0 < size <= GetSizeInBytes().
  std::unique_ptr<AudioFrame> ReadInBytes(int size);

  int32_t GetSizeInBytes() const { return size_in_bytes_; }

  // The time (ms, input timeline) at which the last byte written ends: where audio that
  // continues the queue begins. 0 before the first write.
  uint32_t GetEndTimestampInMs() const { return end_timestamp_ms_; }

 private:
  // Queues `bytes` with the format and timestamp of `source`.
  void Append(std::vector<uint8_t> bytes, const AudioFrame& source);

  // Bytes held, in order, each run with the format and timeline of the frame it came
  // from.
  struct Chunk {
    std::vector<uint8_t> bytes;
    size_t read_offset = 0;  // Bytes of `bytes` already handed out.
    int32_t sample_rate = 0;
    int32_t channels = 0;
    AudioCodecFormat format = kPcm;
    uint32_t timestamp_ms = 0;  // Time of bytes[0].
  };
  std::deque<Chunk> chunks_;
  int32_t size_in_bytes_ = 0;
  uint32_t end_timestamp_ms_ = 0;
};

}  // namespace audio
}  // namespace tarnel

#endif  // SDK_MEDIA_AUDIO_FRAME_RING_BUFFER_H_
