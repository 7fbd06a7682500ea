// A test host with the fake "sndfile-play" (tests/support/fakeplayer) first on PATH, and the
// helpers that read what the fake recorded.
#pragma once

#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <zr/zraudioplayerdesktop.h>

namespace bexko {
namespace testing {

/// Gives tests access to the player's bookkeeping.
class PlayerUnderTest : public ZR::ZRAudioPlayerDesktop {
 public:
  using ZR::ZRAudioPlayerDesktop::lastTaskId;
  using ZR::ZRAudioPlayerDesktop::playerPath;
  using ZR::ZRAudioPlayerDesktop::ZRAudioPlayerDesktop;
};

/// Polls `done` every 10 ms until it holds or `timeoutMs` passes; returns its last value.
inline bool eventually(const std::function<bool()>& done, int timeoutMs = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return done();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

inline std::vector<std::string> readLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The process state letter of /proc/<pid>/status, or 0 when the process is gone.
inline char processState(int pid) {
  for (const std::string& line : readLines("/proc/" + std::to_string(pid) + "/status")) {
    if (line.rfind("State:", 0) == 0) {
      const auto letter = line.find_first_not_of(" \t", 6);
      return letter == std::string::npos ? '?' : line[letter];
    }
  }
  return 0;
}

class FakePlayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* path = std::getenv("PATH");
    savedPath_ = path ? path : "";
    setenv("PATH", (std::string(BEXKO_FAKE_PLAYER_DIR) + ":" + savedPath_).c_str(), 1);
    logDir_ = host_.root() + "/player-log";
    soundDir_ = host_.root() + "/sounds";
    boost::filesystem::create_directories(logDir_);
    boost::filesystem::create_directories(soundDir_);
    setenv("FAKE_PLAYER_LOG", logDir_.c_str(), 1);
    unsetenv("FAKE_PLAYER_SECONDS");
    unsetenv("FAKE_PLAYER_EXIT");
  }

  void TearDown() override {
    // Every player this test started has been waited for: none is left as a zombie.
    for (int pid : playerPids()) {
      EXPECT_NE(processState(pid), 'Z') << "player " << pid << " left as a zombie";
    }
    int status = 0;
    errno = 0;
    EXPECT_EQ(::waitpid(-1, &status, WNOHANG), -1) << "a child process is left";
    EXPECT_EQ(errno, ECHILD);
    setenv("PATH", savedPath_.c_str(), 1);
    unsetenv("FAKE_PLAYER_LOG");
    unsetenv("FAKE_PLAYER_SECONDS");
    unsetenv("FAKE_PLAYER_EXIT");
  }

  /// Creates the player module on the host's broker (the fake player must be on PATH).
  boost::shared_ptr<PlayerUnderTest> createPlayer() {
    return ZR::ZRModule::createModule<PlayerUnderTest>(host_.broker());
  }

  /// Creates an (empty) file in the sounds folder and returns its path.
  std::string soundFile(const std::string& name) {
    const std::string path = soundDir_ + "/" + name;
    std::ofstream{path};
    return path;
  }

  /// Process ids of the fake's runs, in start order.
  std::vector<int> playerPids() const {
    std::vector<int> pids;
    for (const std::string& line : readLines(logDir_ + "/calls")) {
      pids.push_back(std::stoi(line));
    }
    return pids;
  }
  std::vector<std::string> argumentsOf(int pid) const {
    return readLines(logDir_ + "/" + std::to_string(pid) + ".args");
  }
  bool endedBySignal15(int pid) const {
    const auto lines = readLines(logDir_ + "/" + std::to_string(pid) + ".signal");
    return lines.size() == 1 && lines[0] == "15";
  }
  bool waitForRuns(std::size_t count) const {
    return eventually([&] { return playerPids().size() >= count; });
  }

  /// True when a record of exactly this category, level, function and text was emitted.
  bool hasRecord(const std::string& category, ko::log::LogLevel level, const std::string& function,
                 const std::string& text) const {
    for (const auto& record : host_.logRecords(category)) {
      if (record.level == level && record.function == function && record.message == text) {
        return true;
      }
    }
    return false;
  }

  TestHost host_;
  std::string savedPath_;
  std::string logDir_;
  std::string soundDir_;
};

}  // namespace testing
}  // namespace bexko
