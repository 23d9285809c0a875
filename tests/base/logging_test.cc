#include "sdk/base/logging.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "sdk/base/thread.h"

namespace tarn_logging {
namespace {

constexpr LogConfig kConfig{"logging_test"};

// Written by one thread at a time and read after that thread was joined.
struct RecordingSink : LogSink {
  void OnLogMessage(const LogRecord& record) override { records.push_back(record); }
  std::vector<LogRecord> records;
};

TEST(LoggingTest, SinkGetsEnabledMessagesWithAllFieldsUntilRemoved) {
  RecordingSink sink;
  AddLogSink(&sink);
  SetStderrLoggingEnabled(false);
  SetMinSeverity(LS_WARNING);
  int evaluated = 0;
  TARN_LOG(LS_INFO, kConfig, nullptr) << ++evaluated;  // Not built at all.
  tarn_base::Thread thread("log-writer");
  ASSERT_TRUE(thread.Start());
  const int instance = 0;
  thread.task_runner()->PostTask(FROM_HERE, tarn_base::BindOnce([&] {
                                   TARN_LOG(LS_WARNING, kConfig, &instance)
                                       << "disk " << ++evaluated << "% full";
                                 }));
  thread.Stop();
  RemoveLogSink(&sink);
  TARN_LOG(LS_ERROR, kConfig, nullptr) << "after removal";
  SetMinSeverity(LS_INFO);
  SetStderrLoggingEnabled(true);

  EXPECT_EQ(evaluated, 1);
  ASSERT_EQ(sink.records.size(), 1u);
  const LogRecord& record = sink.records[0];
  EXPECT_EQ(record.severity, LS_WARNING);
  EXPECT_TRUE(std::regex_search(record.file, std::regex("(^|/)logging_test\\.cc$")));
  EXPECT_GT(record.line, 0);
  EXPECT_STREQ(record.function, "operator()");  // The lambda that logged.
  EXPECT_EQ(record.config, &kConfig);
  EXPECT_EQ(record.instance, &instance);
  EXPECT_EQ(record.thread_name, "log-writer");
  EXPECT_EQ(record.message, "disk 1% full");
}

TEST(LoggingTest, StderrLineHasTimeSeverityThreadAndPlace) {
  testing::internal::CaptureStderr();
  TARN_LOG(LS_ERROR, kConfig, nullptr) << "cannot open x";
  SetStderrLoggingEnabled(false);
  TARN_LOG(LS_ERROR, kConfig, nullptr) << "muted";
  SetStderrLoggingEnabled(true);
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(
      std::regex_match(output, std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} E \[[^\]]*\] )"
                                          R"(logging_test\.cc:TestBody: cannot open x\n)")))
      << output;
}

}  // namespace
}  // namespace tarn_logging
