#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <zr/export.h>

namespace ko {
namespace log {

/// Numbered levels; a category admits a record when its level is at least the record's.
enum LogLevel {
  silent = 0,
  fatal = 1,
  error = 2,
  warning = 3,
  info = 4,
  verbose = 5,
  debug = 6,
};

/// A named log category. Created once per name by addCategory and never destroyed, so that a
/// category pointer may be kept in a static. Its level follows the rules set with setLevels.
class BEXKO_API Category {
 public:
  explicit Category(std::string name, LogLevel level) : name_(std::move(name)), level_(level) {}
  const std::string& name() const { return name_; }
  LogLevel level() const { return static_cast<LogLevel>(level_.load(std::memory_order_relaxed)); }
  void setLevel(LogLevel level) { level_.store(level, std::memory_order_relaxed); }
  /// The cheap check made before a record is built.
  bool isEnabled(int level) const { return level <= level_.load(std::memory_order_relaxed); }

 private:
  std::string name_;
  std::atomic<int> level_;
};

using CategoryType = Category*;

/// The category of this name, created on first use with the level that the current rules give.
/// Thread-safe; the same name always yields the same pointer.
BEXKO_API CategoryType addCategory(const std::string& name);

/// One log record as the sinks receive it.
struct Record {
  LogLevel level;
  std::string category;
  std::string function;
  std::string file;
  int line;
  std::string message;
  std::chrono::system_clock::time_point time;
};

/// Writes one record when `category` admits `level`. Never throws; a failing sink is skipped.
BEXKO_API void log(LogLevel level, CategoryType category, const std::string& message,
                   const char* file, const char* function, int line);

/// Stream form: the text is streamed in and the record is emitted when the object is destroyed.
/// Use it through KO_LOG, which checks the level before anything is formatted.
class BEXKO_API LogStream {
 public:
  LogStream(LogLevel level, const char* file, const char* function, int line,
            CategoryType category);
  ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  template <typename T>
  LogStream& operator<<(const T& value) {
    stream_ << value;
    return *this;
  }
  std::ostringstream& stream() { return stream_; }

 private:
  LogLevel level_;
  const char* file_;
  const char* function_;
  int line_;
  CategoryType category_;
  std::ostringstream stream_;
};

/// Receives every emitted record. Sinks are called under the logger's lock, one record at a
/// time, in emission order; a sink must not log itself.
class BEXKO_API Sink {
 public:
  virtual ~Sink() = default;
  virtual void write(const Record& record) = 0;
};

/// Adds a sink; returns an id for removeSink. The console sink is not installed by default:
/// the daemon adds it.
BEXKO_API int addSink(std::shared_ptr<Sink> sink);
BEXKO_API void removeSink(int id);

/// Sets the level rules from a pattern "audio.*=verbose,*=info": comma-separated
/// `glob=level` pairs (globs with * and ?); a bare level applies to "*". The most specific
/// matching rule wins (the glob with the most literal characters), the later one among equals.
/// Levels by name (silent, fatal, error, warning, info, verbose, debug) or number 0-6.
/// Existing and future categories follow. Throws std::invalid_argument for a bad pattern.
BEXKO_API void setLevels(const std::string& pattern);
/// Applies the environment variable BEXKO_LOG_LEVEL (same syntax) if it is set.
/// Returns false, leaving the rules unchanged, when the variable is malformed.
BEXKO_API bool setLevelsFromEnvironment();
/// The level a category of this name gets under the current rules (default info).
BEXKO_API LogLevel levelFor(const std::string& categoryName);
/// Parses a level name or number; throws std::invalid_argument.
BEXKO_API LogLevel parseLevel(const std::string& text);
BEXKO_API const char* levelName(LogLevel level);

/// Writes records to standard error: time, level, category, function and text, one line each.
/// The text is written escaped, since it may carry a client's bytes: line feed, carriage return
/// and tab as \n, \r and \t, every other byte below 0x20 and 0x7F as \xNN (so a record is one
/// line, and no terminal escape sequence reaches the terminal). Other bytes, backslashes
/// included, are written as they are.
class BEXKO_API ConsoleSink : public Sink {
 public:
  void write(const Record& record) override;
};

/// Appends records to a file, one line each, flushed per record, the text escaped as by
/// ConsoleSink. Throws std::runtime_error when the file cannot be opened.
class BEXKO_API FileSink : public Sink {
 public:
  explicit FileSink(const std::string& path);
  ~FileSink() override;
  void write(const Record& record) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

/// Keeps every record in memory, for tests that assert on exact records: the text is kept as it
/// was logged, not escaped.
class BEXKO_API CaptureSink : public Sink {
 public:
  CaptureSink();
  ~CaptureSink() override;
  void write(const Record& record) override;
  /// A copy of the records captured so far, in emission order.
  std::vector<Record> records() const;
  void clear();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace log
}  // namespace ko

/// Logs at `level` in `category` with `function` as the location (no file, line 0); the
/// streamed expression is evaluated only when the category admits the level:
/// `KO_LOG(cat, ko::log::warning, "stop") << "No task with the id " << id;`
#define KO_LOG(category, level, function)         \
  if (!(category)->isEnabled(level)) {            \
  } else                                          \
    ::ko::log::LogStream((level), "", (function), 0, (category))
