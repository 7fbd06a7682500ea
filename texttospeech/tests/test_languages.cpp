// Languages: changing them, the language chosen at start-up and the forgiving change published
// as "_setDefaultLanguage".
#include <zr/zrtexttospeech.h>

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using LanguageChangeTest = SpeechServiceTest;

TEST_F(LanguageChangeTest, InstalledCheckIgnoresCaseAndTheCallersCaseGoesOn) {
  EXPECT_TRUE(tts->xIsLanguageInstalled("FRENCH"));
  EXPECT_TRUE(tts->xIsLanguageInstalled("french"));
  EXPECT_FALSE(tts->xIsLanguageInstalled("Frenc"));

  // The voice-setting lookup receives the name as the caller wrote it: only the file named
  // with the lower-case name is found.
  ZR::VoiceSetting lowerCase(ZR::VOICE, "Julie");
  lowerCase.parameters["pitchShift"] = 1.5f;
  writeVoiceSettings(defaultVoiceFile("french"), lowerCase, "ZRTextToSpeech_DefaultVoicefrench");
  tts->setLanguage("french");
  EXPECT_EQ(backend.calls("setCurrentLanguage").size(), 1u);
  EXPECT_EQ(tts->globalSetting(), lowerCase);
  EXPECT_EQ(tts->appliedSetting(), lowerCase);
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");

  tts->setLanguage("French");
  EXPECT_EQ(tts->globalSetting(), ZR::VoiceSetting(ZR::VOICE, "Julie"));
}

TEST_F(LanguageChangeTest, UnsupportedAndUninstalledLanguagesAreRefusedAndChangeNothing) {
  tts->setLanguage("French");
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  const std::string unsupported =
      "Klingon language is not supported: klingon language is not supported.";
  const std::string uninstalled = "German language is not installed.";
  EXPECT_EQ(errorOf([this] { tts->setLanguage("Klingon"); }),
            "ZRTextToSpeech.setLanguage: " + unsupported);
  EXPECT_EQ(errorOf([this] { tts->setLanguage("German"); }),
            "ZRTextToSpeech.setLanguage: " + uninstalled);
  EXPECT_THAT(logs("setLanguage", ko::log::error), ElementsAre(unsupported, uninstalled));
  EXPECT_THAT(logs("xFormatLanguage", ko::log::error),
              ElementsAre("klingon language is not supported."));
  EXPECT_EQ(tts->globalSetting(), before);
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "French");

  // The format check reports under setLanguage whichever operation asks, and keeps the case.
  EXPECT_EQ(errorOf([this] { tts->xFormatLanguage("Elvish"); }),
            "ZRTextToSpeech.setLanguage: elvish language is not supported.");
  EXPECT_EQ(tts->xFormatLanguage("fReNcH"), "fReNcH");
}

// Without a readable "ChosenLanguage" the start-up load sets the engine to English but loads no
// voice setting, so the service has no language of its own yet.
class UndefinedLanguageTest : public SpeechServiceTest {
 protected:
  UndefinedLanguageTest() { chosenLanguage = ZR::ZRValue(); }
};

TEST_F(UndefinedLanguageTest, GetLanguageAndLocaleRaiseAndTheDiagnosisNamesNone) {
  ASSERT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
  const std::string invalid = "ZRTextToSpeech.getLanguage(): Invalid default language";
  EXPECT_EQ(errorOf([this] { tts->getLanguage(); }), invalid);
  EXPECT_EQ(errorOf([this] { tts->locale(); }), invalid);
  host.clearLogs();
  tts->diagnosis();
  EXPECT_THAT(logs("diagnosis", ko::log::info), ::testing::Contains("- language : "));

  tts->setLanguage("English");
  EXPECT_EQ(tts->getLanguage(), "English");
}

// One start-up of the service: whether English is installed beside French and the
// "ChosenLanguage" read, then the error records of the load, one a line ("$error" stands for the
// error of reading the choice as a string), the engine's language (empty: not checked) and the
// requested setting.
struct Startup {
  std::string name;
  bool withEnglish;
  ZR::ZRValue chosen;
  std::string records, engineLanguage;
  ZR::VoiceSetting global;
  friend void PrintTo(const Startup& startup, std::ostream* os) { *os << startup.name; }
};

