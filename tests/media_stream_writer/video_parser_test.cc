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
const Bytes kZero = {0};

// H.264 units: header byte, a few payload bytes, nonzero stop byte.
const Bytes kAvcSps = {0x67, 0x42, 0xc0, 0x1f, 0x8c, 0x8d, 0x40};
// Carries two emulation-prevention bytes (00 00 03) that must come back untouched.
const Bytes kAvcSpsEp = {0x67, 0x64, 0x00, 0x00, 0x03, 0x01, 0x1f, 0x00, 0x00, 0x03, 0x00, 0x80};
const Bytes kAvcPps = {0x68, 0xce, 0x3c, 0x80};
const Bytes kAvcPps1 = {0x68, 0xee, 0x06, 0xf2};
const Bytes kAvcIdr = {0x65, 0x88, 0x84, 0x00, 0x33, 0xff, 0x10, 0x01, 0x7f};
const Bytes kAvcSpsForbidden = {0xe7, 0x42, 0xc0, 0x1f, 0x80};  // forbidden_zero_bit set.

// H.265 units: two header bytes (layer 0, temporal id 0), payload, stop byte.
const Bytes kHevcVps = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60};
const Bytes kHevcSps = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90};
const Bytes kHevcPps = {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};
const Bytes kHevcIdr = {0x26, 0x01, 0xaf, 0x06, 0x00, 0x01, 0x7c};
const Bytes kHevcVpsForbidden = {0xc0, 0x01, 0x0c, 0x01, 0x80};

// The parameter-set type a unit's first header byte names, or -1.
int32_t AvcType(uint8_t header) {
  const int type = header & 0x1f;
  return type == 7 ? kParameterSetSps : type == 8 ? kParameterSetPps : -1;
}
int32_t HevcType(uint8_t header) {
  const int type = ((header >> 1) & 0x3f) - 32;  // VPS, SPS and PPS are 32, 33 and 34.
  const int32_t kTypes[] = {kParameterSetVps, kParameterSetSps, kParameterSetPps};
  return type >= 0 && type < 3 ? kTypes[type] : -1;
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

ParameterSetList Parse(VideoParser& parser, const Bytes& input) {
  return parser.ParseParameterSets(input.empty() ? nullptr : input.data(), input.size());
}

struct Case {
  const char* name;
  Bytes input;
  std::vector<Bytes> expected;  // The units, each of the type its header names.
};

void RunCases(VideoParser&& parser, int32_t (*type_of)(uint8_t), const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Bytes input = c.input;
    const ParameterSetList sets = Parse(parser, input);
    std::fill(input.begin(), input.end(), 0xee);  // The sets must not point into the input.
    ASSERT_EQ(sets.size(), c.expected.size());
    for (size_t i = 0; i < sets.size(); ++i) {
      const CopyOnWriteBuffer& data = sets[i]->data;
      EXPECT_EQ(Bytes(data.data(), data.data() + data.size()), c.expected[i]) << i;
      EXPECT_EQ(sets[i]->type, type_of(c.expected[i][0])) << i;
    }
  }
  EXPECT_TRUE(parser.ParseParameterSets(nullptr, 16).empty());  // A caller error it survives.
}

TEST(VideoParserTest, FindsParameterSetsInAnnexBUnits) {
  RunCases(
      VideoAVCParser(), &AvcType,
      {
          {"mixed start codes around slices",
           Concat({kStart4, kAvcIdr, kStart3, kAvcSps, kStart4, kAvcPps, kStart3, kAvcIdr}),
           {kAvcSps, kAvcPps}},
          {"several in stream order, emulation prevention kept",
           Concat({kStart4, kAvcSps, kStart4, kAvcSpsEp, kStart4, kAvcPps1, kStart4, kAvcPps}),
           {kAvcSps, kAvcSpsEp, kAvcPps1, kAvcPps}},
          {"trailing zero bytes trimmed",
           Concat({kStart4, kAvcSps, {0, 0, 0}, kStart4, kAvcPps, {0, 0}}),
           {kAvcSps, kAvcPps}},
          {"zero bytes before the first start code",
           Concat({{0, 0, 0, 0}, kStart4, kAvcSps}),
           {kAvcSps}},
          {"unit ending in 0x01 right before a 3-byte start code",
           Concat({kStart3, {0x67, 0x42, 0x01}, kStart3, kAvcPps}),
           {{0x67, 0x42, 0x01}, kAvcPps}},
          {"empty input", {}, {}},
          {"bytes before the first start code are not a unit",
           Concat({kAvcSps, kStart3, kAvcPps}),
           {kAvcPps}},
          {"back-to-back start codes",
           Concat({kStart3, kStart3, kStart4, kAvcSps, kStart4, kStart3}),
           {kAvcSps}},
          {"header-only unit", Concat({kStart3, {0x68}}), {{0x68}}},
          {"forbidden_zero_bit set",
           Concat({kStart4, kAvcSpsForbidden, kStart4, kAvcPps}),
           {kAvcPps}},
          {"H.265 units", Concat({kStart4, kHevcVps, kStart4, kHevcSps, kStart4, kHevcPps}), {}},
      });
  RunCases(
      VideoHEVCParser(), &HevcType,
      {
          {"4-byte start codes",
           Concat({kStart4, kHevcVps, kStart4, kHevcSps, kStart4, kHevcPps, kStart4, kHevcIdr}),
           {kHevcVps, kHevcSps, kHevcPps}},
          {"3-byte start codes and trailing zeros",
           Concat({kStart3, kHevcVps, kZero, kStart3, kHevcPps, kZero, kZero, kStart3, kHevcIdr}),
           {kHevcVps, kHevcPps}},
          {"one header byte is not enough, two are",
           Concat({kStart4, kHevcPps, kStart4, {0x40}, kStart4, {0x42, 0x01}}),
           {kHevcPps, {0x42, 0x01}}},
          {"forbidden_zero_bit set",
           Concat({kStart4, kHevcVpsForbidden, kStart4, kHevcSps}),
           {kHevcSps}},
          {"no start code", Concat({kHevcVps, kHevcSps, kHevcPps}), {}},
          {"H.264 units", Concat({kStart4, kAvcSps, kStart4, kAvcPps}), {}},
      });
}

