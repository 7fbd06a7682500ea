#include <zr/tts/texttospeechmanager.h>

#include <chrono>
#include <fstream>
#include <future>
#include <thread>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/engine/backend.h>
#include <bexko/testing/scriptedbackend.h>
#include <ko/log.h>
#include <ko/path.h>

#include "recordingcallback.h"

namespace {

using bexko::engine::testing::RecordingCallback;
using bexko::testing::ScriptedBackend;
using Strings = std::vector<std::string>;
using Locales = std::vector<std::pair<std::string, std::string>>;  // locale, engine name

constexpr const char* kEngine = "tts_scripted_manager";

std::vector<ko::PackageInfo> packageOf(const Locales& locales) {
  ko::PackageInfo package;
  package.setIdentifier("main");
  package.setPath("/packages/main");
  for (const auto& l : locales) package.addLanguage(ko::LanguageInfo(l.first, l.second));
  return {package};
}
const Locales kEnglishAndFrench = {{"en_US", kEngine}, {"fr_FR", kEngine}};

class ManagerWithScriptedBackend : public ::testing::Test {
 protected:
  ManagerWithScriptedBackend() : manager_(&callback_, nullptr) {
    backend_.addVoice("Kate", "English");
    backend_.addVoice("Tom", "English");
    backend_.addVoice("Julie", "French");
    backend_.addVoice("Hans", "German");
    captureId_ = ko::log::addSink(capture_);
  }
  ~ManagerWithScriptedBackend() override {
    ko::log::removeSink(captureId_);
    boost::filesystem::remove_all(dictionaryFolder());
  }
  static std::string dictionaryFolder() {
    return ko::path::userWritableDataPath("bexko") + "/dictionary";
  }

  bool logged(ko::log::LogLevel level, const std::string& text) const {
    for (const auto& record : capture_->records()) {
      if (record.level == level && record.message.find(text) != std::string::npos) return true;
    }
    return false;
  }
  // What the manager serves, as "language/voice of language,language".
  std::string serving() const {
    std::string text = manager_.getCurrentLanguage() + "/" + manager_.getCurrentVoice() + " of ";
    for (const std::string& language : manager_.getAvailableLanguages()) text += language + ",";
    return text;
  }
  // What the backend was given to say for `text`.
  std::string spoken(const std::string& text) {
    manager_.startSynthetizer(text);
    return backend_.sentences().back();
  }

