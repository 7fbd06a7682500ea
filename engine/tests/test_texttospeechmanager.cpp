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
using bexko::testing::ScriptedCall;
using bexko::testing::ScriptedEvent;

constexpr const char* kEngine = "tts_scripted_manager";

ko::PackageInfo makePackage(const std::string& id,
                            const std::vector<std::pair<std::string, std::string>>& languages) {
  ko::PackageInfo package;
  package.setIdentifier(id);
  package.setName(id + " package");
  package.setPath("/packages/" + id);
  package.setVersion("1.0");
  for (const auto& language : languages) {
    package.addLanguage(ko::LanguageInfo(language.first, language.second));
  }
  return package;
}

std::vector<std::string> argsOf(const std::vector<ScriptedCall>& calls, std::size_t index) {
  return index < calls.size() ? calls[index].args : std::vector<std::string>{"<no call>"};
}

class ManagerWithScriptedBackend : public ::testing::Test {
 protected:
  ManagerWithScriptedBackend() : info_(new ZR::TTSLanguageInfo), manager_(&callback_, info_) {
    backend_.addVoice("Kate", "English");
    backend_.addVoice("Tom", "English", "/voices/tom");
    backend_.addVoice("Julie", "French");
    backend_.addVoice("Hans", "German");
    captureId_ = ko::log::addSink(capture_);
  }
  ~ManagerWithScriptedBackend() override { ko::log::removeSink(captureId_); }

  std::vector<ko::PackageInfo> englishAndFrench() const {
    return {makePackage("main", {{"en_US", kEngine}, {"fr_FR", kEngine}})};
  }

  bool logged(ko::log::LogLevel level, const std::string& text) const {
    for (const auto& record : capture_->records()) {
      if (record.level == level && record.message.find(text) != std::string::npos) return true;
    }
    return false;
  }

  ScriptedBackend backend_{kEngine};
  RecordingCallback callback_;
  boost::shared_ptr<ZR::TTSLanguageInfo> info_;
  ZR::TextToSpeechManager manager_;
  std::shared_ptr<ko::log::CaptureSink> capture_ = std::make_shared<ko::log::CaptureSink>();
  int captureId_ = -1;
};

TEST_F(ManagerWithScriptedBackend, ServesTheLanguagesWhoseEngineIsRegistered) {
  auto packages = englishAndFrench();
  packages.push_back(makePackage(
      "other", {{"de_DE", "tts_not_registered"}, {"xx_XX", kEngine}, {"", "tts_acapela"}}));
  ASSERT_TRUE(manager_.initialize(packages));

  EXPECT_EQ(manager_.getAvailableLanguages(), (std::vector<std::string>{"English", "French"}));
  const std::map<std::string, std::string> voices = {
      {"Julie", "French"}, {"Kate", "English"}, {"Tom", "English"}};
  EXPECT_EQ(manager_.getAvailableVoices(), voices);
  EXPECT_EQ(argsOf(backend_.calls("load"), 0), (std::vector<std::string>{"English", "French"}));
  EXPECT_TRUE(logged(ko::log::warning, "tts_not_registered"));
  EXPECT_TRUE(logged(ko::log::warning, "xx_XX"));
  EXPECT_TRUE(logged(ko::log::warning, "without a locale"));

  // The first language is selected, with its default voice.
  EXPECT_EQ(manager_.getCurrentLanguage(), "English");
  EXPECT_EQ(manager_.getCurrentVoice(), "Kate");
}

TEST_F(ManagerWithScriptedBackend, InitializeIsFalseWhenNoLanguageCanBeServed) {
  EXPECT_FALSE(manager_.initialize({}));
  EXPECT_FALSE(manager_.initialize({makePackage("p", {{"de_DE", "tts_not_registered"}})}));
  // A registered engine without a voice for the language does not serve it either.
  EXPECT_FALSE(manager_.initialize({makePackage("p", {{"it_IT", kEngine}})}));
  EXPECT_TRUE(manager_.getAvailableLanguages().empty());
  EXPECT_EQ(manager_.getCurrentLanguage(), "");
  EXPECT_THROW(manager_.startSynthetizer("Hello"), ZR::ZRError);
  EXPECT_THROW(manager_.setParameter("speed", 100.0f), ZR::ZRError);
  EXPECT_THROW(manager_.getParameter("speed"), ZR::ZRError);
}

