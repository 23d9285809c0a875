// M4A's layout: the audio of a finished file lies in one contiguous run that its first
// chunk offset starts (what FAAD2 reads), a file cut while recording repairs to the
// same samples, and a recording that outgrows the index region falls back to moof
// mdat pairs without losing or misplacing a sample.
#include <cstdio>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/base/file_path.h"
#include "sdk/base/file_util.h"
#include "sdk/media_stream_writer/mp4/mp4_muxer.h"
#include "sdk/media_stream_writer/mp4/mp4_repair.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel {
namespace media_stream_writer {
namespace mp4 {
namespace {

uint32_t U32At(const std::string& bytes, size_t at) {
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data() + at);
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The samples a finished file's moov lists for its one track, as (offset, size), and
// its chunk count.
struct Listed {
  std::vector<std::pair<int64_t, uint32_t>> samples;
  size_t chunks = 0;
};

// The payload of the first `type` box in [begin, end) of a top-level box walk that
// descends into the containers on the way to the sample tables.
bool FindBox(const std::string& file, size_t begin, size_t end, const std::string& type,
             size_t* payload, size_t* box_end) {
  for (size_t pos = begin; pos + 8 <= end;) {
    size_t size = U32At(file, pos);
    if (size < 8 || pos + size > end) return false;
    const std::string name = file.substr(pos + 4, 4);
    if (name == type) {
      *payload = pos + 8;
      *box_end = pos + size;
      return true;
    }
    if ((name == "trak" || name == "mdia" || name == "minf" || name == "stbl") &&
        FindBox(file, pos + 8, pos + size, type, payload, box_end)) {
      return true;
    }
    pos += size;
  }
  return false;
}

Listed ReadIndex(const std::string& file) {
  Listed listed;
  // The finished file: ftyp, free, mdat, moov.
  size_t pos = 0;
  while (pos + 8 <= file.size() && file.substr(pos + 4, 4) != "moov") pos += U32At(file, pos);
  size_t p, e, stsc, stsc_end, stco, stco_end;
  if (pos + 8 > file.size() || !FindBox(file, pos + 8, file.size(), "stsz", &p, &e) ||
      !FindBox(file, pos + 8, file.size(), "stsc", &stsc, &stsc_end) ||
      !FindBox(file, pos + 8, file.size(), "stco", &stco, &stco_end)) {
    return listed;
  }
  std::vector<uint32_t> sizes;
  for (uint32_t i = 0; i < U32At(file, p + 8); ++i) sizes.push_back(U32At(file, p + 12 + 4 * i));
  listed.chunks = U32At(file, stco + 4);
  size_t sample = 0;
  for (uint32_t chunk = 0; chunk < listed.chunks; ++chunk) {
    uint32_t per_chunk = 0;
    for (uint32_t i = 0; i < U32At(file, stsc + 4); ++i) {
      if (U32At(file, stsc + 8 + 12 * i) <= chunk + 1) per_chunk = U32At(file, stsc + 12 + 12 * i);
    }
    int64_t offset = U32At(file, stco + 8 + 4 * chunk);
    for (uint32_t i = 0; i < per_chunk && sample < sizes.size(); ++i, ++sample) {
      listed.samples.emplace_back(offset, sizes[sample]);
      offset += sizes[sample];
    }
  }
  return listed;
}

// Packet `n`: 6 to 29 bytes, every byte n's low byte, so misplaced data shows.
std::string Packet(int n) { return std::string(6 + n % 24, static_cast<char>(n & 0xff)); }

class M4aRecording {
 public:
  explicit M4aRecording(const std::string& path) : muxer_(Mp4Muxer::Create(true, path)) {
    AudioStreamConfig config;
    config.aac = true;
    config.sample_rate = 48000;
    config.channels = 2;
    config.audio_specific_config = {0x11, 0x90};
    stream_ = muxer_->AddAudioStream(config);
    EXPECT_TRUE(muxer_->WriteHeader());
    const std::string preroll = Packet(255);
    muxer_->AddPreroll(stream_, reinterpret_cast<const uint8_t*>(preroll.data()), preroll.size(),
                       1024);
    muxer_->SetPresentationStart(stream_, 0);
  }
  void Write(int count) {
    for (int end = written_ + count; written_ < end; ++written_) {
      const std::string data = Packet(written_);
      ASSERT_TRUE(muxer_->WritePacket(stream_, reinterpret_cast<const uint8_t*>(data.data()),
                                      data.size(), 1024 * written_, 1024 * written_, 1024, true));
    }
  }
  int64_t Finish() { return muxer_->Finish(); }

