#include "sdk/base/logging.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include "sdk/base/thread.h"

namespace tarn_logging {

namespace {

std::atomic<int> g_min_severity{LS_INFO};
std::atomic<bool> g_stderr_enabled{true};

// The installed sinks. Dispatch holds the mutex while calling them, which is what lets
// RemoveLogSink promise that a removed sink is not called any more. Leaked on purpose:
// threads may still log during static destruction.
struct SinkRegistry {
  std::mutex mutex;
  std::vector<LogSink*> sinks;  // Guarded by mutex.
};

SinkRegistry& Registry() {
  static SinkRegistry* const registry = new SinkRegistry();
  return *registry;
}

// Set while this thread hands a message to the sinks. A sink that logs despite the rule
// would otherwise deadlock on the registry mutex; its message goes to stderr only.
thread_local bool g_dispatching = false;

char SeverityLetter(LogSeverity severity) {
  switch (severity) {
    case LS_INFO:
      return 'I';
    case LS_WARNING:
      return 'W';
    case LS_ERROR:
      return 'E';
  }
  return '?';
}

const char* Basename(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

// "2026-11-22 20:31:07.123 E [recording] file.cc:Function: text\n", in one write.
void WriteToStderr(const LogRecord& record) {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  tm local{};
  localtime_r(&ts.tv_sec, &local);
  char time_text[32] = {};
  strftime(time_text, sizeof(time_text), "%Y-%m-%d %H:%M:%S", &local);
  char prefix[64] = {};
  snprintf(prefix, sizeof(prefix), "%s.%03d %c [", time_text,
           static_cast<int>(ts.tv_nsec / 1000000), SeverityLetter(record.severity));

  std::string line;
  line.reserve(128 + record.message.size());
  line += prefix;
  line += record.thread_name;
  line += "] ";
  line += Basename(record.file);
  line += ':';
  line += record.function;
  line += ": ";
  line += record.message;
  line += '\n';
  fwrite(line.data(), 1, line.size(), stderr);
}

void Dispatch(const LogRecord& record) {
  if (!g_dispatching) {
    g_dispatching = true;
    {
      SinkRegistry& registry = Registry();
      std::lock_guard<std::mutex> lock(registry.mutex);
      for (LogSink* sink : registry.sinks) sink->OnLogMessage(record);
    }
    g_dispatching = false;
  }
  if (g_stderr_enabled.load(std::memory_order_relaxed)) WriteToStderr(record);
}

}  // namespace

void SetMinSeverity(LogSeverity severity) {
  g_min_severity.store(severity, std::memory_order_relaxed);
}

LogSeverity GetMinSeverity() {
  return static_cast<LogSeverity>(g_min_severity.load(std::memory_order_relaxed));
}

bool ShouldCreateLogMessage(LogSeverity severity) {
  return severity >= g_min_severity.load(std::memory_order_relaxed);
}

void AddLogSink(LogSink* sink) {
  SinkRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  if (std::find(registry.sinks.begin(), registry.sinks.end(), sink) == registry.sinks.end()) {
    registry.sinks.push_back(sink);
  }
}

void RemoveLogSink(LogSink* sink) {
  SinkRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.sinks.erase(std::remove(registry.sinks.begin(), registry.sinks.end(), sink),
                       registry.sinks.end());
}

void SetStderrLoggingEnabled(bool enabled) {
  g_stderr_enabled.store(enabled, std::memory_order_relaxed);
}

LogMessage::LogMessage(const char* file, int line, const char* function, LogSeverity severity,
                       const LogConfig& config, const void* instance)
    : record_{severity,     file, line, function, &config, instance, tarn_base::CurrentThreadName(),
              std::string()} {}

LogMessage::~LogMessage() {
  record_.message = stream_.str();
  Dispatch(record_);
}

}  // namespace tarn_logging
