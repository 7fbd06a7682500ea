#include <zr/zrtexttospeech.h>

#include "settingsfixture.h"

namespace bexko::testing {
namespace {

using ::testing::HasSubstr;

class DictionaryTest : public ScriptedServiceTest {
 protected:
  // The manager reports its dictionary in one summary record, then one record per entry.
  std::string shownSummary() {
    host.clearLogs();
    tts->showDictionary();
    for (const ko::log::Record& record : host.logRecords()) {
      if (record.function == "showDictionary") return record.message;
    }
    return "(nothing shown)";
  }
};

TEST_F(DictionaryTest, BothFormsAddAndDeleteAndUnloadLoadAndShowReachTheManager) {
  host.clearLogs();
  EXPECT_TRUE(tts->addToDictionary("robot", "row bot"));
  EXPECT_THAT(logs("addToDictionary", ko::log::info),
              ElementsAre("Add to Nuance dictionary robot to replace by row bot"));
  EXPECT_THAT(shownSummary(), HasSubstr("1 entries"));
  tts->unloadDictionary();
  EXPECT_THAT(shownSummary(), HasSubstr("(none loaded)"));
  tts->loadDictionary();
  EXPECT_THAT(shownSummary(), HasSubstr("1 entries"));
  // The one-argument delete names the word second, with no type.
  EXPECT_TRUE(tts->deleteFromDictionary("robot"));
  EXPECT_FALSE(tts->deleteFromDictionary("robot"));
  EXPECT_TRUE(tts->addToDictionary("noun", "robot", "1", "ロボット", "0"));
  EXPECT_THAT(logs("addToDictionary", ko::log::info), ElementsAre("Add to japanese dictionary"));
  EXPECT_TRUE(tts->deleteFromDictionary("noun", "robot"));
}

class DiagnosisTest : public ScriptedServiceTest {
 protected:
  void TearDown() override { ko::log::setLevels("*=debug"); }
};

TEST_F(DiagnosisTest, LogsTheStateThenTheAppliedAndTheRequestedSettingOneRecordPerLine) {
  tts->setVoice("Julie");
  tts->xSetVoiceSetting(ZR::VoiceSetting(ZR::LANGUAGE, "French"));
  tts->setParameter("doubleVoiceTimeShift", 1.0f / 3.0f);
  host.clearLogs();
  tts->diagnosis();
  EXPECT_THAT(logs("diagnosis", ko::log::info),
              ElementsAre("TTS Diagnosis :", "- current voice setting : French",
                          "- language : French", "- current language : French", "- isPaused : 0",
                          "- nb tasks (sentences to say) : 0"));
  const std::vector<std::string> settings = logs("printVoiceSettings", ko::log::info);
  EXPECT_THAT(settings,
              ::testing::ElementsAreArray(
                  {"Current voice settings:", "- type 0 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)",
                   "- value French", "- defaultVoiceSpeed = 100", "- doubleVoice = 0",
                   "- doubleVoiceLevel = 0", "- doubleVoiceTimeShift = 0.333333",
                   "- pitchShift = 0", "- voiceLevel = 1", "Global voice settings:",
                   "- type 1 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)", "- value Julie",
                   "- defaultVoiceSpeed = 100", "- doubleVoice = 0", "- doubleVoiceLevel = 0",
                   "- doubleVoiceTimeShift = 0.333333", "- pitchShift = 0", "- voiceLevel = 1"}));
  // The records of the diagnosis come before those of the settings.
  const std::vector<ko::log::Record> records = host.logRecords(kServiceCategory);
  EXPECT_EQ(records.front().function, "diagnosis");
  EXPECT_EQ(records.back().function, "printVoiceSettings");
  host.clearLogs();
  tts->showVoiceSettings();
  EXPECT_EQ(logs("printVoiceSettings", ko::log::info), settings);
}

TEST_F(DiagnosisTest, WritesNothingWhenInfoIsDisabled) {
  ko::log::setLevels("audio.zrtexttospeech.main=warning");
  host.clearLogs();
  backend.clearCalls();
  tts->diagnosis();
  EXPECT_TRUE(host.logRecords(kServiceCategory).empty());
  // No engine query is made for a record that is not written.
  EXPECT_TRUE(backend.calls("isPaused").empty());
}

}  // namespace
}  // namespace bexko::testing
