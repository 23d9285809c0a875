#include "sdk/media_stream_writer/video_parser.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace tarnel {
namespace video {
namespace {

using Bytes = std::vector<uint8_t>;

const Bytes kStart4 = {0, 0, 0, 1};
const Bytes kStart3 = {0, 0, 1};

// H.264 units: header byte, a few payload bytes, nonzero stop byte.
const Bytes kAvcAud = {0x09, 0xf0};
const Bytes kAvcSei = {0x06, 0x05, 0x01, 0xaa, 0x80};
const Bytes kAvcSps = {0x67, 0x42, 0xc0, 0x1f, 0x8c, 0x8d, 0x40};
const Bytes kAvcSps1 = {0x67, 0x64, 0x00, 0x28, 0xac, 0xd9, 0x40};
// Carries two emulation-prevention bytes (00 00 03) that must come back untouched.
const Bytes kAvcSpsEp = {0x67, 0x64, 0x00, 0x00, 0x03, 0x01, 0x1f, 0x00, 0x00, 0x03, 0x00, 0x80};
const Bytes kAvcPps = {0x68, 0xce, 0x3c, 0x80};
const Bytes kAvcPps1 = {0x68, 0xee, 0x06, 0xf2};
const Bytes kAvcIdr = {0x65, 0x88, 0x84, 0x00, 0x33, 0xff, 0x10, 0x01, 0x7f};
// forbidden_zero_bit set on an otherwise valid SPS header.
const Bytes kAvcSpsForbidden = {0xe7, 0x42, 0xc0, 0x1f, 0x80};

// H.265 units: two header bytes (layer 0, temporal id 0), payload, stop byte.
const Bytes kHevcVps = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60};
const Bytes kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90};
const Bytes kHevcSps1 = {0x42, 0x01, 0x01, 0x02, 0x20, 0x80};
const Bytes kHevcPps = {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};
const Bytes kHevcIdr = {0x26, 0x01, 0xaf, 0x06, 0x00, 0x01, 0x7c};
const Bytes kHevcAud = {0x46, 0x01, 0x50};
const Bytes kHevcVpsForbidden = {0xc0, 0x01, 0x0c, 0x01, 0x80};

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

struct ExpectedSet {
  int32_t type;
  Bytes bytes;
};

struct Case {
  std::string name;
  Bytes input;
  std::vector<ExpectedSet> expected;
};

void RunCases(VideoParser& parser, const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ParameterSetList sets =
        parser.ParseParameterSets(c.input.empty() ? nullptr : c.input.data(), c.input.size());
    ASSERT_EQ(sets.size(), c.expected.size());
    for (size_t i = 0; i < sets.size(); ++i) {
      SCOPED_TRACE("set " + std::to_string(i));
      ASSERT_NE(sets[i], nullptr);
      EXPECT_EQ(sets[i]->type, c.expected[i].type);
      EXPECT_EQ(Bytes(sets[i]->data.data(), sets[i]->data.data() + sets[i]->data.size()),
                c.expected[i].bytes);
    }
  }
}

