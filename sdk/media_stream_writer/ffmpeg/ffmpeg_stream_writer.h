// The built-in container backend: MP4 and M4A (our own Mp4Muxer), Matroska, WAV and
// ADTS (FFmpeg's muxers), optionally cut into numbered segments.
//
// What it takes in and what it writes:
//  - Video: Annex-B access units, H.264 or H.265. The decoder configuration (avcC /
//    hvcC) is built from the metadata's parameter sets when they are given, else from
//    the first key frame's. Samples are length-prefixed; Matroska keeps parameter sets
//    that arrive in band, MP4 tags H.265 'hvc1' and keeps them in hvcC only.
//    Frames before the first key frame cannot be decoded and are dropped.
//  - Audio: AAC (raw or behind ADTS headers, which are stripped) or PCM s16, learnt
//    from the first packet. AAC is placed sample-exactly: a packet whose timestamp is
//    within half a frame of where the previous one ended continues it. A frame's
//    encoder delay D (GetEncoderDelaySamples, see AudioEncoder::GetPrimingSamples) is
//    applied here and nowhere else: every packet is placed D samples before its stamp,
//    so that decoded audio starts with the first input sample; the packets that carry
//    only the encoder's start-up go to the muxer as decoder pre-roll, which MP4 and
//    M4A keep (hidden by the finished file's edit list) and Matroska and ADTS drop
//    (docs/design.md, "AAC encoder delay, per container").
//  - The header waits until every expected stream is configured (the video from the
//    metadata or its first key frame, the audio from its first packet); packets that
//    arrive before that are held, up to 2 s of media or 300 packets, after which the
//    missing stream is left out of the file.
//  - Timestamps: each stream's dts is kept strictly increasing; a repaired dts pulls
//    the pts along when it would pass it. A missing video dts (0) is the pts. This is
//    the recording's only dts repair. Video in 1/90000 s in MP4, ms in Matroska.
//  - Segments: a new file starts at the first video key frame (audio-only: audio
//    frame) at or after `segment_interval` seconds past the current file's start. Each
//    file starts at 0. With audio and video the old file stays open until the audio
//    reaches the cut, and the audio is split there: to the sample in MP4 (edit lists),
//    at the first packet at or after the cut elsewhere.
//
// Every write ends with the bytes handed to the OS; see ContainerMuxer for the layouts
// that keep a file playable when the process dies at any point.
#ifndef SDK_MEDIA_STREAM_WRITER_FFMPEG_FFMPEG_STREAM_WRITER_H_
#define SDK_MEDIA_STREAM_WRITER_FFMPEG_FFMPEG_STREAM_WRITER_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "sdk/media_stream_writer/local_recording_segmentation_writer.h"

namespace tarnel {
namespace media_stream_writer {
class ContainerMuxer;
}  // namespace media_stream_writer

namespace extensions {
namespace local_recording {

class FfmpegStreamWriter : public MediaStreamWriter {
 public:
  // Packets held back while the header cannot be written yet.
  static constexpr int64_t kMaxPendingMs = 2000;
  static constexpr size_t kMaxPendingPackets = 300;

  // `client` (may be null) hears of every segment file opened; it must outlive this.
  explicit FfmpegStreamWriter(LocalRecordingSegmentationWriter::Client* client);
  // Finishes the file when Stop was not called.
  ~FfmpegStreamWriter() override;
  FfmpegStreamWriter(const FfmpegStreamWriter&) = delete;
  FfmpegStreamWriter& operator=(const FfmpegStreamWriter&) = delete;

  void SetVideoMetaData(const media_stream_writer::VideoMetadata& metadata) override;
  void SetAudioMetaData(const audio::AudioMetadata& metadata) override;
  int Start(const std::string& path, media_stream_writer::MediaFormat format,
            LocalRecordingType type, int segment_interval) override;
  // A packet that is held back (before the header, or the latest of its stream; see
  // ContainerMuxer) counts as written; a failure to mux it shows in the result of a
  // later call.
  int WriteVideoPacket(std::unique_ptr<video::VideoFrame> frame) override;
  int WriteAudioPacket(std::unique_ptr<audio::AudioFrame> frame) override;
  int64_t Stop() override;

 private:
  struct VideoState {
    bool codec_known = false;
    bool hevc = false;
    bool configured = false;  // Decoder configuration and picture size known.
    int width = 0;
    int height = 0;
    std::vector<uint8_t> decoder_config;
    bool seen_key_frame = false;
    bool given_up = false;
    bool in_file = false;
    bool has_last_dts = false;
    int64_t last_dts = 0;  // Current segment, stream time base.
    int64_t last_interval = 0;
  };
  struct AudioState {
    bool configured = false;
    bool aac = false;
    int sample_rate = 0;
    int channels = 0;
    std::vector<uint8_t> audio_specific_config;
    bool given_up = false;
    bool in_file = false;
    bool has_next = false;
    int64_t next_position = 0;  // Samples, recording time.
    int64_t segment_shift = 0;  // Added in this segment to keep positions >= 0.
    bool segment_has_audio = false;
    bool priming_known = false;
    int64_t priming_packets_left = 0;  // Encoder start-up packets still to come (pre-roll).
  };
  struct PendingPacket {
    std::unique_ptr<video::VideoFrame> video;
    std::unique_ptr<audio::AudioFrame> audio;
    int64_t time_ms = 0;
  };

