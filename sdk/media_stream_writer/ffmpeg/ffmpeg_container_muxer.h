// The container muxer on FFmpeg's muxers through our own OutputFile, for Matroska,
// WAV and ADTS (MP4 and M4A are Mp4Muxer's).
//
// Layout choices, all for files that play after a crash at any point:
//  - Matroska closes a cluster every 250 ms; FFmpeg only emits whole clusters.
//  - WAV keeps FFmpeg's 0xFFFFFFFF size placeholders until the trailer: readers take
//    them as "to the end of the file".
//  - ADTS frames stand alone.
// After every packet the AVIOContext is flushed to the OS (FFmpeg would otherwise keep
// up to a buffer's worth in user space) and, once the disk has taken everything, the
// end of the file is committed as a point the file may be cut back to.
//
// Each stream holds back its latest packet until the next one arrives (see
// ContainerMuxer::WritePacket); the last packet of a stream gets the nominal duration.
#ifndef SDK_MEDIA_STREAM_WRITER_FFMPEG_FFMPEG_CONTAINER_MUXER_H_
#define SDK_MEDIA_STREAM_WRITER_FFMPEG_FFMPEG_CONTAINER_MUXER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sdk/media/ffmpeg/ffmpeg_ptr.h"
#include "sdk/media_stream_writer/container_muxer.h"
#include "sdk/media_stream_writer/output_file.h"

namespace tarnel {
namespace media_stream_writer {

// The picture size the parameter sets of an Annex-B key frame describe, through
// FFmpeg's parser. False when it cannot tell.
bool ProbeVideoSize(bool hevc, const uint8_t* data, size_t size, int* width, int* height);

class FfmpegContainerMuxer : public ContainerMuxer {
 public:
  // Opens the file at `path`; `container` is kMkv, kWav or kAdts. Null (logged) when
  // it cannot.
  static std::unique_ptr<FfmpegContainerMuxer> Create(Container container, const std::string& path);
  ~FfmpegContainerMuxer() override;
  FfmpegContainerMuxer(const FfmpegContainerMuxer&) = delete;
  FfmpegContainerMuxer& operator=(const FfmpegContainerMuxer&) = delete;

  int AddVideoStream(const VideoStreamConfig& config) override;
  int AddAudioStream(const AudioStreamConfig& config) override;
  bool WriteHeader() override;
  bool WritePacket(int stream, const uint8_t* data, size_t size, int64_t pts, int64_t dts,
                   int64_t nominal_duration, bool key) override;
  int64_t Finish() override;
  void Discard() override;

 private:
  struct StreamState;

  FfmpegContainerMuxer(Container container, std::string path);
  bool Open();
  int AddStream(int time_base_den);
  bool MuxHeld(StreamState* stream, int64_t next_dts);
  bool FlushToDisk();
  void Close();

  const Container container_;
  std::unique_ptr<OutputFile> file_;
  FfmpegPtr<AVFormatContext> context_;
  FfmpegPtr<AVIOContext> io_;  // The file_ behind context_; not the context's to free.
  std::vector<std::unique_ptr<StreamState>> streams_;
  bool header_written_ = false;
  bool first_unit_cut_ = false;
  bool finished_ = false;
};

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_FFMPEG_FFMPEG_CONTAINER_MUXER_H_
