#ifndef TESTS_LOG_CAPTURE_H_
#define TESTS_LOG_CAPTURE_H_

#include <string>
#include <utility>
#include <vector>

#include "common/logging.h"
#include "common/mutex.h"
#include "common/thread_annotations.h"

namespace vantu {
namespace testing {

// Collects the log records written while it lives, on any thread: every
// logger's, or only `logger`'s with that logger enabled up to `level`. Puts
// back the default sink (and that logger's default level) when it goes. One
// at a time: it owns the process's sink.
class LogCapture {
 public:
  LogCapture() : LogCapture(std::string(), 0) {}
  LogCapture(std::string logger, int level) : logger_(std::move(logger)) {
    setLogSink([this](const LogRecord& record) {
      if (!logger_.empty() && record.logger != logger_) return;
      MutexLock lock(mutex_);
      records_.push_back(record);
    });
    if (!logger_.empty()) setLogLevel(logger_, level);
  }
  ~LogCapture() {
    if (!logger_.empty()) setLogLevel(logger_, 2);
    setLogSink(nullptr);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The records so far, which it then forgets.
  std::vector<LogRecord> take() {
    MutexLock lock(mutex_);
    return std::exchange(records_, {});
  }
  // The same as "level|file|text" each.
  std::vector<std::string> takeTexts() {
    std::vector<std::string> texts;
    for (const LogRecord& r : take()) {
      texts.push_back(std::to_string(r.level) + "|" + r.file + "|" + r.text);
    }
    return texts;
  }

 private:
  // Constant after construction.
  const std::string logger_;

  Mutex mutex_;
  std::vector<LogRecord> records_ VANTU_GUARDED_BY(mutex_);
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_LOG_CAPTURE_H_
