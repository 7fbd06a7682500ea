#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settingsfixture.h"

namespace {

using bexko::testing::ScriptedServiceTest;
using bexko::testing::serviceLogs;

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

class LanguageChangeTest : public ScriptedServiceTest {};

TEST_F(LanguageChangeTest, InstalledCheckIgnoresCaseAndTheCallersCaseGoesOn) {
  EXPECT_TRUE(tts->xIsLanguageInstalled("FRENCH"));
  EXPECT_TRUE(tts->xIsLanguageInstalled("french"));
  EXPECT_FALSE(tts->xIsLanguageInstalled("Frenc"));

  // The voice-setting lookup receives the name as the caller wrote it: only the file named
  // with the lower-case name is found.
  ZR::VoiceSetting lowerCase(ZR::VOICE, "Julie");
  lowerCase.parameters["pitchShift"] = 1.5f;
  bexko::testing::writeVoiceSettings(configFile("ZRTextToSpeech_DefaultVoicefrench.xml"), lowerCase,
                                     "ZRTextToSpeech_DefaultVoicefrench");
  std::vector<std::string> locales;
  tts->languageTTS.connect([&locales](const std::string& locale) { locales.push_back(locale); });
  backend.clearCalls();
  tts->setLanguage("french");

  const auto calls = backend.calls("setCurrentLanguage");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_TRUE(tts->globalSetting() == lowerCase);
  EXPECT_TRUE(tts->appliedSetting() == tts->globalSetting());
  EXPECT_EQ(locales, std::vector<std::string>{"fr_FR"});
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");

  tts->setLanguage("French");
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Julie"));
}

TEST_F(LanguageChangeTest, LanguageTTSCarriesTheLocaleOfEachChange) {
  std::vector<std::string> locales;
  tts->languageTTS.connect([&locales](const std::string& locale) { locales.push_back(locale); });
  tts->setLanguage("French");
  tts->setLanguage("English");
  EXPECT_EQ(locales, (std::vector<std::string>{"fr_FR", "en_US"}));
}

TEST_F(LanguageChangeTest, UnsupportedNameIsRefusedWithTheWrappedMessage) {
  host.clearLogs();
  try {
    tts->setLanguage("Klingon");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()),
              "Klingon language is not supported: klingon language is not supported.");
    EXPECT_EQ(e.methodName(), "setLanguage");
    EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
  }
  EXPECT_EQ(serviceLogs(host, "xFormatLanguage", ko::log::error),
            std::vector<std::string>{"klingon language is not supported."});
  EXPECT_EQ(serviceLogs(host, "setLanguage", ko::log::error),
            std::vector<std::string>{
                "Klingon language is not supported: klingon language is not supported."});
}

TEST_F(LanguageChangeTest, FormatCheckReportsUnderSetLanguageWhoeverAsks) {
  try {
    tts->xFormatLanguage("Elvish");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
    EXPECT_EQ(e.methodName(), "setLanguage");
    EXPECT_EQ(std::string(e.what()), "elvish language is not supported.");
  }
  EXPECT_EQ(tts->xFormatLanguage("fReNcH"), "fReNcH");
}

TEST_F(LanguageChangeTest, SupportedButNotInstalledLeavesTheLanguageUnchanged) {
  tts->setLanguage("French");
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  try {
    tts->setLanguage("German");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()), "German language is not installed.");
    EXPECT_EQ(e.methodName(), "setLanguage");
  }
  EXPECT_EQ(serviceLogs(host, "setLanguage", ko::log::error),
            std::vector<std::string>{"German language is not installed."});
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_TRUE(tts->globalSetting() == before);
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "French");
}

TEST_F(LanguageChangeTest, GetLanguageFollowsAVoiceChange) {
  tts->setVoice("Julie");
  EXPECT_EQ(tts->globalSetting().value, "Julie");
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");
}

TEST_F(LanguageChangeTest, InstalledAndSupportedLists) {
  EXPECT_EQ(tts->getAvailableLanguages(), tts->engine()->getAvailableLanguages());
  EXPECT_TRUE(contains(tts->getAvailableLanguages(), "English"));
  EXPECT_TRUE(contains(tts->getAvailableLanguages(), "French"));
  EXPECT_FALSE(contains(tts->getAvailableLanguages(), "German"));

  host.clearLogs();
  const std::vector<std::string> supported = tts->getSupportedLanguages();
  tts->getSupportedLanguages();
  EXPECT_TRUE(contains(supported, "German"));
  EXPECT_TRUE(contains(supported, "English"));
  EXPECT_EQ(serviceLogs(host, "getSupportedLanguages", ko::log::warning),
            std::vector<std::string>(2, "Method getSupportedLanguages is deprecated."));
}

// Without a readable "ChosenLanguage" the start-up load sets the engine to English but loads no
// voice setting, so the service has no language of its own yet.
class UndefinedLanguageTest : public ScriptedServiceTest {
 protected:
  UndefinedLanguageTest() { chosenLanguage = ZR::ZRValue(); }
};

TEST_F(UndefinedLanguageTest, GetLanguageAndLocaleRaiseInvalidDefaultLanguage) {
  ASSERT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
  for (int i = 0; i < 2; ++i) {
    try {
      if (i == 0) {
        tts->getLanguage();
      } else {
        tts->locale();
      }
      FAIL() << "no error";
    } catch (const ZR::ZRError& e) {
      EXPECT_EQ(std::string(e.what()), "Invalid default language");
      EXPECT_EQ(e.methodName(), "getLanguage()");
    }
  }
  tts->setLanguage("English");
  EXPECT_EQ(tts->getLanguage(), "English");
}

}  // namespace