  bool ConfigureVideoFromKeyFrame(const video::VideoFrame& frame);
  bool ConfigureAudio(const audio::AudioFrame& frame);
  // Checks a packet against the audio configuration; fills the payload to mux.
  bool AudioPayload(const audio::AudioFrame& frame, const uint8_t** data, size_t* size,
                    int64_t* samples);

  // Queues a packet before the header; writes the header and the queue once possible.
  // Returns the write result.
  int HoldUntilHeader(PendingPacket packet);
  bool ReadyForHeader() const;
  bool PendingOverLimit() const;
  // Adds the configured streams, writes the header and the queued packets.
  bool WriteHeaderAndPending();

  int WriteVideoNow(std::unique_ptr<video::VideoFrame> frame);
  int WriteAudioNow(std::unique_ptr<audio::AudioFrame> frame);
  // Writes one audio packet at `position` (recording samples) into `muxer`, whose file
  // starts at `base_samples`, keeping it at or after 0 through `shift` where the
  // container cannot start before 0.
  bool MuxAudio(media_stream_writer::ContainerMuxer* muxer, int64_t base_samples, int64_t* shift,
                const uint8_t* data, size_t size, int64_t position, int64_t samples);
  // Keeps the latest audio packet, the next segment's decoder pre-roll.
  void RememberAudio(const uint8_t* data, size_t size, int64_t position, int64_t samples);

  // Logs a rejected packet's reason, once for a run of the same reason.
  void PacketError(const std::string& message);

  bool segmenting() const { return segment_interval_ >= 1; }
  std::string SegmentPath(int number) const;
  // Finishes the current file and opens the next with the same streams, starting at
  // `base_ms` / `base_samples` of recording time.
  bool StartNextSegment(int64_t base_ms, int64_t base_samples);
  std::unique_ptr<media_stream_writer::ContainerMuxer> OpenMuxer(const std::string& path);
  bool AddStreams(media_stream_writer::ContainerMuxer* muxer);
  // Finishes and releases `*muxer`, adding its size to the total.
  void FinishMuxer(std::unique_ptr<media_stream_writer::ContainerMuxer>* muxer);

  LocalRecordingSegmentationWriter::Client* const client_;
  bool has_video_metadata_ = false;
  media_stream_writer::VideoMetadata video_metadata_;
  bool has_audio_metadata_ = false;
  audio::AudioMetadata audio_metadata_;

  bool running_ = false;
  std::string path_;
  media_stream_writer::MediaFormat format_ = media_stream_writer::kMp4;
  bool expect_video_ = false;
  bool expect_audio_ = false;
  int segment_interval_ = 0;

  VideoState video_;
  AudioState audio_;
  int video_stream_ = -1;
  int audio_stream_ = -1;
  int64_t video_ticks_per_ms_ = 1;

  std::deque<PendingPacket> pending_;
  bool header_written_ = false;

  std::unique_ptr<media_stream_writer::ContainerMuxer> muxer_;
  int segment_number_ = 0;
  int64_t segment_base_ms_ = 0;
  int64_t segment_base_samples_ = 0;
  int64_t next_boundary_ms_ = 0;
  bool segment_has_video_ = false;
  int64_t finished_bytes_ = 0;
  // With audio and video, the segment before a cut stays open until the audio reaches
  // the cut (at most kCutAudioWaitMs of video later).
  std::unique_ptr<media_stream_writer::ContainerMuxer> closing_muxer_;
  int64_t closing_cut_ms_ = 0;
  int64_t closing_cut_samples_ = 0;
  int64_t closing_base_samples_ = 0;
  int64_t closing_shift_ = 0;
  bool has_last_audio_ = false;
  std::vector<uint8_t> last_audio_;
  int64_t last_audio_position_ = 0;
  int64_t last_audio_samples_ = 0;
  bool header_failed_ = false;
  bool last_finish_failed_ = false;

  // One-time log flags.
  bool logged_dts_repair_ = false;
  bool logged_audio_repair_ = false;
  bool logged_dropped_delta_ = false;
  bool logged_given_up_ = false;
  std::string last_packet_error_;
  int64_t repeated_packet_errors_ = 0;
};

}  // namespace local_recording
}  // namespace extensions
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_FFMPEG_FFMPEG_STREAM_WRITER_H_
