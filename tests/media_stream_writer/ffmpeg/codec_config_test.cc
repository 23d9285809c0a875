#include "sdk/media_stream_writer/ffmpeg/codec_config.h"

#include <cstdint>
#include <vector>

#include "gtest/gtest.h"

namespace tarnel {
namespace media_stream_writer {
namespace {

// Each NAL unit behind its 4-byte length: start codes and trailing zeros go.
TEST(CodecConfigTest, AnnexBToLengthPrefixed) {
  const Bytes au = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0, 0, 1, 0x65, 0x88, 0};
  EXPECT_EQ(AnnexBToLengthPrefixed(au.data(), au.size()),
            (Bytes{0, 0, 0, 2, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0, 0, 0, 2, 0x65, 0x88}));
}

}  // namespace
}  // namespace media_stream_writer
}  // namespace tarnel
