#pragma once

// Helpers shared by the runtime's tests, and the library headers they all use: environment
// changes undone after the test, folders of their own under the test root, threads held at a
// known point, and error capture.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ko/log.h>
#include <zr/zrvalue.h>

namespace bexko::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using ::testing::Contains;
using ::testing::HasSubstr;
using ZR::ZRError;
using ZR::ZRValue;
using Array = ZR::ZRValue::Array;

constexpr auto longWait = std::chrono::seconds(20);
constexpr int longWaitMs = 20000;

/// Sets or unsets (no `value`) environment variables for one test and restores them after it.
class EnvGuard {
 public:
  EnvGuard() = default;
  EnvGuard(const EnvGuard&) = delete;
  EnvGuard& operator=(const EnvGuard&) = delete;
  ~EnvGuard() {
    for (const auto& [name, value] : saved_) set(name, value);
  }
  void set(const std::string& name, const std::optional<std::string>& value) {
    const char* old = std::getenv(name.c_str());
    if (!saved_.count(name)) saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }
  void unset(const std::string& name) { set(name, std::nullopt); }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

/// An empty folder `<test root>/<area>/<test name>`, emptied again by a repeated run.
inline std::filesystem::path freshFolder(const std::string& area) {
  const char* root = std::getenv("BEXKO_TEST_ROOT");
  EXPECT_NE(root, nullptr);
  const auto folder = std::filesystem::path(root ? root : "/nonexistent") / area /
                      ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  return folder;
}

/// Holds the threads that call wait() until open() is called.
class Gate {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  /// Waits until `count` threads have reached wait(); false after a long time.
  bool waitForWaiting(int count = 1) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, longWait, [&] { return waiting_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

/// Items recorded from several threads, in the order they arrive.
template <typename T = int>
class Recorder {
 public:
  void add(const T& item) {
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.push_back(item);
    added_.notify_all();
  }
  /// Waits until at least `count` items have arrived; false after `msecs`.
  bool waitForCount(std::size_t count, int msecs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return added_.wait_for(lock, std::chrono::milliseconds(msecs),
                           [&] { return seen_.size() >= count; });
  }
  std::vector<T> seen() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable added_;
  std::vector<T> seen_;
};

/// The exception of type `Error` that `action` throws; the test fails when it throws none.
template <typename Error = ZR::ZRError, typename Action>
Error errorOf(Action action) {
  try {
    action();
  } catch (const Error& e) {
    return e;
  }
  throw std::logic_error("no exception thrown");
}

/// Matches a log record of `level` in `category` whose text contains `fragment`.
inline auto logRecord(ko::log::LogLevel level, const std::string& category,
                      const std::string& fragment) {
  using ko::log::Record;
  return ::testing::AllOf(::testing::Field(&Record::level, level),
                          ::testing::Field(&Record::category, category),
                          ::testing::Field(&Record::message, HasSubstr(fragment)));
}

}  // namespace bexko::test
