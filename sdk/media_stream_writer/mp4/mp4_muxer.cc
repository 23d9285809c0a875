#include "sdk/media_stream_writer/mp4/mp4_muxer.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "sdk/base/logging.h"
#include "sdk/media_stream_writer/mp4/mp4_boxes.h"

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {
namespace {

constexpr tarn_logging::LogConfig kLogConfig{"media_stream_writer"};
// Before the first fragment every track should have a sample in it, so that the moov
// knows where each one starts; a track that stays silent longer does not hold it up.
constexpr int64_t kFirstFragmentMaxUs = 1000 * 1000;

uint32_t ReadU32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The parameter sets in the arrays of an hvcC record, whose arrays are marked complete
// on the way (array_completeness = 1: hvc1 carries every set in the sample entry).
std::vector<Bytes> TakeHvccParameterSets(Bytes* config_in_out) {
  Bytes& config = *config_in_out;
  std::vector<Bytes> sets;
  if (config.size() < 23) return sets;
  size_t pos = 22;
  const int arrays = config[pos++];
  for (int a = 0; a < arrays && pos + 3 <= config.size(); ++a) {
    config[pos] |= 0x80;
    const int count = (config[pos + 1] << 8) | config[pos + 2];
    pos += 3;
    for (int i = 0; i < count && pos + 2 <= config.size(); ++i) {
      const size_t length = static_cast<size_t>((config[pos] << 8) | config[pos + 1]);
      pos += 2;
      if (pos + length > config.size()) return sets;
      sets.emplace_back(config.begin() + static_cast<std::ptrdiff_t>(pos),
                        config.begin() + static_cast<std::ptrdiff_t>(pos + length));
      pos += length;
    }
  }
  return sets;
}

}  // namespace

struct Mp4Muxer::Track {
  mp4::TrackIndex index;
  bool hevc = false;
  std::vector<Bytes> parameter_sets;  // hvc1: the sets in hvcC.
  bool logged_new_parameter_sets = false;

  bool has_held = false;
  mp4::Sample held;
  Bytes held_data;
  int64_t held_nominal_duration = 0;

  std::vector<mp4::Sample> fragment;
  Bytes fragment_data;

  std::vector<mp4::Sample> preroll;
  Bytes preroll_data;
  bool has_present_from = false;

  bool has_first = false;  // A sample has reached a fragment.
  int64_t first_dts = 0;
  int64_t first_pts = 0;
  int64_t shift = 0;  // Fragmented timeline = segment timeline + shift.

  int64_t ToUs(int64_t time) const {
    return time * 1000000 / static_cast<int64_t>(index.timescale);
  }
};

std::unique_ptr<Mp4Muxer> Mp4Muxer::Create(bool m4a, const std::string& path) {
  std::unique_ptr<OutputFile> file = OutputFile::Create(path);
  if (!file) return nullptr;
  return std::unique_ptr<Mp4Muxer>(new Mp4Muxer(m4a, path, std::move(file)));
}

Mp4Muxer::Mp4Muxer(bool m4a, std::string path, std::unique_ptr<OutputFile> file)
    : ContainerMuxer(std::move(path)), m4a_(m4a), file_(std::move(file)) {}

Mp4Muxer::~Mp4Muxer() {
  if (!finished_) Discard();
}

Mp4Muxer::Track* Mp4Muxer::TrackAt(int stream) {
  if (stream < 0 || stream >= static_cast<int>(tracks_.size())) return nullptr;
  return tracks_[static_cast<size_t>(stream)].get();
}

int Mp4Muxer::AddVideoStream(const VideoStreamConfig& config) {
  if (header_written_ || config.width <= 0 || config.height <= 0 || config.time_base_den <= 0 ||
      config.decoder_config.empty()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot add a video track to " << path() << ": incomplete configuration";
    return -1;
  }
  auto track = std::make_unique<Track>();
  track->index.track_id = static_cast<uint32_t>(tracks_.size() + 1);
  track->index.video = true;
  track->index.timescale = static_cast<uint32_t>(config.time_base_den);
  track->index.width = static_cast<uint32_t>(config.width);
  track->index.height = static_cast<uint32_t>(config.height);
  Bytes decoder_config = config.decoder_config;
  track->hevc = config.hevc;
  if (config.hevc) track->parameter_sets = TakeHvccParameterSets(&decoder_config);
  track->index.stsd =
      mp4::BuildVideoStsd(config.hevc, track->index.width, track->index.height, decoder_config);
  tracks_.push_back(std::move(track));
  return static_cast<int>(tracks_.size() - 1);
}

int Mp4Muxer::AddAudioStream(const AudioStreamConfig& config) {
  if (header_written_ || !config.aac || config.sample_rate <= 0 || config.channels <= 0 ||
      config.audio_specific_config.empty()) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot add an audio track to " << path() << ": MP4 takes configured AAC only";
    return -1;
  }
  auto track = std::make_unique<Track>();
  track->index.track_id = static_cast<uint32_t>(tracks_.size() + 1);
  track->index.timescale = static_cast<uint32_t>(config.sample_rate);
  track->index.stsd =
      mp4::BuildAudioStsd(static_cast<uint32_t>(config.sample_rate),
                          static_cast<uint32_t>(config.channels), config.audio_specific_config);
  tracks_.push_back(std::move(track));
  return static_cast<int>(tracks_.size() - 1);
}

