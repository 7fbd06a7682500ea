// Speech tasks: the events of a sentence, sentences written to files, stopping from other
// threads and through the host, and the errors a caller sees.
#include <zr/zrtexttospeech.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <ko/path.h>
#include <zr/tts/textutils.h>

#include "speechfixture.h"

namespace bexko {
namespace testing {
namespace {

namespace fs = boost::filesystem;
using ZR::TTS_EVENT_MARKER;
using ZR::TTS_EVENT_WORD;

// --- One sentence, start to end ------------------------------------------------------------

using SentenceEventsTest = SpeechServiceTest;

TEST_F(SentenceEventsTest, SpokenSentenceRaisesTheFullSequence) {
  backend.setScript({{TTS_EVENT_WORD, 0, 0}, {TTS_EVENT_WORD, 6, 100}});
  tts->say("Hello \\rspd=90\\world.");

  // The engine gets the tags; the clients see the text without them.
  EXPECT_EQ(backend.sentences(), (std::vector<std::string>{"Hello \\rspd=90\\world."}));
  const std::vector<std::string> expected = {
      statusText(1, "enqueued"),
      eventText("TextStarted", 1),
      eventText("TextDone", 0),
      statusText(1, "started"),
      eventText("CurrentSentence", std::string("Hello world.")),
      eventText("PositionOfCurrentWord", 1),
      eventText("CurrentWord", std::string("Hello")),
      eventText("PositionOfCurrentWord", 7),
      eventText("CurrentWord", std::string("world")),
      statusText(1, "done"),
      eventText("CurrentSentence", std::string()),
  };
  EXPECT_EQ(serviceEvents(), expected);
}

TEST_F(SentenceEventsTest, EachSentenceTakesTheNextIdentifier) {
  tts->say("One");
  tts->say("Two");
  tts->say("Three");
  EXPECT_EQ(statusEvents(),
            (std::vector<std::string>{
                statusText(1, "enqueued"), statusText(1, "started"), statusText(1, "done"),
                statusText(2, "enqueued"), statusText(2, "started"), statusText(2, "done"),
                statusText(3, "enqueued"), statusText(3, "started"), statusText(3, "done")}));
}

TEST_F(SentenceEventsTest, SentenceToFileRaisesNoCurrentSentenceAndCreatesTheFile) {
  const fs::path file = fs::path(host.root()) / "recordings" / "nested" / "hello.wav";
  ASSERT_FALSE(fs::exists(file.parent_path()));
  tts->sayToFile("Hello", file.string());

  const std::vector<std::string> expected = {statusText(1, "enqueued"), eventText("TextStarted", 1),
                                             eventText("TextDone", 0), statusText(1, "started"),
                                             statusText(1, "done")};
  EXPECT_EQ(serviceEvents(), expected);
  EXPECT_TRUE(fs::is_regular_file(file));
  EXPECT_EQ(backend.sentences(), (std::vector<std::string>{"Hello"}));
}

TEST_F(SentenceEventsTest, TagsOnlySentenceStartsWithoutTextStartedOrTextDone) {
  const std::string text = "\\rst\\ \\pau=10\\";
  tts->say(text);

  std::string cleaned = text;
  ZR::replaceMrkPause(cleaned);
  const std::string shown = ZR::replaceTags(cleaned, "");
  const std::vector<std::string> expected = {
      statusText(1, "enqueued"), statusText(1, "started"), eventText("CurrentSentence", shown),
      statusText(1, "done"), eventText("CurrentSentence", std::string())};
  EXPECT_EQ(serviceEvents(), expected);
  // Still synthesised, with the pause mark the text clean-up added.
  EXPECT_EQ(backend.sentences(), (std::vector<std::string>{cleaned}));
}

TEST_F(SentenceEventsTest, EmptyTextRaisesNothingAndReachesNoEngine) {
  tts->say("");
  tts->sayToFile("", "");
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(backend.calls("startSynthetizer").empty());
}

TEST_F(SentenceEventsTest, SayWithALanguageSpeaksThatSentenceOnly) {
  tts->say("Hello", "English");
  EXPECT_EQ(statusEvents().back(), statusText(1, "done"));
  try {
    tts->say("Bonjour", "French");
    FAIL() << "French is not installed";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.methodName(), "say");
    EXPECT_EQ(e.description(), "French language is not installed.");
  }
  EXPECT_EQ(statusEvents().size(), 3u) << "no task for the refused language";
}

// --- Stopping --------------------------------------------------------------------------------

class StopTest : public SpeechServiceTest {
 protected:
  void TearDown() override { backend.setBlocking(false); }
};

TEST_F(StopTest, StopAllFromAnotherThreadInterruptsTheSentence) {
  FakeModule& animated = host.addFakeModule("ZRAnimatedSpeech");
  animated.addMethod("_mrkpauseCallback", 1);
  // Two bookmarks far in the sentence and two pause marks, then a word that tells the test
  // that the engine got that far, then the engine blocks.
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 5, bytesForMs(20000)},
                               {TTS_EVENT_MARKER, 64536, bytesForMs(100)},
                               {TTS_EVENT_MARKER, 6, bytesForMs(30000)},
                               {TTS_EVENT_MARKER, 64537, bytesForMs(200)},
                               {TTS_EVENT_WORD, 0, 0}});
  backend.setBlocking(true);

  BackgroundCall speaking([this] { tts->say("One two three"); });
  ASSERT_TRUE(backend.waitForSynthesis(1, 5000));
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentWordEvent, std::string("One"), 5000));
  host.clearEvents();

  tts->stopAll();
  ASSERT_TRUE(speaking.joinWithin(5000)) << "the interrupted say did not return";
  EXPECT_EQ(speaking.error(), "");

  const std::vector<std::string> expected = {
      eventText("TextInterrupted", 1), eventText("CurrentBookMark", 5),
      eventText("CurrentBookMark", 6), statusText(1, "stopped"),
      eventText("CurrentSentence", std::string())};
  EXPECT_EQ(serviceEvents(), expected);
  EXPECT_EQ(backend.calls("stopSynthetizer").size(), 1u);

  // One pause mark per clean-up: only the first one reached the animated speech.
  const std::vector<FakeModule::Call> calls = animated.calls("_mrkpauseCallback");
  ASSERT_EQ(calls.size(), 1u);
  ASSERT_EQ(calls[0].args.size(), 1u);
  EXPECT_EQ(calls[0].args[0], ZR::ZRValue(ZR::makeSpecificId(64536)));
}

TEST_F(StopTest, PostedSayIsStoppedThroughTheHostByItsCallId) {
  backend.setBlocking(true);
  ZR::ZRPostedCall posted =
      host.broker()->post("ZRTextToSpeech", "say", {ZR::ZRValue(std::string("Posted words"))});
  ASSERT_TRUE(backend.waitForSynthesis(1, 5000));
  // The task carries the host's call id, not a number of its own.
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strStatusEvent,
                                ZR::ZRValue::array<int, std::string>(posted.id, "started"), 5000));

  host.broker()->stop("ZRTextToSpeech", posted.id);

  EXPECT_EQ(posted.result.wait(5000), ko::FutureState::FinishedWithValue);
  const std::vector<std::string> statuses = statusEvents();
  EXPECT_EQ(statuses, (std::vector<std::string>{statusText(posted.id, "enqueued"),
                                                statusText(posted.id, "started"),
                                                statusText(posted.id, "stopped")}));
  EXPECT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strTextInterruptedEvent, 1, 0));
  EXPECT_FALSE(host.hasLog(
      ko::log::warning, "stop",
      "No task with the id " + std::to_string(posted.id) + " is currently being processed."));
}

TEST_F(StopTest, StopOfMinusOneOnlyWarns) {
  tts->say("Spoken");
  host.clearEvents();
  tts->stop(-1);
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(backend.calls("stopSynthetizer").empty());
  EXPECT_TRUE(host.hasLog(ko::log::warning, "stop",
                          "No task with the id -1 is currently being processed."));
}

TEST_F(StopTest, StopOfAnUnknownIdWarnsWithThatId) {
  tts->stop(42);
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(host.hasLog(ko::log::warning, "stop",
                          "No task with the id 42 is currently being processed."));
}

TEST_F(StopTest, StopAllBeforeAnySentenceRaisesNothing) {
  tts->stopAll();
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(backend.calls("stopSynthetizer").empty());
}

TEST_F(StopTest, StopAllAfterANormalEndStillInterruptsOnce) {
  tts->say("Already said");
  host.clearEvents();

  tts->stopAll();
  EXPECT_EQ(serviceEvents(), (std::vector<std::string>{eventText("TextInterrupted", 1)}));

  // The clean-up forgot the last task: a second stop finds nothing.
  host.clearEvents();
  tts->stopAll();
  EXPECT_TRUE(host.events().empty());
}

TEST_F(StopTest, ServiceKeepsSpeakingAfterAStop) {
  backend.setBlocking(true);
  {
    BackgroundCall speaking([this] { tts->say("First"); });
    ASSERT_TRUE(backend.waitForSynthesis(1, 5000));
    tts->stopAll();
    ASSERT_TRUE(speaking.joinWithin(5000));
  }
  backend.setBlocking(false);
  host.clearEvents();
  tts->say("Second");
  EXPECT_EQ(statusEvents(),
            (std::vector<std::string>{statusText(2, "enqueued"), statusText(2, "started"),
                                      statusText(2, "done")}));
}

// --- Errors ----------------------------------------------------------------------------------

using EncodingTest = SpeechServiceTest;

TEST_F(EncodingTest, RefusedTextIsShownCutAfter120Bytes) {
  backend.setEncodingAccepted(false);
  const std::string name = tts->globalSetting().value;
  ASSERT_NE(tts->globalSetting().type, ZR::UNDEFINED);

  const struct {
    std::string text;
    std::string shown;
  } cases[] = {
      {std::string(120, 'a'), std::string(120, 'a')},
      {std::string(121, 'b'), std::string(120, 'b') + " ..."},
      {std::string(200, 'c'), std::string(120, 'c') + " ..."},
      // Tags are left out of what is shown, and do not count.
      {"\\rspd=80\\" + std::string(120, 'd'), std::string(120, 'd')},
  };
  for (const auto& c : cases) {
    try {
      tts->say(c.text);
      ADD_FAILURE() << "accepted: " << c.text;
    } catch (const ZR::ZRError& e) {
      EXPECT_EQ(e.moduleName(), "ZRTextToSpeech");
      EXPECT_EQ(e.methodName(), "say");
      EXPECT_EQ(e.description(), "Error in encoding conversion. Please verify that the text \"" +
                                     c.shown + "\" is well adapted to the selected language (" +
                                     name + ")");
    }
  }
  EXPECT_TRUE(host.events().empty()) << "no task exists for a refused text";
  EXPECT_TRUE(backend.calls("startSynthetizer").empty());
}

class OutputFileTest : public SpeechServiceTest {
 protected:
  /// The error sayToFile gives for `fileName`, or empty when it was accepted.
  std::string refusal(const std::string& fileName) {
    try {
      tts->sayToFile("Hello", fileName);
    } catch (const ZR::ZRError& e) {
      EXPECT_EQ(e.methodName(), "sayToFile");
      return e.description();
    }
    return "";
  }
};