TEST(VideoAVCParserTest, FindsParameterSetsInAnnexBUnits) {
  const std::vector<Case> cases = {
      {"4-byte start codes",
       Concat({kStart4, kAvcSps, kStart4, kAvcPps, kStart4, kAvcIdr}),
       {{kParameterSetSps, kAvcSps}, {kParameterSetPps, kAvcPps}}},
      {"3-byte start codes",
       Concat({kStart3, kAvcSps, kStart3, kAvcPps, kStart3, kAvcIdr}),
       {{kParameterSetSps, kAvcSps}, {kParameterSetPps, kAvcPps}}},
      {"mixed start codes behind AUD and SEI",
       Concat({kStart4, kAvcAud, kStart3, kAvcSei, kStart4, kAvcSps, kStart3, kAvcPps, kStart3,
               kAvcIdr}),
       {{kParameterSetSps, kAvcSps}, {kParameterSetPps, kAvcPps}}},
      {"emulation prevention bytes kept",
       Concat({kStart4, kAvcSpsEp, kStart4, kAvcPps, kStart4, kAvcIdr}),
       {{kParameterSetSps, kAvcSpsEp}, {kParameterSetPps, kAvcPps}}},
      {"trailing zero bytes trimmed",
       Concat({kStart4, kAvcSps, {0, 0, 0}, kStart4, kAvcPps, {0, 0}}),
       {{kParameterSetSps, kAvcSps}, {kParameterSetPps, kAvcPps}}},
      {"leading zero bytes before the first start code",
       Concat({{0, 0, 0, 0}, kStart4, kAvcSps}),
       {{kParameterSetSps, kAvcSps}}},
      {"several SPS and PPS in stream order",
       Concat({kStart4, kAvcSps, kStart4, kAvcSps1, kStart4, kAvcPps1, kStart4, kAvcPps, kStart4,
               kAvcIdr}),
       {{kParameterSetSps, kAvcSps},
        {kParameterSetSps, kAvcSps1},
        {kParameterSetPps, kAvcPps1},
        {kParameterSetPps, kAvcPps}}},
      {"unit ending in 0x01 right before a 3-byte start code",
       Concat({kStart3, {0x67, 0x42, 0x01}, kStart3, kAvcPps}),
       {{kParameterSetSps, {0x67, 0x42, 0x01}}, {kParameterSetPps, kAvcPps}}},
      {"parameter set after the slice",
       Concat({kStart4, kAvcIdr, kStart3, kAvcPps}),
       {{kParameterSetPps, kAvcPps}}},
      {"empty input", {}, {}},
      {"no start code", Concat({kAvcSps, kAvcPps}), {}},
      {"bytes before the first start code are not a unit",
       Concat({kAvcSps, kStart3, kAvcPps}),
       {{kParameterSetPps, kAvcPps}}},
      {"back-to-back start codes",
       Concat({kStart3, kStart3, kStart4, kAvcSps, kStart4, kStart3}),
       {{kParameterSetSps, kAvcSps}}},
      {"start code without header byte",
       Concat({kStart4, kAvcSps, kStart4}),
       {{kParameterSetSps, kAvcSps}}},
      {"only a start code", kStart4, {}},
      {"truncated start code", Concat({kStart4, kAvcSps, {0, 0}}), {{kParameterSetSps, kAvcSps}}},
      {"truncated unit comes back as far as it goes",
       Concat({kStart4, kAvcPps, kStart4, Bytes(kAvcSps.begin(), kAvcSps.begin() + 3)}),
       {{kParameterSetPps, kAvcPps},
        {kParameterSetSps, Bytes(kAvcSps.begin(), kAvcSps.begin() + 3)}}},
      {"header-only unit", Concat({kStart3, {0x68}}), {{kParameterSetPps, {0x68}}}},
      {"forbidden_zero_bit set",
       Concat({kStart4, kAvcSpsForbidden, kStart4, kAvcPps}),
       {{kParameterSetPps, kAvcPps}}},
      {"H.265 parameter sets are not H.264 ones",
       Concat({kStart4, kHevcVps, kStart4, kHevcSps, kStart4, kHevcPps}),
       {}},
      {"garbage", {0xff, 0x00, 0x01, 0x00, 0x02, 0x00, 0x00, 0x02, 0x01, 0xfe}, {}},
  };
  VideoAVCParser parser;
  RunCases(parser, cases);
}

TEST(VideoHEVCParserTest, FindsParameterSetsInAnnexBUnits) {
  const std::vector<Case> cases = {
      {"VPS SPS PPS with 4-byte start codes",
       Concat({kStart4, kHevcAud, kStart4, kHevcVps, kStart4, kHevcSps, kStart4, kHevcPps, kStart4,
               kHevcIdr}),
       {{kParameterSetVps, kHevcVps}, {kParameterSetSps, kHevcSps}, {kParameterSetPps, kHevcPps}}},
      {"3-byte start codes, trailing zeros, several SPS",
       Concat({kStart3,
               kHevcVps,
               {0},
               kStart3,
               kHevcSps,
               kStart3,
               kHevcSps1,
               {0, 0},
               kStart3,
               kHevcPps,
               kStart3,
               kHevcIdr,
               {0}}),
       {{kParameterSetVps, kHevcVps},
        {kParameterSetSps, kHevcSps},
        {kParameterSetSps, kHevcSps1},
        {kParameterSetPps, kHevcPps}}},
      {"one header byte is not enough",
       Concat({kStart4, kHevcPps, kStart4, {0x40}}),
       {{kParameterSetPps, kHevcPps}}},
      {"two header bytes are", Concat({kStart4, {0x42, 0x01}}), {{kParameterSetSps, {0x42, 0x01}}}},
      {"forbidden_zero_bit set",
       Concat({kStart4, kHevcVpsForbidden, kStart4, kHevcSps}),
       {{kParameterSetSps, kHevcSps}}},
      {"no start code", Concat({kHevcVps, kHevcSps, kHevcPps}), {}},
      {"empty units",
       Concat({kStart4, kStart3, kStart3, kHevcVps, kStart4}),
       {{kParameterSetVps, kHevcVps}}},
      {"H.264 parameter sets are not H.265 ones",
       Concat({kStart4, kAvcSps, kStart4, kAvcPps, kStart4, kAvcIdr}),
       {}},
  };
  VideoHEVCParser parser;
  RunCases(parser, cases);
}

TEST(VideoParserTest, NullInputFindsNothing) {
  VideoAVCParser avc;
  VideoHEVCParser hevc;
  EXPECT_TRUE(avc.ParseParameterSets(nullptr, 0).empty());
  EXPECT_TRUE(hevc.ParseParameterSets(nullptr, 0).empty());
  // A null pointer with a size is a caller error the parser survives.
  EXPECT_TRUE(avc.ParseParameterSets(nullptr, 16).empty());
  EXPECT_TRUE(hevc.ParseParameterSets(nullptr, 16).empty());
}

