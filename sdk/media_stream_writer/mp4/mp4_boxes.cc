#include "sdk/media_stream_writer/mp4/mp4_boxes.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {
namespace {

constexpr uint32_t kMatrix[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
constexpr uint32_t kKeySampleFlags = 0x02000000;     // sample_depends_on = 2 (none).
constexpr uint32_t kNonKeySampleFlags = 0x01010000;  // depends_on = 1, is_non_sync.
constexpr uint32_t kLanguageUnd = 0x55c4;            // "und", packed ISO 639-2/T.
constexpr char kPlaceholderMark[8] = {'T', 'A', 'R', 'N', 'E', 'L', 'v', '1'};

bool Fits32(int64_t value) { return value >= 0 && value <= std::numeric_limits<uint32_t>::max(); }

// `value` in `from` units, converted to `to` units, rounded to nearest.
int64_t Rescale(int64_t value, uint32_t from, uint32_t to) {
  if (from == to) return value;
  const int64_t scaled = value * static_cast<int64_t>(to);
  const int64_t half = from / 2;
  return scaled >= 0 ? (scaled + half) / from : -((-scaled + half) / from);
}

// An MPEG-4 descriptor header with the 4-byte length form every reader takes.
void Descriptor(BoxWriter* w, uint8_t tag, size_t length) {
  w->U8(tag);
  w->U8(0x80 | ((length >> 21) & 0x7f));
  w->U8(0x80 | ((length >> 14) & 0x7f));
  w->U8(0x80 | ((length >> 7) & 0x7f));
  w->U8(length & 0x7f);
}

void Matrix(BoxWriter* w) {
  for (uint32_t value : kMatrix) w->U32(value);
}

// One edit: `duration` in the movie timescale, `media_time` in the track's (-1: empty).
struct Edit {
  int64_t duration;
  int64_t media_time;
};

void Edits(BoxWriter* w, const std::vector<Edit>& edits) {
  bool wide = false;
  for (const Edit& edit : edits) {
    wide = wide || !Fits32(edit.duration) || edit.media_time > std::numeric_limits<int32_t>::max();
  }
  w->Open("edts");
  w->OpenFull("elst", wide ? 1 : 0, 0);
  w->U32(static_cast<uint32_t>(edits.size()));
  for (const Edit& edit : edits) {
    if (wide) {
      w->U64(static_cast<uint64_t>(edit.duration));
      w->U64(static_cast<uint64_t>(edit.media_time));
    } else {
      w->U32(static_cast<uint32_t>(edit.duration));
      w->U32(static_cast<uint32_t>(static_cast<int32_t>(edit.media_time)));
    }
    w->U16(1);  // media_rate_integer
    w->U16(0);
  }
  w->Close();
  w->Close();
}

void Mvhd(BoxWriter* w, uint32_t timescale, int64_t duration, uint32_t next_track_id) {
  const bool wide = !Fits32(duration);
  w->OpenFull("mvhd", wide ? 1 : 0, 0);
  if (wide) {
    w->U64(0);
    w->U64(0);
    w->U32(timescale);
    w->U64(static_cast<uint64_t>(duration));
  } else {
    w->U32(0);
    w->U32(0);
    w->U32(timescale);
    w->U32(static_cast<uint32_t>(duration));
  }
  w->U32(0x00010000);  // rate 1.0
  w->U16(0x0100);      // volume 1.0
  w->Zeros(10);
  Matrix(w);
  w->Zeros(24);  // pre_defined
  w->U32(next_track_id);
  w->Close();
}

void Tkhd(BoxWriter* w, const TrackIndex& track, int64_t duration) {
  const bool wide = !Fits32(duration);
  w->OpenFull("tkhd", wide ? 1 : 0, 0x3);  // enabled, in movie
  if (wide) {
    w->U64(0);
    w->U64(0);
    w->U32(track.track_id);
    w->U32(0);
    w->U64(static_cast<uint64_t>(duration));
  } else {
    w->U32(0);
    w->U32(0);
    w->U32(track.track_id);
    w->U32(0);
    w->U32(static_cast<uint32_t>(duration));
  }
  w->Zeros(8);
  w->U16(0);  // layer
  w->U16(0);  // alternate_group
  w->U16(track.video ? 0 : 0x0100);
  w->U16(0);
  Matrix(w);
  w->U32(track.video ? track.width << 16 : 0);
  w->U32(track.video ? track.height << 16 : 0);
  w->Close();
}

// mdia up to and including the stbl's stsd; the caller adds the tables and closes
// stbl, minf and mdia.
void OpenMediaUpToStsd(BoxWriter* w, const TrackIndex& track, int64_t media_duration) {
  w->Open("mdia");
  const bool wide = !Fits32(media_duration);
  w->OpenFull("mdhd", wide ? 1 : 0, 0);
  if (wide) {
    w->U64(0);
    w->U64(0);
    w->U32(track.timescale);
    w->U64(static_cast<uint64_t>(media_duration));
  } else {
    w->U32(0);
    w->U32(0);
    w->U32(track.timescale);
    w->U32(static_cast<uint32_t>(media_duration));
  }
  w->U16(kLanguageUnd);
  w->U16(0);
  w->Close();
  w->OpenFull("hdlr", 0, 0);
  w->U32(0);
  w->FourCc(track.video ? "vide" : "soun");
  w->Zeros(12);
  const char* name = track.video ? "VideoHandler" : "SoundHandler";
  w->Append(reinterpret_cast<const uint8_t*>(name), std::strlen(name) + 1);
  w->Close();
  w->Open("minf");
  if (track.video) {
    w->OpenFull("vmhd", 0, 1);
    w->Zeros(8);
  } else {
    w->OpenFull("smhd", 0, 0);
    w->Zeros(4);
  }
  w->Close();
  w->Open("dinf");
  w->OpenFull("dref", 0, 0);
  w->U32(1);
  w->OpenFull("url ", 0, 1);  // Media in this file.
  w->Close();
  w->Close();
  w->Close();
  w->Open("stbl");
  w->Append(track.stsd);
}

void EmptyTables(BoxWriter* w) {
  for (const char* type : {"stts", "stsc", "stco"}) {
    w->OpenFull(type, 0, 0);
    w->U32(0);
    w->Close();
  }
  w->OpenFull("stsz", 0, 0);
  w->U32(0);
  w->U32(0);
  w->Close();
}

void SampleTables(BoxWriter* w, const std::vector<Sample>& samples) {
  // stts: runs of equal durations.
  std::vector<std::pair<uint32_t, uint32_t>> runs;  // count, value
  for (const Sample& s : samples) {
    if (!runs.empty() && runs.back().second == s.duration) {
      ++runs.back().first;
    } else {
      runs.emplace_back(1, s.duration);
    }
  }
  w->OpenFull("stts", 0, 0);
  w->U32(static_cast<uint32_t>(runs.size()));
  for (const auto& run : runs) {
    w->U32(run.first);
    w->U32(run.second);
  }
  w->Close();

  const bool has_cts =
      std::any_of(samples.begin(), samples.end(), [](const Sample& s) { return s.cts != 0; });
  if (has_cts) {
    runs.clear();
    for (const Sample& s : samples) {
      const uint32_t cts = static_cast<uint32_t>(s.cts);
      if (!runs.empty() && runs.back().second == cts) {
        ++runs.back().first;
      } else {
        runs.emplace_back(1, cts);
      }
    }
    w->OpenFull("ctts", 0, 0);
    w->U32(static_cast<uint32_t>(runs.size()));
    for (const auto& run : runs) {
      w->U32(run.first);
      w->U32(run.second);
    }
    w->Close();
  }

  const bool all_key =
      std::all_of(samples.begin(), samples.end(), [](const Sample& s) { return s.key; });
  if (!all_key) {
    std::vector<uint32_t> keys;
    for (size_t i = 0; i < samples.size(); ++i) {
      if (samples[i].key) keys.push_back(static_cast<uint32_t>(i + 1));
    }
    w->OpenFull("stss", 0, 0);
    w->U32(static_cast<uint32_t>(keys.size()));
    for (uint32_t key : keys) w->U32(key);
    w->Close();
  }

  w->OpenFull("stsz", 0, 0);
  w->U32(0);
  w->U32(static_cast<uint32_t>(samples.size()));
  for (const Sample& s : samples) w->U32(s.size);
  w->Close();

  // A chunk is a run of samples that lie back to back in the file.
  std::vector<int64_t> chunk_offsets;
  std::vector<uint32_t> chunk_counts;
  for (size_t i = 0; i < samples.size(); ++i) {
    if (i == 0 || samples[i].offset != samples[i - 1].offset + samples[i - 1].size) {
      chunk_offsets.push_back(samples[i].offset);
      chunk_counts.push_back(0);
    }
    ++chunk_counts.back();
  }
  std::vector<std::pair<uint32_t, uint32_t>> stsc;  // first chunk (1-based), count
  for (size_t c = 0; c < chunk_counts.size(); ++c) {
    if (stsc.empty() || stsc.back().second != chunk_counts[c]) {
      stsc.emplace_back(static_cast<uint32_t>(c + 1), chunk_counts[c]);
    }
  }
  w->OpenFull("stsc", 0, 0);
  w->U32(static_cast<uint32_t>(stsc.size()));
  for (const auto& entry : stsc) {
    w->U32(entry.first);
    w->U32(entry.second);
    w->U32(1);  // sample_description_index
  }
  w->Close();

  const bool wide = !chunk_offsets.empty() && !Fits32(chunk_offsets.back());
  w->OpenFull(wide ? "co64" : "stco", 0, 0);
  w->U32(static_cast<uint32_t>(chunk_offsets.size()));
  for (int64_t offset : chunk_offsets) {
    if (wide) {
      w->U64(static_cast<uint64_t>(offset));
    } else {
      w->U32(static_cast<uint32_t>(offset));
    }
  }
  w->Close();
}

int64_t MediaDuration(const TrackIndex& track) {
  int64_t total = 0;
  for (const Sample& s : track.samples) total += s.duration;
  return total;
}

// The edits that show [present_from, present_to) of the track's timeline, with the
// file's time 0 at the segment's 0.
std::vector<Edit> FinalEdits(const TrackIndex& track, uint32_t movie_timescale,
                             int64_t* presented) {
  *presented = 0;
  std::vector<Edit> edits;
  if (track.samples.empty()) return edits;
  const int64_t media_start = track.samples.front().dts;
  const int64_t media_end = media_start + MediaDuration(track);
  const int64_t from = std::max({track.present_from, media_start, int64_t{0}});
  int64_t to = media_end;
  if (track.video) {
    // A picture shows until the next one: the last pts plus its duration.
    int64_t last = media_start;
    for (const Sample& s : track.samples) last = std::max(last, s.dts + s.cts + s.duration);
    to = last;
  }
  if (track.has_present_to) to = std::min(to, track.present_to);
  if (to <= from) return edits;
  const int64_t empty = Rescale(from, track.timescale, movie_timescale);
  if (empty > 0) edits.push_back({empty, -1});
  const int64_t duration = Rescale(to - from, track.timescale, movie_timescale);
  edits.push_back({duration, from - media_start});
  *presented = empty + duration;
  return edits;
}

}  // namespace

void BoxWriter::Open(const char type[4]) {
  open_.push_back(out_.size());
  U32(0);
  FourCc(type);
}

void BoxWriter::OpenFull(const char type[4], uint8_t version, uint32_t flags) {
  Open(type);
  U8(version);
  U24(flags);
}

void BoxWriter::Close() {
  const size_t start = open_.back();
  open_.pop_back();
  PatchU32(start, static_cast<uint32_t>(out_.size() - start));
}

void BoxWriter::U16(uint32_t value) {
  U8(value >> 8);
  U8(value);
}

void BoxWriter::U24(uint32_t value) {
  U8(value >> 16);
  U16(value);
}

void BoxWriter::U32(uint32_t value) {
  U16(value >> 16);
  U16(value);
}

void BoxWriter::U64(uint64_t value) {
  U32(static_cast<uint32_t>(value >> 32));
  U32(static_cast<uint32_t>(value));
}

void BoxWriter::FourCc(const char type[4]) { Append(reinterpret_cast<const uint8_t*>(type), 4); }

void BoxWriter::PatchU32(size_t offset, uint32_t value) {
  out_[offset] = static_cast<uint8_t>(value >> 24);
  out_[offset + 1] = static_cast<uint8_t>(value >> 16);
  out_[offset + 2] = static_cast<uint8_t>(value >> 8);
  out_[offset + 3] = static_cast<uint8_t>(value);
}

Bytes BuildVideoStsd(bool hevc, uint32_t width, uint32_t height, const Bytes& decoder_config) {
  BoxWriter w;
  w.OpenFull("stsd", 0, 0);
  w.U32(1);
  w.Open(hevc ? "hvc1" : "avc1");
  w.Zeros(6);
  w.U16(1);  // data_reference_index
  w.Zeros(16);
  w.U16(width);
  w.U16(height);
  w.U32(0x00480000);  // 72 dpi
  w.U32(0x00480000);
  w.U32(0);
  w.U16(1);     // frame_count
  w.Zeros(32);  // compressorname
  w.U16(0x0018);
  w.U16(0xffff);  // pre_defined = -1
  w.Open(hevc ? "hvcC" : "avcC");
  w.Append(decoder_config);
  w.Close();
  w.Close();
  w.Close();
  return w.Take();
}

Bytes BuildAudioStsd(uint32_t sample_rate, uint32_t channels, const Bytes& audio_specific_config) {
  BoxWriter w;
  w.OpenFull("stsd", 0, 0);
  w.U32(1);
  w.Open("mp4a");
  w.Zeros(6);
  w.U16(1);  // data_reference_index
  w.Zeros(8);
  w.U16(channels);
  w.U16(16);  // samplesize
  w.Zeros(4);
  w.U32(sample_rate < 65536 ? sample_rate << 16 : 0);
  w.OpenFull("esds", 0, 0);
  const size_t asc = audio_specific_config.size();
  const size_t decoder_config = 13 + 5 + asc;
  Descriptor(&w, 0x03, 3 + 5 + decoder_config + 5 + 1);  // ES_Descriptor
  w.U16(0);                                              // ES_ID
  w.U8(0);                                               // flags
  Descriptor(&w, 0x04, decoder_config);                  // DecoderConfigDescriptor
  w.U8(0x40);                                            // Audio ISO/IEC 14496-3
  w.U8(0x15);                                            // AudioStream, upstream 0, reserved 1
  w.U24(0);                                              // bufferSizeDB
  w.U32(0);                                              // maxBitrate
  w.U32(0);                                              // avgBitrate
  Descriptor(&w, 0x05, asc);                             // DecoderSpecificInfo
  w.Append(audio_specific_config);
  Descriptor(&w, 0x06, 1);  // SLConfigDescriptor
  w.U8(0x02);               // predefined: MP4 file
  w.Close();
  w.Close();
  w.Close();
  return w.Take();
}

Bytes BuildFtyp(bool m4a) {
  BoxWriter w;
  w.Open("ftyp");
  w.FourCc(m4a ? "M4A " : "isom");
  w.U32(0x200);
  for (const char* brand : {m4a ? "M4A " : "isom", "iso2", "iso5", m4a ? "mp42" : "avc1", "mp41"}) {
    w.FourCc(brand);
  }
  w.Close();
  return w.Take();
}

Bytes BuildPlaceholder() {
  BoxWriter w;
  w.Open("free");
  w.Append(reinterpret_cast<const uint8_t*>(kPlaceholderMark), sizeof(kPlaceholderMark));
  w.Close();
  return w.Take();
}

Bytes BuildMdatHeader(int64_t placeholder_offset, int64_t mdat_end) {
  BoxWriter w;
  const int64_t short_size = mdat_end - (placeholder_offset + 8);
  if (Fits32(short_size)) {
    w.Open("free");
    w.Close();
    w.U32(static_cast<uint32_t>(short_size));
    w.FourCc("mdat");
  } else {
    w.U32(1);
    w.FourCc("mdat");
    w.U64(static_cast<uint64_t>(mdat_end - placeholder_offset));
  }
  return w.Take();
}

Bytes BuildOpenMdatHeader() {
  BoxWriter w;
  w.Open("free");
  w.Close();
  w.U32(0);
  w.FourCc("mdat");
  return w.Take();
}

Bytes BuildFreeHeader(uint32_t size) {
  BoxWriter w;
  w.U32(size);
  w.FourCc("free");
  return w.Take();
}

Bytes BuildPrerollBoxHeader(uint32_t track_id, int64_t present_from,
                            const std::vector<Sample>& samples, size_t data_size) {
  BoxWriter w;
  const size_t size = 8 + 4 + 4 + 8 + 4 + 8 * samples.size() + data_size;
  w.U32(static_cast<uint32_t>(size));
  w.FourCc("free");
  w.FourCc("TRPR");
  w.U32(track_id);
  w.U64(static_cast<uint64_t>(present_from));
  w.U32(static_cast<uint32_t>(samples.size()));
  for (const Sample& s : samples) {
    w.U32(s.size);
    w.U32(s.duration);
  }
  return w.Take();
}

Bytes BuildFragmentedMoov(const std::vector<const TrackIndex*>& tracks,
                          const std::vector<int64_t>& fragment_shift, uint32_t movie_timescale) {
  BoxWriter w;
  w.Open("moov");
  uint32_t next_track_id = 1;
  for (const TrackIndex* track : tracks)
    next_track_id = std::max(next_track_id, track->track_id + 1);
  Mvhd(&w, movie_timescale, 0, next_track_id);
  for (size_t i = 0; i < tracks.size(); ++i) {
    const TrackIndex& track = *tracks[i];
    w.Open("trak");
    Tkhd(&w, track, 0);
    if (fragment_shift[i] > 0) Edits(&w, {{0, fragment_shift[i]}});
    OpenMediaUpToStsd(&w, track, 0);
    EmptyTables(&w);
    w.Close();  // stbl
    w.Close();  // minf
    w.Close();  // mdia
    w.Close();  // trak
  }
  w.Open("mvex");
  for (const TrackIndex* track : tracks) {
    w.OpenFull("trex", 0, 0);
    w.U32(track->track_id);
    w.U32(1);  // default_sample_description_index
    w.U32(0);
    w.U32(0);
    w.U32(0);
    w.Close();
  }
  w.Close();
  w.Close();
  return w.Take();
}

Bytes BuildMoof(uint32_t sequence, const std::vector<FragmentRun>& runs, int64_t data_offset) {
  BoxWriter w;
  w.Open("moof");
  w.OpenFull("mfhd", 0, 0);
  w.U32(sequence);
  w.Close();
  const bool absolute = data_offset >= 0;
  std::vector<size_t> data_offset_fields;
  std::vector<uint32_t> run_starts;
  uint32_t data = 0;
  for (const FragmentRun& run : runs) {
    // The compact form (one duration, no flags for audio) is for the index region,
    // where every byte is reserved ahead.
    const bool flags = run.video || !absolute;
    const bool same_duration =
        absolute && !run.samples.empty() &&
        std::all_of(run.samples.begin(), run.samples.end(),
                    [&](const Sample& s) { return s.duration == run.samples.front().duration; });
    w.Open("traf");
    // base-data-offset or default-base-is-moof, and default-sample-duration.
    w.OpenFull("tfhd", 0, (absolute ? 0x000001 : 0x020000) | (same_duration ? 0x000008 : 0));
    w.U32(run.track_id);
    if (absolute) w.U64(static_cast<uint64_t>(data_offset));
    if (same_duration) w.U32(run.samples.front().duration);
    w.Close();
    w.OpenFull("tfdt", 1, 0);
    w.U64(run.base_dts);
    w.Close();
    // data offset, durations unless stated once, sizes, flags unless compact, and
    // composition offsets for video.
    w.OpenFull("trun", 0,
               0x000201 | (same_duration ? 0 : 0x000100) | (flags ? 0x000400 : 0) |
                   (run.video ? 0x000800 : 0));
    w.U32(static_cast<uint32_t>(run.samples.size()));
    data_offset_fields.push_back(w.size());
    run_starts.push_back(data);
    w.U32(0);
    for (const Sample& s : run.samples) {
      if (!same_duration) w.U32(s.duration);
      w.U32(s.size);
      if (flags) w.U32(s.key ? kKeySampleFlags : kNonKeySampleFlags);
      if (run.video) w.U32(static_cast<uint32_t>(s.cts));
      data += s.size;
    }
    w.Close();
    w.Close();
  }
  w.Close();
  // Relative to the moof, the data start after the mdat header that follows it.
  const uint32_t payload_start = absolute ? 0 : static_cast<uint32_t>(w.size()) + 8;
  for (size_t i = 0; i < data_offset_fields.size(); ++i) {
    w.PatchU32(data_offset_fields[i], payload_start + run_starts[i]);
  }
  return w.Take();
}

Bytes BuildFinalMoov(const std::vector<const TrackIndex*>& tracks, uint32_t movie_timescale) {
  BoxWriter w;
  w.Open("moov");
  std::vector<std::vector<Edit>> edits;
  std::vector<int64_t> presented;
  int64_t movie_duration = 0;
  uint32_t next_track_id = 1;
  for (const TrackIndex* track : tracks) {
    int64_t shown = 0;
    edits.push_back(FinalEdits(*track, movie_timescale, &shown));
    presented.push_back(shown);
    movie_duration = std::max(movie_duration, shown);
    next_track_id = std::max(next_track_id, track->track_id + 1);
  }
  Mvhd(&w, movie_timescale, movie_duration, next_track_id);
  for (size_t i = 0; i < tracks.size(); ++i) {
    const TrackIndex& track = *tracks[i];
    w.Open("trak");
    Tkhd(&w, track, presented[i]);
    if (!edits[i].empty()) Edits(&w, edits[i]);
    OpenMediaUpToStsd(&w, track, MediaDuration(track));
    SampleTables(&w, track.samples);
    w.Close();  // stbl
    w.Close();  // minf
    w.Close();  // mdia
    w.Close();  // trak
  }
  w.Close();
  return w.Take();
}

}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel
