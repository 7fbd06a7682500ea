// Start-up, the installed packages handed to the engine, reset and shut-down of the speech
// service.
#include <zr/zrtexttospeech.h>

#include <future>

#include <boost/filesystem.hpp>

#include <zr/zrmemoryproxy.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

namespace fs = boost::filesystem;

using StartupTest = SpeechServiceTest;

TEST_F(StartupTest, InitRaisesTheInitialValuesAndStatusReadsMinusOneDone) {
  EXPECT_THAT(startupEvents, ElementsAre("TextDone=0", "TextStarted=0", "CurrentBookMark=0",
                                         "PositionOfCurrentWord=0", R"(CurrentWord="")",
                                         R"(CurrentSentence="")", R"(Status=[-1, "done"])"));
  ZR::ZRMemoryProxy memory(host.broker());
  EXPECT_EQ(memory.getData(ZR::ZRTextToSpeech::strStatusEvent),
            (ZR::ZRValue::array<int, std::string>(-1, "done")));
  // Declared, so readable, but never raised: it holds the empty value.
  EXPECT_TRUE(memory.getData(ZR::ZRTextToSpeech::strTextInterruptedEvent).isEmpty());
}

TEST_F(StartupTest, PackagesFromThePackageManagerComeFirstThenTheSystemEngines) {
  if (fs::exists("/usr/share/tts/acapela") || fs::exists("/usr/share/tts/aitalk")) {
    GTEST_SKIP() << "a system engine is installed on this machine";
  }
  const auto names = [this] {
    std::vector<std::string> out;
    for (const ko::PackageInfo& p : tts->xGetInstalledPackages()) out.push_back(p.name("en_US"));
    return out;
  };
  EXPECT_THAT(names(), ElementsAre("scripted"));
  // Found in the user's data folder as well.
  const fs::path engines = fs::path(host.dataDir()).parent_path() / "tts";
  for (const char* engine : {"aitalk", "acapela"}) fs::create_directories(engines / engine);
  EXPECT_THAT(names(), ElementsAre("scripted", "acapela_system_package", "aitalk_system_package"));
}

using ResetTest = SpeechServiceTest;

TEST_F(ResetTest, QueuesTheStyleResetSentenceWithoutInputModeOutsideJapanese) {
  tts->reset();
  EXPECT_THAT(backend.sentences(), ElementsAre(R"(\style=reset\ \rst\)"));
  for (const ScriptedCall& call : backend.calls("setParameter")) {
    EXPECT_NE(call.args.at(0), "inputMode");
  }
  EXPECT_EQ(tts->globalSetting().parameters.count("inputMode"), 0u);
  EXPECT_THAT(statusEvents(), ElementsAre(R"(Status=[1, "enqueued"])", R"(Status=[1, "started"])",
                                          R"(Status=[1, "done"])"));
}

using ShutdownTest = SpeechServiceTest;

TEST_F(ShutdownTest, AStoppedSayConcludesBeforeTheEventStoreGoes) {
  // The engine takes a while to return after the stop: the host must not remove the event
  // store before that say has raised its last events and returned.
  backend.setBlocking(true);
  backend.setStopLatency(std::chrono::milliseconds(300));
  auto speaking = std::async(std::launch::async, [this] { tts->say("Hello there"); });
  ASSERT_TRUE(backend.waitForSynthesis(1, 5000));

  host.broker()->shutdown();

  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready)
      << "say did not return after the shutdown";
  EXPECT_NO_THROW(speaking.get());
  EXPECT_EQ(backend.calls("stopSynthetizer").size(), 1u);
  EXPECT_THAT(statusEvents(), ElementsAre(R"(Status=[1, "enqueued"])", R"(Status=[1, "started"])",
                                          R"(Status=[1, "stopped"])"));
  EXPECT_THAT(serviceEvents(ZR::ZRTextToSpeech::strCurrentSentenceEvent),
              ElementsAre(R"(CurrentSentence="Hello there")", R"(CurrentSentence="")"));
  EXPECT_FALSE(host.broker()->getModuleByName("ZRTextToSpeech"));
}

TEST_F(ShutdownTest, ASayAfterTheServiceBeganToExitIsRefused) {
  tts->exit();
  EXPECT_EQ(errorOf([this] { tts->say("Too late"); }),
            "ZRTextToSpeech.say: The speech service is shutting down.");
  EXPECT_TRUE(statusEvents().empty());
  EXPECT_TRUE(backend.sentences().empty());
}

}  // namespace
}  // namespace bexko::testing
