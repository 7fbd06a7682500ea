// Start-up, the installed packages handed to the engine, reset and shut-down of the speech
// service.
#include <zr/zrtexttospeech.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <zr/zrmemoryproxy.h>

#include "speechfixture.h"

namespace bexko {
namespace testing {
namespace {

namespace fs = boost::filesystem;

using StartupTest = SpeechServiceTest;

TEST_F(StartupTest, InitRaisesTheInitialValuesOfSevenKeysInOrder) {
  std::vector<std::string> raised;
  for (const RaisedEvent& event : startupEvents) {
    if (event.key.rfind("ZRTextToSpeech/", 0) == 0) raised.push_back(describe(event));
  }
  const std::vector<std::string> expected = {
      eventText("TextDone", 0),
      eventText("TextStarted", 0),
      eventText("CurrentBookMark", 0),
      eventText("PositionOfCurrentWord", 0),
      eventText("CurrentWord", std::string()),
      eventText("CurrentSentence", std::string()),
      statusText(-1, "done"),
  };
  EXPECT_EQ(raised, expected);
}

TEST_F(StartupTest, StatusReadsMinusOneDoneAndInterruptionIsOnlyDeclared) {
  ZR::ZRMemoryProxy memory(host.broker());
  EXPECT_EQ(memory.getData(ZR::ZRTextToSpeech::strStatusEvent),
            (ZR::ZRValue::array<int, std::string>(-1, "done")));
  // Declared, so readable, but never raised: it holds the empty value.
  EXPECT_TRUE(memory.getData(ZR::ZRTextToSpeech::strTextInterruptedEvent).isEmpty());
  for (const std::string& key :
       {ZR::ZRTextToSpeech::strTextDoneEvent, ZR::ZRTextToSpeech::strTextStartedEvent,
        ZR::ZRTextToSpeech::strCurrentBookMarkEvent,
        ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent, ZR::ZRTextToSpeech::strCurrentWordEvent,
        ZR::ZRTextToSpeech::strCurrentSentenceEvent}) {
    EXPECT_NO_THROW(memory.getData(key)) << key;
  }
}

TEST_F(StartupTest, EventKeysAreTheServiceNames) {
  EXPECT_EQ(ZR::ZRTextToSpeech::strTextDoneEvent, "ZRTextToSpeech/TextDone");
  EXPECT_EQ(ZR::ZRTextToSpeech::strTextStartedEvent, "ZRTextToSpeech/TextStarted");
  EXPECT_EQ(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, "ZRTextToSpeech/CurrentBookMark");
  EXPECT_EQ(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent,
            "ZRTextToSpeech/PositionOfCurrentWord");
  EXPECT_EQ(ZR::ZRTextToSpeech::strCurrentWordEvent, "ZRTextToSpeech/CurrentWord");
  EXPECT_EQ(ZR::ZRTextToSpeech::strCurrentSentenceEvent, "ZRTextToSpeech/CurrentSentence");
  EXPECT_EQ(ZR::ZRTextToSpeech::strStatusEvent, "ZRTextToSpeech/Status");
  EXPECT_EQ(ZR::ZRTextToSpeech::strTextInterruptedEvent, "ZRTextToSpeech/TextInterrupted");
}

TEST_F(StartupTest, DefaultsOfTheTimingAndAudibilityFields) {
  EXPECT_EQ(tts->markerAdvance(), 100);
  EXPECT_EQ(tts->audibleMaxLevel(), 1000);
  EXPECT_EQ(tts->audibleMinSize(), 200);
  EXPECT_EQ(tts->appliedSetting().type, ZR::UNDEFINED);
  EXPECT_NE(tts->engine(), nullptr);
}

TEST_F(StartupTest, PackagesFromThePackageManagerComeFirstAndAlone) {
  const std::vector<ko::PackageInfo> packages = tts->xGetInstalledPackages();
  if (fs::exists("/usr/share/tts/acapela") || fs::exists("/usr/share/tts/aitalk")) {
    GTEST_SKIP() << "a system engine is installed on this machine";
  }
  ASSERT_EQ(packages.size(), 1u);
  EXPECT_EQ(packages[0].name("en_US"), "Scripted English");
}

TEST_F(StartupTest, SystemEnginePackagesFollowInAcapelaAitalkOrder) {
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  ASSERT_NE(dataHome, nullptr);
  const fs::path acapela = fs::path(dataHome) / "tts" / "acapela";
  const fs::path aitalk = fs::path(dataHome) / "tts" / "aitalk";
  fs::create_directories(acapela);
  fs::create_directories(aitalk);

  const std::vector<ko::PackageInfo> packages = tts->xGetInstalledPackages();
  ASSERT_EQ(packages.size(), 3u);
  EXPECT_EQ(packages[0].name("en_US"), "Scripted English");

  const struct {
    const ko::PackageInfo& package;
    std::string engine;
    fs::path dir;
  } expected[] = {{packages[1], "acapela", acapela}, {packages[2], "aitalk", aitalk}};
  for (const auto& e : expected) {
    EXPECT_EQ(e.package.name("en_US"), e.engine + "_system_package");
    EXPECT_EQ(e.package.version(), "1.0");
    EXPECT_TRUE(fs::equivalent(e.package.path(), e.dir)) << e.package.path();
    ASSERT_EQ(e.package.languages().size(), 1u);
    EXPECT_EQ(e.package.languages()[0].engineName(), "tts_" + e.engine);
    EXPECT_EQ(e.package.languages()[0].locale(), "");
  }
}

TEST(SystemEnginePackageTest, NothingIsAddedWhenTheEngineFolderIsMissing) {
  if (fs::exists("/usr/share/tts/aitalk/")) GTEST_SKIP() << "aitalk is installed here";
  std::vector<ko::PackageInfo> packages(1);
  ZR::ZRTextToSpeech::addSystemEnginePackage(packages, "aitalk");
  EXPECT_EQ(packages.size(), 1u);
}

TEST_F(StartupTest, ConstructionLogsThePackagesAtVerboseLevel) {
  // The fixture's service logged before the logs were cleared: start a second one.
  tts->exit();
  host.clearLogs();
  auto again = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  EXPECT_TRUE(host.hasLog(ko::log::verbose, "ZRTextToSpeech",
                          "ZRTextToSpeech, looking for languages in the following packages: "));
  std::vector<std::string> listed;
  for (const std::string& text : serviceLogTexts(host, "ZRTextToSpeech", ko::log::verbose)) {
    if (text.rfind("Packages: ", 0) == 0) listed.push_back(text);
  }
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].rfind("Packages: Scripted English located in ", 0), 0u) << listed[0];
  again->exit();
}

TEST(ConstructionTest, FailsWithoutAnyInstalledLanguage) {
  ScriptedBackend backend;
  TestHost host;
  try {
    ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
    FAIL() << "the service started without any language";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
    EXPECT_EQ(e.methodName(), "ZRTextToSpeech");
    EXPECT_EQ(e.description(),
              "No TTS languages seem to be installed on the system. ZRTextToSpeech is disabled.");
  }
  // Nothing of the failed service stays registered.
  EXPECT_FALSE(host.broker()->getModuleByName("ZRTextToSpeech"));
}

using ResetTest = SpeechServiceTest;

TEST_F(ResetTest, QueuesTheStyleResetSentenceOutsideJapanese) {
  tts->reset();
  const std::vector<std::string> sentences = backend.sentences();
  ASSERT_EQ(sentences.size(), 1u);
  EXPECT_EQ(sentences[0], "\\style=reset\\ \\rst\\");
  for (const ScriptedCall& call : backend.calls("setParameter")) {
    ASSERT_FALSE(call.args.empty());
    EXPECT_NE(call.args[0], "inputMode");
  }
  EXPECT_EQ(tts->globalSetting().parameters.count("inputMode"), 0u);
  // Tags only: the sentence starts without TextStarted/TextDone.
  const std::vector<std::string> events = serviceEvents();
  for (const std::string& event : events) {
    EXPECT_EQ(event.rfind("TextStarted", 0), std::string::npos) << event;
    EXPECT_EQ(event.rfind("TextDone", 0), std::string::npos) << event;
  }
  EXPECT_EQ(statusEvents(),
            (std::vector<std::string>{statusText(1, "enqueued"), statusText(1, "started"),
                                      statusText(1, "done")}));
}

using ShutdownTest = SpeechServiceTest;

TEST_F(ShutdownTest, HostShutdownStopsTheSentenceBeingSpoken) {
  backend.setBlocking(true);
  BackgroundCall speaking([this] { tts->say("Hello there"); });
  ASSERT_TRUE(backend.waitForSynthesis(1, 5000));

  host.broker()->shutdown();

  ASSERT_TRUE(speaking.joinWithin(5000)) << "say did not return after the shutdown";
  EXPECT_EQ(speaking.error(), "");
  EXPECT_EQ(backend.calls("stopSynthetizer").size(), 1u);
  const std::vector<std::string> statuses = statusEvents();
  ASSERT_FALSE(statuses.empty());
  EXPECT_EQ(statuses.back(), statusText(1, "stopped"));
  EXPECT_FALSE(host.broker()->getModuleByName("ZRTextToSpeech"));
}

TEST_F(ShutdownTest, AStoppedSayConcludesBeforeTheEventStoreGoes) {
  // The engine takes a while to return after the stop: the host must not remove the event
  // store before that say has raised its last events and returned.
  backend.setBlocking(true);
  backend.setStopLatency(std::chrono::milliseconds(300));
  BackgroundCall speaking([this] { tts->say("Hello there"); });
  ASSERT_TRUE(backend.waitForSynthesis(1, 5000));

  host.broker()->shutdown();

  ASSERT_TRUE(speaking.joinWithin(5000)) << "say did not return after the shutdown";
  EXPECT_EQ(speaking.error(), "");
  const std::vector<std::string> sentences =
      describe(host.events("ZRTextToSpeech/CurrentSentence"));
  ASSERT_FALSE(sentences.empty());
  EXPECT_EQ(sentences.back(), eventText("CurrentSentence", std::string()));
}

TEST_F(ShutdownTest, ASayAfterTheServiceBeganToExitIsRefused) {
  tts->exit();
  try {
    tts->say("Too late");
    FAIL() << "say was accepted after exit";
  } catch (const ZR::ZRError& e) {
    EXPECT_STREQ(e.what(), "The speech service is shutting down.");
  }
  EXPECT_TRUE(backend.sentences().empty());
}

}  // namespace
}  // namespace testing
}  // namespace bexko
