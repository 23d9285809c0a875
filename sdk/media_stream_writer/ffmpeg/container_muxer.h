// One container file written by an FFmpeg muxer through our own OutputFile.
//
//   auto muxer = ContainerMuxer::Create(ContainerMuxer::kMp4, "/rec/out.mp4");
//   int video = muxer->AddVideoStream(video_config);   // before WriteHeader
//   muxer->WriteHeader();
//   muxer->WritePacket(video, sample, pts, dts, key);  // stream time base units
//   int64_t size = muxer->Finish();
//
// Layout choices, all for files that play after a crash at any point:
//  - MP4/M4A are fragmented (empty_moov + delay_moov + default_base_moof, fragments of
//    at most 250 ms, also cut at video key frames). delay_moov makes FFmpeg write the
//    moov when the first fragment is cut, once every track's first timestamp is known
//    (an edit list for a track that starts late is in it); we cut that first fragment
//    as soon as every stream has a packet. The trailer adds the mfra index.
//  - Matroska closes a cluster every 250 ms; FFmpeg only emits whole clusters.
//  - WAV keeps FFmpeg's 0xFFFFFFFF size placeholders until the trailer: readers take
//    them as "to the end of the file".
//  - ADTS frames stand alone.
// After every packet the AVIOContext is flushed to the OS (FFmpeg would otherwise keep
// up to a buffer's worth in user space) and, once the disk has taken everything, the
// end of the file is committed as a point the file may be cut back to.
//
// Each stream holds back its latest packet until the next one arrives, so that every
// packet is muxed with its exact duration (the distance to the next dts). MP4
// fragments take the duration of a track's last sample from its packet; an estimate
// there would move the next fragment's samples (FFmpeg realigns the following dts to
// it) and close audio gaps. The last packet of a stream gets the nominal duration.
#ifndef SDK_MEDIA_STREAM_WRITER_FFMPEG_CONTAINER_MUXER_H_
#define SDK_MEDIA_STREAM_WRITER_FFMPEG_CONTAINER_MUXER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sdk/media_stream_writer/ffmpeg/codec_config.h"
#include "sdk/media_stream_writer/ffmpeg/output_file.h"

struct AVFormatContext;
struct AVIOContext;
struct AVPacket;

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

// The picture size the parameter sets of an Annex-B key frame describe, through
// FFmpeg's parser. False when it cannot tell.
bool ProbeVideoSize(bool hevc, const uint8_t* data, size_t size, int* width, int* height);

class ContainerMuxer {
 public:
  enum Container { kMp4, kM4a, kMkv, kWav, kAdts };

  // Opens the file at `path` for `container`. Null (logged) when it cannot.
  static std::unique_ptr<ContainerMuxer> Create(Container container, const std::string& path);
  // Closes the file without the trailer when Finish was not called.
  ~ContainerMuxer();
  ContainerMuxer(const ContainerMuxer&) = delete;
  ContainerMuxer& operator=(const ContainerMuxer&) = delete;

  // Streams, before WriteHeader. Return the stream index, or -1 (logged).
  int AddVideoStream(const VideoStreamConfig& config);
  int AddAudioStream(const AudioStreamConfig& config);
  bool WriteHeader();
  bool header_written() const { return header_written_; }

  // Takes one packet, pts/dts in the stream's time base, and muxes the one held back
  // before it. `nominal_duration` is used when this packet turns out to be the last.
  // True when everything muxed so far is on disk or inside the muxer; false when the
  // held-back packet was lost or the disk refuses bytes.
  bool WritePacket(int stream, const uint8_t* data, size_t size, int64_t pts, int64_t dts,
                   int64_t nominal_duration, bool key);

  // Muxes the held-back packets, writes the trailer and closes the file. Returns the
  // file size, or -1 when finishing failed (the file is then cut back to its last
  // complete unit and still plays).
  int64_t Finish();
  // Closes without trailer; removes the file when nothing was written into it.
  void Discard();

  const std::string& path() const { return path_; }

 private:
  struct StreamState;

  ContainerMuxer(Container container, std::string path);
  bool Open();
  int AddStream(int time_base_den);
  bool MuxHeld(StreamState* stream, int64_t next_dts);
  bool FlushToDisk();
  void Close();

  const Container container_;
  const std::string path_;
  std::unique_ptr<OutputFile> file_;
  AVFormatContext* context_ = nullptr;
  AVIOContext* io_ = nullptr;
  std::vector<std::unique_ptr<StreamState>> streams_;
  bool header_written_ = false;
  bool first_fragment_cut_ = false;
  bool finished_ = false;
};

}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_FFMPEG_CONTAINER_MUXER_H_
