// Stream-style logging.
//
//   TARN_LOG(tarn_logging::LS_ERROR, kLogConfig, this) << "cannot open " << path;
//
// A message is built only when ShouldCreateLogMessage(severity) is true, so the
// operands of a disabled message are not evaluated. Each message carries its severity,
// source file, line, function, the component's LogConfig and the reporting instance,
// and is handed to every installed sink; the default stderr sink writes one line per
// message:
//
//   2026-11-22 20:31:07.123 E [recording] local_recording_impl.cc:StartImpl: text
//
// Applications route logs by installing a LogSink; tests capture them the same way.
#ifndef SDK_BASE_LOGGING_H_
#define SDK_BASE_LOGGING_H_

#include <sstream>
#include <string>

namespace tarn_logging {

enum LogSeverity : int {
  LS_INFO = 0,
  LS_WARNING = 1,
  LS_ERROR = 2,
};

// Identifies the component that logs, e.g. {"local_recording"}.
struct LogConfig {
  const char* component;
};

// One finished message as sinks receive it.
struct LogRecord {
  LogSeverity severity;
  const char* file;  // Source file, as __FILE__ gave it.
  int line;
  const char* function;  // As __func__ gave it.
  const LogConfig* config;
  const void* instance;  // The object that logged, or null.
  std::string thread_name;
  std::string message;
};

// Receives every message of at least the minimum severity. OnLogMessage may be called
// from any thread, concurrently; it must not log itself.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void OnLogMessage(const LogRecord& record) = 0;
};

// Messages below `severity` are not built at all. The default is LS_INFO.
void SetMinSeverity(LogSeverity severity);
LogSeverity GetMinSeverity();
bool ShouldCreateLogMessage(LogSeverity severity);

// Installs or removes a sink. A sink must stay alive until it is removed. Thread-safe;
// after RemoveLogSink returns, the sink is no longer called.
void AddLogSink(LogSink* sink);
void RemoveLogSink(LogSink* sink);

// The built-in stderr sink, on by default.
void SetStderrLoggingEnabled(bool enabled);

// Builds one message; its destructor hands it to the sinks.
class LogMessage {
 public:
  LogMessage(const char* file, int line, const char* function, LogSeverity severity,
             const LogConfig& config, const void* instance);
  ~LogMessage();
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  std::ostream& stream() { return stream_; }

 private:
  LogRecord record_;
  std::ostringstream stream_;
};

// Turns the stream expression into void so that it fits the conditional in TARN_LOG.
class LogMessageVoidify {
 public:
  void operator&(std::ostream&) {}
};

}  // namespace tarn_logging

#define TARN_LOG(severity, config, instance)                                                   \
  !::tarn_logging::ShouldCreateLogMessage(severity)                                            \
      ? (void)0                                                                                \
      : ::tarn_logging::LogMessageVoidify() & ::tarn_logging::LogMessage(__FILE__, __LINE__,   \
                                                                         __func__, (severity), \
                                                                         (config), (instance)) \
                                                  .stream()

#endif  // SDK_BASE_LOGGING_H_
