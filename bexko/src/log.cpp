#include <ko/log.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace ko {
namespace log {

namespace {

struct Rule {
  std::string glob;
  LogLevel level;
};

struct SinkEntry {
  int id;
  std::shared_ptr<Sink> sink;
};

/// Process-wide logger state. Allocated once and never freed, so that categories kept in
/// statics and records logged from static destructors stay valid until the process ends.
struct Logger {
  std::mutex categoryMutex;  // guards categories and rules
  std::map<std::string, Category*> categories;
  std::vector<Rule> rules;

  std::mutex sinkMutex;  // the logger's lock: held while sinks write
  std::vector<SinkEntry> sinks;
  int nextSinkId = 1;
};

Logger& logger() {
  static Logger* instance = new Logger;
  return *instance;
}

// Set while this thread is inside a sink, so that a sink that logs drops its record instead of
// deadlocking on the logger's lock.
thread_local bool insideSink = false;

bool globMatch(const char* pattern, const char* text) {
  const char* starPattern = nullptr;
  const char* starText = nullptr;
  while (*text) {
    if (*pattern == '*') {
      starPattern = pattern++;
      starText = text;
    } else if (*pattern == '?' || *pattern == *text) {
      ++pattern;
      ++text;
    } else if (starPattern) {
      pattern = starPattern + 1;
      text = ++starText;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

std::string trim(const std::string& text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

std::vector<Rule> parseRules(const std::string& pattern) {
  std::vector<Rule> rules;
  std::size_t start = 0;
  while (true) {
    const std::size_t comma = pattern.find(',', start);
    const std::string item =
        trim(pattern.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (item.empty()) {
      throw std::invalid_argument("empty rule in log level pattern \"" + pattern + "\"");
    }
    const std::size_t equals = item.rfind('=');
    if (equals == std::string::npos) {
      rules.push_back({"*", parseLevel(item)});
    } else {
      const std::string glob = trim(item.substr(0, equals));
      if (glob.empty()) {
        throw std::invalid_argument("missing category before '=' in log level pattern \"" +
                                    pattern + "\"");
      }
      rules.push_back({glob, parseLevel(item.substr(equals + 1))});
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return rules;
}

// The most specific matching rule wins: the one whose glob has the most literal (non-wildcard)
// characters, so that "audio.*=verbose,*=info" and "*=info,audio.*=verbose" mean the same; among
// equally specific rules the later one wins.
LogLevel levelUnderRules(const std::vector<Rule>& rules, const std::string& name) {
  LogLevel level = info;
  std::size_t bestSpecificity = 0;
  bool matched = false;
  for (const auto& rule : rules) {
    if (!globMatch(rule.glob.c_str(), name.c_str())) continue;
    std::size_t specificity = 0;
    for (char c : rule.glob) {
      if (c != '*' && c != '?') ++specificity;
    }
    if (!matched || specificity >= bestSpecificity) {
      level = rule.level;
      bestSpecificity = specificity;
      matched = true;
    }
  }
  return level;
}

void emit(const Record& record) {
  if (insideSink) return;
  Logger& state = logger();
  std::lock_guard<std::mutex> lock(state.sinkMutex);
  insideSink = true;
  for (const auto& entry : state.sinks) {
    try {
      entry.sink->write(record);
    } catch (...) {
      // A broken sink must not silence the others nor reach the caller.
    }
  }
  insideSink = false;
}

// One record, one line, and nothing that a terminal would act on: a message may carry a
// client's text, so its line breaks and tabs are written as \n, \r, \t and every other control
// byte (below 0x20, and 0x7F) as \xNN. A terminal escape sequence loses its ESC byte, and a
// client cannot start a line of its own that would pass for the host's.
void appendEscaped(std::string& line, const std::string& message) {
  static const char digits[] = "0123456789abcdef";
  for (char c : message) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      line += c;
    } else if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else if (c == '\t') {
      line += "\\t";
    } else {
      line += "\\x";
      line += digits[byte >> 4];
      line += digits[byte & 0xf];
    }
  }
}

std::string formatLine(const Record& record) {
  const auto seconds = std::chrono::system_clock::to_time_t(record.time);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(record.time.time_since_epoch())
          .count() %
      1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[48];
  const std::size_t length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(stamp + length, sizeof stamp - length, ".%03d", static_cast<int>(millis));

  std::string line = stamp;
  line += ' ';
  line += levelName(record.level);
  line += ' ';
  line += record.category;
  if (!record.function.empty()) {
    line += ' ';
    line += record.function;
  }
  line += ": ";
  appendEscaped(line, record.message);
  line += '\n';
  return line;
}

}  // namespace

CategoryType addCategory(const std::string& name) {
  Logger& state = logger();
  std::lock_guard<std::mutex> lock(state.categoryMutex);
  auto found = state.categories.find(name);
  if (found != state.categories.end()) return found->second;
  auto* category = new Category(name, levelUnderRules(state.rules, name));
  state.categories.emplace(name, category);
  return category;
}

void log(LogLevel level, CategoryType category, const std::string& message, const char* file,
         const char* function, int line) {
  try {
    if (!category || level <= silent || !category->isEnabled(level)) return;
    Record record{level, category->name(), function ? function : "",        file ? file : "",
                  line,  message,          std::chrono::system_clock::now()};
    emit(record);
  } catch (...) {
    // Logging never throws into the caller, not even when memory runs out.
  }
}

LogStream::LogStream(LogLevel level, const char* file, const char* function, int line,
                     CategoryType category)
    : level_(level), file_(file), function_(function), line_(line), category_(category) {}

LogStream::~LogStream() {
  try {
    log(level_, category_, stream_.str(), file_, function_, line_);
  } catch (...) {
  }
}

int addSink(std::shared_ptr<Sink> sink) {
  if (!sink) throw std::invalid_argument("ko::log::addSink: null sink");
  Logger& state = logger();
  std::lock_guard<std::mutex> lock(state.sinkMutex);
  const int id = state.nextSinkId++;
  state.sinks.push_back({id, std::move(sink)});
  return id;
}

void removeSink(int id) {
  std::shared_ptr<Sink> removed;  // released after the lock, in case its destructor logs
  Logger& state = logger();
  {
    std::lock_guard<std::mutex> lock(state.sinkMutex);
    for (auto it = state.sinks.begin(); it != state.sinks.end(); ++it) {
      if (it->id == id) {
        removed = std::move(it->sink);
        state.sinks.erase(it);
        break;
      }
    }
  }
}

void setLevels(const std::string& pattern) {
  std::vector<Rule> rules = parseRules(pattern);
  Logger& state = logger();
  std::lock_guard<std::mutex> lock(state.categoryMutex);
  state.rules = std::move(rules);
  for (auto& entry : state.categories) {
    entry.second->setLevel(levelUnderRules(state.rules, entry.first));
  }
}

bool setLevelsFromEnvironment() {
  const char* pattern = std::getenv("BEXKO_LOG_LEVEL");
  if (!pattern || trim(pattern).empty()) return true;
  try {
    setLevels(pattern);
    return true;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

LogLevel levelFor(const std::string& categoryName) {
  Logger& state = logger();
  std::lock_guard<std::mutex> lock(state.categoryMutex);
  return levelUnderRules(state.rules, categoryName);
}

LogLevel parseLevel(const std::string& text) {
  const std::string word = trim(text);
  if (word.size() == 1 && word[0] >= '0' && word[0] <= '6') {
    return static_cast<LogLevel>(word[0] - '0');
  }
  std::string lower;
  for (char c : word) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (int level = silent; level <= debug; ++level) {
    if (lower == levelName(static_cast<LogLevel>(level))) return static_cast<LogLevel>(level);
  }
  throw std::invalid_argument("unknown log level \"" + word +
                              "\" (expected silent, fatal, error, warning, info, verbose, debug "
                              "or 0-6)");
}

const char* levelName(LogLevel level) {
  switch (level) {
    case silent:
      return "silent";
    case fatal:
      return "fatal";
    case error:
      return "error";
    case warning:
      return "warning";
    case info:
      return "info";
    case verbose:
      return "verbose";
    case debug:
      return "debug";
  }
  return "unknown";
}

void ConsoleSink::write(const Record& record) {
  const std::string line = formatLine(record);
  // One fwrite per record so that lines of other writers to stderr do not interleave with it.
  std::fwrite(line.data(), 1, line.size(), stderr);
}

struct FileSink::Impl {
  std::FILE* file = nullptr;
};

FileSink::FileSink(const std::string& path) : impl_(std::make_unique<Impl>()) {
  impl_->file = std::fopen(path.c_str(), "a");
  if (!impl_->file) {
    throw std::runtime_error("cannot open log file " + path + ": " + std::strerror(errno));
  }
}

FileSink::~FileSink() {
  if (impl_ && impl_->file) std::fclose(impl_->file);
}

void FileSink::write(const Record& record) {
  const std::string line = formatLine(record);
  std::fwrite(line.data(), 1, line.size(), impl_->file);
  std::fflush(impl_->file);
}

struct CaptureSink::Impl {
  mutable std::mutex mutex;
  std::vector<Record> records;
};

CaptureSink::CaptureSink() : impl_(std::make_unique<Impl>()) {}
CaptureSink::~CaptureSink() = default;

void CaptureSink::write(const Record& record) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->records.push_back(record);
}

std::vector<Record> CaptureSink::records() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->records;
}

void CaptureSink::clear() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->records.clear();
}

}  // namespace log
}  // namespace ko