TEST(VideoParserTest, SetsOwnTheirBytesAndShareOneStore) {
  Bytes au = Concat({kStart4, kAvcSps, kStart4, kAvcPps, kStart4, kAvcIdr});
  VideoAVCParser parser;
  const ParameterSetList sets = parser.ParseParameterSets(au.data(), au.size());
  ASSERT_EQ(sets.size(), 2u);
  // The caller may reuse the access unit's memory once parsing returns.
  std::fill(au.begin(), au.end(), 0xee);
  EXPECT_EQ(sets[0]->data, CopyOnWriteBuffer(kAvcSps.data(), kAvcSps.size()));
  EXPECT_EQ(sets[1]->data, CopyOnWriteBuffer(kAvcPps.data(), kAvcPps.size()));
  // One allocation for all sets: the slices sit in one store, as far apart as in the input.
  EXPECT_TRUE(sets[0]->data.HasSharedStore());
  EXPECT_EQ(sets[1]->data.data() - sets[0]->data.data(),
            static_cast<ptrdiff_t>(kAvcSps.size() + kStart4.size()));
}

// Random byte strings built from start codes, parameter-set and other header bytes,
// zero runs and random bytes. Whatever the parser returns must be a unit of the input
// that follows a start code, carries a clean header of the returned type and does not
// end in a zero byte, in stream order.
void FuzzParser(VideoParser& parser, size_t header_size, int32_t (*type_of)(uint8_t header)) {
  std::mt19937 rng(20240611);
  const uint8_t headers[] = {0x67, 0x68, 0x65, 0x09, 0xe7, 0x07, 0x40, 0x42,
                             0x44, 0x26, 0xc2, 0x46, 0x01, 0x03, 0x80, 0xff};
  std::uniform_int_distribution<size_t> pick_header(0, sizeof(headers) - 1);
  std::uniform_int_distribution<int> token(0, 9);
  std::uniform_int_distribution<int> any_byte(0, 255);
  std::uniform_int_distribution<int> tokens(0, 24);
  size_t total_sets = 0;
  for (int iteration = 0; iteration < 5000; ++iteration) {
    Bytes input;
    for (int n = tokens(rng); n > 0; --n) {
      switch (token(rng)) {
        case 0:
          input.insert(input.end(), kStart3.begin(), kStart3.end());
          break;
        case 1:
          input.insert(input.end(), kStart4.begin(), kStart4.end());
          break;
        case 2:
        case 3:
          input.push_back(headers[pick_header(rng)]);
          break;
        case 4:
          input.insert(input.end(), static_cast<size_t>(1 + any_byte(rng) % 3), 0);
          break;
        default:
          input.push_back(static_cast<uint8_t>(any_byte(rng)));
          break;
      }
    }
    SCOPED_TRACE("iteration " + std::to_string(iteration));
    const ParameterSetList sets =
        parser.ParseParameterSets(input.empty() ? nullptr : input.data(), input.size());
    total_sets += sets.size();
    auto search_from = input.begin();
    for (const auto& set : sets) {
      ASSERT_NE(set, nullptr);
      const CopyOnWriteBuffer& unit = set->data;
      ASSERT_GE(unit.size(), header_size);
      EXPECT_EQ(unit.data()[0] & 0x80, 0);
      EXPECT_EQ(type_of(unit.data()[0]), set->type);
      EXPECT_NE(unit.data()[unit.size() - 1], 0);
      // Locate "00 00 01 <unit>" at or after the previous set.
      Bytes needle = Concat({kStart3, Bytes(unit.data(), unit.data() + unit.size())});
      const auto hit = std::search(search_from, input.end(), needle.begin(), needle.end());
      ASSERT_NE(hit, input.end()) << "set not found in the input after the previous one";
      search_from = hit + static_cast<ptrdiff_t>(needle.size());
    }
  }
  // The generator must keep producing sets, or the loop checks nothing.
  EXPECT_GT(total_sets, 200u);
}

int32_t AvcType(uint8_t header) {
  switch (header & 0x1f) {
    case 7:
      return kParameterSetSps;
    case 8:
      return kParameterSetPps;
  }
  return -1;
}

int32_t HevcType(uint8_t header) {
  switch ((header >> 1) & 0x3f) {
    case 32:
      return kParameterSetVps;
    case 33:
      return kParameterSetSps;
    case 34:
      return kParameterSetPps;
  }
  return -1;
}

TEST(VideoParserTest, RandomInputYieldsOnlyWellFormedSetsOfTheInput) {
  VideoAVCParser avc;
  FuzzParser(avc, 1, &AvcType);
  VideoHEVCParser hevc;
  FuzzParser(hevc, 2, &HevcType);
}

}  // namespace
}  // namespace video
}  // namespace tarnel