uint32_t Mp4Muxer::MovieTimescale() const {
  for (const auto& track : tracks_) {
    if (!track->index.video) return track->index.timescale;
  }
  return tracks_.empty() ? 1000 : tracks_.front()->index.timescale;
}

bool Mp4Muxer::Append(const uint8_t* data, size_t size) {
  return size == 0 || file_->Write(data, size) == static_cast<int>(size);
}

bool Mp4Muxer::FlushToDisk() {
  if (file_->has_backlog() || file_->broken()) return false;
  file_->Commit();
  return true;
}

bool Mp4Muxer::WriteHeader() {
  if (header_written_ || tracks_.empty() || !file_) return false;
  const Bytes ftyp = mp4::BuildFtyp(m4a_);
  const Bytes placeholder = mp4::BuildPlaceholder();
  Append(ftyp.data(), ftyp.size());
  placeholder_offset_ = file_->size();
  Append(placeholder.data(), placeholder.size());
  header_written_ = true;
  // Bytes the disk refused are kept for retry; only a broken file is a failure here.
  FlushToDisk();
  return !file_->broken();
}

void Mp4Muxer::AddPreroll(int stream, const uint8_t* data, size_t size, int64_t duration) {
  Track* track = TrackAt(stream);
  if (track == nullptr || track->index.video || track->has_held || track->has_first ||
      init_written_ || size == 0 || duration <= 0) {
    return;
  }
  mp4::Sample sample;
  sample.size = static_cast<uint32_t>(size);
  sample.duration = static_cast<uint32_t>(duration);
  track->preroll.push_back(sample);
  track->preroll_data.insert(track->preroll_data.end(), data, data + size);
}

void Mp4Muxer::SetPresentationStart(int stream, int64_t start) {
  Track* track = TrackAt(stream);
  if (track == nullptr) return;
  track->has_present_from = true;
  track->index.present_from = start;
}

void Mp4Muxer::SetPresentationEnd(int stream, int64_t end) {
  Track* track = TrackAt(stream);
  if (track == nullptr) return;
  track->index.has_present_to = true;
  track->index.present_to = end;
}

bool Mp4Muxer::WritePacket(int stream, const uint8_t* data, size_t size, int64_t pts, int64_t dts,
                           int64_t nominal_duration, bool key) {
  Track* track = TrackAt(stream);
  if (!header_written_ || finished_ || track == nullptr || size == 0) return false;
  file_->Drain();
  if (track->has_held) AcceptHeld(track, true, dts);
  bool ok = true;
  if (ShouldCut(*track, dts, key)) ok = CutFragment();

  track->held = mp4::Sample();
  track->held.dts = dts;
  track->held.cts = static_cast<int32_t>(std::max<int64_t>(pts - dts, 0));
  track->held.key = key;
  track->held_nominal_duration = nominal_duration;
  track->held_data.clear();
  if (track->hevc) {
    // hvc1 keeps the parameter sets in hvcC; copies of them in the samples go. A set
    // that differs from those stays in band (decoders take it), which hvc1 readers
    // may not expect.
    size_t pos = 0;
    while (pos + 4 <= size) {
      const size_t length = ReadU32(data + pos);
      if (length == 0 || pos + 4 + length > size) break;
      const uint8_t* unit = data + pos + 4;
      const int type = (unit[0] >> 1) & 0x3f;
      bool drop = false;
      if (type >= 32 && type <= 34) {
        for (const Bytes& set : track->parameter_sets) {
          drop = drop || (set.size() == length && std::equal(set.begin(), set.end(), unit));
        }
        if (!drop && !track->logged_new_parameter_sets) {
          track->logged_new_parameter_sets = true;
          TARN_LOG(tarn_logging::LS_WARNING, kLogConfig, this)
              << "H.265 parameter sets changed within the stream; kept in band in " << path();
        }
      }
      if (!drop) track->held_data.insert(track->held_data.end(), data + pos, unit + length);
      pos += 4 + length;
    }
  }
  if (track->held_data.empty()) track->held_data.assign(data, data + size);
  track->held.size = static_cast<uint32_t>(track->held_data.size());
  track->has_held = true;
  return ok && !file_->has_backlog() && !file_->broken();
}

