#pragma once

// A speech service on the test host, speaking English through the scripted engine backend,
// for the tests of start-up, speech tasks, engine events, bookmarks and stress.

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/shared_ptr.hpp>

#include <bexko/testing/scriptedbackend.h>
#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <ko/packageinfo.h>
#include <zr/zrmodule.h>
#include <zr/zrtexttospeech.h>
#include <zr/zrvalue.h>

namespace bexko {
namespace testing {

inline const std::string kServiceCategory = "audio.zrtexttospeech.main";

/// The package that declares English for the scripted backend.
inline ko::PackageInfo scriptedEnglishPackage() {
  ko::PackageInfo package;
  package.setIdentifier("scripted-en");
  package.setName("Scripted English");
  package.setVersion("1.0");
  package.addLanguage(ko::LanguageInfo("en_US", "tts_scripted"));
  return package;
}

/// A raised event as text, "Status=[1, \"done\"]", so that sequences compare and print well.
inline std::string describe(const RaisedEvent& event) {
  const std::string prefix = "ZRTextToSpeech/";
  std::string key = event.key;
  if (key.compare(0, prefix.size(), prefix) == 0) key = key.substr(prefix.size());
  return key + "=" + event.value.toDebugString();
}

inline std::vector<std::string> describe(const std::vector<RaisedEvent>& events) {
  std::vector<std::string> out;
  for (const RaisedEvent& event : events) out.push_back(describe(event));
  return out;
}

/// "Status=[id, \"word\"]" as describe writes it.
inline std::string statusText(int id, const std::string& word) {
  return "Status=" + ZR::ZRValue::array<int, std::string>(id, word).toDebugString();
}

inline std::string eventText(const std::string& name, const ZR::ZRValue& value) {
  return name + "=" + value.toDebugString();
}

/// Polls `condition` until it holds or `timeoutMs` passes.
inline bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// The texts the service logged at `level` under `function`, in order.
inline std::vector<std::string> serviceLogTexts(const TestHost& host, const std::string& function,
                                                ko::log::LogLevel level) {
  std::vector<std::string> texts;
  for (const ko::log::Record& record : host.logRecords(kServiceCategory)) {
    if (record.function == function && record.level == level) texts.push_back(record.message);
  }
  return texts;
}

/// Bytes of `ms` milliseconds of audio in the host's default format (22050 Hz, 2 channels,
/// 16-bit), rounded up so that the conversion back gives `ms`.
inline unsigned int bytesForMs(unsigned int ms) {
  const unsigned long long bytesPerSecond = 22050ULL * 2 * 2;
  return static_cast<unsigned int>((ms * bytesPerSecond + 999) / 1000);
}

/// The service started on the test host with English chosen and served by the scripted
/// backend; the events and logs of the start-up are kept apart and then cleared.
class SpeechServiceTest : public ::testing::Test {
 protected:
  SpeechServiceTest() { backend.addVoice("Kenny", "English"); }

  void SetUp() override {
    host.addPackage(scriptedEnglishPackage());
    host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
    tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
    startupEvents = host.events();
    host.clearEvents();
    host.clearLogs();
  }

  /// The service's events raised since the start-up, described.
  std::vector<std::string> serviceEvents() const {
    return describe(host.events("ZRTextToSpeech/"));
  }
  std::vector<std::string> statusEvents() const {
    return describe(host.events(ZR::ZRTextToSpeech::strStatusEvent));
  }

  // The backend outlives the host, whose shutdown releases the service and its engine.
  ScriptedBackend backend;
  TestHost host;
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
  std::vector<RaisedEvent> startupEvents;
};

/// Runs `body` on a thread of its own; joins it on destruction.
class BackgroundCall {
 public:
  explicit BackgroundCall(std::function<void()> body)
      : thread_([this, body] {
          try {
            body();
          } catch (const std::exception& e) {
            error_ = e.what();
          }
          done_ = true;
        }) {}
  ~BackgroundCall() { join(); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  bool joinWithin(int timeoutMs) {
    const bool finished = eventually([this] { return done_.load(); }, timeoutMs);
    if (finished) join();
    return finished;
  }
  const std::string& error() const { return error_; }

 private:
  std::atomic<bool> done_{false};
  std::string error_;
  std::thread thread_;
};

}  // namespace testing
}  // namespace bexko
