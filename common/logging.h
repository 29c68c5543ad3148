#ifndef COMMON_LOGGING_H_
#define COMMON_LOGGING_H_

#include <atomic>
#include <cstddef>
#include <functional>
#include <ostream>
#include <streambuf>
#include <string>

namespace vantu {

// One log record as handed to the sink.
struct LogRecord {
  int level;             // 1 (failed checks) .. 6 (payload dumps); lower is more severe
  std::string logger;    // "http_server", "http_request_parser", "rpc", "check", ...
  std::string file;      // source file without extension, e.g. "relay/http_server"
  std::string function;  // the function's signature
  int line;
  int id;  // per-statement identifier, stable for the life of the process
  std::string text;
};

using LogSink = std::function<void(const LogRecord&)>;

namespace internal {
// The highest level any logger is enabled at.
extern std::atomic<int> max_enabled_level;
bool isLoggerEnabledSlow(int level, const char* logger);
}  // namespace internal

// True when records of `level` under `logger` are written. By default only
// levels 1 and 2 are. Cheap: callers test it before building a record, and
// a level no logger is enabled at is answered inline. Any thread.
inline bool isLoggerEnabled(int level, const char* logger) {
  if (level > internal::max_enabled_level.load(std::memory_order_relaxed)) return false;
  return internal::isLoggerEnabledSlow(level, logger);
}

// Enables `logger` up to and including `level` (a lower level disables the
// chattier ones again). Any thread.
void setLogLevel(const std::string& logger, int level);

// Replaces the sink that receives every written record; an empty function
// restores the default, which writes one line per record to stderr with the
// text cut at kDefaultSinkTextLimit bytes (a 64 MB request path must not make
// 64 MB of log per 404). A sink set here gets whole texts. The sink may be
// called from any thread, one record at a time.
void setLogSink(LogSink sink);
constexpr size_t kDefaultSinkTextLimit = 4096;

// Builds one record and hands it to the sink when destroyed. Construct it only
// after isLoggerEnabled said yes; the VLOG-style macro below does both.
class LoggingStream {
 public:
  // `statement_id` points to a static int that starts at -1; the first record
  // of the statement gives it a process-wide unique value.
  LoggingStream(int level, const char* logger, const char* file, const char* function, int line,
                int* statement_id);
  ~LoggingStream();
  LoggingStream(const LoggingStream&) = delete;
  LoggingStream& operator=(const LoggingStream&) = delete;

  template <typename T>
  LoggingStream& operator<<(const T& value) {
    stream_ << value;
    return *this;
  }

 private:
  // Keeps the first `limit` bytes written (all when 0) and counts the rest,
  // so that a cut record costs no more than its kept part.
  class TextBuffer : public std::streambuf {
   public:
    explicit TextBuffer(size_t limit) : limit_(limit) {}
    std::string& text() { return text_; }
    size_t cut() const { return cut_; }

   protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override;
    int_type overflow(int_type c) override;

   private:
    const size_t limit_;
    size_t cut_ = 0;
    std::string text_;
  };

  LogRecord record_;
  TextBuffer buffer_;
  std::ostream stream_;
};

}  // namespace vantu

// Writes a record when `logger` is enabled at `level`; the streamed operands are
// evaluated only then:  VANTU_LOG(5, "http_server", "relay/http_server") << "x=" << x;
#define VANTU_LOG_AT(level, logger, file, function, line)                      \
  if (!::vantu::isLoggerEnabled((level), (logger))) {                          \
  } else                                                                       \
    ::vantu::LoggingStream((level), (logger), (file), (function), (line), [] { \
      static int statement_id = -1;                                            \
      return &statement_id;                                                    \
    }())

#define VANTU_LOG(level, logger, file) \
  VANTU_LOG_AT(level, logger, file, __PRETTY_FUNCTION__, __LINE__)

#endif  // COMMON_LOGGING_H_
