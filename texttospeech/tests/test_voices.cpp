#include <zr/zrtexttospeech.h>

#include <fstream>

#include <boost/filesystem.hpp>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ::testing::StartsWith;
namespace fs = boost::filesystem;

const char* const officialFrench = "ZRTextToSpeech_Voice_BexOfficialVoiceFrench.xml";

using DefaultVoiceFileTest = SpeechServiceTest;

TEST_F(DefaultVoiceFileTest, WrittenBySetLanguageDefaultVoiceAndUsedByTheNextSetLanguage) {
  const std::string file = defaultVoiceFile("English");
  tts->setLanguageDefaultVoice("English", "Sam");
  ASSERT_TRUE(fs::exists(file));
  // Writing the default changes nothing until the language is chosen again.
  EXPECT_EQ(tts->globalSetting().value, "Kenny");
  tts->setLanguage("English");
  EXPECT_EQ(tts->globalSetting(), ZR::VoiceSetting(ZR::VOICE, "Sam"));
  EXPECT_EQ(tts->getVoice(), "Sam");
  EXPECT_THAT(logs("xGetVoiceSettingFromLanguage", ko::log::info),
              ElementsAre("Apply voice settings from " + file));
  // The language is compared without case and names the file as given.
  tts->setLanguageDefaultVoice("english", "Sam");
  EXPECT_TRUE(fs::exists(defaultVoiceFile("english")));
}

TEST_F(DefaultVoiceFileTest, RefusesWithTheThreeMessages) {
  const std::vector<std::vector<std::string>> cases = {
      // language, voice, message
      {"German", "Kenny", "There is no voice installed for German language."},
      {"English", "Nobody", "The voice Nobody is not installed"},
      {"English", "Julie",
       "You can't use the Julie voice for English language because it is a(n) French voice."},
  };
  for (const std::vector<std::string>& c : cases) {
    EXPECT_EQ(errorOf([&] { tts->setLanguageDefaultVoice(c[0], c[1]); }),
              "ZRTextToSpeech.setLanguageDefaultVoice: " + c[2]);
  }
  EXPECT_THAT(logs("setLanguageDefaultVoice", ko::log::error),
              ElementsAre(cases[0][2], cases[1][2], cases[2][2]));
  EXPECT_FALSE(fs::exists(defaultVoiceFile("English")));
}

TEST_F(DefaultVoiceFileTest, WinsOverTheOfficialFileWhichWinsOverTheLanguagesVoice) {
  EXPECT_EQ(tts->xGetVoiceSettingFromLanguage("French"), ZR::VoiceSetting(ZR::VOICE, "Julie"));
  ZR::VoiceSetting official(ZR::VOICE, "Julie"), chosen(ZR::VOICE, "Julie");
  official.parameters["doubleVoice"] = 2.0f;
  chosen.parameters["pitchShift"] = 3.0f;
  writeVoiceSettings(configFile(officialFrench), official, "BexOfficialVoiceFrench");
  host.clearLogs();
  EXPECT_EQ(tts->xGetVoiceSettingFromLanguage("French"), official);
  EXPECT_THAT(logs("xGetVoiceSettingFromLanguage", ko::log::info),
              ElementsAre(std::string("Apply voice settings from ") + officialFrench));
  writeVoiceSettings(defaultVoiceFile("French"), chosen, "ZRTextToSpeech_DefaultVoiceFrench");
  EXPECT_EQ(tts->xGetVoiceSettingFromLanguage("French"), chosen);
}

using ApplyVoiceSettingTest = SpeechServiceTest;

TEST_F(ApplyVoiceSettingTest, SendsASettingOnceAndRetriesOneThatFailed) {
  const ZR::VoiceSetting before = tts->appliedSetting();
  // A failed setting is not taken as applied: the same one is sent, and fails, again.
  EXPECT_THROW(tts->xSetVoiceSetting(ZR::VoiceSetting(ZR::VOICE, "Nobody")), ZR::ZRError);
  EXPECT_THROW(tts->xSetVoiceSetting(ZR::VoiceSetting(ZR::VOICE, "Nobody")), ZR::ZRError);
  EXPECT_EQ(tts->appliedSetting(), before);
  tts->xSetVoiceSetting(ZR::VoiceSetting(ZR::LANGUAGE, "French"));
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "French");

  ZR::VoiceSetting setting(ZR::VOICE, "Julie");
  setting.parameters["speed"] = 120.0f;
  backend.clearCalls();
  tts->xSetVoiceSetting(setting);
  EXPECT_EQ(backend.calls("setCurrentVoice").size(), 1u);
  // "defaultVoiceSpeed" and "speed" are the engine's; the others are the service's own.
  EXPECT_EQ(backend.calls("setParameter").size(), 2u);
  EXPECT_EQ(tts->appliedSetting(), setting);
  backend.clearCalls();
  tts->xSetVoiceSetting(setting);
  EXPECT_TRUE(backend.calls().empty());
}

