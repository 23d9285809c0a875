#include "tests/support/log_capture.h"

namespace tarnel_test {

ScopedLogCapture::ScopedLogCapture() { tarn_logging::AddLogSink(this); }

ScopedLogCapture::~ScopedLogCapture() { tarn_logging::RemoveLogSink(this); }

void ScopedLogCapture::OnLogMessage(const tarn_logging::LogRecord& record) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.push_back(record);
}

std::vector<tarn_logging::LogRecord> ScopedLogCapture::records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::vector<std::string> ScopedLogCapture::MessagesAtLeast(
    tarn_logging::LogSeverity severity) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> messages;
  for (const tarn_logging::LogRecord& record : records_) {
    if (record.severity >= severity) messages.push_back(record.message);
  }
  return messages;
}

bool ScopedLogCapture::Contains(const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const tarn_logging::LogRecord& record : records_) {
    if (record.message.find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace tarnel_test