const std::string inEnglish = " ZRTextToSpeech will start in English then.";
const ZR::VoiceSetting julie(ZR::VOICE, "Julie"), kenny(ZR::VOICE, "Kenny"), none;

// The records of a choice that is supported but not installed: the check, then the whole
// buffer of the load, which repeats it and ends with `then`; then `next`, if any.
std::string notInstalled(const std::string& choice, const std::string& then,
                         const std::string& next = "") {
  const std::string check = choice + " language is not installed.";
  return check + "\n" + check + "Could not set default language " + choice + ": " + check + then +
         (next.empty() ? "" : "\n" + next);
}

const Startup startups[] = {
    {"InstalledChoice", true, "French", "", "French", julie},
    {"MissingChoice", true, ZR::ZRValue(), "Could not set default language English: $error ",
     "English", none},
    {"UninstalledChoice", true, "German", notInstalled("German", inEnglish), "English", kenny},
    {"UnsupportedChoice", true, "Klingon",
     "Could not set default language Klingon: klingon language is not supported." + inEnglish,
     "English", kenny},
    {"EmptyChoice", true, "", "No valid default language could be found." + inEnglish, "English",
     kenny},
    // "english" is not the fallback's name: English is tried once more, and is not installed.
    {"LowerCaseEnglishWithoutEnglish", false, "english",
     notInstalled("english", inEnglish, "English language is not installed."), "", none},
    // The fallback language is still requested of the engine, which refuses it.
    {"EnglishWithoutEnglish", false, "English",
     notInstalled("English", " ",
                  "Could not set language English: The language English is not installed"),
     "", none},
};

class StartupLanguageTest : public SpeechServiceTest,
                            public ::testing::WithParamInterface<Startup> {
 protected:
  StartupLanguageTest() {
    if (!GetParam().withEnglish) locales = {"fr_FR"};
    chosenLanguage = GetParam().chosen;
  }
  void SetUp() override { start(); }  // keeps the logs of the start-up

  std::string readingError() const try {
    return ZR::ZRPreferenceManagerProxy(host.broker())
        .getValue("com.veltra.robotwebpage", "ChosenLanguage")
        .toString();
  } catch (const ZR::ZRError& e) {
    return e.what();
  }
};

TEST_P(StartupLanguageTest, LogsTheLoadAndSetsTheLanguageAndTheRequestedSetting) {
  const std::string records = boost::replace_all_copy(GetParam().records, "$error", readingError());
  EXPECT_EQ(boost::join(logs("xLoadDefaultLanguage", ko::log::error), "\n"), records);
  if (!GetParam().engineLanguage.empty()) {
    EXPECT_EQ(tts->engine()->getCurrentLanguage(), GetParam().engineLanguage);
  }
  EXPECT_EQ(tts->globalSetting(), GetParam().global);
  // Whatever the start-up, the service serves the languages it has.
  tts->setLanguage("French");
  EXPECT_EQ(tts->getLanguage(), "French");
}

INSTANTIATE_TEST_SUITE_P(Choices, StartupLanguageTest, ::testing::ValuesIn(startups),
                         [](const auto& info) { return info.param.name; });

using SetDefaultLanguageTest = SpeechServiceTest;

TEST_F(SetDefaultLanguageTest, AppliesAnInstalledLanguageQuietlyAndOnlyWarnsAboutOthers) {
  int signals = 0;
  tts->languageTTS.connect([&signals](const std::string&) { ++signals; });
  const ZR::VoiceSetting before = tts->globalSetting();
  EXPECT_NO_THROW(tts->setDefaultLanguage("Klingon"));
  EXPECT_NO_THROW(tts->setDefaultLanguage("German"));
  EXPECT_THAT(logs("setDefaultLanguage", ko::log::warning),
              ElementsAre("The specified language (Klingon) is not valid: klingon language is not "
                          "supported.",
                          "German language is not installed."));
  EXPECT_EQ(tts->globalSetting(), before);

  tts->setDefaultLanguage("French");
  EXPECT_EQ(tts->globalSetting(), julie);
  EXPECT_EQ(tts->getVoice(), "Julie");
  EXPECT_EQ(signals, 0);
  // The robot's choice is left as it was.
  EXPECT_EQ(ZR::ZRPreferenceManagerProxy(host.broker())
                .getValue("com.veltra.robotwebpage", "ChosenLanguage")
                .toString(),
            "English");
}

}  // namespace
}  // namespace bexko::testing