// Two more French voices with data folders of their own: Amelie with a settings file, Broken
// with a settings file that cannot be read.
class VoiceDataTest : public SpeechServiceTest {
 protected:
  VoiceDataTest() {
    amelie.parameters["pitchShift"] = 2.0f;
    ZR::VoiceSetting own = amelie;
    own.value = "whatever";  // the voice's name replaces the one in its file
    writeVoiceSettings(host.root() + "/amelie/voices/Amelie.xml", own, "Amelie");
    backend.addVoice("Amelie", "French", host.root() + "/amelie");
    fs::create_directories(host.root() + "/broken/voices");
    std::ofstream(host.root() + "/broken/voices/Broken.xml") << "<not a voice file";
    backend.addVoice("Broken", "French", host.root() + "/broken");
  }

  ZR::VoiceSetting amelie{ZR::VOICE, "Amelie"};
};

TEST_F(VoiceDataTest, SetVoiceSwitchesAtOnceOnlyWithASettingsFileAndRefusesUnknownOrBrokenVoices) {
  EXPECT_THAT(tts->getAvailableVoices(), ElementsAre("Amelie", "Broken", "Julie", "Kenny", "Sam"));
  const std::string current = tts->getVoice();
  tts->setVoice("Sam");
  EXPECT_EQ(tts->getVoice(), current);
  EXPECT_EQ(tts->globalSetting(), ZR::VoiceSetting(ZR::VOICE, "Sam"));
  tts->say("Hello");
  EXPECT_EQ(tts->getVoice(), "Sam");

  host.clearLogs();
  tts->setVoice("Amelie");
  EXPECT_EQ(tts->getVoice(), "Amelie");
  EXPECT_EQ(tts->globalSetting(), amelie);
  EXPECT_THAT(logs("setVoice", ko::log::info), ElementsAre("Amelie"));
  // The language follows the voice.
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");

  // An unknown voice is refused as not installed, a failure wrapped as not supported.
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  EXPECT_EQ(errorOf([this] { tts->setVoice("Nobody"); }),
            "ZRTextToSpeech.setVoice: Nobody voice is not installed.");
  EXPECT_THAT(errorOf([this] { tts->setVoice("Broken"); }),
              StartsWith("ZRTextToSpeech.setVoice: Broken voice is not supported: "));
  // Only the failure is logged as an error.
  EXPECT_THAT(logs("setVoice", ko::log::error),
              ElementsAre(StartsWith("Broken voice is not supported: ")));
  EXPECT_EQ(tts->globalSetting(), before);
}

TEST_F(VoiceDataTest, SetLanguageDefaultVoiceWritesTheVoicesOwnElseTheOfficialSettings) {
  ZR::VoiceSetting official(ZR::VOICE, "Julie");
  official.parameters["doubleVoiceLevel"] = 0.5f;
  writeVoiceSettings(configFile(officialFrench), official, "BexOfficialVoiceFrench");
  tts->setLanguageDefaultVoice("French", "Amelie");
  EXPECT_EQ(ZR::makeVoiceSettingFromXml(defaultVoiceFile("French")), amelie);
  tts->setLanguageDefaultVoice("French", "Julie");
  EXPECT_EQ(ZR::makeVoiceSettingFromXml(defaultVoiceFile("French")), official);
}

using VoicePreferenceTest = SpeechServiceTest;

TEST_F(VoicePreferenceTest, LoadsALegacyPreferenceWithAWarningAndRefusesMissingOrUninstalled) {
  ZR::VoiceSetting custom(ZR::VOICE, "Julie");
  custom.parameters["doubleVoice"] = 1.5f;
  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_Custom.xml"), custom, "Custom");
  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_Ghost.xml"),
                     ZR::VoiceSetting(ZR::VOICE, "Ghost"), "Ghost");
  tts->loadVoicePreference("Custom");
  EXPECT_EQ(tts->globalSetting(), custom);
  EXPECT_THAT(
      logs("loadVoicePreference", ko::log::warning),
      ElementsAre("Method loadVoicePreference is deprecated. Files ZRTextToSpeech_Voice_* "
                  "have been removed. Please use setParameter() to change the parameters."));
  EXPECT_THAT(errorOf([this] { tts->loadVoicePreference("Missing"); }),
              StartsWith("ZRTextToSpeech.loadVoicePreference: loadVoicePreference failed: "));
  EXPECT_EQ(errorOf([this] { tts->loadVoicePreference("Ghost"); }),
            "ZRTextToSpeech.loadVoicePreference: loadVoicePreference failed. Language "
            "corresponding to this voice preference () is not installed.");
  EXPECT_EQ(tts->globalSetting(), custom);
}

}  // namespace
}  // namespace bexko::testing
