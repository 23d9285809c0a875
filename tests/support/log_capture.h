// Collects log messages for the lifetime of the object, from every thread.
//
//   tarnel_test::ScopedLogCapture logs;
//   DoSomethingThatWarns();
//   EXPECT_TRUE(logs.Contains("cannot open"));
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H_
#define TESTS_SUPPORT_LOG_CAPTURE_H_

#include <mutex>
#include <string>
#include <vector>

#include "sdk/base/logging.h"

namespace tarnel_test {

class ScopedLogCapture : public tarn_logging::LogSink {
 public:
  // Installs itself as a sink; removes itself on destruction.
  ScopedLogCapture();
  ~ScopedLogCapture() override;
  ScopedLogCapture(const ScopedLogCapture&) = delete;
  ScopedLogCapture& operator=(const ScopedLogCapture&) = delete;

  void OnLogMessage(const tarn_logging::LogRecord& record) override;

  // Copies of everything received so far, in arrival order. The `file`, `function`
  // and `config` pointers are the logger's; they stay valid as long as those do.
  std::vector<tarn_logging::LogRecord> records() const;
  // The texts of the messages at `severity` or above, in arrival order.
  std::vector<std::string> MessagesAtLeast(tarn_logging::LogSeverity severity) const;
  // True when some message contains `text`.
  bool Contains(const std::string& text) const;

 private:
  mutable std::mutex mutex_;
  std::vector<tarn_logging::LogRecord> records_;
};

}  // namespace tarnel_test

#endif  // TESTS_SUPPORT_LOG_CAPTURE_H_