  ScriptedBackend backend_{kEngine};
  RecordingCallback callback_;
  ZR::TextToSpeechManager manager_;
  std::shared_ptr<ko::log::CaptureSink> capture_ = std::make_shared<ko::log::CaptureSink>();
  int captureId_ = -1;
};

// A manager serving English and French.
class ServingManager : public ManagerWithScriptedBackend {
 protected:
  void SetUp() override { ASSERT_TRUE(manager_.initialize(packageOf(kEnglishAndFrench))); }
};

TEST_F(ManagerWithScriptedBackend, ServesTheLanguagesOfRegisteredEnginesThatLoadAVoice) {
  backend_.failNext("load", ZR::ZRError("Scripted", "load", "disk on fire"));
  EXPECT_FALSE(manager_.initialize(packageOf(kEnglishAndFrench)));
  EXPECT_TRUE(logged(ko::log::warning, "disk on fire"));
  EXPECT_FALSE(manager_.initialize(packageOf({{"it_IT", kEngine}})));  // no Italian voice
  EXPECT_EQ(serving(), "/ of ");
  EXPECT_THROW(manager_.startSynthetizer("Hello"), ZR::ZRError);
  EXPECT_THROW(manager_.setParameter("speed", 100.0f), ZR::ZRError);
  // No engine serves the language: nothing judges the text but its UTF-8 form.
  EXPECT_TRUE(manager_.testTextEncoding("Hallo", "German"));
  EXPECT_FALSE(manager_.testTextEncoding("\xC3", "German"));

  backend_.clearCalls();
  ASSERT_TRUE(manager_.initialize(packageOf({{"en_US", kEngine},
                                             {"fr_FR", kEngine},
                                             {"de_DE", "tts_not_registered"},
                                             {"xx_XX", kEngine},
                                             {"", "tts_unnamed"}})));
  EXPECT_EQ(serving(), "English/Kate of English,French,");  // the first language's default voice
  EXPECT_EQ(manager_.getAvailableVoices(),
            (std::map<std::string, std::string>{
                {"Julie", "French"}, {"Kate", "English"}, {"Tom", "English"}}));
  EXPECT_EQ(backend_.calls("load").at(0).args, (Strings{"English", "French"}));
  for (const char* warning : {"tts_not_registered", "xx_XX", "without a locale"}) {
    EXPECT_TRUE(logged(ko::log::warning, warning)) << warning;
  }
  EXPECT_EQ(manager_.getVoiceInstallDir("Kate"), "/packages/main");
  manager_.setCurrentVoice("Julie");
  EXPECT_THROW(manager_.setCurrentVoice("Nobody"), ZR::ZRError);
  backend_.failNext("setCurrentVoice", ZR::ZRError("Scripted", "setCurrentVoice", "no voice"));
  EXPECT_THROW(manager_.setCurrentVoice("Tom"), ZR::ZRError);
  EXPECT_EQ(serving(), "French/Julie of English,French,");  // a failed selection changes nothing
}

// A stop from another thread is shown through the speech service (test_speechtasks.cpp).
TEST_F(ServingManager, APauseHoldsTheSentenceUntilRestart) {
  manager_.stopSynthetizer();  // idle: no effect, and no stop waiting for the next sentence
  backend_.setScript({{ZR::TTS_EVENT_MARKER, 5, 4400}});
  manager_.pauseSynthetizer();
  EXPECT_TRUE(manager_.isPaused());
  auto speaking =
      std::async(std::launch::async, [&] { manager_.startSynthetizer("a \\mrk=5\\b"); });
  ASSERT_TRUE(backend_.waitForSynthesis(1, 5000));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_TRUE(callback_.events().empty());
  manager_.restartSynthetizer();
  EXPECT_FALSE(manager_.isPaused());
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  speaking.get();
  EXPECT_EQ(callback_.values(ZR::TTS_EVENT_MARKER), std::vector<int>{5});
}

TEST_F(ServingManager, ReloadReportsWhatChangedAndKeepsTheCurrentLanguageWhileServed) {
  manager_.setCurrentLanguage("french");  // names compare without regard to case
  // What a reload reports, then what the manager serves.
  const auto reload = [&](const Locales& locales) {
    bool changed = false;
    std::string message;
    manager_.reload(packageOf(locales), changed, message);
    return (changed ? "changed, " : "") + message + " -> " + serving();
  };
  EXPECT_EQ(reload(kEnglishAndFrench), "unchanged -> French/Julie of English,French,");
  EXPECT_EQ(reload({{"fr_FR", kEngine}, {"de_DE", kEngine}}),
            "changed, added: German; removed: English -> French/Julie of French,German,");
  EXPECT_EQ(reload({{"de_DE", kEngine}}), "changed, removed: French -> German/Hans of German,");
  EXPECT_EQ(reload({}), "changed, removed: German; no language can be served -> / of ");

  // A reload takes the engine's current registration.
  {
    ScriptedBackend replacement(kEngine);
    replacement.addVoice("Max", "English");
    EXPECT_EQ(reload(kEnglishAndFrench), "changed, added: English -> English/Max of English,");
    manager_.startSynthetizer("Hello");
    EXPECT_EQ(replacement.sentences(), Strings{"Hello"});
    EXPECT_TRUE(backend_.sentences().empty());
  }
  // The replacement unregistered its name on leaving; the manager's backend keeps working.
  EXPECT_FALSE(bexko::engine::unregisterBackend(kEngine));
  manager_.startSynthetizer("Still here");
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 2u);
  EXPECT_EQ(reload(kEnglishAndFrench),
            "changed, removed: English; no language can be served -> / of ");
}

