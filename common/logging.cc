#include "common/logging.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <mutex>

namespace vantu {
namespace {

constexpr int kDefaultLevel = 2;

struct LogState {
  std::mutex mutex;
  std::map<std::string, int, std::less<>> levels;  // guarded by mutex
  std::mutex sink_mutex;  // serialises records; separate so a sink may ask isLoggerEnabled
  LogSink sink;           // guarded by sink_mutex
};

LogState& state() {
  static LogState* s = new LogState;  // never destroyed: logging may run at exit
  return *s;
}

// Lowest level any logger is enabled at; below the default, the severe levels
// need the lookup too.
std::atomic<int> min_enabled_level{kDefaultLevel};
std::atomic<int> next_statement_id{0};
// Whether records go to a sink set by the application (whole texts) or to
// the default one (cut texts).
std::atomic<bool> custom_sink{false};

void writeToStderr(const LogRecord& r) {
  fprintf(stderr, "[%d %s %s:%d #%d] %s\n", r.level, r.logger.c_str(), r.file.c_str(), r.line, r.id,
          r.text.c_str());
}

}  // namespace

namespace internal {
// Highest level any logger is enabled at; lets the common case (a chatty level
// nobody enabled) answer inline, without a call or a lock.
std::atomic<int> max_enabled_level{kDefaultLevel};
}  // namespace internal

bool internal::isLoggerEnabledSlow(int level, const char* logger) {
  if (level <= kDefaultLevel && level <= min_enabled_level.load(std::memory_order_relaxed)) {
    return true;
  }
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.levels.find(logger);
  return level <= (it == s.levels.end() ? kDefaultLevel : it->second);
}

void setLogLevel(const std::string& logger, int level) {
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.levels[logger] = level;
  int highest = kDefaultLevel;
  int lowest = kDefaultLevel;
  for (const auto& entry : s.levels) {
    highest = std::max(highest, entry.second);
    lowest = std::min(lowest, entry.second);
  }
  internal::max_enabled_level.store(highest, std::memory_order_relaxed);
  min_enabled_level.store(lowest, std::memory_order_relaxed);
}

void setLogSink(LogSink sink) {
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.sink_mutex);
  custom_sink.store(static_cast<bool>(sink), std::memory_order_relaxed);
  s.sink = std::move(sink);
}

std::streamsize LoggingStream::TextBuffer::xsputn(const char* data, std::streamsize size) {
  size_t take = static_cast<size_t>(size);
  if (limit_ != 0) take = std::min(take, limit_ - std::min(limit_, text_.size()));
  text_.append(data, take);
  cut_ += static_cast<size_t>(size) - take;
  return size;
}

LoggingStream::TextBuffer::int_type LoggingStream::TextBuffer::overflow(int_type c) {
  if (c != traits_type::eof()) {
    const char byte = traits_type::to_char_type(c);
    xsputn(&byte, 1);
  }
  return traits_type::not_eof(c);
}

LoggingStream::LoggingStream(int level, const char* logger, const char* file, const char* function,
                             int line, int* statement_id)
    : buffer_(custom_sink.load(std::memory_order_relaxed) ? 0 : kDefaultSinkTextLimit),
      stream_(&buffer_) {
  record_.level = level;
  record_.logger = logger;
  record_.file = file;
  record_.function = function;
  record_.line = line;
  int id = __atomic_load_n(statement_id, __ATOMIC_ACQUIRE);
  if (id < 0) {
    int fresh = next_statement_id.fetch_add(1);
    int expected = -1;
    // Two threads may race on a statement's first record; one value wins.
    if (__atomic_compare_exchange_n(statement_id, &expected, fresh, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
      id = fresh;
    } else {
      id = expected;
    }
  }
  record_.id = id;
}

LoggingStream::~LoggingStream() {
  record_.text = std::move(buffer_.text());
  if (buffer_.cut() > 0) record_.text += " [" + std::to_string(buffer_.cut()) + " bytes cut]";
  LogState& s = state();
  std::lock_guard<std::mutex> lock(s.sink_mutex);
  if (s.sink) {
    s.sink(record_);
  } else {
    writeToStderr(record_);
  }
}

}  // namespace vantu
