#include "tools/tarnel_record/options.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace tarnel_record {
namespace {

// Parses a command line given as one string of space-separated words.
struct Parsed {
  bool ok = false;
  bool help = false;
  Options options;
  std::string error;
};

Parsed Parse(const std::string& command_line) {
  std::vector<std::string> words = {"tarnel-record"};
  size_t at = 0;
  while (at < command_line.size()) {
    const size_t end = std::min(command_line.find(' ', at), command_line.size());
    if (end > at) words.push_back(command_line.substr(at, end - at));
    at = end + 1;
  }
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  Parsed parsed;
  parsed.ok = ParseOptions(static_cast<int>(argv.size()), argv.data(), &parsed.options,
                           &parsed.help, &parsed.error);
  return parsed;
}

TEST(TarnelRecordOptionsTest, InputOptionsApplyToTheNextInputOnly) {
  // Raw H.264 and raw PCM, each with its own format; options about the recording may go
  // anywhere, even between and after the inputs.
  Parsed p = Parse(
      "--stereo -f h264 --video-fps 30 -i cam.h264 --json -f s16le --pcm-rate 48000 "
      "--pcm-channels 2 -i mic.pcm -o call.mp4 --burst --max-queue-mb 8");
  ASSERT_TRUE(p.ok) << p.error;
  ASSERT_EQ(p.options.inputs.size(), 2u);
  const SourceOptions& video = p.options.inputs[0];
  const SourceOptions& audio = p.options.inputs[1];
  EXPECT_EQ(video.url, "cam.h264");
  EXPECT_EQ(video.input_format, "h264");
  EXPECT_EQ(video.video_fps, 30);
  EXPECT_EQ(video.pcm_sample_rate, 0);
  EXPECT_EQ(video.pcm_channels, 0);
  EXPECT_EQ(audio.url, "mic.pcm");
  EXPECT_EQ(audio.input_format, "s16le");
  EXPECT_EQ(audio.video_fps, 0);
  EXPECT_EQ(audio.pcm_sample_rate, 48000);
  EXPECT_EQ(audio.pcm_channels, 2);
  EXPECT_TRUE(p.options.stereo);
  EXPECT_TRUE(p.options.json);
  EXPECT_EQ(p.options.output, "call.mp4");
  EXPECT_EQ(p.options.pacing, Options::Pacing::kBurst);
  EXPECT_EQ(p.options.max_queue_mb, 8);

  // Given before the first input, an option does not carry on to the second; given
  // twice before one input, the last one counts.
  p = Parse("-f h264 -f hevc --video-fps 25 -i cam.h265 -i mic.wav -o call.mkv");
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_EQ(p.options.inputs[0].input_format, "hevc");
  EXPECT_EQ(p.options.inputs[1].input_format, "");
  EXPECT_EQ(p.options.inputs[1].video_fps, 0);
  EXPECT_FALSE(p.options.max_queue_mb.has_value());
  EXPECT_EQ(p.options.pacing, Options::Pacing::kDefault);

  // The usual one-input forms, and the pacings.
  p = Parse("-i samples/sample.mp4 -o out.mp4 --stereo --progress-ms 500 --realtime");
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_EQ(p.options.inputs.size(), 1u);
  EXPECT_EQ(p.options.progress_ms, 500);
  EXPECT_TRUE(p.options.progress_ms_given);
  EXPECT_EQ(p.options.pacing, Options::Pacing::kRealtime);
  EXPECT_EQ(Parse("--fast -i a.mp4 -o b.mp4").options.pacing, Options::Pacing::kFast);
  EXPECT_TRUE(Parse("-i a.mp4 --help").help);
}

TEST(TarnelRecordOptionsTest, InputOptionsAfterTheLastInputAreAnError) {
  Parsed p = Parse("-i cam.h264 -o call.mp4 --video-fps 30");
  EXPECT_FALSE(p.ok);
  EXPECT_NE(p.error.find("trailing option(s) found: --video-fps 30 after the last -i"),
            std::string::npos)
      << p.error;

  // Every one of them is named.
  p = Parse("-i cam.h264 -f s16le --pcm-rate 8000 -o call.mp4 --pcm-channels 1");
  EXPECT_FALSE(p.ok);
  EXPECT_NE(p.error.find("-f s16le --pcm-rate 8000 --pcm-channels 1"), std::string::npos)
      << p.error;

  // Options about the recording after the last input are fine, and --repair takes no
  // input at all.
  EXPECT_TRUE(Parse("-i cam.h264 -o call.mp4 --stereo --fast --max-queue-mb 16").ok);
  EXPECT_TRUE(Parse("--repair call.mp4").ok);
}

TEST(TarnelRecordOptionsTest, BadValuesAndCountsAreRefusedWithTheirReason) {
  const struct {
    const char* command_line;
    const char* error;
  } kCases[] = {
      {"--pcm-channels 3 -i a.pcm -o b.m4a", "--pcm-channels must be 1 or 2"},
      {"--pcm-rate 0 -i a.pcm -o b.m4a", "--pcm-rate needs a sample rate"},
      {"--pcm-rate 48k -i a.pcm -o b.m4a", "--pcm-rate needs a whole number"},
      {"--video-fps -5 -i a.h264 -o b.mp4", "--video-fps needs a positive frame rate"},
      {"-i a.mp4 -o b.mp4 --max-queue-mb 0", "--max-queue-mb needs a positive number"},
      {"-i a.mp4 -o b.mp4 --max-queue-mb 9000000000", "--max-queue-mb needs a positive"},
      {"-i a.mp4 -o b.mp4 --max-queue-mb", "--max-queue-mb needs a value"},
      {"-i a.mp4 -o b.mp4 -f", "-f needs a value"},
      {"-i a -i b -i c -o d.mp4", "at most two inputs"},
      {"-o d.mp4", "no input given"},
      {"-i a.mp4", "no output given"},
      {"-i a.mp4 -o b.mp4 --bursty", "unknown option --bursty"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.command_line);
    const Parsed p = Parse(c.command_line);
    EXPECT_FALSE(p.ok);
    EXPECT_NE(p.error.find(c.error), std::string::npos) << p.error;
  }
}

TEST(TarnelRecordOptionsTest, AnInputOptionForAStreamTheInputDoesNotGiveIsAnError) {
  // The option was given for the video before the audio input's -i: it belongs to the
  // audio input, which has no video to apply it to.
  const Parsed p = Parse("-i cam.h264 --video-fps 30 -i mic.wav -o call.mkv");
  ASSERT_TRUE(p.ok) << p.error;
  std::string error;
  EXPECT_TRUE(CheckInputOptionsApply(p.options.inputs[0], true, false, &error)) << error;
  EXPECT_FALSE(CheckInputOptionsApply(p.options.inputs[1], false, true, &error));
  EXPECT_NE(error.find("--video-fps applies to the -i after it, mic.wav, which gives no video"),
            std::string::npos)
      << error;

  // PCM options on the video input, and on an input that has both streams.
  SourceOptions input;
  input.url = "cam.h264";
  input.pcm_channels = 2;
  EXPECT_FALSE(CheckInputOptionsApply(input, true, false, &error));
  EXPECT_NE(error.find("--pcm-channels applies to the -i after it, cam.h264, which gives no "
                       "audio"),
            std::string::npos)
      << error;
  input.video_fps = 30;
  input.pcm_sample_rate = 48000;
  EXPECT_TRUE(CheckInputOptionsApply(input, true, true, &error));
}

}  // namespace
}  // namespace tarnel_record
