// The recorder object and its start checks, with a fake writer backend, on virtual time.
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "sdk/base/file_util.h"
#include "sdk/base/thread.h"
#include "sdk/common/local_recording/local_recording_impl.h"
#include "tests/common/local_recording/recorder_fixture.h"

namespace tarnel {
namespace recording {
namespace {

using tarnel_test::ClientEvent;

constexpr char kMissing[] = "<missing>";

class LocalRecordingStartTest : public tarnel_test::RecorderFixture {
 protected:
  Params At(const std::string& name, int segment_interval = 0) {
    Params params = MakeParams(media_stream_writer::kMkv, kAudioAndVideo);
    params.file_path = PathOf(name);
    params.segment_interval = segment_interval;
    return params;
  }
  void WriteText(const std::string& name, const std::string& text) {
    ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(PathOf(name)), text));
  }
  std::string ReadText(const std::string& name) {
    std::string text;
    return tarn_base::ReadFileToString(tarn_base::FilePath(PathOf(name)), &text) ? text : kMissing;
  }
};

TEST_F(LocalRecordingStartTest, WorkerThreadIsNamedRecording) {
  bool found = false;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    found |= std::getline(comm, name) && name == "recording";
  }
  EXPECT_TRUE(found);
}

TEST_F(LocalRecordingStartTest, RefusesBadParametersWithTheirOwnCodesAndErrorLines) {
  WriteText("taken.mkv", "old");
  WriteText("seg_1.mkv", "old segment");
  WriteText("file", "x");
  ASSERT_TRUE(tarn_base::CreateDirectory(tarn_base::FilePath(PathOf("dir"))));
  Params bad_format = At("nodir/out.mkv");  // The path is bad too: the format comes first.
  bad_format.media_format = static_cast<media_stream_writer::MediaFormat>(0);
  const auto exists = [this](const char* name) {
    return std::vector<std::string>{"recording file already exists: " + PathOf(name)};
  };
  const auto unwritable = [this](const char* name, const char* why) {
    return std::vector<std::string>{"access denied to file " + PathOf(name) + " due to " + why,
                                    "recording file path is unwritable :" + PathOf(name)};
  };
  size_t lines = 0;
  for (const auto& [params, code, errors] :
       std::vector<std::tuple<Params, InternalError, std::vector<std::string>>>{
           {bad_format, kUnsupportedFormat, {"unsupported format, " + bad_format.file_path}},
           {At("taken.mkv"), kFileAlreadyExists, exists("taken.mkv")},
           {At("taken.mkv", -5), kFileAlreadyExists, exists("taken.mkv")},  // Unsegmented.
           {At("seg.mkv", 10), kFileAlreadyExists, exists("seg.mkv")},
           {At("nodir/x.mkv"), kPathUnwritable, unwritable("nodir/x.mkv", "FILE_ERROR_NOT_FOUND")},
           {At("file/x.mkv"), kPathUnwritable,
            unwritable("file/x.mkv", "FILE_ERROR_NOT_A_DIRECTORY")},
           // Segmented, so that the existence check looks at "dir_1" and the write probe
           // meets the directory itself.
           {At("dir", 10), kPathUnwritable, unwritable("dir", "FILE_ERROR_NOT_A_FILE")},
       }) {
    SCOPED_TRACE(params.file_path);
    Start(params);
    EXPECT_EQ(client_.StartResults().back(), code);
    EXPECT_EQ(logs_.MessagesAtLeast(tarn_logging::LS_ERROR).size(), lines += errors.size());
    EXPECT_EQ(LastErrors(errors.size()), errors);
  }
  EXPECT_EQ(writer().constructed, 0);
  EXPECT_EQ(ReadText("taken.mkv"), "old");
  EXPECT_EQ(ReadText("seg_1.mkv"), "old segment");
  EXPECT_EQ(ReadText("seg.mkv"), kMissing);
  EXPECT_EQ(ReadText("file"), "x");
  EXPECT_TRUE(tarn_base::DirectoryExists(tarn_base::FilePath(PathOf("dir"))));

  // A start while one runs is refused and keeps the running one.
  const Params first = At("first.mkv");
  recorder_->Start(first);
  recorder_->Start(At("second.mkv"));
  StopRecording();
  EXPECT_EQ(client_.StartResults().size(), 9u);
  EXPECT_EQ(client_.StartResults().back(), kAlreadyStarted);
  EXPECT_EQ(LastErrors(1), std::vector<std::string>{"has started record, must stop first"});
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kNoStreamArrived});
  EXPECT_TRUE(logs_.Contains("stop recording with " + first.ToString()));
}

TEST_F(LocalRecordingStartTest, StopWithoutStreamsCompletesOnceAndLeavesTheFilesAsTheyWere) {
  StopRecording();  // Idle: says nothing.
  EXPECT_TRUE(client_.events().empty());
  for (const auto& record : logs_.records()) EXPECT_NE(record.instance, recorder_.get());

  WriteText("kept.mkv", "precious");
  for (const auto& [name, segment_interval, type] :
       std::vector<std::tuple<std::string, int, RecordType>>{
           {"plain.mkv", 0, kAudioAndVideo},  // The write probe removes the file it made.
           {"kept.mkv", 10, kAudioAndVideo},  // Segmented: the probe keeps what stands there.
           {"typeless.mkv", 0, static_cast<RecordType>(7)},  // Frames arrive, but no stream.
       }) {
    SCOPED_TRACE(name);
    const std::string before = ReadText(name);
    Params params = At(name, segment_interval);
    params.record_type = type;
    StartRecording(params);
    EXPECT_EQ(ReadText(name), before);
    if (type != kAudioAndVideo) {
      Video(0, /*key=*/true);
      Aac(0);
      Advance(500);
    }
    StopRecording();
    EXPECT_EQ(ReadText(name), before);
    EXPECT_TRUE(logs_.Contains("stop recording with " + params.ToString() +
                               " no stream arriving, no file create."));
  }
  EXPECT_EQ(Completions(), "NoStreamArrived 0 0; NoStreamArrived 0 0; NoStreamArrived 0 0");
  // The writers were made and destroyed, never started or stopped.
  EXPECT_EQ(writer().constructed, 3);
  EXPECT_EQ(writer().destroyed, 3);
  EXPECT_TRUE(writer().calls.empty());
}

TEST_F(LocalRecordingStartTest, SegmentNoticesAreRelayedToTheClient) {
  StartRecording(At("out.mkv", 5));
  ASSERT_NE(writer().client, nullptr);
  writer().client->OnRecordingSegment(PathOf("out_2.mkv"));
  const std::vector<ClientEvent> segments = client_.EventsOf(ClientEvent::kSegment);
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].path, PathOf("out_2.mkv"));
  // Without a client the relay is a no-op.
  tarn_base::MakeRefCounted<LocalRecordingImpl>(nullptr)->OnRecordingSegment("ignored");
}

TEST(LocalRecordingCreateTest, FailsVisiblyWhenTheWorkerThreadCannotStart) {
  tarnel_test::ScopedLogCapture logs;
  tarnel_test::RecordingClient client;
  tarn_base::ScopedThreadStartFailureForTesting no_threads;
  EXPECT_FALSE(LocalRecording::Create(&client));
  EXPECT_TRUE(logs.Contains("cannot start the recording thread"));
}

}  // namespace
}  // namespace recording
}  // namespace tarnel