// Random byte strings built from start codes, parameter-set and other header bytes,
// zero runs and random bytes. Whatever the parser returns must be a unit of the input
// that follows a start code, carries a clean header of the returned type and does not
// end in a zero byte, in stream order.
void FuzzParser(VideoParser&& parser, size_t header_size, int32_t (*type_of)(uint8_t header)) {
  std::mt19937 rng(20240611);
  const uint8_t headers[] = {0x67, 0x68, 0x65, 0x09, 0xe7, 0x07, 0x40, 0x42,
                             0x44, 0x26, 0xc2, 0x46, 0x01, 0x03, 0x80, 0xff};
  std::uniform_int_distribution<int> any_byte(0, 255);
  size_t total_sets = 0;
  for (int iteration = 0; iteration < 5000; ++iteration) {
    Bytes input;
    for (int n = any_byte(rng) % 25; n > 0; --n) {
      const int token = any_byte(rng) % 10;
      if (token < 2) {  // A 3- or 4-byte start code.
        input.insert(input.end(), kStart4.begin() + token, kStart4.end());
      } else if (token < 4) {
        input.push_back(headers[any_byte(rng) % sizeof(headers)]);
      } else if (token == 4) {
        input.insert(input.end(), static_cast<size_t>(1 + any_byte(rng) % 3), 0);
      } else {
        input.push_back(static_cast<uint8_t>(any_byte(rng)));
      }
    }
    SCOPED_TRACE("iteration " + std::to_string(iteration));
    const ParameterSetList sets = Parse(parser, input);
    total_sets += sets.size();
    auto search_from = input.begin();
    for (const auto& set : sets) {
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
  EXPECT_GT(total_sets, 200u);  // Or the loop checked nothing.
}

TEST(VideoParserTest, RandomInputYieldsOnlyWellFormedSetsOfTheInput) {
  FuzzParser(VideoAVCParser(), 1, &AvcType);
  FuzzParser(VideoHEVCParser(), 2, &HevcType);
}

// The sets of each type in stream order, whatever the interleaving; bare headers too
// (the callers judge them); another codec's parser is never asked.
TEST(VideoParserTest, ExtractsParameterSetsByType) {
  const auto bytes = [](const std::vector<CopyOnWriteBuffer>& sets) {
    std::vector<Bytes> out;
    for (const CopyOnWriteBuffer& set : sets) out.emplace_back(set.data(), set.data() + set.size());
    return out;
  };
  const Bytes hevc = Concat({kStart4,
                             kHevcSps,
                             kStart3,
                             kHevcVps,
                             kStart4,
                             kHevcPps,
                             kStart3,
                             {0x42, 0x01},
                             kStart4,
                             kHevcIdr,
                             kStart3,
                             kHevcVps});
  ParameterSetsByType sets = ExtractParameterSets(kCodecH265, hevc.data(), hevc.size());
  EXPECT_EQ(bytes(sets.vps), (std::vector<Bytes>{kHevcVps, kHevcVps}));
  EXPECT_EQ(bytes(sets.sps), (std::vector<Bytes>{kHevcSps, {0x42, 0x01}}));
  EXPECT_EQ(bytes(sets.pps), std::vector<Bytes>{kHevcPps});

  const Bytes avc = Concat({kStart4, kAvcPps1, kStart4, kAvcSps, kStart4, kAvcSpsEp, kStart3,
                            kAvcPps, kStart3, kAvcIdr});
  sets = ExtractParameterSets(kCodecH264, avc.data(), avc.size());
  EXPECT_TRUE(sets.vps.empty());
  EXPECT_EQ(bytes(sets.sps), (std::vector<Bytes>{kAvcSps, kAvcSpsEp}));
  EXPECT_EQ(bytes(sets.pps), (std::vector<Bytes>{kAvcPps1, kAvcPps}));

  for (const int32_t codec : {7, -1}) {
    sets = ExtractParameterSets(codec, avc.data(), avc.size());
    EXPECT_TRUE(sets.vps.empty() && sets.sps.empty() && sets.pps.empty()) << codec;
  }
}

}  // namespace
}  // namespace video
}  // namespace tarnel
