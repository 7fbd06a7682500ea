#pragma once

// The speech service on the test host with the scripted engine backend, and the helpers its
// tests share.

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include <bexko/testing/scriptedbackend.h>
#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <zr/tts/voicesetting.h>
#include <zr/zrerror.h>
#include <zr/zrpreferencesproxy.h>
#include <zr/zrtexttospeech.h>

namespace bexko::testing {

using ::testing::ElementsAre;

inline const std::string kServiceCategory = "audio.zrtexttospeech.main";

/// Polls `condition` until it holds or `timeoutMs` passes.
inline bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return condition();
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

/// A package declaring `locales`, all served by the scripted backend.
inline ko::PackageInfo scriptedPackage(const std::string& identifier,
                                       const std::vector<std::string>& locales) {
  ko::PackageInfo package;
  package.setIdentifier(identifier);
  package.setName(identifier);
  package.setVersion("1.0");
  for (const std::string& locale : locales) package.addLanguage({locale, "tts_scripted"});
  return package;
}

/// Writes a voice-settings file as the engine library reads them.
inline void writeVoiceSettings(const std::string& path, const ZR::VoiceSetting& setting,
                               const std::string& name) {
  ZR::writePreferenceXml(path, ZR::formatVoicePreferences(setting, name));
}

/// The scripted backend serves "English" (voices Kenny, its default, and Sam) and "French"
/// (voice Julie); a package declares the `locales` (none: no package) and "ChosenLanguage" is
/// `chosenLanguage`. Derived fixtures change these in their constructor. SetUp starts the
/// service, keeps the events of the start-up apart, then clears them, its logs and its engine
/// calls.
class SpeechServiceTest : public ::testing::Test {
 protected:
  explicit SpeechServiceTest(TestHostOptions options = {}) : host(options) {
    backend.addVoice("Kenny", "English");
    backend.addVoice("Sam", "English");
    backend.addVoice("Julie", "French");
  }

  void SetUp() override {
    start();
    startupEvents = serviceEvents();
    host.clearEvents();
    host.clearLogs();
    backend.clearCalls();
  }
  void start() {
    if (!locales.empty()) host.addPackage(scriptedPackage("scripted", locales));
    if (!chosenLanguage.isEmpty()) {
      host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", chosenLanguage);
    }
    tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  }

  /// The service's events (or those of one key) raised since the start-up, as text without the
  /// service's prefix, `Status=[1, "done"]`, so that sequences compare and print well.
  std::vector<std::string> serviceEvents(const std::string& key = "ZRTextToSpeech/") const {
    std::vector<std::string> out;
    for (const RaisedEvent& event : host.events(key)) {
      out.push_back(event.key.substr(event.key.find('/') + 1) + "=" + event.value.toDebugString());
    }
    return out;
  }
  std::vector<std::string> statusEvents() const {
    return serviceEvents(ZR::ZRTextToSpeech::strStatusEvent);
  }
  /// The texts the service logged at `level` under `function`, in order.
  std::vector<std::string> logs(const std::string& function, ko::log::LogLevel level) const {
    std::vector<std::string> texts;
    for (const ko::log::Record& record : host.logRecords(kServiceCategory)) {
      if (record.function == function && record.level == level) texts.push_back(record.message);
    }
    return texts;
  }
  std::string configFile(const std::string& name) const { return host.configDir() + "/" + name; }
  /// The file in which setLanguageDefaultVoice keeps the default voice of `language`.
  std::string defaultVoiceFile(const std::string& language) const {
    return configFile("ZRTextToSpeech_DefaultVoice" + language + ".xml");
  }

  std::vector<std::string> locales{"en_US", "fr_FR"};
  ZR::ZRValue chosenLanguage{std::string("English")};

  // The backend outlives the host, whose shutdown releases the service and its engine.
  ScriptedBackend backend;
  TestHost host;
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
  std::vector<std::string> startupEvents;
};

}  // namespace bexko::testing