void Mp4Muxer::AcceptHeld(Track* track, bool has_next_dts, int64_t next_dts) {
  mp4::Sample sample = track->held;
  track->has_held = false;
  int64_t duration = track->held_nominal_duration;
  if (has_next_dts && next_dts > sample.dts) {
    duration = next_dts - sample.dts;
  } else if (!has_next_dts && track->index.video && track->index.has_present_to &&
             track->index.present_to > sample.dts) {
    duration = track->index.present_to - sample.dts;  // The last picture lasts to the cut.
  }
  sample.duration = static_cast<uint32_t>(std::max<int64_t>(duration, 1));
  if (!track->has_first) {
    track->has_first = true;
    track->first_dts = sample.dts;
    track->first_pts = sample.dts + sample.cts;
  }
  if (fragment_start_us_ < 0) fragment_start_us_ = track->ToUs(sample.dts);
  track->fragment.push_back(sample);
  track->fragment_data.insert(track->fragment_data.end(), track->held_data.begin(),
                              track->held_data.end());
}

bool Mp4Muxer::ShouldCut(const Track& track, int64_t dts, bool key) const {
  if (fragment_start_us_ < 0) return false;
  const int64_t span_us = track.ToUs(dts) - fragment_start_us_;
  if (!init_written_) {
    // The first fragment goes out as soon as every track has a sample in it.
    bool all = true;
    for (const auto& other : tracks_) all = all && !other->fragment.empty();
    return all || span_us >= kFirstFragmentMaxUs;
  }
  return (track.index.video && key) || span_us >= kFragmentMs * 1000;
}

bool Mp4Muxer::WriteInit() {
  std::vector<const mp4::TrackIndex*> indexes;
  std::vector<int64_t> shifts;
  for (const auto& track : tracks_) {
    // The fragmented timeline cannot go below 0: a track that starts before the
    // segment (video dts before its pts) is shifted, and its edit shifts it back.
    track->shift = track->has_first ? std::max<int64_t>(0, -track->first_dts) : 0;
    if (!track->has_present_from) track->index.present_from = track->first_pts;
    indexes.push_back(&track->index);
    shifts.push_back(track->shift);
  }
  const Bytes moov = mp4::BuildFragmentedMoov(indexes, shifts, MovieTimescale());
  bool ok = Append(moov.data(), moov.size());
  if (m4a_) {
    // The region starts 4-aligned, and every moof is a multiple of 4 long, so no
    // 8-byte box header written into it spans two pages (one write each).
    const int64_t pad = (4 - file_->size() % 4) % 4;
    if (pad > 0) {
      Bytes padding = mp4::BuildFreeHeader(static_cast<uint32_t>(8 + pad));
      padding.resize(padding.size() + static_cast<size_t>(pad), 0);
      ok = Append(padding.data(), padding.size()) && ok;
    }
    region_next_ = file_->size();
    region_end_ = region_next_ + kIndexRegionBytes;
    Bytes region = mp4::BuildFreeHeader(static_cast<uint32_t>(kIndexRegionBytes));
    region.resize(kIndexRegionBytes, 0);
    run_header_offset_ = file_->size() + kIndexRegionBytes;
    const Bytes run_header = mp4::BuildOpenMdatHeader();
    ok = Append(region.data(), region.size()) && Append(run_header.data(), run_header.size()) && ok;
  }
  for (const auto& track : tracks_) {
    if (track->preroll.empty()) continue;
    int64_t dts = track->first_dts;
    for (const mp4::Sample& sample : track->preroll) dts -= sample.duration;
    const Bytes header =
        mp4::BuildPrerollBoxHeader(track->index.track_id, track->index.present_from, track->preroll,
                                   track->preroll_data.size());
    int64_t offset = file_->size() + static_cast<int64_t>(header.size());
    for (mp4::Sample& sample : track->preroll) {
      sample.dts = dts;
      sample.offset = offset;
      dts += sample.duration;
      offset += sample.size;
    }
    ok = Append(header.data(), header.size()) &&
         Append(track->preroll_data.data(), track->preroll_data.size()) && ok;
    track->index.samples = track->preroll;
    track->preroll_data = Bytes();
  }
  init_written_ = true;
  return ok;
}

