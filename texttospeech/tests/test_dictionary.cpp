#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "settingsfixture.h"

namespace {

using bexko::testing::ScriptedServiceTest;
using bexko::testing::serviceLogs;

class DictionaryTest : public ScriptedServiceTest {};

TEST_F(DictionaryTest, TwoStringFormReplacesATextAndOneStringDeleteFindsIt) {
  host.clearLogs();
  EXPECT_TRUE(tts->addToDictionary("robot", "row bot"));
  EXPECT_EQ(serviceLogs(host, "addToDictionary", ko::log::info),
            std::vector<std::string>{"Add to Nuance dictionary robot to replace by row bot"});
  // The one-argument delete names the word second, with no type.
  EXPECT_TRUE(tts->deleteFromDictionary("robot"));
  EXPECT_FALSE(tts->deleteFromDictionary("robot"));
}

TEST_F(DictionaryTest, FiveStringFormIsLoggedAsTheJapaneseDictionary) {
  host.clearLogs();
  tts->addToDictionary("noun", "robot", "1", "ロボット", "0");
  EXPECT_EQ(serviceLogs(host, "addToDictionary", ko::log::info),
            std::vector<std::string>{"Add to japanese dictionary"});
  EXPECT_TRUE(tts->deleteFromDictionary("noun", "robot"));
}

// The manager reports its dictionary in one summary record, then one record per entry.
std::vector<std::string> dictionaryRecords(const bexko::testing::TestHost& host) {
  std::vector<std::string> texts;
  for (const ko::log::Record& record : host.logRecords()) {
    if (record.function == "showDictionary") texts.push_back(record.message);
  }
  return texts;
}

TEST_F(DictionaryTest, UnloadLoadAndShowReachTheManager) {
  tts->addToDictionary("robot", "row bot");
  host.clearLogs();
  tts->showDictionary();
  const std::vector<std::string> loaded = dictionaryRecords(host);
  ASSERT_FALSE(loaded.empty());
  EXPECT_NE(loaded.front().find("1 entries"), std::string::npos) << loaded.front();

  tts->unloadDictionary();
  host.clearLogs();
  tts->showDictionary();
  ASSERT_FALSE(dictionaryRecords(host).empty());
  EXPECT_NE(dictionaryRecords(host).front().find("(none loaded)"), std::string::npos);

  tts->loadDictionary();
  host.clearLogs();
  tts->showDictionary();
  ASSERT_FALSE(dictionaryRecords(host).empty());
  EXPECT_NE(dictionaryRecords(host).front().find("1 entries"), std::string::npos)
      << dictionaryRecords(host).front();
}

class DiagnosisTest : public ScriptedServiceTest {
 protected:
  void TearDown() override { ko::log::setLevels("*=debug"); }
};

TEST_F(DiagnosisTest, LogsTheStateThenTheVoiceSettings) {
  tts->setVoice("Julie");
  host.clearLogs();
  tts->diagnosis();
  EXPECT_EQ(serviceLogs(host, "diagnosis", ko::log::info),
            (std::vector<std::string>{"TTS Diagnosis :", "- current voice setting : ",
                                      "- language : French", "- current language : English",
                                      "- isPaused : 0", "- nb tasks (sentences to say) : 0"}));
  const std::vector<std::string> settings = serviceLogs(host, "printVoiceSettings", ko::log::info);
  ASSERT_FALSE(settings.empty());
  EXPECT_EQ(settings.front(), "Current voice settings:");
  EXPECT_NE(std::find(settings.begin(), settings.end(), "Global voice settings:"), settings.end());
  EXPECT_NE(std::find(settings.begin(), settings.end(), "- value Julie"), settings.end());

  // The records of the diagnosis come before those of the settings.
  const auto records = host.logRecords("audio.zrtexttospeech.main");
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.front().function, "diagnosis");
  EXPECT_EQ(records.back().function, "printVoiceSettings");
}

TEST_F(DiagnosisTest, ShowVoiceSettingsDumpsTheAppliedThenTheRequestedSetting) {
  host.clearLogs();
  tts->showVoiceSettings();
  const std::vector<std::string> lines = serviceLogs(host, "printVoiceSettings", ko::log::info);
  // Before the first sentence nothing was applied: an undefined setting with the six defaults.
  ASSERT_EQ(lines.size(), 18u);
  EXPECT_EQ(lines[0], "Current voice settings:");
  EXPECT_EQ(lines[1], "- type 2 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)");
  EXPECT_EQ(lines[2], "- value ");
  EXPECT_EQ(lines[3], "- defaultVoiceSpeed = 100");
  EXPECT_EQ(lines[9], "Global voice settings:");
  EXPECT_EQ(lines[10], "- type 1 (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)");
  EXPECT_EQ(lines[11], "- value Kenny");
}

TEST_F(DiagnosisTest, WritesNothingWhenInfoIsDisabled) {
  ko::log::setLevels("audio.zrtexttospeech.main=warning");
  host.clearLogs();
  backend.clearCalls();
  tts->diagnosis();
  EXPECT_TRUE(host.logRecords("audio.zrtexttospeech.main").empty());
  // No engine query is made for a record that is not written.
  EXPECT_TRUE(backend.calls("isPaused").empty());
}

class UndefinedDiagnosisTest : public ScriptedServiceTest {
 protected:
  UndefinedDiagnosisTest() { chosenLanguage = ZR::ZRValue(); }
};

TEST_F(UndefinedDiagnosisTest, AnUndefinedRequestedSettingReportsAnEmptyLanguage) {
  ASSERT_EQ(tts->globalSetting().type, ZR::UNDEFINED);
  host.clearLogs();
  tts->diagnosis();
  const std::vector<std::string> lines = serviceLogs(host, "diagnosis", ko::log::info);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[2], "- language : ");
}

}  // namespace