 private:
  std::unique_ptr<Mp4Muxer> muxer_;
  int stream_ = -1;
  int written_ = 0;
};

// Every listed sample holds the bytes of the packet at its place: the pre-roll first.
void ExpectPackets(const std::string& file, const Listed& listed, size_t count) {
  ASSERT_EQ(listed.samples.size(), count + 1);
  for (size_t i = 0; i < listed.samples.size(); ++i) {
    const std::string expected = Packet(i == 0 ? 255 : static_cast<int>(i - 1));
    ASSERT_EQ(file.substr(static_cast<size_t>(listed.samples[i].first), listed.samples[i].second),
              expected)
        << "sample " << i;
  }
}

std::string Read(const std::string& path) {
  std::string bytes;
  EXPECT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(path), &bytes));
  return bytes;
}

TEST(Mp4MuxerM4aTest, AudioIsOneRunAndOutgrowingTheRegionKeepsEverySample) {
  tarnel_test::ScopedTempDir dir;
  ASSERT_TRUE(dir.CreateUniqueTempDir());
  const std::string short_path = dir.GetPath().Append("short.m4a").value();
  const std::string cut_path = dir.GetPath().Append("cut.m4a").value();
  const std::string long_path = dir.GetPath().Append("long.m4a").value();
  const std::string long_cut_path = dir.GetPath().Append("long_cut.m4a").value();

  // Ten seconds: a moof every ~250 ms, all in the region; the copy taken before the
  // stop is what a kill leaves, and the repair must find the same samples in it.
  {
    M4aRecording recording(short_path);
    recording.Write(470);
    ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(cut_path), Read(short_path)));
    recording.Write(1);  // Lets the muxer hand over the held-back packet.
    ASSERT_GT(recording.Finish(), 0);
  }
  std::string file = Read(short_path);
  Listed listed = ReadIndex(file);
  EXPECT_EQ(listed.chunks, 1u) << "the pre-roll and every packet lie back to back";
  ExpectPackets(file, listed, 471);

  std::string message;
  ASSERT_EQ(RepairMp4File(cut_path, &message), RepairResult::kRepaired) << message;
  file = Read(cut_path);
  listed = ReadIndex(file);
  EXPECT_EQ(listed.chunks, 1u);
  // Whole fragments only: the packets of the open fragment were not on disk yet.
  ASSERT_GT(listed.samples.size(), 440u);
  ExpectPackets(file, listed, listed.samples.size() - 1);

  // Past the region: its moofs describe the first part, then the run gets its size and
  // moof mdat pairs follow. Nothing is lost or misplaced, and the run still starts the
  // file's audio for as long as the region lasted.
  const int count = static_cast<int>(Mp4Muxer::kIndexRegionBytes / 100) * 12;
  {
    M4aRecording recording(long_path);
    recording.Write(count);
    ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(long_cut_path), Read(long_path)));
    ASSERT_GT(recording.Finish(), 0);
  }
  // Cut, it reads on through the closed run into the pairs after it.
  ASSERT_EQ(RepairMp4File(long_cut_path, &message), RepairResult::kRepaired) << message;
  file = Read(long_cut_path);
  listed = ReadIndex(file);
  ASSERT_GT(listed.samples.size(), static_cast<size_t>(count) - 24);
  ExpectPackets(file, listed, listed.samples.size() - 1);

  file = Read(long_path);
  listed = ReadIndex(file);
  EXPECT_GT(listed.chunks, 100u);
  ExpectPackets(file, listed, static_cast<size_t>(count));
  size_t contiguous = 1;
  while (contiguous < listed.samples.size() &&
         listed.samples[contiguous].first ==
             listed.samples[contiguous - 1].first + listed.samples[contiguous - 1].second) {
    ++contiguous;
  }
  // ~148 bytes a fragment of 12 packets.
  EXPECT_GT(contiguous, static_cast<size_t>(Mp4Muxer::kIndexRegionBytes / 160 * 12));
}

}  // namespace
}  // namespace mp4
}  // namespace media_stream_writer
}  // namespace tarnel
