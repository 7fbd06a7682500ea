#pragma once

// A speech service on the test host with the scripted engine backend, for the tests of
// parameters, languages, voices, the default language, package changes and the method table.

#include <gmock/gmock.h>
#include <zr/tts/voicesetting.h>
#include <zr/zrerror.h>
#include <zr/zrpreferencesproxy.h>

#include "speechfixture.h"

namespace bexko::testing {

using ::testing::ElementsAre;

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

/// Writes a voice-settings file as the engine library reads them.
inline void writeVoiceSettings(const std::string& path, const ZR::VoiceSetting& setting,
                               const std::string& name) {
  ZR::writePreferenceXml(path, ZR::formatVoicePreferences(setting, name));
}

/// The message of the ZRError that `call` throws, after checking that the speech service raised
/// it from `method`; a failure, and an empty message, when `call` throws nothing.
inline std::string refusal(const std::function<void()>& call, const std::string& method) {
  try {
    call();
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
    EXPECT_EQ(e.methodName(), method);
    return e.what();
  }
  ADD_FAILURE() << "accepted";
  return "";
}

/// The scripted backend serves "English" (voices Kenny and Sam) and "French" (voice Julie);
/// a package declares the `locales` (both; none: no package), and "ChosenLanguage" is
/// "English". Derived fixtures change these in their constructor; SetUp starts the service.
class ScriptedServiceTest : public ::testing::Test {
 protected:
  explicit ScriptedServiceTest(TestHostOptions options = {}) : host(options) {
    backend.addVoice("Kenny", "English");
    backend.addVoice("Sam", "English");
    backend.addVoice("Julie", "French");
  }

  void SetUp() override {
    if (!locales.empty()) host.addPackage(scriptedPackage("scripted", locales));
    if (!chosenLanguage.isEmpty()) {
      host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", chosenLanguage);
    }
    tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  }

  std::string configFile(const std::string& name) const { return host.configDir() + "/" + name; }
  /// The file in which setLanguageDefaultVoice keeps the default voice of `language`.
  std::string defaultVoiceFile(const std::string& language) const {
    return configFile("ZRTextToSpeech_DefaultVoice" + language + ".xml");
  }
  /// The texts the service logged at `level` under `function`, in order.
  std::vector<std::string> logs(const std::string& function, ko::log::LogLevel level) const {
    return serviceLogTexts(host, function, level);
  }

  std::vector<std::string> locales{"en_US", "fr_FR"};
  ZR::ZRValue chosenLanguage{std::string("English")};

  // The backend outlives the host, whose shutdown destroys the service and its engine.
  ScriptedBackend backend;
  TestHost host;
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
};

}  // namespace bexko::testing
