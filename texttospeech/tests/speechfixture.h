#pragma once

// A speech service on the test host, speaking English through the scripted engine backend,
// for the tests of start-up, speech tasks, engine events, bookmarks and stress.

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include <bexko/testing/scriptedbackend.h>
#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <zr/zrerror.h>
#include <zr/zrtexttospeech.h>

namespace bexko::testing {

inline const std::string kServiceCategory = "audio.zrtexttospeech.main";

/// Raised events as text without the service's prefix, `Status=[1, "done"]`, so that sequences
/// compare and print well.
inline std::vector<std::string> describe(const std::vector<RaisedEvent>& events) {
  std::vector<std::string> out;
  for (const RaisedEvent& event : events) {
    out.push_back(event.key.substr(event.key.find('/') + 1) + "=" + event.value.toDebugString());
  }
  return out;
}

/// Polls `condition` until it holds or `timeoutMs` passes.
inline bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
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
  return static_cast<unsigned int>((ms * 88200ULL + 999) / 1000);
}

/// What `call` throws, as "module.method: description"; empty when it throws nothing.
inline std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const ZR::ZRError& e) {
    return e.moduleName() + "." + e.methodName() + ": " + e.description();
  }
  return "";
}

/// The service started on the test host with English chosen and served by the scripted
/// backend; the events of the start-up are kept apart, then they and its logs are cleared.
class SpeechServiceTest : public ::testing::Test {
 protected:
  SpeechServiceTest() { backend.addVoice("Kenny", "English"); }

  void SetUp() override {
    ko::PackageInfo package;
    package.setIdentifier("scripted-en");
    package.setName("Scripted English");
    package.setVersion("1.0");
    package.addLanguage(ko::LanguageInfo("en_US", "tts_scripted"));
    host.addPackage(package);
    host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
    tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
    startupEvents = describe(host.events("ZRTextToSpeech/"));
    host.clearEvents();
    host.clearLogs();
  }

  /// The service's events (or those of one key) raised since the start-up, described.
  std::vector<std::string> serviceEvents(const std::string& key = "ZRTextToSpeech/") const {
    return describe(host.events(key));
  }
  std::vector<std::string> statusEvents() const {
    return serviceEvents(ZR::ZRTextToSpeech::strStatusEvent);
  }

  // The backend outlives the host, whose shutdown releases the service and its engine.
  ScriptedBackend backend;
  TestHost host;
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
  std::vector<std::string> startupEvents;
};

}  // namespace bexko::testing