TEST_F(ManagerWithScriptedBackend, AnEngineThatFailsToLoadIsSkipped) {
  backend_.failNext("load", ZR::ZRError("Scripted", "load", "disk on fire"));
  EXPECT_FALSE(manager_.initialize(englishAndFrench()));
  EXPECT_TRUE(logged(ko::log::warning, "disk on fire"));
}

TEST_F(ManagerWithScriptedBackend, SelectsLanguagesAndVoicesByName) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  backend_.clearCalls();

  manager_.setCurrentLanguage("french");  // names compare without regard to case
  EXPECT_EQ(manager_.getCurrentLanguage(), "French");
  EXPECT_EQ(manager_.getCurrentVoice(), "Julie");
  EXPECT_EQ(argsOf(backend_.calls("setCurrentLanguage"), 0), (std::vector<std::string>{"French"}));

  manager_.setCurrentVoice("Tom");
  EXPECT_EQ(manager_.getCurrentLanguage(), "English");
  EXPECT_EQ(manager_.getCurrentVoice(), "Tom");
  EXPECT_EQ(argsOf(backend_.calls("setCurrentVoice"), 0), (std::vector<std::string>{"Tom"}));

  manager_.setDefaultVoice();
  EXPECT_EQ(manager_.getCurrentVoice(), "Kate");

  EXPECT_THROW(manager_.setCurrentLanguage("German"), ZR::ZRError);
  EXPECT_THROW(manager_.setCurrentVoice("Nobody"), ZR::ZRError);
  EXPECT_EQ(manager_.getCurrentVoice(), "Kate");

  EXPECT_EQ(manager_.getDefaultVoiceForLanguage("ENGLISH"), "Kate");
  EXPECT_THROW(manager_.getDefaultVoiceForLanguage("German"), ZR::ZRError);
  EXPECT_EQ(manager_.getLanguage("Julie"), "French");
  EXPECT_EQ(manager_.getLanguage("Nobody"), "");
  EXPECT_EQ(manager_.getVoiceInstallDir("Tom"), "/voices/tom");
  EXPECT_EQ(manager_.getVoiceInstallDir("Kate"), "/packages/main");
  EXPECT_EQ(manager_.getVoiceInstallDir("Nobody"), "");
}

TEST_F(ManagerWithScriptedBackend, ABackendErrorOnSelectionReachesTheCallerAndKeepsTheVoice) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  backend_.failNext("setCurrentVoice", ZR::ZRError("Scripted", "setCurrentVoice", "no such voice"));
  try {
    manager_.setCurrentVoice("Tom");
    FAIL() << "no error";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.description(), "no such voice");
  }
  EXPECT_EQ(manager_.getCurrentVoice(), "Kate");
}

TEST_F(ManagerWithScriptedBackend, ParametersPassThroughWithTheirRangesAndNames) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  manager_.setParameter("speed", 1000.0f);
  EXPECT_EQ(manager_.getParameter("speed"), 400.0f);
  manager_.setParameter("defaultVoiceSpeed", 80.0f);
  EXPECT_EQ(manager_.getParameter("speed"), 80.0f);
  manager_.setParameter("speed", 150.0f);
  manager_.resetSpeed();
  EXPECT_EQ(manager_.getParameter("speed"), 80.0f);
  manager_.setParameter("presel", 1.0f);
  EXPECT_THROW(manager_.setParameter("bogus", 1.0f), ZR::ZRError);
  EXPECT_THROW(manager_.getParameter("bogus"), ZR::ZRError);
  EXPECT_EQ(argsOf(backend_.calls("setParameter"), 0), (std::vector<std::string>{"speed", "1000"}));
}

