#include <zr/zrtexttospeech.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settingsfixture.h"

namespace {

using bexko::testing::ScriptedServiceTest;
using bexko::testing::serviceLogs;

// The start-up load of the language, one fixture per configuration: which languages are
// installed and what "ChosenLanguage" holds when the service starts.
class StartupLanguageTest : public ScriptedServiceTest {
 protected:
  void SetUp() override {}  // each test chooses its configuration, then starts

  void start(std::vector<std::string> installed, ZR::ZRValue chosen) {
    locales = std::move(installed);
    chosenLanguage = std::move(chosen);
    ScriptedServiceTest::SetUp();
  }

  std::vector<std::string> loadRecords() const {
    return serviceLogs(host, "xLoadDefaultLanguage", ko::log::error);
  }
};

TEST_F(StartupLanguageTest, AnInstalledChoiceIsLoadedWithItsVoiceSetting) {
  start({"en_US", "fr_FR"}, std::string("French"));
  EXPECT_TRUE(loadRecords().empty());
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "French");
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Julie"));
  EXPECT_EQ(tts->getLanguage(), "French");
}

TEST_F(StartupLanguageTest, AMissingChoiceStartsInEnglishWithoutAVoiceSetting) {
  start({"en_US", "fr_FR"}, ZR::ZRValue());
  std::string missingKeyError;
  try {
    ZR::ZRPreferenceManagerProxy(host.broker())
        .getValue("com.veltra.robotwebpage", "ChosenLanguage");
  } catch (const ZR::ZRError& e) {
    missingKeyError = e.what();
  }
  ASSERT_FALSE(missingKeyError.empty());
  EXPECT_EQ(loadRecords(), std::vector<std::string>{
                               "Could not set default language English: " + missingKeyError + " "});
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "English");
  EXPECT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
}

TEST_F(StartupLanguageTest, AChoiceThatIsNotAStringIsTreatedAsMissing) {
  start({"en_US", "fr_FR"}, 3);
  ASSERT_EQ(loadRecords().size(), 1u);
  EXPECT_EQ(loadRecords()[0].rfind("Could not set default language English: ", 0), 0u);
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "English");
  EXPECT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
}

TEST_F(StartupLanguageTest, AnUninstalledChoiceFallsBackToEnglishRepeatingTheBuffer) {
  start({"en_US", "fr_FR"}, std::string("German"));
  const std::string first = "German language is not installed.";
  EXPECT_EQ(loadRecords(), (std::vector<std::string>{
                               first, first + "Could not set default language German: " + first +
                                          " ZRTextToSpeech will start in English then."}));
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "English");
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Kenny"));
}

TEST_F(StartupLanguageTest, AnUnsupportedChoiceFallsBackToEnglish) {
  start({"en_US", "fr_FR"}, std::string("Klingon"));
  EXPECT_EQ(loadRecords(), std::vector<std::string>{
                               "Could not set default language Klingon: klingon language is not "
                               "supported. ZRTextToSpeech will start in English then."});
  EXPECT_EQ(serviceLogs(host, "xFormatLanguage", ko::log::error),
            std::vector<std::string>{"klingon language is not supported."});
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Kenny"));
}

TEST_F(StartupLanguageTest, AnEmptyChoiceFindsNoLanguageAndLoadsEnglish) {
  start({"en_US", "fr_FR"}, std::string(""));
  EXPECT_EQ(loadRecords(),
            std::vector<std::string>{"No valid default language could be found. ZRTextToSpeech "
                                     "will start in English then."});
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "English");
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Kenny"));
}

TEST_F(StartupLanguageTest, ALowerCaseEnglishThatFailsGoesThroughTheFallback) {
  start({"fr_FR"}, std::string("english"));
  const std::string first = "english language is not installed.";
  EXPECT_EQ(loadRecords(),
            (std::vector<std::string>{first,
                                      first + "Could not set default language english: " + first +
                                          " ZRTextToSpeech will start in English then.",
                                      "English language is not installed."}));
  EXPECT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
}

TEST_F(StartupLanguageTest, WithoutEnglishAnUninstalledChoiceLeavesTheSettingUnchanged) {
  start({"fr_FR"}, std::string("German"));
  const std::vector<std::string> records = loadRecords();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[2], "English language is not installed.");
  EXPECT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
}

TEST_F(StartupLanguageTest, AFailingEnglishChoiceIsStillRequestedOfTheEngine) {
  start({"fr_FR"}, std::string("English"));
  const std::string first = "English language is not installed.";
  const std::vector<std::string> records = loadRecords();
  ASSERT_GE(records.size(), 2u);
  EXPECT_EQ(records[0], first);
  EXPECT_EQ(records[1], first + "Could not set default language English: " + first + " ");
  EXPECT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
  // The service is up and serves the languages it has.
  tts->setLanguage("French");
  EXPECT_EQ(tts->getLanguage(), "French");
}

class SetDefaultLanguageTest : public ScriptedServiceTest {};

TEST_F(SetDefaultLanguageTest, AppliesTheLanguagesSettingWithoutSignalOrPreference) {
  int signals = 0;
  tts->languageTTS.connect([&signals](const std::string&) { ++signals; });
  tts->setDefaultLanguage("French");
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Julie"));
  EXPECT_TRUE(tts->appliedSetting() == tts->globalSetting());
  EXPECT_EQ(tts->getVoice(), "Julie");
  EXPECT_EQ(signals, 0);
  EXPECT_EQ(ZR::ZRPreferenceManagerProxy(host.broker())
                .getValue("com.veltra.robotwebpage", "ChosenLanguage")
                .toString(),
            "English");
}

TEST_F(SetDefaultLanguageTest, BadLanguagesAreWarnedAboutAndChangeNothing) {
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  EXPECT_NO_THROW(tts->setDefaultLanguage("Klingon"));
  EXPECT_NO_THROW(tts->setDefaultLanguage("German"));
  EXPECT_EQ(serviceLogs(host, "setDefaultLanguage", ko::log::warning),
            (std::vector<std::string>{
                "The specified language (Klingon) is not valid: klingon language is not "
                "supported.",
                "German language is not installed."}));
  EXPECT_TRUE(tts->globalSetting() == before);
}

}  // namespace
