#pragma once

// A speech service on the test host with the scripted engine backend, for the tests of
// parameters, languages, voices, the default language, package changes and the method table.

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>
#include <boost/shared_ptr.hpp>

#include <bexko/testing/scriptedbackend.h>
#include <bexko/testing/testhost.h>
#include <ko/log.h>
#include <ko/packageinfo.h>
#include <zr/tts/voicesetting.h>
#include <zr/zrmodule.h>
#include <zr/zrpreferencesproxy.h>
#include <zr/zrtexttospeech.h>

namespace bexko {
namespace testing {

/// A package declaring `locales`, all served by the scripted backend.
inline ko::PackageInfo scriptedPackage(const std::string& identifier,
                                       const std::vector<std::string>& locales) {
  ko::PackageInfo package;
  package.setIdentifier(identifier);
  package.setName(identifier);
  package.setVersion("1.0");
  for (const std::string& locale : locales) {
    package.addLanguage(ko::LanguageInfo(locale, "tts_scripted"));
  }
  return package;
}

/// Polls `condition` until it holds or `timeoutMs` passes.
inline bool eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

/// The texts of the records logged by the speech service under `function`, in order.
inline std::vector<std::string> serviceLogs(const TestHost& host, const std::string& function,
                                            ko::log::LogLevel level) {
  std::vector<std::string> texts;
  for (const ko::log::Record& record : host.logRecords("audio.zrtexttospeech.main")) {
    if (record.function == function && record.level == level) texts.push_back(record.message);
  }
  return texts;
}

/// Writes a voice-settings file as the engine library reads them.
inline void writeVoiceSettings(const std::string& path, const ZR::VoiceSetting& setting,
                               const std::string& name) {
  ZR::writePreferenceXml(path, ZR::formatVoicePreferences(setting, name));
}

/// The scripted backend serves "English" (voices Kenny and Sam) and "French" (voice Julie);
/// a package declares both, and "ChosenLanguage" is "English". Derived fixtures change the set-up
/// in their constructor before SetUp starts the service.
class ScriptedServiceTest : public ::testing::Test {
 protected:
  ScriptedServiceTest() {
    backend.addVoice("Kenny", "English");
    backend.addVoice("Sam", "English");
    backend.addVoice("Julie", "French");
  }

  void SetUp() override {
    if (installPackage) host.addPackage(scriptedPackage("scripted", locales));
    if (!chosenLanguage.isEmpty()) {
      host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", chosenLanguage);
    }
    startService();
  }

  void startService() { tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker()); }

  std::string configFile(const std::string& name) const { return host.configDir() + "/" + name; }

  std::vector<std::string> locales{"en_US", "fr_FR"};
  bool installPackage = true;
  ZR::ZRValue chosenLanguage{std::string("English")};

  // The backend outlives the host, whose shutdown destroys the service and its engine.
  ScriptedBackend backend;
  TestHost host;
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
};

}  // namespace testing
}  // namespace bexko
