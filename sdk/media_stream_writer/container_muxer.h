// One container file: the streams, the packets in timestamp order, and the finish.
//
//   auto muxer = ContainerMuxer::Create(ContainerMuxer::kMp4, "/rec/out.mp4");
//   int video = muxer->AddVideoStream(video_config);   // before WriteHeader
//   muxer->WriteHeader();
//   muxer->WritePacket(video, sample, size, pts, dts, duration, key);  // stream time base
//   int64_t size = muxer->Finish();
//
// Every implementation keeps the file playable when the process dies at any point:
// after each packet the bytes are handed to the OS, and the file on disk always ends
// with a complete unit (fragment, cluster, frame). MP4 and M4A are written by our own
// Mp4Muxer (fragmented while recording, a standard file after Finish); Matroska, WAV
// and ADTS by FFmpeg's muxers (FfmpegContainerMuxer).
//
// Single-threaded: the writer that owns it calls it from its one thread.
#ifndef SDK_MEDIA_STREAM_WRITER_CONTAINER_MUXER_H_
#define SDK_MEDIA_STREAM_WRITER_CONTAINER_MUXER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "sdk/media_stream_writer/ffmpeg/codec_config.h"

namespace tarnel {
namespace media_stream_writer {

struct VideoStreamConfig {
  bool hevc = false;
  int width = 0;
  int height = 0;
  Bytes decoder_config;      // avcC or hvcC.
  int time_base_den = 1000;  // Timestamps in 1/time_base_den s.
};

struct AudioStreamConfig {
  bool aac = false;  // Else PCM s16 interleaved.
  int sample_rate = 0;
  int channels = 0;
  Bytes audio_specific_config;  // AAC only.
  // Timestamps in samples (1/sample_rate s); nominal packet duration, samples.
};

class ContainerMuxer {
 public:
  enum Container { kMp4, kM4a, kMkv, kWav, kAdts };

  // Opens the file at `path` for `container`. Null (logged) when it cannot.
  static std::unique_ptr<ContainerMuxer> Create(Container container, const std::string& path);
  // Closes the file without finishing it when Finish was not called.
  virtual ~ContainerMuxer() = default;

  // Streams, before WriteHeader. Return the stream index, or -1 (logged).
  virtual int AddVideoStream(const VideoStreamConfig& config) = 0;
  virtual int AddAudioStream(const AudioStreamConfig& config) = 0;
  virtual bool WriteHeader() = 0;

  // Takes one packet, pts/dts in the stream's time base. Each stream holds back its
  // latest packet until the next one arrives, so that every packet is muxed with its
  // exact duration (the distance to the next dts); `nominal_duration` is used when
  // this packet turns out to be the last. True when everything muxed so far is on disk
  // or inside the muxer; false when the held-back packet was lost or the disk refuses
  // bytes.
  virtual bool WritePacket(int stream, const uint8_t* data, size_t size, int64_t pts, int64_t dts,
                           int64_t nominal_duration, bool key) = 0;

  // Decoder pre-roll of an audio stream, oldest first, before its first WritePacket:
  // packets that come just before the first one and are decoded only so that the
  // first presented sample decodes in full (the encoder's start-up, or the audio
  // before a segment cut). Formats with an edit list keep them hidden from
  // presentation; the others drop them.
  virtual void AddPreroll(int /*stream*/, const uint8_t* /*data*/, size_t /*size*/,
                          int64_t /*duration*/) {}
  // The presented part of a stream in its time base, when it is not all of it: from
  // `start` (samples before it only prime the decoder) and up to `end` (the cut to
  // the next segment). Formats without an edit list ignore them.
  virtual void SetPresentationStart(int /*stream*/, int64_t /*start*/) {}
  virtual void SetPresentationEnd(int /*stream*/, int64_t /*end*/) {}

  // Muxes the held-back packets, finishes the file and closes it. Returns the file
  // size on disk, or -1 when finishing failed (the file is then cut back to its last
  // complete unit and still plays).
  virtual int64_t Finish() = 0;
  // Closes without finishing; removes the file when nothing was written into it.
  virtual void Discard() = 0;

  const std::string& path() const { return path_; }

 protected:
  explicit ContainerMuxer(std::string path) : path_(std::move(path)) {}

 private:
  const std::string path_;
};

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_CONTAINER_MUXER_H_
