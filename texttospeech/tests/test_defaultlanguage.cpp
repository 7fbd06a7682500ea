#include <zr/zrtexttospeech.h>

#include <boost/algorithm/string/replace.hpp>

#include "settingsfixture.h"

namespace bexko::testing {
namespace {

// One start-up of the service: whether English is installed beside French and the
// "ChosenLanguage" read, then the error records of the load ("$error" stands for the error of
// reading the choice as a string), the engine's language (empty: not checked) and the
// requested setting.
struct Startup {
  std::string name;
  bool withEnglish;
  ZR::ZRValue chosen;
  std::vector<std::string> records;
  std::string engineLanguage;
  ZR::VoiceSetting global;
};

Startup startup(std::string name, bool withEnglish, ZR::ZRValue chosen,
                std::vector<std::string> records, std::string engineLanguage,
                ZR::VoiceSetting global) {
  return {name, withEnglish, chosen, records, engineLanguage, global};
}

const std::string inEnglish = " ZRTextToSpeech will start in English then.";
const std::string unreadable = "Could not set default language English: $error ";
const std::string noEnglish = "English language is not installed.";
const ZR::VoiceSetting julie(ZR::VOICE, "Julie"), kenny(ZR::VOICE, "Kenny"), none;

// The records of a choice that is supported but not installed: the check, then the whole
// buffer of the load, which repeats it and ends with `then`; then `next`, if any.
std::vector<std::string> notInstalled(const std::string& choice, const std::string& then,
                                      const std::string& next = "") {
  const std::string check = choice + " language is not installed.";
  std::vector<std::string> records = {
      check, check + "Could not set default language " + choice + ": " + check + then};
  if (!next.empty()) records.push_back(next);
  return records;
}

const std::vector<Startup> startups = {
    startup("InstalledChoice", true, "French", {}, "French", julie),
    startup("MissingChoice", true, {}, {unreadable}, "English", none),
    startup("ChoiceNotAString", true, 3, {unreadable}, "English", none),
    startup("UninstalledChoice", true, "German", notInstalled("German", inEnglish), "English",
            kenny),
    startup(
        "UnsupportedChoice", true, "Klingon",
        {"Could not set default language Klingon: klingon language is not supported." + inEnglish},
        "English", kenny),
    startup("EmptyChoice", true, "", {"No valid default language could be found." + inEnglish},
            "English", kenny),
    startup("LowerCaseEnglishWithoutEnglish", false, "english",
            notInstalled("english", inEnglish, noEnglish), "", none),
    startup("UninstalledChoiceWithoutEnglish", false, "German",
            notInstalled("German", inEnglish, noEnglish), "", none),
    // The fallback language is still requested of the engine, which refuses it.
    startup("EnglishWithoutEnglish", false, "English",
            notInstalled("English", " ",
                         "Could not set language English: The language English is not installed"),
            "", none),
};

class StartupLanguageTest : public ScriptedServiceTest,
                            public ::testing::WithParamInterface<Startup> {
 protected:
  StartupLanguageTest() {
    if (!GetParam().withEnglish) locales = {"fr_FR"};
    chosenLanguage = GetParam().chosen;
  }

  std::string readingError() const try {
    return ZR::ZRPreferenceManagerProxy(host.broker())
        .getValue("com.veltra.robotwebpage", "ChosenLanguage")
        .toString();
  } catch (const ZR::ZRError& e) {
    return e.what();
  }
};

TEST_P(StartupLanguageTest, LogsTheLoadAndSetsTheLanguageAndTheRequestedSetting) {
  std::vector<std::string> records = GetParam().records;
  for (std::string& record : records) boost::replace_all(record, "$error", readingError());
  EXPECT_EQ(logs("xLoadDefaultLanguage", ko::log::error), records);
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

class SetDefaultLanguageTest : public ScriptedServiceTest {};

TEST_F(SetDefaultLanguageTest, AppliesAnInstalledLanguageQuietlyAndOnlyWarnsAboutOthers) {
  int signals = 0;
  tts->languageTTS.connect([&signals](const std::string&) { ++signals; });
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  EXPECT_NO_THROW(tts->setDefaultLanguage("Klingon"));
  EXPECT_NO_THROW(tts->setDefaultLanguage("German"));
  EXPECT_THAT(logs("setDefaultLanguage", ko::log::warning),
              ElementsAre("The specified language (Klingon) is not valid: klingon language is not "
                          "supported.",
                          "German language is not installed."));
  EXPECT_EQ(tts->globalSetting(), before);

  tts->setDefaultLanguage("French");
  EXPECT_EQ(tts->globalSetting(), julie);
  EXPECT_EQ(tts->appliedSetting(), julie);
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