// The filter switch is shown through the speech service's method table (test_methodtable.cpp).
TEST_F(ManagerWithScriptedBackend, EffectsAreNamedAfterTheirFilesOnceAndUnknownOnesWarned) {
  for (const char* path : {"/effects/robot.fx", "/effects/robot.fx", "/effects/echo.fx"}) {
    manager_.loadEffect(path);
  }
  EXPECT_EQ(manager_.loadedEffects(), (Strings{"robot", "echo"}));
  manager_.applyEffect("robot", true);
  manager_.applyEffect("unknown", true);
  EXPECT_FALSE(logged(ko::log::warning, "robot has not been loaded"));
  EXPECT_TRUE(logged(ko::log::warning, "unknown has not been loaded"));
}

using ManagerDictionary = ServingManager;

TEST_F(ManagerDictionary, AReplacementChangesWholeWordsAndWordIndexesPointIntoTheCallersText) {
  EXPECT_TRUE(manager_.addToDictionary("ROS", "Robot OS", "", "", ""));
  // Without tags, spoken: "I like Robot OS  and ROSE, Robot OS!"; the caller's:
  // "I like ROS  and ROSE, ROS!".
  std::vector<bexko::testing::ScriptedEvent> words;
  for (int index : {0, 2, 7, 13, 17, 21, 27, 33}) words.push_back({ZR::TTS_EVENT_WORD, index, 0});
  backend_.queueSentenceEvents(words);
  EXPECT_EQ(spoken("I like ROS \\mrk=1\\ and ROSE, ROS!"),
            "I like Robot OS \\mrk=1\\ and ROSE, Robot OS!");
  // "OS" is part of what replaced "ROS".
  EXPECT_EQ(callback_.values(ZR::TTS_EVENT_WORD), (std::vector<int>{0, 2, 7, 7, 12, 16, 22, 22}));
  manager_.setCurrentLanguage("French");  // another language, another dictionary
  EXPECT_EQ(spoken("ROS"), "ROS");
}

TEST_F(ManagerDictionary, EntriesLiveInTheLanguagesFileUntilDeleted) {
  boost::filesystem::create_directories(dictionaryFolder());
  std::ofstream(dictionaryFolder() + "/English.dic")
      << "# comment\nreplace\tROS\tRoss\ngarbage line\nreplace\tonly\n";
  manager_.loadDictionary();
  EXPECT_TRUE(logged(ko::log::warning, "Skipped 2 malformed lines"));
  EXPECT_TRUE(manager_.addToDictionary("noun", "robot", "1", "ロボット", "0"));
  EXPECT_TRUE(manager_.addToDictionary("OS", "Oh Ess", "", "", ""));
  EXPECT_FALSE(manager_.addToDictionary("", "nothing", "", "", ""));
  EXPECT_FALSE(manager_.addToDictionary("with\ttab", "x", "", "", ""));
  {  // Another manager reads the entries loaded and added, from the file.
    ZR::TextToSpeechManager other(nullptr, nullptr);
    ASSERT_TRUE(other.initialize(packageOf(kEnglishAndFrench)));
    other.startSynthetizer("ROS OS");
    EXPECT_EQ(backend_.sentences().back(), "Ross Oh Ess");
    capture_->clear();
    other.showDictionary();
    EXPECT_TRUE(logged(ko::log::info, "ロボット"));
    EXPECT_TRUE(logged(ko::log::info, "\"Ross\""));
  }
  EXPECT_FALSE(manager_.deleteFromDictionary("verb", "robot"));  // a reading of another type
  EXPECT_TRUE(manager_.deleteFromDictionary("", "robot"));
  EXPECT_TRUE(manager_.deleteFromDictionary("", "ROS"));
  EXPECT_EQ(spoken("ROS OS"), "ROS Oh Ess");
}

}  // namespace