TEST_F(ManagerWithScriptedBackend, TestTextEncodingRefusesInvalidUtf8AndAsksTheBackend) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  EXPECT_TRUE(manager_.testTextEncoding("Héllo", "English"));
  EXPECT_FALSE(manager_.testTextEncoding("H\xE9llo", "English"));
  backend_.setEncodingAccepted(false);
  EXPECT_FALSE(manager_.testTextEncoding("Hello", "english"));
  // No engine serves German: nothing judges the text but its UTF-8 form.
  EXPECT_TRUE(manager_.testTextEncoding("Hallo", "German"));
  EXPECT_FALSE(manager_.testTextEncoding("\xC3", "German"));
}

TEST_F(ManagerWithScriptedBackend, ASentenceReportsTheScriptedEventsThenTheEnd) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  backend_.setScript({{ZR::TTS_EVENT_WORD, 0, 0}});
  backend_.queueSentenceEvents(
      {{ZR::TTS_EVENT_WORD, 0, 0}, {ZR::TTS_EVENT_MARKER, 5, 4400}, {ZR::TTS_EVENT_WORD, 6, 8800}});
  manager_.startSynthetizer("Hello \\mrk=5\\world");
  manager_.startSynthetizer("Again");

  const auto events = callback_.events();
  ASSERT_EQ(events.size(), 6u);
  EXPECT_EQ(events[1].event, ZR::TTS_EVENT_MARKER);
  EXPECT_EQ(events[1].value, 5);
  EXPECT_EQ(events[1].position, 4400u);
  EXPECT_EQ(events[2].value, 6);
  EXPECT_EQ(events[3].event, ZR::TTS_EVENT_END);
  EXPECT_EQ(events[4].event, ZR::TTS_EVENT_WORD);  // the script, for the second sentence
  EXPECT_EQ(events[5].event, ZR::TTS_EVENT_END);
  EXPECT_EQ(backend_.sentences(), (std::vector<std::string>{"Hello \\mrk=5\\world", "Again"}));
}

TEST_F(ManagerWithScriptedBackend, AnEngineErrorReachesTheCallerOfStartSynthetizer) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  backend_.failNext("startSynthetizer", ZR::ZRError("Scripted", "startSynthetizer", "boom"));
  EXPECT_THROW(manager_.startSynthetizer("Hello"), ZR::ZRError);
  manager_.startSynthetizer("Hello again");  // the failure was for one call only
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
}

TEST_F(ManagerWithScriptedBackend, StopFromAnotherThreadEndsABlockedSentence) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  manager_.stopSynthetizer();  // idle: no effect, and no stop waiting for the next sentence
  backend_.setBlocking(true);
  auto speaking = std::async(std::launch::async, [&] { manager_.startSynthetizer("Hello"); });
  ASSERT_TRUE(backend_.waitForSynthesis(1, 5000));
  EXPECT_EQ(speaking.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);

  manager_.stopSynthetizer();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  speaking.get();
  EXPECT_EQ(callback_.events(ZR::TTS_EVENT_END).size(), 1u);
  EXPECT_FALSE(backend_.isSynthesizing());
}

TEST_F(ManagerWithScriptedBackend, PauseHoldsTheSentenceUntilRestart) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  backend_.queueSentenceEvents({{ZR::TTS_EVENT_WORD, 0, 0}});
  manager_.pauseSynthetizer();
  EXPECT_TRUE(manager_.isPaused());
  auto speaking = std::async(std::launch::async, [&] { manager_.startSynthetizer("Hello"); });
  ASSERT_TRUE(backend_.waitForSynthesis(1, 5000));
  EXPECT_FALSE(callback_.waitForEvents(1, 200));

  manager_.restartSynthetizer();
  EXPECT_FALSE(manager_.isPaused());
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(callback_.events().size(), 2u);
}

