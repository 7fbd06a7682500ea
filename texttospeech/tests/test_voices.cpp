#include <zr/zrtexttospeech.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "settingsfixture.h"

namespace {

using bexko::testing::ScriptedServiceTest;
using bexko::testing::serviceLogs;
using bexko::testing::writeVoiceSettings;
namespace fs = boost::filesystem;

class DefaultVoiceFileTest : public ScriptedServiceTest {};

TEST_F(DefaultVoiceFileTest, WrittenBySetLanguageDefaultVoiceAndUsedByTheNextSetLanguage) {
  const std::string file = configFile("ZRTextToSpeech_DefaultVoiceEnglish.xml");
  ASSERT_FALSE(fs::exists(file));
  tts->setLanguageDefaultVoice("English", "Sam");
  ASSERT_TRUE(fs::exists(file));
  // Writing the default changes nothing until the language is chosen again.
  EXPECT_EQ(tts->globalSetting().value, "Kenny");

  host.clearLogs();
  tts->setLanguage("English");
  EXPECT_EQ(tts->globalSetting().type, ZR::VOICE);
  EXPECT_EQ(tts->globalSetting().value, "Sam");
  EXPECT_EQ(tts->getVoice(), "Sam");
  EXPECT_EQ(serviceLogs(host, "xGetVoiceSettingFromLanguage", ko::log::info),
            std::vector<std::string>{"Apply voice settings from " + file});
}

TEST_F(DefaultVoiceFileTest, LanguageIsComparedWithoutCaseAndNamesTheFileAsGiven) {
  EXPECT_NO_THROW(tts->setLanguageDefaultVoice("english", "Sam"));
  EXPECT_TRUE(fs::exists(configFile("ZRTextToSpeech_DefaultVoiceenglish.xml")));
}

struct RefusalCase {
  std::string language;
  std::string voice;
  std::string message;
};

TEST_F(DefaultVoiceFileTest, RefusesWithTheThreeMessages) {
  const std::vector<RefusalCase> cases = {
      {"Klingon", "Kenny", "There is no voice installed for Klingon language."},
      {"German", "Kenny", "There is no voice installed for German language."},
      {"English", "Nobody", "The voice Nobody is not installed"},
      {"English", "Julie",
       "You can't use the Julie voice for English language because it is a(n) French voice."},
  };
  for (const RefusalCase& c : cases) {
    SCOPED_TRACE(c.language + "/" + c.voice);
    host.clearLogs();
    try {
      tts->setLanguageDefaultVoice(c.language, c.voice);
      ADD_FAILURE() << "accepted";
    } catch (const ZR::ZRError& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
      EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
      EXPECT_EQ(e.methodName(), "setLanguageDefaultVoice");
    }
    EXPECT_EQ(serviceLogs(host, "setLanguageDefaultVoice", ko::log::error),
              std::vector<std::string>{c.message});
  }
  EXPECT_FALSE(fs::exists(configFile("ZRTextToSpeech_DefaultVoiceEnglish.xml")));
}

TEST_F(DefaultVoiceFileTest, RemovalDeletesTheLanguagesFileAndToleratesAMissingOne) {
  tts->setLanguageDefaultVoice("French", "Julie");
  const std::string file = configFile("ZRTextToSpeech_DefaultVoiceFrench.xml");
  ASSERT_TRUE(fs::exists(file));

  host.clearLogs();
  tts->xRemoveVoiceSettingFromLanguage("French");
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(serviceLogs(host, "xRemoveVoiceSettingFromLanguage", ko::log::verbose),
            std::vector<std::string>{"Remove file " + file});

  host.clearLogs();
  EXPECT_NO_THROW(tts->xRemoveVoiceSettingFromLanguage("French"));
  EXPECT_EQ(serviceLogs(host, "xRemoveVoiceSettingFromLanguage", ko::log::verbose),
            std::vector<std::string>{
                "No file ZRTextToSpeech_DefaultVoiceFrench.xml found. So no file to remove."});
}

class VoiceSettingLookupTest : public ScriptedServiceTest {};

TEST_F(VoiceSettingLookupTest, WithoutFilesTheLanguagesDefaultVoiceWithDefaultParameters) {
  const ZR::VoiceSetting setting = tts->xGetVoiceSettingFromLanguage("French");
  EXPECT_TRUE(setting == ZR::VoiceSetting(ZR::VOICE, "Julie"));
}

TEST_F(VoiceSettingLookupTest, OfficialFileIsUsedAndTheDefaultVoiceFileWinsOverIt) {
  ZR::VoiceSetting official(ZR::VOICE, "Julie");
  official.parameters["doubleVoice"] = 2.0f;
  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_BexOfficialVoiceFrench.xml"), official,
                     "BexOfficialVoiceFrench");
  host.clearLogs();
  EXPECT_TRUE(tts->xGetVoiceSettingFromLanguage("French") == official);
  EXPECT_EQ(serviceLogs(host, "xGetVoiceSettingFromLanguage", ko::log::info),
            std::vector<std::string>{
                "Apply voice settings from ZRTextToSpeech_Voice_BexOfficialVoiceFrench.xml"});