TEST_F(OutputFileTest, NamesAreCheckedBeforeAnyTask) {
  const std::string root = host.root();
  const std::string home = ko::os::home();
  const std::string tmp = ko::os::tmp();
  const std::string notAllowed =
      "It is only allowed to write in the " + home + " or " + tmp + " directories";
  const std::string noFile = "Please specify an output file.";
  const struct {
    std::string fileName;
    std::string error;
  } cases[] = {
      {"", noFile},
      {root + "/folder/", noFile},
      {root + "/song.mp3", "The specified file must be a wav file."},
      {root + "/noextension", "The specified file must be a wav file."},
      // A folder whose text holds both the home and the temporary folder is refused.
      {home + tmp + "/out.wav", notAllowed},
  };
  for (const auto& c : cases) {
    host.clearLogs();
    EXPECT_EQ(refusal(c.fileName), c.error) << c.fileName;
    // Only the missing name is logged before it is thrown.
    const std::vector<std::string> expectedLogs =
        c.error == noFile ? std::vector<std::string>{noFile} : std::vector<std::string>{};
    EXPECT_EQ(serviceLogTexts(host, "xCheckFile", ko::log::error), expectedLogs) << c.fileName;
  }
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(backend.calls("startSynthetizer").empty());
}

TEST_F(OutputFileTest, WavAndRawInAnyCaseAreWritten) {
  const fs::path dir = fs::path(host.root()) / "out" / "deeper";
  for (const std::string name : {"a.wav", "b.WAV", "c.raw", "d.Raw"}) {
    const fs::path file = dir / name;
    EXPECT_EQ(refusal(file.string()), "") << name;
    EXPECT_TRUE(fs::is_regular_file(file)) << name;
  }
  EXPECT_EQ(backend.sentences().size(), 4u);
}

TEST_F(OutputFileTest, FolderOutsideTheHomeIsAcceptedAsTheRuleStands) {
  // The rule refuses only a folder naming both the home and the temporary folder; a folder
  // beside the home is accepted and created.
  const fs::path file = fs::path(host.root()) / "beside-home" / "x.wav";
  ASSERT_EQ(file.parent_path().string().find(ko::os::home()), std::string::npos);
  EXPECT_EQ(refusal(file.string()), "");
  EXPECT_TRUE(fs::is_directory(file.parent_path()));
}

using EngineErrorTest = SpeechServiceTest;

TEST_F(EngineErrorTest, SynthesisErrorIsLoggedAndTheTaskEndsDone) {
  const ZR::ZRError failure("TextToSpeech", "startSynthetizer", "the engine broke");
  backend.failNext("startSynthetizer", failure);
  EXPECT_NO_THROW(tts->say("Hello"));
  EXPECT_EQ(statusEvents(),
            (std::vector<std::string>{statusText(1, "enqueued"), statusText(1, "started"),
                                      statusText(1, "done")}));
  EXPECT_TRUE(host.hasLog(ko::log::error, "xSpeakingLoop", "Error catched " + failure.toString()));
}

TEST_F(EngineErrorTest, VoiceSettingErrorEndsThrownAndReachesTheCaller) {
  ASSERT_EQ(tts->globalSetting().type, ZR::VOICE);
  const ZR::ZRError failure("TextToSpeech", "setCurrentVoice", "no such voice today");
  backend.failNext("setCurrentVoice", failure);
  try {
    tts->say("Hello");
    FAIL() << "the voice-setting error was swallowed";
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), failure.moduleName());
    EXPECT_EQ(e.methodName(), failure.methodName());
    EXPECT_EQ(e.description(), failure.description());
  }
  const std::vector<std::string> expected = {statusText(1, "enqueued"), statusText(1, "thrown"),
                                             eventText("CurrentSentence", std::string())};
  EXPECT_EQ(serviceEvents(), expected);
  EXPECT_TRUE(host.hasLog(ko::log::error, "xSay", "no such voice today"));
  EXPECT_TRUE(backend.calls("startSynthetizer").empty());

  // The setting was not applied, so the next sentence tries again and is spoken.
  host.clearEvents();
  tts->say("Again");
  EXPECT_EQ(statusEvents().back(), statusText(2, "done"));
}

}  // namespace
}  // namespace testing
}  // namespace bexko