TEST_F(ManagerWithScriptedBackend, ReloadReportsWhatChangedAndKeepsTheCurrentLanguage) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  manager_.setCurrentLanguage("French");
  bool changed = true;
  std::string message;

  manager_.reload(englishAndFrench(), changed, message);
  EXPECT_FALSE(changed);
  EXPECT_EQ(message, "unchanged");
  EXPECT_EQ(manager_.getCurrentLanguage(), "French");

  manager_.reload({makePackage("main", {{"fr_FR", kEngine}, {"de_DE", kEngine}})}, changed,
                  message);
  EXPECT_TRUE(changed);
  EXPECT_EQ(message, "added: German; removed: English");
  EXPECT_EQ(manager_.getAvailableLanguages(), (std::vector<std::string>{"French", "German"}));
  EXPECT_EQ(manager_.getCurrentLanguage(), "French");
  EXPECT_EQ(manager_.getCurrentVoice(), "Julie");

  manager_.reload({makePackage("main", {{"de_DE", kEngine}})}, changed, message);
  EXPECT_TRUE(changed);
  EXPECT_EQ(message, "removed: French");
  EXPECT_EQ(manager_.getCurrentLanguage(), "German");  // the first installed one
  EXPECT_EQ(manager_.getCurrentVoice(), "Hans");

  manager_.reload({}, changed, message);
  EXPECT_TRUE(changed);
  EXPECT_NE(message.find("no language can be served"), std::string::npos);
  EXPECT_EQ(manager_.getCurrentLanguage(), "");
}

TEST_F(ManagerWithScriptedBackend, AReloadTakesANewRegistrationOfTheEngine) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  bool changed = false;
  std::string message;
  {
    ScriptedBackend replacement(kEngine);
    replacement.addVoice("Max", "English");
    manager_.reload(englishAndFrench(), changed, message);
    EXPECT_EQ(message, "removed: French");
    EXPECT_EQ(manager_.getAvailableVoices(),
              (std::map<std::string, std::string>{{"Max", "English"}}));
    EXPECT_EQ(manager_.getCurrentVoice(), "Max");
    manager_.startSynthetizer("Hello");
    EXPECT_EQ(replacement.sentences(), std::vector<std::string>{"Hello"});
    EXPECT_TRUE(backend_.sentences().empty());
  }
  // The replacement unregistered its name on leaving: nothing serves the languages any more.
  manager_.reload(englishAndFrench(), changed, message);
  EXPECT_TRUE(manager_.getAvailableLanguages().empty());
}

TEST_F(ManagerWithScriptedBackend, BackendsKeepWorkingAfterTheirEngineIsUnregistered) {
  ASSERT_TRUE(manager_.initialize(englishAndFrench()));
  {
    ScriptedBackend replacement("tts_other_engine");
    EXPECT_TRUE(bexko::engine::isBackendRegistered("tts_other_engine"));
  }
  EXPECT_FALSE(bexko::engine::isBackendRegistered("tts_other_engine"));
  EXPECT_FALSE(bexko::engine::unregisterBackend("tts_other_engine"));
  manager_.startSynthetizer("Still here");
  EXPECT_EQ(backend_.sentences().back(), "Still here");
}

TEST_F(ManagerWithScriptedBackend, EffectsAndFilterAreKeptAsState) {
  EXPECT_FALSE(manager_.isFilterEnabled());
  manager_.enableFilter(true);
  EXPECT_TRUE(manager_.isFilterEnabled());
  manager_.loadEffect("/effects/robot.fx");
  manager_.loadEffect("/effects/robot.fx");
  manager_.loadEffect("/effects/echo.fx");
  EXPECT_EQ(manager_.loadedEffects(), (std::vector<std::string>{"robot", "echo"}));
  manager_.applyEffect("robot", true);
  manager_.applyEffect("unknown", true);
  EXPECT_TRUE(logged(ko::log::warning, "unknown"));
}

class ManagerDictionary : public ManagerWithScriptedBackend {
 protected:
  void SetUp() override { ASSERT_TRUE(manager_.initialize(englishAndFrench())); }
  static std::string englishFile() {
    return ko::path::userWritableDataPath("bexko") + "/dictionary/English.dic";
  }
  void TearDown() override {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(ko::path::userWritableDataPath("bexko") + "/dictionary", ignored);
  }
};