  ZR::VoiceSetting chosen(ZR::VOICE, "Julie");
  chosen.parameters["pitchShift"] = 3.0f;
  writeVoiceSettings(configFile("ZRTextToSpeech_DefaultVoiceFrench.xml"), chosen,
                     "ZRTextToSpeech_DefaultVoiceFrench");
  EXPECT_TRUE(tts->xGetVoiceSettingFromLanguage("French") == chosen);
}

TEST_F(VoiceSettingLookupTest, OfficialSettingsNamingTheVoiceAreWrittenAsItsDefault) {
  ZR::VoiceSetting official(ZR::VOICE, "Julie");
  official.parameters["doubleVoiceLevel"] = 0.5f;
  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_BexOfficialVoiceFrench.xml"), official,
                     "BexOfficialVoiceFrench");
  tts->setLanguageDefaultVoice("French", "Julie");
  const ZR::VoiceSetting written =
      ZR::makeVoiceSettingFromXml(configFile("ZRTextToSpeech_DefaultVoiceFrench.xml"));
  EXPECT_TRUE(written == official);
}

class ApplyVoiceSettingTest : public ScriptedServiceTest {};

TEST_F(ApplyVoiceSettingTest, TheSameSettingTwiceSendsNothingTheSecondTime) {
  ZR::VoiceSetting setting(ZR::VOICE, "Julie");
  setting.parameters["speed"] = 120.0f;
  backend.clearCalls();
  tts->xSetVoiceSetting(setting);
  EXPECT_EQ(backend.calls("setCurrentVoice").size(), 1u);
  // "defaultVoiceSpeed" and "speed" are the engine's; the others are the service's own.
  EXPECT_EQ(backend.calls("setParameter").size(), 2u);
  EXPECT_TRUE(tts->appliedSetting() == setting);

  backend.clearCalls();
  tts->xSetVoiceSetting(setting);
  EXPECT_TRUE(backend.calls().empty());
}

TEST_F(ApplyVoiceSettingTest, AFailedApplicationIsRetriedNextTime) {
  ZR::VoiceSetting setting(ZR::VOICE, "Nobody");
  const ZR::VoiceSetting before = tts->appliedSetting();
  EXPECT_THROW(tts->xSetVoiceSetting(setting), ZR::ZRError);
  EXPECT_TRUE(tts->appliedSetting() == before);
  backend.clearCalls();
  EXPECT_THROW(tts->xSetVoiceSetting(setting), ZR::ZRError);
}

TEST_F(ApplyVoiceSettingTest, ALanguageSettingSelectsTheLanguage) {
  tts->xSetVoiceSetting(ZR::VoiceSetting(ZR::LANGUAGE, "French"));
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "French");
}

class SetVoiceTest : public ScriptedServiceTest {};

TEST_F(SetVoiceTest, WithoutASettingsFileTheEngineWaitsForTheNextSentence) {
  const std::string before = tts->getVoice();
  tts->setVoice("Sam");
  EXPECT_EQ(tts->getVoice(), before);
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Sam"));

  tts->say("Hello");
  EXPECT_EQ(tts->getVoice(), "Sam");
}

TEST_F(SetVoiceTest, AnUnknownVoiceIsNotInstalledAndNotLogged) {
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  try {
    tts->setVoice("Nobody");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()), "Nobody voice is not installed.");
    EXPECT_EQ(e.methodName(), "setVoice");
  }
  EXPECT_TRUE(serviceLogs(host, "setVoice", ko::log::error).empty());
  EXPECT_TRUE(tts->globalSetting() == before);
}

// Two more French voices with data folders of their own: Amelie with a settings file, Broken
// with a settings file that cannot be read.
class VoiceDataTest : public ScriptedServiceTest {
 protected:
  VoiceDataTest() {
    const std::string amelieDir = host.root() + "/voicedata/amelie";
    ZR::VoiceSetting own(ZR::VOICE, "whatever");
    own.parameters["pitchShift"] = 2.0f;
    writeVoiceSettings(amelieDir + "/voices/Amelie.xml", own, "Amelie");
    backend.addVoice("Amelie", "French", amelieDir);

    const std::string brokenDir = host.root() + "/voicedata/broken";
    fs::create_directories(brokenDir + "/voices");
    std::ofstream(brokenDir + "/voices/Broken.xml") << "<not a voice file";
    backend.addVoice("Broken", "French", brokenDir);
  }
};

