// The MP4 / M4A container: fragmented while recording, a standard file after Finish,
// without moving a media byte.
//
// While recording the file reads, at the top level,
//
//   ftyp | free (16 bytes, marked as ours) | moov (no samples, mvex) | [free: pre-roll]
//        | moof mdat | moof mdat | ...
//
// so a file cut at any point after the first fragment plays as a fragmented MP4.
// Fragments last at most kFragmentMs and are also cut before every video key frame.
// Every sample's size, offset, dts, composition offset and key flag is kept as it is
// written. Finish appends a moov with complete sample tables (stts, ctts, stss, stsz,
// stsc, stco or co64) and edit lists, syncs, and then rewrites the 16 reserved bytes
// as an 8-byte free box plus an mdat header (or one 64-bit mdat header) that swallows
// everything up to the new moov:
//
//   ftyp | free | mdat (old moov, moofs, media) | moov
//
// Each step leaves a file that plays: before the rewrite it is still the fragmented
// file (readers skip a second moov), after it the standard one. The cost of Finish is
// the size of the index, not of the media.
//
// Decoder pre-roll (AddPreroll) is written in a free box that no fragment refers to:
// fragmented readers never see it, and the finished file's edit list hides it. H.265
// is tagged hvc1: parameter sets equal to those in hvcC are taken out of the samples.
//
// M4A keeps its audio in one contiguous run, because some readers (FAAD2's) take the
// first chunk offset and read every frame back to back from there. The moofs go into
// a region reserved before the run and point at their data by absolute offset:
//
//   ftyp | free(16) | moov(mvex) | region: moof moof ... free | free(8) mdat(size 0):
//        pre-roll box, sample, sample, ...
//
// A fragment's data are appended first and its moof written into the region after,
// its header last, so the region always reads as moofs and one free box. A region
// holds kIndexRegionBytes, about half an hour of fragments; when it is full the mdat
// gets its size and the recording goes on as moof mdat pairs (such a file plays
// everywhere, but FAAD2 stops at the first moof after the run).
//
// Single-threaded, like the writer that owns it.
#ifndef SDK_MEDIA_STREAM_WRITER_MP4_MP4_MUXER_H_
#define SDK_MEDIA_STREAM_WRITER_MP4_MP4_MUXER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sdk/media_stream_writer/container_muxer.h"
#include "sdk/media_stream_writer/output_file.h"

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {

class Mp4Muxer : public ContainerMuxer {
 public:
  static constexpr int64_t kFragmentMs = 250;
  static constexpr int64_t kIndexRegionBytes = 1024 * 1024;

  // Creates the file at `path`; `m4a` writes the audio-only brand. Null (logged) when
  // the file cannot be created.
  static std::unique_ptr<Mp4Muxer> Create(bool m4a, const std::string& path);
  ~Mp4Muxer() override;
  Mp4Muxer(const Mp4Muxer&) = delete;
  Mp4Muxer& operator=(const Mp4Muxer&) = delete;

  int AddVideoStream(const VideoStreamConfig& config) override;
  int AddAudioStream(const AudioStreamConfig& config) override;
  bool WriteHeader() override;
  bool WritePacket(int stream, const uint8_t* data, size_t size, int64_t pts, int64_t dts,
                   int64_t nominal_duration, bool key) override;
  void AddPreroll(int stream, const uint8_t* data, size_t size, int64_t duration) override;
  void SetPresentationStart(int stream, int64_t start) override;
  void SetPresentationEnd(int stream, int64_t end) override;
  int64_t Finish() override;
  void Discard() override;

 private:
  struct Track;

  Mp4Muxer(bool m4a, std::string path, std::unique_ptr<OutputFile> file);
  Track* TrackAt(int stream);
  // Moves the held-back packet into the current fragment with its duration.
  void AcceptHeld(Track* track, bool has_next_dts, int64_t next_dts);
  bool ShouldCut(const Track& track, int64_t dts, bool key) const;
  // Writes the fragment (and before the first one the moov and the pre-roll).
  bool CutFragment();
  bool WriteInit();
  // M4A: writes the moofs whose data are on disk into the index region, or, once it is
  // full, closes the audio run and appends them.
  bool PlaceMoofs();
  // Writes `data` at `offset` inside the file and returns to its end.
  bool Rewrite(int64_t offset, const uint8_t* data, size_t size);
  bool Append(const uint8_t* data, size_t size);
  bool FlushToDisk();
  uint32_t MovieTimescale() const;

  const bool m4a_;
  std::unique_ptr<OutputFile> file_;
  std::vector<std::unique_ptr<Track>> tracks_;
  int64_t placeholder_offset_ = 0;
  bool header_written_ = false;
  bool init_written_ = false;
  bool finished_ = false;
  uint32_t sequence_ = 0;
  int64_t fragment_start_us_ = -1;  // Of the current fragment's first sample.
  // M4A's index region [region_next_, region_end_) still free, and the header of its
  // audio run; -1 once the region is full and fragments follow the run.
  int64_t region_next_ = -1;
  int64_t region_end_ = -1;
  int64_t run_header_offset_ = -1;
  std::vector<Bytes> unplaced_moofs_;  // Built, waiting for their data to reach the disk.
};

}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel

#endif  // SDK_MEDIA_STREAM_WRITER_MP4_MP4_MUXER_H_
