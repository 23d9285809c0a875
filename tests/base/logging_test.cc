#include "sdk/base/logging.h"

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "sdk/base/thread.h"

namespace tarn_logging {
namespace {

constexpr LogConfig kConfig{"logging_test"};

class RecordingSink : public LogSink {
 public:
  void OnLogMessage(const LogRecord& record) override {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }
  std::vector<LogRecord> records() {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  std::mutex mutex_;
  std::vector<LogRecord> records_;
};

int Evaluate(int* count) { return ++*count; }

TEST(LoggingTest, DisabledMessagesAreNotBuilt) {
  RecordingSink sink;
  AddLogSink(&sink);
  SetMinSeverity(LS_WARNING);
  int evaluated = 0;
  TARN_LOG(LS_INFO, kConfig, nullptr) << Evaluate(&evaluated);
  TARN_LOG(LS_WARNING, kConfig, nullptr) << Evaluate(&evaluated);
  TARN_LOG(LS_ERROR, kConfig, nullptr) << Evaluate(&evaluated);
  SetMinSeverity(LS_INFO);
  RemoveLogSink(&sink);
  EXPECT_EQ(evaluated, 2);
  EXPECT_EQ(sink.records().size(), 2u);
}

TEST(LoggingTest, SinkReceivesEveryFieldAndNothingAfterRemoval) {
  RecordingSink sink;
  AddLogSink(&sink);
  SetStderrLoggingEnabled(false);
  tarn_base::Thread thread("log-writer");
  ASSERT_TRUE(thread.Start());
  const int instance = 0;
  thread.task_runner()->PostTask(FROM_HERE, tarn_base::BindOnce([&instance] {
                                   TARN_LOG(LS_WARNING, kConfig, &instance)
                                       << "disk " << 93 << "% full";
                                 }));
  thread.Stop();
  RemoveLogSink(&sink);
  TARN_LOG(LS_ERROR, kConfig, nullptr) << "after removal";
  SetStderrLoggingEnabled(true);

  const std::vector<LogRecord> records = sink.records();
  ASSERT_EQ(records.size(), 1u);
  const LogRecord& record = records[0];
  EXPECT_EQ(record.severity, LS_WARNING);
  EXPECT_EQ(std::string(record.file).substr(std::string(record.file).rfind('/') + 1),
            "logging_test.cc");
  EXPECT_GT(record.line, 0);
  EXPECT_STREQ(record.function, "operator()");  // The lambda that logged.
  EXPECT_EQ(record.config, &kConfig);
  EXPECT_EQ(record.instance, &instance);
  EXPECT_EQ(record.thread_name, "log-writer");
  EXPECT_EQ(record.message, "disk 93% full");
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