TEST_F(VoiceDataTest, AVoicesOwnSettingsAreWrittenAsItsDefault) {
  tts->setLanguageDefaultVoice("French", "Amelie");
  const ZR::VoiceSetting written =
      ZR::makeVoiceSettingFromXml(configFile("ZRTextToSpeech_DefaultVoiceFrench.xml"));
  EXPECT_EQ(written.value, "Amelie");
  EXPECT_FLOAT_EQ(written.parameters.at("pitchShift"), 2.0f);
}

TEST_F(VoiceDataTest, SetVoiceWithASettingsFileSwitchesTheEngineAtOnce) {
  host.clearLogs();
  tts->setVoice("Amelie");
  EXPECT_EQ(tts->getVoice(), "Amelie");
  EXPECT_EQ(tts->globalSetting().type, ZR::VOICE);
  EXPECT_EQ(tts->globalSetting().value, "Amelie");
  EXPECT_FLOAT_EQ(tts->globalSetting().parameters.at("pitchShift"), 2.0f);
  EXPECT_EQ(serviceLogs(host, "setVoice", ko::log::info), std::vector<std::string>{"Amelie"});
}

TEST_F(VoiceDataTest, SetVoiceWrapsAFailureAsNotSupported) {
  const ZR::VoiceSetting before = tts->globalSetting();
  host.clearLogs();
  try {
    tts->setVoice("Broken");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()).rfind("Broken voice is not supported: ", 0), 0u) << e.what();
    EXPECT_EQ(e.methodName(), "setVoice");
  }
  EXPECT_EQ(serviceLogs(host, "setVoice", ko::log::error).size(), 1u);
  EXPECT_TRUE(tts->globalSetting() == before);
}

TEST_F(VoiceDataTest, AvailableVoicesAreTheEngineVoicesInNameOrder) {
  EXPECT_EQ(tts->getAvailableVoices(),
            (std::vector<std::string>{"Amelie", "Broken", "Julie", "Kenny", "Sam"}));
}

class VoicePreferenceTest : public ScriptedServiceTest {};

TEST_F(VoicePreferenceTest, LoadsALegacyPreferenceAndWarnsThatItIsDeprecated) {
  ZR::VoiceSetting custom(ZR::VOICE, "Julie");
  custom.parameters["doubleVoice"] = 1.5f;
  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_Custom.xml"), custom, "Custom");
  host.clearLogs();
  tts->loadVoicePreference("Custom");
  EXPECT_TRUE(tts->globalSetting() == custom);
  EXPECT_EQ(serviceLogs(host, "loadVoicePreference", ko::log::warning),
            std::vector<std::string>{"Method loadVoicePreference is deprecated. Files "
                                     "ZRTextToSpeech_Voice_* have been removed. Please use "
                                     "setParameter() to change the parameters."});
}

TEST_F(VoicePreferenceTest, AMissingPreferenceAndAnUninstalledLanguageAreRefused) {
  try {
    tts->loadVoicePreference("Missing");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()).rfind("loadVoicePreference failed: ", 0), 0u) << e.what();
    EXPECT_EQ(e.methodName(), "loadVoicePreference");
  }

  writeVoiceSettings(configFile("ZRTextToSpeech_Voice_Ghost.xml"),
                     ZR::VoiceSetting(ZR::VOICE, "Ghost"), "Ghost");
  const ZR::VoiceSetting before = tts->globalSetting();
  try {
    tts->loadVoicePreference("Ghost");
    FAIL() << "accepted";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(std::string(e.what()),
              "loadVoicePreference failed. Language corresponding to this voice preference () is "
              "not installed.");
  }
  EXPECT_TRUE(tts->globalSetting() == before);
}

class VoiceSettingsLogTest : public ScriptedServiceTest {};

TEST_F(VoiceSettingsLogTest, PrintsOneRecordPerLine) {
  ZR::VoiceSetting setting(ZR::LANGUAGE, "French");
  setting.parameters = {{"doubleVoice", 1.25f}, {"pitchShift", 1.0f / 3.0f}};
  host.clearLogs();
  ZR::printVoiceSettings(setting, "Example");
  EXPECT_EQ(serviceLogs(host, "printVoiceSettings", ko::log::info),
            (std::vector<std::string>{
                "Example voice settings:", "- type 0 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)",
                "- value French", "- doubleVoice = 1.25", "- pitchShift = 0.333333"}));
}

}  // namespace
