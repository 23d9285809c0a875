// The ISO base media file format boxes the MP4 writer and the repair produce: sample
// entries, the moov of a fragmented file, fragments (moof), the moov of a finished file
// with complete sample tables and edit lists, and the mdat header that finishes a file.
// Pure byte building, no I/O.
//
//   mp4::TrackIndex track = ...;                // samples with file offsets
//   Bytes moov = mp4::BuildFinalMoov({&track}, 48000);
//
// Times: every track counts in its own timescale, on the segment's timeline (0 is the
// start of the file; a sample may lie before it). The movie timescale is the audio
// sample rate when there is audio, else the video's, so that edits are exact.
#ifndef SDK_MEDIA_STREAM_WRITER_MP4_MP4_BOXES_H_
#define SDK_MEDIA_STREAM_WRITER_MP4_MP4_BOXES_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sdk/media_stream_writer/ffmpeg/codec_config.h"

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {

// Appends big-endian fields and nested boxes to a byte vector.
//
//   BoxWriter w;
//   w.OpenFull("mdhd", 0, 0); w.U32(timescale); ...; w.Close();
class BoxWriter {
 public:
  void Open(const char type[4]);
  void OpenFull(const char type[4], uint8_t version, uint32_t flags);
  // Ends the innermost open box by writing its size.
  void Close();
  void U8(uint32_t value) { out_.push_back(static_cast<uint8_t>(value)); }
  void U16(uint32_t value);
  void U24(uint32_t value);
  void U32(uint32_t value);
  void U64(uint64_t value);
  void FourCc(const char type[4]);
  void Append(const uint8_t* data, size_t size) { out_.insert(out_.end(), data, data + size); }
  void Append(const Bytes& bytes) { Append(bytes.data(), bytes.size()); }
  void Zeros(size_t count) { out_.insert(out_.end(), count, 0); }
  size_t size() const { return out_.size(); }
  // Overwrites 4 bytes at `offset` (for fields known only later).
  void PatchU32(size_t offset, uint32_t value);
  Bytes Take() { return std::move(out_); }

 private:
  Bytes out_;
  std::vector<size_t> open_;
};

// One sample as the index keeps it.
struct Sample {
  int64_t offset = 0;  // Absolute file offset.
  int64_t dts = 0;     // Segment timeline, track timescale.
  uint32_t size = 0;
  uint32_t duration = 0;
  int32_t cts = 0;  // pts - dts, >= 0.
  bool key = true;
};

// What the finished moov says about one track.
struct TrackIndex {
  uint32_t track_id = 0;
  bool video = false;
  uint32_t timescale = 0;
  uint32_t width = 0;  // Video only.
  uint32_t height = 0;
  Bytes stsd;  // The complete stsd box.
  // Decode order; each sample's dts is the previous one's plus its duration.
  std::vector<Sample> samples;
  // The part of the segment timeline to present: samples before `present_from` only
  // prime the decoder (AAC's encoder delay, or the audio before a segment cut), and
  // nothing at or after `present_to` is shown. Without `has_present_to`, to the end.
  int64_t present_from = 0;
  bool has_present_to = false;
  int64_t present_to = 0;
};

// The stsd box with one avc1 / hvc1 entry carrying `decoder_config` (avcC / hvcC).
Bytes BuildVideoStsd(bool hevc, uint32_t width, uint32_t height, const Bytes& decoder_config);
// The stsd box with one mp4a entry carrying the AudioSpecificConfig in an esds.
Bytes BuildAudioStsd(uint32_t sample_rate, uint32_t channels, const Bytes& audio_specific_config);

// The ftyp box: "isom" (MP4) or "M4A " (audio only).
Bytes BuildFtyp(bool m4a);

// The moov of the fragmented file: tracks without samples, each with an edit that
// starts its media at `fragment_shift[i]` (0 for none), and an mvex.
Bytes BuildFragmentedMoov(const std::vector<const TrackIndex*>& tracks,
                          const std::vector<int64_t>& fragment_shift, uint32_t movie_timescale);

// One track's run in a fragment.
struct FragmentRun {
  uint32_t track_id = 0;
  uint64_t base_dts = 0;  // tfdt: the track's fragmented timeline.
  std::vector<Sample> samples;
  bool video = false;
};
// The moof for `runs`, whose data lie run after run, each run's samples back to back:
// with `data_offset` < 0 in one mdat right after the moof (the mdat header is not
// included), else from that absolute file offset on, wherever the moof itself sits.
// With an absolute `data_offset` (M4A's index region) the moof is compact: audio runs
// carry no per-sample flags (every sample is a sync sample), and a run whose samples
// all last as long states that duration once.
Bytes BuildMoof(uint32_t sequence, const std::vector<FragmentRun>& runs, int64_t data_offset = -1);

// The moov of the finished file, with complete sample tables and edit lists.
Bytes BuildFinalMoov(const std::vector<const TrackIndex*>& tracks, uint32_t movie_timescale);

// The header that turns the 16 bytes reserved after the ftyp into an mdat running to
// `mdat_end`: an 8-byte free box and a 32-bit mdat header, or a 64-bit mdat header
// when the size needs it. `placeholder_offset` is where the 16 bytes start.
Bytes BuildMdatHeader(int64_t placeholder_offset, int64_t mdat_end);

// The 16 bytes that open the audio run of an audio-only file while it records: an
// 8-byte free box and an mdat header of size 0 (to the end of the file). They have the
// size of an mdat header from BuildMdatHeader, which replaces them when the run is
// closed.
Bytes BuildOpenMdatHeader();

// The header of a free box of `size` bytes in all (at least 8).
Bytes BuildFreeHeader(uint32_t size);

// The 16 bytes reserved after the ftyp while recording: a free box whose payload marks
// the file as ours, so a repair can tell it from files it cannot vouch for.
Bytes BuildPlaceholder();
constexpr size_t kPlaceholderSize = 16;

// The free box that keeps a track's decoder pre-roll in the file while it records (no
// fragment refers to it): the tracks id, the presentation start on the fragmented
// timeline, and each sample's size and duration, followed by the samples.
Bytes BuildPrerollBoxHeader(uint32_t track_id, int64_t present_from,
                            const std::vector<Sample>& samples, size_t data_size);

}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_MP4_MP4_BOXES_H_
