#include <zr/zrtexttospeech.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ::testing::Contains;
using ::testing::Field;
using ::testing::HasSubstr;

using DictionaryTest = SpeechServiceTest;

TEST_F(DictionaryTest, BothFormsAddAndDeleteAndUnloadLoadAndShowReachTheManager) {
  const auto spoken = [this] {
    tts->say("A robot");
    return backend.sentences().back();
  };
  EXPECT_TRUE(tts->addToDictionary("robot", "row bot"));
  EXPECT_EQ(spoken(), "A row bot");
  tts->showDictionary();
  EXPECT_THAT(host.logRecords(),
              Contains(Field(&ko::log::Record::message, HasSubstr("1 entries"))));
  tts->unloadDictionary();
  EXPECT_EQ(spoken(), "A robot");
  tts->loadDictionary();
  EXPECT_EQ(spoken(), "A row bot");
  // The one-argument delete names the word second, with no type.
  EXPECT_TRUE(tts->deleteFromDictionary("robot"));
  EXPECT_FALSE(tts->deleteFromDictionary("robot"));
  EXPECT_EQ(spoken(), "A robot");
  EXPECT_TRUE(tts->addToDictionary("noun", "robot", "1", "ロボット", "0"));
  EXPECT_TRUE(tts->deleteFromDictionary("noun", "robot"));
}

class DiagnosisTest : public SpeechServiceTest {
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
  EXPECT_THAT(logs("printVoiceSettings", ko::log::info),
              ::testing::ElementsAreArray(
                  {"Current voice settings:", "- type 0 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)",
                   "- value French", "- defaultVoiceSpeed = 100", "- doubleVoice = 0",
                   "- doubleVoiceLevel = 0", "- doubleVoiceTimeShift = 0.333333",
                   "- pitchShift = 0", "- voiceLevel = 1", "Global voice settings:",
                   "- type 1 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)", "- value Julie",
                   "- defaultVoiceSpeed = 100", "- doubleVoice = 0", "- doubleVoiceLevel = 0",
                   "- doubleVoiceTimeShift = 0.333333", "- pitchShift = 0", "- voiceLevel = 1"}));
}

TEST_F(DiagnosisTest, WritesNothingWhenInfoIsDisabled) {
  ko::log::setLevels("audio.zrtexttospeech.main=warning");
  tts->diagnosis();
  EXPECT_TRUE(host.logRecords(kServiceCategory).empty());
  // No engine query is made for a record that is not written.
  EXPECT_TRUE(backend.calls("isPaused").empty());
}

}  // namespace
}  // namespace bexko::testing