TEST_F(ManagerDictionary, AReplacementChangesWholeWordsBeforeSynthesis) {
  EXPECT_TRUE(manager_.addToDictionary("ROS", "Ross", "", "", ""));
  EXPECT_TRUE(boost::filesystem::exists(englishFile()));
  manager_.startSynthetizer("I like ROS \\mrk=1\\ and ROSE, ROS!");
  EXPECT_EQ(backend_.sentences().back(), "I like Ross \\mrk=1\\ and ROSE, Ross!");

  manager_.setCurrentLanguage("French");  // another language, another dictionary
  manager_.startSynthetizer("ROS");
  EXPECT_EQ(backend_.sentences().back(), "ROS");
}

TEST_F(ManagerDictionary, WordIndexesPointIntoTheCallersText) {
  ASSERT_TRUE(manager_.addToDictionary("ROS", "Robot OS", "", "", ""));
  // Spoken text without tags: "a Robot OS  b"; the caller's: "a ROS  b".
  backend_.queueSentenceEvents({{ZR::TTS_EVENT_WORD, 0, 0},
                                {ZR::TTS_EVENT_WORD, 2, 100},
                                {ZR::TTS_EVENT_WORD, 8, 200},
                                {ZR::TTS_EVENT_WORD, 12, 300}});
  manager_.startSynthetizer("a ROS \\mrk=3\\ b");
  const auto words = callback_.events(ZR::TTS_EVENT_WORD);
  ASSERT_EQ(words.size(), 4u);
  EXPECT_EQ(words[0].value, 0);
  EXPECT_EQ(words[1].value, 2);
  EXPECT_EQ(words[2].value, 2);  // "OS" is part of what replaced "ROS"
  EXPECT_EQ(words[3].value, 7);
}

TEST_F(ManagerDictionary, EntriesPersistAndAreDeletedByWord) {
  EXPECT_TRUE(manager_.addToDictionary("ROS", "Ross", "", "", ""));
  EXPECT_TRUE(manager_.addToDictionary("noun", "robot", "1", "ロボット", "0"));
  EXPECT_FALSE(manager_.addToDictionary("", "nothing", "", "", ""));
  EXPECT_FALSE(manager_.addToDictionary("with\ttab", "x", "", "", ""));

  {
    RecordingCallback otherCallback;
    ZR::TextToSpeechManager other(&otherCallback, info_);
    ASSERT_TRUE(other.initialize(englishAndFrench()));
    other.startSynthetizer("ROS");
    EXPECT_EQ(backend_.sentences().back(), "Ross");
    capture_->clear();
    other.showDictionary();
    EXPECT_TRUE(logged(ko::log::info, "ロボット"));
    EXPECT_TRUE(logged(ko::log::info, "\"Ross\""));
  }

  EXPECT_FALSE(manager_.deleteFromDictionary("verb", "robot"));  // a reading of another type
  EXPECT_TRUE(manager_.deleteFromDictionary("", "robot"));
  EXPECT_TRUE(manager_.deleteFromDictionary("", "ROS"));
  EXPECT_FALSE(manager_.deleteFromDictionary("", "ROS"));
  manager_.startSynthetizer("ROS");
  EXPECT_EQ(backend_.sentences().back(), "ROS");
}

TEST_F(ManagerDictionary, UnloadingStopsReplacementsUntilLoadedAgain) {
  ASSERT_TRUE(manager_.addToDictionary("ROS", "Ross", "", "", ""));
  manager_.unloadDictionary();
  manager_.startSynthetizer("ROS");
  EXPECT_EQ(backend_.sentences().back(), "ROS");
  manager_.loadDictionary();
  manager_.startSynthetizer("ROS");
  EXPECT_EQ(backend_.sentences().back(), "Ross");
}

TEST_F(ManagerDictionary, MalformedLinesAreSkippedWithAWarning) {
  boost::filesystem::create_directories(boost::filesystem::path(englishFile()).parent_path());
  std::ofstream(englishFile()) << "# comment\nreplace\tROS\tRoss\ngarbage line\nreplace\tonly\n";
  manager_.loadDictionary();
  EXPECT_TRUE(logged(ko::log::warning, "Skipped 2 malformed lines"));
  manager_.startSynthetizer("ROS");
  EXPECT_EQ(backend_.sentences().back(), "Ross");
}

}  // namespace
