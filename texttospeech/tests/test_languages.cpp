#include <zr/zrtexttospeech.h>

#include "settingsfixture.h"

namespace bexko::testing {
namespace {

class LanguageChangeTest : public ScriptedServiceTest {};

TEST_F(LanguageChangeTest, InstalledCheckIgnoresCaseAndTheCallersCaseGoesOn) {
  EXPECT_TRUE(tts->xIsLanguageInstalled("FRENCH"));
  EXPECT_TRUE(tts->xIsLanguageInstalled("french"));
  EXPECT_FALSE(tts->xIsLanguageInstalled("Frenc"));

  // The voice-setting lookup receives the name as the caller wrote it: only the file named
  // with the lower-case name is found.
  ZR::VoiceSetting lowerCase(ZR::VOICE, "Julie");
  lowerCase.parameters["pitchShift"] = 1.5f;
  writeVoiceSettings(defaultVoiceFile("french"), lowerCase, "ZRTextToSpeech_DefaultVoicefrench");
  std::vector<std::string> locales;
  tts->languageTTS.connect([&locales](const std::string& locale) { locales.push_back(locale); });
  backend.clearCalls();
  tts->setLanguage("french");
  EXPECT_EQ(backend.calls("setCurrentLanguage").size(), 1u);
  EXPECT_EQ(tts->globalSetting(), lowerCase);
  EXPECT_EQ(tts->appliedSetting(), lowerCase);
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");

  tts->setLanguage("French");
  EXPECT_EQ(tts->globalSetting(), ZR::VoiceSetting(ZR::VOICE, "Julie"));
  tts->setLanguage("English");
  EXPECT_THAT(locales, ElementsAre("fr_FR", "fr_FR", "en_US"));
}

TEST_F(LanguageChangeTest, UnsupportedAndUninstalledLanguagesAreRefusedAndChangeNothing) {
  tts->setLanguage("French");
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  const std::string unsupported =
      "Klingon language is not supported: klingon language is not supported.";
  const std::string uninstalled = "German language is not installed.";
  EXPECT_EQ(refusal([this] { tts->setLanguage("Klingon"); }, "setLanguage"), unsupported);
  EXPECT_EQ(refusal([this] { tts->setLanguage("German"); }, "setLanguage"), uninstalled);
  EXPECT_THAT(logs("setLanguage", ko::log::error), ElementsAre(unsupported, uninstalled));
  EXPECT_THAT(logs("xFormatLanguage", ko::log::error),
              ElementsAre("klingon language is not supported."));
  EXPECT_EQ(tts->globalSetting(), before);
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "French");

  // The format check reports under setLanguage whichever operation asks, and keeps the case.
  EXPECT_EQ(refusal([this] { tts->xFormatLanguage("Elvish"); }, "setLanguage"),
            "elvish language is not supported.");
  EXPECT_EQ(tts->xFormatLanguage("fReNcH"), "fReNcH");
}

TEST_F(LanguageChangeTest, GetLanguageFollowsAVoiceChange) {
  tts->setVoice("Julie");
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");
}

TEST_F(LanguageChangeTest, InstalledAndSupportedLists) {
  EXPECT_THAT(tts->getAvailableLanguages(), ::testing::UnorderedElementsAre("English", "French"));
  host.clearLogs();
  tts->getSupportedLanguages();
  EXPECT_THAT(tts->getSupportedLanguages(),
              ::testing::IsSupersetOf({"English", "French", "German"}));
  EXPECT_EQ(logs("getSupportedLanguages", ko::log::warning),
            std::vector<std::string>(2, "Method getSupportedLanguages is deprecated."));
}

// Without a readable "ChosenLanguage" the start-up load sets the engine to English but loads no
// voice setting, so the service has no language of its own yet.
class UndefinedLanguageTest : public ScriptedServiceTest {
 protected:
  UndefinedLanguageTest() { chosenLanguage = ZR::ZRValue(); }
};

TEST_F(UndefinedLanguageTest, GetLanguageAndLocaleRaiseAndTheDiagnosisNamesNone) {
  ASSERT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
  EXPECT_EQ(refusal([this] { tts->getLanguage(); }, "getLanguage()"), "Invalid default language");
  EXPECT_EQ(refusal([this] { tts->locale(); }, "getLanguage()"), "Invalid default language");
  host.clearLogs();
  tts->diagnosis();
  const std::vector<std::string> lines = logs("diagnosis", ko::log::info);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[2], "- language : ");

  tts->setLanguage("English");
  EXPECT_EQ(tts->getLanguage(), "English");
}

}  // namespace
}  // namespace bexko::testing