bool Mp4Muxer::CutFragment() {
  bool ok = init_written_ || WriteInit();
  std::vector<mp4::FragmentRun> runs;
  size_t payload = 0;
  for (const auto& track : tracks_) {
    if (track->fragment.empty()) continue;
    mp4::FragmentRun run;
    run.track_id = track->index.track_id;
    run.base_dts =
        static_cast<uint64_t>(std::max<int64_t>(track->fragment.front().dts + track->shift, 0));
    run.samples = track->fragment;
    run.video = track->index.video;
    runs.push_back(std::move(run));
    payload += track->fragment_data.size();
  }
  fragment_start_us_ = -1;
  if (runs.empty()) return ok;
  int64_t offset = file_->size();
  if (region_next_ >= 0) {
    // The data extend the audio run; the moof follows them into the region.
    unplaced_moofs_.push_back(mp4::BuildMoof(++sequence_, runs, offset));
  } else {
    ok = PlaceMoofs() && ok;
    const Bytes moof = mp4::BuildMoof(++sequence_, runs);
    offset = file_->size() + static_cast<int64_t>(moof.size()) + 8;
    mp4::BoxWriter mdat;
    mdat.U32(static_cast<uint32_t>(8 + payload));
    mdat.FourCc("mdat");
    const Bytes mdat_header = mdat.Take();
    ok = Append(moof.data(), moof.size()) && Append(mdat_header.data(), mdat_header.size()) && ok;
  }
  for (const auto& track : tracks_) {
    if (track->fragment.empty()) continue;
    for (mp4::Sample& sample : track->fragment) {
      sample.offset = offset;
      offset += sample.size;
      track->index.samples.push_back(sample);
    }
    ok = Append(track->fragment_data.data(), track->fragment_data.size()) && ok;
    track->fragment.clear();
    track->fragment_data.clear();
  }
  if (!file_->has_backlog()) ok = PlaceMoofs() && ok;
  return FlushToDisk() && ok;
}

bool Mp4Muxer::Rewrite(int64_t offset, const uint8_t* data, size_t size) {
  return file_->Seek(offset, SEEK_SET) == offset && Append(data, size) &&
         file_->Seek(0, SEEK_END) == file_->size();
}

bool Mp4Muxer::PlaceMoofs() {
  if (unplaced_moofs_.empty()) return true;
  if (file_->has_backlog() || file_->broken()) return false;
  bool ok = true;
  for (const Bytes& moof : unplaced_moofs_) {
    const int64_t size = static_cast<int64_t>(moof.size());
    const int64_t room = region_next_ >= 0 ? region_end_ - region_next_ : 0;
    if (size == room || size + 8 <= room) {
      // The free box after the moof first, then the moof's body, then its header:
      // until that last write the old free box covers them all.
      if (size < room) {
        const Bytes rest = mp4::BuildFreeHeader(static_cast<uint32_t>(room - size));
        ok = Rewrite(region_next_ + size, rest.data(), rest.size()) && ok;
      }
      ok = Rewrite(region_next_ + 8, moof.data() + 8, moof.size() - 8) &&
           Rewrite(region_next_, moof.data(), 8) && ok;
      region_next_ += size;
      continue;
    }
    if (region_next_ >= 0) {
      TARN_LOG(tarn_logging::LS_INFO, kLogConfig, this)
          << "index region of " << path() << " is full; fragments follow the audio from here";
      const Bytes header = mp4::BuildMdatHeader(run_header_offset_, file_->size());
      ok = Rewrite(run_header_offset_, header.data(), header.size()) && ok;
      region_next_ = -1;
    }
    ok = Append(moof.data(), moof.size()) && ok;
  }
  unplaced_moofs_.clear();
  return ok;
}

int64_t Mp4Muxer::Finish() {
  if (finished_) return -1;
  if (!header_written_) {
    Discard();
    return -1;
  }
  for (const auto& track : tracks_) {
    if (track->has_held) AcceptHeld(track.get(), false, 0);
  }
  CutFragment();
  bool ok = file_->Drain() && PlaceMoofs() && !file_->broken() && init_written_;
  if (ok) {
    // The moov goes after the last fragment and reaches the disk before the header
    // that makes it the file's index: a crash in between leaves the fragmented file.
    const int64_t mdat_end = file_->size();
    std::vector<const mp4::TrackIndex*> indexes;
    for (const auto& track : tracks_) indexes.push_back(&track->index);
    const Bytes moov = mp4::BuildFinalMoov(indexes, MovieTimescale());
    ok = Append(moov.data(), moov.size()) && FlushToDisk() && file_->Sync();
    const Bytes header = mp4::BuildMdatHeader(placeholder_offset_, mdat_end);
    ok = ok && file_->Seek(placeholder_offset_, SEEK_SET) == placeholder_offset_ &&
         Append(header.data(), header.size()) && file_->Drain() && !file_->broken();
  }
  if (!ok) {
    TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this)
        << "cannot finish " << path() << "; it stays a fragmented MP4";
    file_->Break();
  }
  finished_ = true;
  const int64_t size = file_->Close(/*remove_if_empty=*/false);
  return ok ? size : -1;
}

void Mp4Muxer::Discard() {
  finished_ = true;
  if (file_) file_->Close(/*remove_if_empty=*/true);
}

}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel
