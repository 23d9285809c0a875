#include "sdk/media_stream_writer/mp4/mp4_repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "sdk/base/errno_text.h"
#include "sdk/media_stream_writer/mp4/mp4_boxes.h"

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {
namespace {

using mp4::Sample;
using mp4::TrackIndex;

// The file's bytes, read on demand; closes the descriptor when it goes.
class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool Read(int64_t offset, size_t size, Bytes* out) {
    out->resize(size);
    size_t done = 0;
    while (done < size) {
      const ssize_t n =
          pread(fd_, out->data() + done, size - done, static_cast<off_t>(offset) + done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  bool Write(int64_t offset, const Bytes& data) {
    size_t done = 0;
    while (done < data.size()) {
      const ssize_t n =
          pwrite(fd_, data.data() + done, data.size() - done, static_cast<off_t>(offset) + done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  int fd() const { return fd_; }

 private:
  int fd_;
};

// A box in a buffer: [payload, end) after its header.
struct Box {
  char type[5] = {};
  size_t start = 0;
  size_t payload = 0;
  size_t end = 0;
};

uint32_t U32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
uint64_t U64(const uint8_t* p) { return (uint64_t{U32(p)} << 32) | U32(p + 4); }

// The boxes directly inside [begin, end) of `data`; false when one does not fit.
bool Children(const Bytes& data, size_t begin, size_t end, std::vector<Box>* boxes) {
  boxes->clear();
  for (size_t pos = begin; pos < end;) {
    if (end - pos < 8) return false;
    Box box;
    uint64_t size = U32(&data[pos]);
    std::memcpy(box.type, &data[pos + 4], 4);
    box.start = pos;
    box.payload = pos + 8;
    if (size == 1) {
      if (end - pos < 16) return false;
      size = U64(&data[pos + 8]);
      box.payload = pos + 16;
    }
    if (size < box.payload - pos || size > end - pos) return false;
    box.end = pos + static_cast<size_t>(size);
    boxes->push_back(box);
    pos = box.end;
  }
  return true;
}

const Box* Find(const std::vector<Box>& boxes, const char* type) {
  for (const Box& box : boxes) {
    if (std::memcmp(box.type, type, 4) == 0) return &box;
  }
  return nullptr;
}

// What the repair learns about a track from the fragmented moov.
struct RepairTrack {
  TrackIndex index;
  int64_t shift = 0;            // Fragmented timeline minus segment timeline.
  std::vector<Sample> preroll;  // From a pre-roll box; they go before the fragments'.
  bool has_preroll = false;
};

bool ParseTrak(const Bytes& data, const Box& trak, RepairTrack* track) {
  std::vector<Box> boxes;
  if (!Children(data, trak.payload, trak.end, &boxes)) return false;
  const Box* tkhd = Find(boxes, "tkhd");
  const Box* mdia = Find(boxes, "mdia");
  if (tkhd == nullptr || mdia == nullptr || tkhd->end - tkhd->payload < 84) return false;
  const bool wide = data[tkhd->payload] == 1;
  track->index.track_id = U32(&data[tkhd->payload + (wide ? 20 : 12)]);
  track->index.width = U32(&data[tkhd->end - 8]) >> 16;
  track->index.height = U32(&data[tkhd->end - 4]) >> 16;
  if (const Box* edts = Find(boxes, "edts")) {
    std::vector<Box> edits;
    if (!Children(data, edts->payload, edts->end, &edits)) return false;
    const Box* elst = Find(edits, "elst");
    if (elst != nullptr && elst->end - elst->payload >= 8 && U32(&data[elst->payload + 4]) > 0) {
      const bool v1 = data[elst->payload] == 1;
      const size_t entry = elst->payload + 8;
      if (entry + (v1 ? 16 : 8) > elst->end) return false;
      track->shift = v1 ? static_cast<int64_t>(U64(&data[entry + 8]))
                        : static_cast<int32_t>(U32(&data[entry + 4]));
    }
  }
  std::vector<Box> media;
  if (!Children(data, mdia->payload, mdia->end, &media)) return false;
  const Box* mdhd = Find(media, "mdhd");
  const Box* hdlr = Find(media, "hdlr");
  const Box* minf = Find(media, "minf");
  if (mdhd == nullptr || hdlr == nullptr || minf == nullptr || hdlr->end - hdlr->payload < 12 ||
      mdhd->end - mdhd->payload < 24) {
    return false;
  }
  track->index.timescale = U32(&data[mdhd->payload + (data[mdhd->payload] == 1 ? 20 : 12)]);
  track->index.video = std::memcmp(&data[hdlr->payload + 8], "vide", 4) == 0;
  if (!track->index.video && std::memcmp(&data[hdlr->payload + 8], "soun", 4) != 0) return false;
  std::vector<Box> info;
  if (!Children(data, minf->payload, minf->end, &info)) return false;
  const Box* stbl = Find(info, "stbl");
  if (stbl == nullptr) return false;
  std::vector<Box> tables;
  if (!Children(data, stbl->payload, stbl->end, &tables)) return false;
  const Box* stsd = Find(tables, "stsd");
  if (stsd == nullptr || track->index.timescale == 0) return false;
  track->index.stsd.assign(data.begin() + static_cast<std::ptrdiff_t>(stsd->start),
                           data.begin() + static_cast<std::ptrdiff_t>(stsd->end));
  return true;
}

RepairTrack* TrackById(std::vector<RepairTrack>* tracks, uint32_t id) {
  for (RepairTrack& track : *tracks) {
    if (track.index.track_id == id) return &track;
  }
  return nullptr;
}

// The samples of one moof (at `moof_offset` in the file), per track in `tracks`'
// order, into `samples`. False when the moof is not one this writer makes, or its data
// lie past `data_end`.
bool ParseMoof(const Bytes& data, int64_t moof_offset, int64_t data_end,
               std::vector<RepairTrack>* tracks, std::vector<std::vector<Sample>>* samples) {
  samples->assign(tracks->size(), {});
  std::vector<Box> boxes;
  if (!Children(data, 8, data.size(), &boxes)) return false;
  for (const Box& traf : boxes) {
    if (std::memcmp(traf.type, "traf", 4) != 0) continue;
    std::vector<Box> parts;
    if (!Children(data, traf.payload, traf.end, &parts)) return false;
    const Box* tfhd = Find(parts, "tfhd");
    const Box* tfdt = Find(parts, "tfdt");
    if (tfhd == nullptr || tfdt == nullptr || tfhd->end - tfhd->payload < 8 ||
        tfdt->end - tfdt->payload < 8) {
      return false;
    }
    // As we write them: data relative to the moof or at an absolute offset, and
    // perhaps one duration for all samples.
    const uint32_t tfhd_flags = U32(&data[tfhd->payload]) & 0xffffff;
    if ((tfhd_flags & ~uint32_t{0x000008}) != 0x020000 &&
        (tfhd_flags & ~uint32_t{0x000008}) != 0x000001) {
      return false;
    }
    size_t field = tfhd->payload + 8;
    int64_t base = moof_offset;
    if (tfhd_flags & 0x000001) {
      if (field + 8 > tfhd->end) return false;
      base = static_cast<int64_t>(U64(&data[field]));
      field += 8;
    }
    uint32_t default_duration = 0;
    if (tfhd_flags & 0x000008) {
      if (field + 4 > tfhd->end) return false;
      default_duration = U32(&data[field]);
    }
    RepairTrack* track = TrackById(tracks, U32(&data[tfhd->payload + 4]));
    if (track == nullptr) return false;
    std::vector<Sample>& out = (*samples)[static_cast<size_t>(track - tracks->data())];
    const bool wide = data[tfdt->payload] == 1;
    if (wide && tfdt->end - tfdt->payload < 12) return false;
    int64_t dts =
        static_cast<int64_t>(wide ? U64(&data[tfdt->payload + 4]) : U32(&data[tfdt->payload + 4])) -
        track->shift;
    for (const Box& trun : parts) {
      if (std::memcmp(trun.type, "trun", 4) != 0) continue;
      if (trun.end - trun.payload < 8) return false;
      const uint32_t flags = U32(&data[trun.payload]) & 0xffffff;
      if ((flags & 0x000201) != 0x000201 || (flags & 0x4) != 0) return false;
      const uint32_t count = U32(&data[trun.payload + 4]);
      size_t pos = trun.payload + 8;
      const int64_t data_offset = static_cast<int32_t>(U32(&data[pos]));
      pos += 4;
      const size_t entry =
          4 * (1 + ((flags & 0x100) != 0) + ((flags & 0x400) != 0) + ((flags & 0x800) != 0));
      if (count > (trun.end - pos) / entry) return false;
      int64_t offset = base + data_offset;
      for (uint32_t i = 0; i < count; ++i) {
        Sample sample;
        sample.duration = default_duration;
        if (flags & 0x100) {
          sample.duration = U32(&data[pos]);
          pos += 4;
        }
        sample.size = U32(&data[pos]);
        pos += 4;
        if (flags & 0x400) {
          sample.key = (U32(&data[pos]) & 0x00010000) == 0;
          pos += 4;
        }
        if (flags & 0x800) {
          sample.cts = static_cast<int32_t>(U32(&data[pos]));
          pos += 4;
        }
        sample.offset = offset;
        sample.dts = dts;
        offset += sample.size;
        dts += sample.duration;
        if (offset > data_end) return false;
        out.push_back(sample);
      }
    }
  }
  return true;
}

enum class PrerollBox { kNone, kRead, kBroken };

// The pre-roll box at `pos` (a free box marked TRPR, its samples after the header), if
// there is one within [pos, limit): its samples go to their track.
PrerollBox ReadPrerollBox(File* file, int64_t pos, int64_t limit,
                          std::vector<RepairTrack>* tracks) {
  Bytes box;
  if (limit - pos < 28 ||
      !file->Read(pos, static_cast<size_t>(std::min<int64_t>(limit - pos, 1 << 20)), &box) ||
      std::memcmp(&box[4], "free", 4) != 0 || std::memcmp(&box[8], "TRPR", 4) != 0) {
    return PrerollBox::kNone;
  }
  const int64_t size = U32(box.data());
  RepairTrack* track = TrackById(tracks, U32(&box[12]));
  const uint32_t count = U32(&box[24]);
  if (track == nullptr || track->has_preroll || size > limit - pos ||
      28 + 8 * size_t{count} > box.size()) {
    return PrerollBox::kBroken;
  }
  int64_t offset = pos + 28 + 8 * int64_t{count};
  for (uint32_t i = 0; i < count; ++i) {
    Sample sample;
    sample.size = U32(&box[28 + 8 * i]);
    sample.duration = U32(&box[32 + 8 * i]);
    sample.offset = offset;
    offset += sample.size;
    track->preroll.push_back(sample);
  }
  if (offset > pos + size) return PrerollBox::kBroken;
  track->index.present_from = static_cast<int64_t>(U64(&box[16]));
  track->has_preroll = true;
  return PrerollBox::kRead;
}

}  // namespace

RepairResult RepairMp4File(const std::string& path, std::string* message) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    *message = "cannot open " + path + ": " + tarn_base::ErrnoText(errno);
    return RepairResult::kFailed;
  }
  File file(fd);
  struct stat info;
  if (fstat(fd, &info) != 0) {
    *message = "cannot read " + path + ": " + tarn_base::ErrnoText(errno);
    return RepairResult::kFailed;
  }
  const int64_t file_size = info.st_size;

  // ftyp, then the 16 reserved bytes: still our mark, or already the mdat header.
  Bytes head;
  if (file_size < 24 || !file.Read(0, 8, &head) || std::memcmp(&head[4], "ftyp", 4) != 0) {
    *message = path + " is not an MP4 file";
    return RepairResult::kRefused;
  }
  const int64_t placeholder = U32(head.data());
  Bytes slot;
  if (placeholder + static_cast<int64_t>(mp4::kPlaceholderSize) > file_size ||
      !file.Read(placeholder, mp4::kPlaceholderSize, &slot)) {
    *message = path + " ends inside its header; there is nothing to keep";
    return RepairResult::kRefused;
  }
  if (slot == mp4::BuildPlaceholder()) {
    // Ours and unfinished: go on.
  } else if (std::memcmp(&slot[4], "free", 4) == 0 && U32(slot.data()) == 8 &&
             std::memcmp(&slot[12], "mdat", 4) == 0) {
    *message = path + " is already a finished MP4; nothing to repair";
    return RepairResult::kAlreadyFinished;
  } else if (U32(slot.data()) == 1 && std::memcmp(&slot[4], "mdat", 4) == 0) {
    *message = path + " is already a finished MP4; nothing to repair";
    return RepairResult::kAlreadyFinished;
  } else {
    *message = path + " was not written by this recorder (no mark after its ftyp); left untouched";
    return RepairResult::kRefused;
  }

  // The fragmented moov.
  const int64_t moov_offset = placeholder + static_cast<int64_t>(mp4::kPlaceholderSize);
  Bytes moov_header;
  if (moov_offset + 8 > file_size || !file.Read(moov_offset, 8, &moov_header) ||
      std::memcmp(&moov_header[4], "moov", 4) != 0 ||
      moov_offset + U32(moov_header.data()) > file_size) {
    *message = path + " was cut before its moov was complete; there is nothing to keep";
    return RepairResult::kRefused;
  }
  Bytes moov;
  if (!file.Read(moov_offset, U32(moov_header.data()), &moov)) {
    *message = "cannot read " + path;
    return RepairResult::kFailed;
  }
  std::vector<Box> boxes;
  std::vector<RepairTrack> tracks;
  uint32_t movie_timescale = 0;
  if (!Children(moov, 8, moov.size(), &boxes) || Find(boxes, "mvex") == nullptr ||
      Find(boxes, "mvhd") == nullptr) {
    *message = path + " has no fragmented moov of this recorder; left untouched";
    return RepairResult::kRefused;
  }
  for (const Box& box : boxes) {
    if (std::memcmp(box.type, "mvhd", 4) == 0 && box.end - box.payload >= 24) {
      movie_timescale = U32(&moov[box.payload + (moov[box.payload] == 1 ? 20 : 12)]);
    } else if (std::memcmp(box.type, "trak", 4) == 0) {
      RepairTrack track;
      if (!ParseTrak(moov, box, &track)) {
        *message = path + " has a track this recorder does not write; left untouched";
        return RepairResult::kRefused;
      }
      tracks.push_back(std::move(track));
    }
  }
  if (tracks.empty() || movie_timescale == 0) {
    *message = path + " describes no track; left untouched";
    return RepairResult::kRefused;
  }

  // Pre-roll boxes and fragments, up to the last complete one. M4A's fragments point
  // into one audio run after its index region, whose mdat is open (size 0) until the
  // file is finished; the run may start with the pre-roll box.
  int64_t end = moov_offset + static_cast<int64_t>(moov.size());
  int fragments = 0;
  for (int64_t pos = end; pos + 8 <= file_size;) {
    Bytes header;
    if (!file.Read(pos, 8, &header)) break;
    int64_t size = U32(header.data());
    const bool mdat = std::memcmp(&header[4], "mdat", 4) == 0;
    if (size == 0 && mdat) size = file_size - pos;
    if (size < 8 || pos + size > file_size) break;
    if (mdat) {
      const PrerollBox preroll = ReadPrerollBox(&file, pos + 8, pos + size, &tracks);
      if (preroll == PrerollBox::kBroken) break;
      pos += size;
      continue;
    }
    if (std::memcmp(&header[4], "free", 4) == 0) {
      const PrerollBox preroll = ReadPrerollBox(&file, pos, pos + size, &tracks);
      if (preroll == PrerollBox::kBroken) break;
      pos += size;
      if (preroll == PrerollBox::kRead) end = std::max(end, pos);
      continue;
    }
    if (std::memcmp(&header[4], "moof", 4) != 0) break;  // The finished moov, or a torn box.
    Bytes moof;
    if (!file.Read(pos, static_cast<size_t>(size), &moof)) break;
    // Its own mdat right after it, or (M4A) data in the audio run.
    int64_t data_end = file_size;
    int64_t next = pos + size;
    Bytes mdat_header;
    if (next + 8 <= file_size && file.Read(next, 8, &mdat_header) &&
        std::memcmp(&mdat_header[4], "mdat", 4) == 0 && U32(mdat_header.data()) >= 8) {
      data_end = next + U32(mdat_header.data());
      if (data_end > file_size) break;
      next = data_end;
    }
    std::vector<std::vector<Sample>> samples;
    if (!ParseMoof(moof, pos, data_end, &tracks, &samples)) break;
    for (size_t t = 0; t < tracks.size(); ++t) {
      std::vector<Sample>& all = tracks[t].index.samples;
      all.insert(all.end(), samples[t].begin(), samples[t].end());
      if (!samples[t].empty()) end = std::max(end, all.back().offset + all.back().size);
    }
    ++fragments;
    pos = next;
    end = std::max(end, pos);
  }
  if (fragments == 0) {
    *message = path + " holds no complete fragment; there is nothing to keep";
    return RepairResult::kRefused;
  }

  // Preroll samples end where the first fragment's begin; the presentation starts at
  // the first input sample (pre-roll box) or at the first sample's time.
  std::vector<const TrackIndex*> indexes;
  for (RepairTrack& track : tracks) {
    std::vector<Sample>& samples = track.index.samples;
    if (samples.empty()) continue;  // No fragment of this track.
    // The pre-roll carries no times: it ends where the first fragment sample starts.
    int64_t dts = samples.front().dts;
    for (size_t i = track.preroll.size(); i-- > 0;) {
      dts -= track.preroll[i].duration;
      track.preroll[i].dts = dts;
    }
    if (!track.has_preroll) track.index.present_from = samples.front().dts + samples.front().cts;
    samples.insert(samples.begin(), track.preroll.begin(), track.preroll.end());
    indexes.push_back(&track.index);
  }
  const Bytes final_moov = mp4::BuildFinalMoov(indexes, movie_timescale);
  if (!file.Write(end, final_moov) ||
      ftruncate(fd, static_cast<off_t>(end) + final_moov.size()) != 0 || fdatasync(fd) != 0 ||
      !file.Write(placeholder, mp4::BuildMdatHeader(placeholder, end)) || fdatasync(fd) != 0) {
    *message = "cannot write " + path + ": " + tarn_base::ErrnoText(errno) +
               "; it still plays as a fragmented MP4";
    return RepairResult::kFailed;
  }
  if (indexes.empty()) {
    *message = path + " holds no complete fragment; there is nothing to keep";
    return RepairResult::kRefused;
  }
  *message = path + ": " + std::to_string(fragments) + " fragments kept, " +
             std::to_string(file_size - end) + " bytes after the last one dropped; now a " +
             "standard MP4 of " + std::to_string(end + static_cast<int64_t>(final_moov.size())) +
             " bytes";
  return RepairResult::kRepaired;
}

}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel
