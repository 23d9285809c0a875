// The recorder object and its start checks, with a fake writer backend, on virtual time.
#include <dirent.h>

#include <fstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "sdk/base/file_util.h"
#include "sdk/base/simulated_clock.h"
#include "sdk/base/thread.h"
#include "sdk/common/local_recording/local_recording.h"
#include "sdk/common/local_recording/local_recording_impl.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_fakes.h"
#include "tests/support/scoped_temp_dir.h"

namespace tarnel {
namespace recording {
namespace {

using tarnel_test::ClientEvent;

class LocalRecordingStartTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.CreateUniqueTempDir());
    recorder_ = LocalRecording::Create(&client_);
    ASSERT_TRUE(recorder_);
  }

  std::string PathOf(const std::string& name) const { return dir_.GetPath().Append(name).value(); }

  LocalRecordingInitialParams ParamsFor(const std::string& path) const {
    LocalRecordingInitialParams params;
    params.file_path = path;
    params.media_format = media_stream_writer::kMkv;
    return params;
  }

  static void WriteText(const std::string& path, const std::string& text) {
    ASSERT_TRUE(tarn_base::WriteFile(tarn_base::FilePath(path), text));
  }
  static std::string ReadText(const std::string& path) {
    std::string text;
    EXPECT_TRUE(tarn_base::ReadFileToString(tarn_base::FilePath(path), &text));
    return text;
  }
  static bool Exists(const std::string& path) {
    return tarn_base::PathExists(tarn_base::FilePath(path));
  }

  void StartAndWait(const LocalRecordingInitialParams& params) {
    recorder_->Start(params);
    clock_.RunUntilIdle();
  }
  void StopAndWait() {
    recorder_->Stop();
    clock_.RunUntilIdle();
  }

  // Messages the recorder logged at warning or error.
  std::vector<std::string> RecorderErrors() const {
    std::vector<std::string> out;
    for (const auto& record : logs_.records()) {
      if (record.instance == recorder_.get() && record.severity == tarn_logging::LS_ERROR) {
        out.push_back(record.message);
      }
    }
    return out;
  }

  tarn_base::SimulatedClock clock_;
  tarn_base::ScopedTickClockOverrideForTesting use_clock_{&clock_};
  tarnel_test::ScopedTempDir dir_;
  tarnel_test::FakeWriterFactory writers_;
  tarnel_test::RecordingClient client_;
  tarnel_test::ScopedLogCapture logs_;
  tarn_base::scoped_refptr<LocalRecording> recorder_;
};

TEST_F(LocalRecordingStartTest, WorkerThreadIsNamedRecording) {
  bool found = false;
  DIR* tasks = opendir("/proc/self/task");
  ASSERT_NE(tasks, nullptr);
  while (dirent* entry = readdir(tasks)) {
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string name;
    if (std::getline(comm, name) && name == "recording") found = true;
  }
  closedir(tasks);
  EXPECT_TRUE(found);
}

TEST_F(LocalRecordingStartTest, RefusesBadParametersInOrderWithTheirOwnCodes) {
  WriteText(PathOf("taken.mp4"), "old");
  WriteText(PathOf("seg_1.mp4"), "old segment");

  LocalRecordingInitialParams format_and_path_bad = ParamsFor(PathOf("missing/dir/out.mp4"));
  format_and_path_bad.media_format = static_cast<media_stream_writer::MediaFormat>(0);
  StartAndWait(format_and_path_bad);

  StartAndWait(ParamsFor(PathOf("taken.mp4")));

  LocalRecordingInitialParams negative_interval = ParamsFor(PathOf("taken.mp4"));
  negative_interval.segment_interval = -5;  // Same as unsegmented.
  StartAndWait(negative_interval);

  LocalRecordingInitialParams segmented = ParamsFor(PathOf("seg.mp4"));
  segmented.segment_interval = 10;
  StartAndWait(segmented);

  EXPECT_EQ(client_.StartResults(),
            (std::vector<InternalError>{kUnsupportedFormat, kFileAlreadyExists, kFileAlreadyExists,
                                        kFileAlreadyExists}));
  EXPECT_EQ(RecorderErrors(), (std::vector<std::string>{
                                  "unsupported format, " + PathOf("missing/dir/out.mp4"),
                                  "recording file already exists: " + PathOf("taken.mp4"),
                                  "recording file already exists: " + PathOf("taken.mp4"),
                                  "recording file already exists: " + PathOf("seg.mp4"),
                              }));
  EXPECT_EQ(writers_.state().constructed, 0);
  EXPECT_EQ(ReadText(PathOf("taken.mp4")), "old");
  EXPECT_EQ(ReadText(PathOf("seg_1.mp4")), "old segment");
  EXPECT_FALSE(Exists(PathOf("seg.mp4")));
  // Nothing was started, so a stop has nothing to complete.
  StopAndWait();
  EXPECT_TRUE(client_.CompletionResults().empty());
}

TEST_F(LocalRecordingStartTest, UnwritablePathsAreRefusedEvenForRoot) {
  WriteText(PathOf("plain_file"), "x");
  ASSERT_TRUE(tarn_base::CreateDirectory(tarn_base::FilePath(PathOf("a_directory"))));
  const struct {
    std::string path;
    int segment_interval;
    std::string error_text;
  } kCases[] = {
      {PathOf("no_such_dir/out.mp4"), 0, "FILE_ERROR_NOT_FOUND"},
      {PathOf("plain_file/out.mp4"), 0, "FILE_ERROR_NOT_A_DIRECTORY"},
      // Segmented, so that the existence check looks at "a_directory_1" and the write
      // probe meets the directory itself.
      {PathOf("a_directory"), 10, "FILE_ERROR_NOT_A_FILE"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.path);
    const size_t errors_before = RecorderErrors().size();
    LocalRecordingInitialParams params = ParamsFor(c.path);
    params.segment_interval = c.segment_interval;
    StartAndWait(params);
    ASSERT_EQ(client_.StartResults().back(), kPathUnwritable);
    const std::vector<std::string> errors = RecorderErrors();
    ASSERT_EQ(errors.size(), errors_before + 2);
    EXPECT_EQ(errors[errors_before], "access denied to file " + c.path + " due to " + c.error_text);
    EXPECT_EQ(errors[errors_before + 1], "recording file path is unwritable :" + c.path);
  }
  EXPECT_EQ(client_.StartResults().size(), 3u);
  EXPECT_EQ(writers_.state().constructed, 0);
  EXPECT_EQ(ReadText(PathOf("plain_file")), "x");
  EXPECT_TRUE(tarn_base::DirectoryExists(tarn_base::FilePath(PathOf("a_directory"))));
}

TEST_F(LocalRecordingStartTest, StopWithoutStreamsLeavesNoFileAndCompletesOnce) {
  const std::string path = PathOf("out.mp4");
  StartAndWait(ParamsFor(path));
  ASSERT_EQ(client_.StartResults(), std::vector<InternalError>{kOk});
  EXPECT_FALSE(Exists(path)) << "the write probe must remove the file it created";
  EXPECT_EQ(writers_.state().constructed, 1);

  StopAndWait();
  const std::vector<ClientEvent> done = client_.EventsOf(ClientEvent::kCompleted);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0].error, kNoStreamArrived);
  EXPECT_EQ(done[0].duration_ms, 0);
  EXPECT_EQ(done[0].file_size, 0);
  // The writer was made and destroyed, never started or stopped.
  EXPECT_TRUE(writers_.state().calls.empty());
  EXPECT_EQ(writers_.state().destroyed, 1);
  EXPECT_FALSE(Exists(path));
  EXPECT_TRUE(logs_.Contains("stop recording with " + ParamsFor(path).ToString() +
                             " no stream arriving, no file create."));

  // Idle again: a second stop does nothing, and a new start is accepted.
  StopAndWait();
  EXPECT_EQ(client_.CompletionResults().size(), 1u);
  StartAndWait(ParamsFor(path));
  StopAndWait();
  EXPECT_EQ(client_.StartResults(), (std::vector<InternalError>{kOk, kOk}));
  EXPECT_EQ(client_.CompletionResults(),
            (std::vector<InternalError>{kNoStreamArrived, kNoStreamArrived}));
}

TEST_F(LocalRecordingStartTest, SecondStartIsRefusedAndKeepsTheRunningRecording) {
  LocalRecordingInitialParams first = ParamsFor(PathOf("first.mkv"));
  LocalRecordingInitialParams second = ParamsFor(PathOf("second.mkv"));
  second.stereo_audio = true;
  recorder_->Start(first);
  recorder_->Start(second);
  clock_.RunUntilIdle();
  EXPECT_EQ(client_.StartResults(), (std::vector<InternalError>{kOk, kAlreadyStarted}));
  EXPECT_EQ(RecorderErrors(), std::vector<std::string>{"has started record, must stop first"});
  EXPECT_EQ(writers_.state().constructed, 1);

  StopAndWait();
  EXPECT_TRUE(logs_.Contains("stop recording with " + first.ToString()));
}

TEST_F(LocalRecordingStartTest, SegmentedRecordingKeepsAFileAtThePlainPath) {
  const std::string plain = PathOf("out.mp4");
  WriteText(plain, "precious");
  LocalRecordingInitialParams params = ParamsFor(plain);
  params.segment_interval = 10;
  StartAndWait(params);
  ASSERT_EQ(client_.StartResults(), std::vector<InternalError>{kOk});
  EXPECT_EQ(ReadText(plain), "precious") << "the probe must not truncate or remove it";
  StopAndWait();
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kNoStreamArrived});
  EXPECT_EQ(ReadText(plain), "precious");
}

TEST_F(LocalRecordingStartTest, UnknownRecordTypeNeverOpensTheOutput) {
  LocalRecordingInitialParams params = ParamsFor(PathOf("out.mkv"));
  params.record_type = static_cast<RecordType>(7);
  StartAndWait(params);
  recorder_->WriteVideoFrame(tarnel_test::MakeVideoFrame(0, /*key=*/true));
  recorder_->WriteAudioFrame(tarnel_test::MakeAacFrame(0));
  clock_.FastForwardBy(tarn_base::TimeDelta::FromMilliseconds(500));
  StopAndWait();
  EXPECT_EQ(client_.StartResults(), std::vector<InternalError>{kOk});
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kNoStreamArrived});
  EXPECT_TRUE(writers_.state().calls.empty());
}

TEST_F(LocalRecordingStartTest, StopWhileIdleSaysNothing) {
  StopAndWait();
  EXPECT_TRUE(client_.events().empty());
  for (const auto& record : logs_.records()) EXPECT_NE(record.instance, recorder_.get());
}

TEST_F(LocalRecordingStartTest, ReleasingARecordingRecorderCompletesBeforeReturning) {
  StartAndWait(ParamsFor(PathOf("out.mkv")));
  recorder_ = nullptr;  // No RunUntilIdle: the release itself must finish the recording.
  EXPECT_EQ(client_.CompletionResults(), std::vector<InternalError>{kNoStreamArrived});

  tarnel_test::RecordingClient idle_client;
  auto idle = LocalRecording::Create(&idle_client);
  idle = nullptr;
  EXPECT_TRUE(idle_client.events().empty());
}

TEST_F(LocalRecordingStartTest, SegmentNoticesAreRelayedToTheClient) {
  LocalRecordingInitialParams params = ParamsFor(PathOf("out.mkv"));
  params.segment_interval = 5;
  StartAndWait(params);
  ASSERT_NE(writers_.state().client, nullptr);
  writers_.state().client->OnRecordingSegment(PathOf("out_2.mkv"));
  const std::vector<ClientEvent> segments = client_.EventsOf(ClientEvent::kSegment);
  ASSERT_EQ(segments.size(), 1u);
  EXPECT_EQ(segments[0].path, PathOf("out_2.mkv"));

  // Without a client the relay is a no-op.
  auto clientless = tarn_base::MakeRefCounted<LocalRecordingImpl>(nullptr);
  clientless->OnRecordingSegment("ignored");
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
