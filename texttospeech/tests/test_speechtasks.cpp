// Speech tasks: the events of a sentence, sentences written to files, stopping from another
// thread or by id, and the errors a caller sees.
#include <zr/zrtexttospeech.h>

#include <future>

#include <boost/filesystem.hpp>

#include <ko/path.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

namespace fs = boost::filesystem;
using ZR::TTS_EVENT_MARKER;
using ZR::TTS_EVENT_WORD;

const char* const kEnqueued = R"(Status=[1, "enqueued"])";
const char* const kNoSentence = R"(CurrentSentence="")";

// --- One sentence, start to end ------------------------------------------------------------

using SentenceEventsTest = SpeechServiceTest;

TEST_F(SentenceEventsTest, EachKindOfSentenceRaisesItsSequence) {
  // The third word event finds no word left: it raises nothing.
  backend.setScript({{TTS_EVENT_WORD, 0, 0}, {TTS_EVENT_WORD, 6, 100}, {TTS_EVENT_WORD, 12, 200}});
  const std::string file = host.root() + "/recordings/nested/hello.wav";
  const struct {
    std::function<void()> call;
    std::string engineText;
    std::vector<std::string> events;
  } cases[] = {
      // Tags only: no TextStarted nor TextDone; still synthesised, with the pause mark added.
      {[this] { tts->say("\\rst\\ \\pau=10\\"); },
       R"(\rst\ \mrk=64536\\pau=10\)",
       {kEnqueued, R"(Status=[1, "started"])", R"(CurrentSentence=" ")", R"(Status=[1, "done"])",
        kNoSentence}},
      // To a file, in a folder it creates: no CurrentSentence; words count on from the sentence
      // before (one character).
      {[&] { tts->sayToFile("Hello", file); },
       "Hello",
       {R"(Status=[2, "enqueued"])", "TextStarted=1", "TextDone=0", R"(Status=[2, "started"])",
        "PositionOfCurrentWord=2", R"(CurrentWord="Hello")", R"(Status=[2, "done"])"}},
      // Spoken: the engine gets the tags, the clients see the text without them; words count
      // from the sentence's start.
      {[this] { tts->say("Hello \\rspd=90\\world."); },
       "Hello \\rspd=90\\world.",
       {R"(Status=[3, "enqueued"])", "TextStarted=1", "TextDone=0", R"(Status=[3, "started"])",
        R"(CurrentSentence="Hello world.")", "PositionOfCurrentWord=1", R"(CurrentWord="Hello")",
        "PositionOfCurrentWord=7", R"(CurrentWord="world")", R"(Status=[3, "done"])", kNoSentence}},
  };
  for (const auto& c : cases) {
    host.clearEvents();
    c.call();
    EXPECT_EQ(backend.sentences().back(), c.engineText);
    EXPECT_EQ(serviceEvents(), c.events);
  }
  EXPECT_TRUE(fs::is_regular_file(file));
}

// --- Stopping --------------------------------------------------------------------------------

using StopTest = SpeechServiceTest;

TEST_F(StopTest, StopAllFromAnotherThreadInterruptsTheSentence) {
  FakeModule& animated = host.addFakeModule("ZRAnimatedSpeech");
  animated.addMethod("_mrkpauseCallback", 1);
  // Two bookmarks (the first one due in 880 ms, 64535 the last bookmark number) and two pause
  // marks, then a word that tells the test that the engine got that far; then the engine blocks.
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 5, bytesForMs(1000)},
                               {TTS_EVENT_MARKER, 64536, bytesForMs(100)},
                               {TTS_EVENT_MARKER, 64535, bytesForMs(30000)},
                               {TTS_EVENT_MARKER, 64537, bytesForMs(200)},
                               {TTS_EVENT_WORD, 0, 0}});
  backend.setBlocking(true);
  auto speaking = std::async(std::launch::async, [this] { tts->say("One two three"); });
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentWordEvent, std::string("One"), 5000));
  host.clearEvents();
  EXPECT_TRUE(animated.calls().empty()) << "pause marks wait for a clean-up";

  tts->stopAll();
  ASSERT_EQ(speaking.wait_for(std::chrono::seconds(5)), std::future_status::ready)
      << "the interrupted say did not return";
  EXPECT_NO_THROW(speaking.get());
  // The pending bookmarks are flushed in order; the pause marks are never bookmarks.
  EXPECT_THAT(serviceEvents(),
              ElementsAre("TextInterrupted=1", "CurrentBookMark=5", "CurrentBookMark=64535",
                          R"(Status=[1, "stopped"])", kNoSentence));
  EXPECT_EQ(backend.calls("stopSynthetizer").size(), 1u);
  ASSERT_EQ(animated.calls().size(), 1u) << "one pause mark per clean-up";
  EXPECT_EQ(animated.calls()[0].args, std::vector<ZR::ZRValue>{ZR::ZRValue(0)});

  // Past the first bookmark's time: its timer was cancelled, so nothing looks for it.
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(serviceEvents(ZR::ZRTextToSpeech::strCurrentBookMarkEvent).size(), 2u);
  EXPECT_FALSE(host.hasLog(ko::log::info, "markerCB", "marker not found"));

  // The service speaks on; the next clean-up hands over the next pause mark.
  backend.setBlocking(false);
  tts->say("Next");
  EXPECT_EQ(statusEvents().back(), R"(Status=[2, "done"])");
  tts->stopAll();
  ASSERT_EQ(animated.calls().size(), 2u);
  EXPECT_EQ(animated.calls()[1].args, std::vector<ZR::ZRValue>{ZR::ZRValue(1)});
}

TEST_F(StopTest, PostedSayIsStoppedThroughTheHostByItsCallId) {
  backend.setBlocking(true);
  ZR::ZRPostedCall posted =
      host.broker()->post("ZRTextToSpeech", "say", {ZR::ZRValue(std::string("Posted words"))});
  ASSERT_TRUE(backend.waitForSynthesis(1, 5000));
  host.broker()->stop("ZRTextToSpeech", posted.id);
  EXPECT_EQ(posted.result.wait(5000), ko::FutureState::FinishedWithValue);
  // The task carries the host's call id, not a number of its own.
  const std::string id = "Status=[" + std::to_string(posted.id);
  EXPECT_THAT(statusEvents(),
              ElementsAre(id + R"(, "enqueued"])", id + R"(, "started"])", id + R"(, "stopped"])"));
  EXPECT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strTextInterruptedEvent, 1, 0));
}

TEST_F(StopTest, AfterANormalEndStopAllStillInterruptsOnceAndAnotherIdOnlyWarns) {
  // A pause mark, with no animated-speech module to take it.
  backend.queueSentenceEvents({{TTS_EVENT_MARKER, 64536, 0}});
  tts->say("Already said");  // its task stays the current one until a clean-up
  host.clearEvents();
  tts->stop(-1);
  EXPECT_THAT(logs("stop", ko::log::warning),
              ElementsAre("No task with the id -1 is currently being processed."));
  EXPECT_TRUE(backend.calls("stopSynthetizer").empty());
  tts->stopAll();
  tts->stopAll();  // the clean-up forgot the task and the pause mark: nothing is left
  EXPECT_THAT(serviceEvents(), ElementsAre("TextInterrupted=1"));
  EXPECT_THAT(logs("raiseMrkPause", ko::log::error),
              ElementsAre("Cannot call AnimatedSpeech->_mrkpauseCallback."));
}

// --- Errors ----------------------------------------------------------------------------------

using SpeechErrorTest = SpeechServiceTest;

TEST_F(SpeechErrorTest, EmptyOrRefusedRequestsMakeNoTask) {
  backend.setEncodingAccepted(false);
  const std::string root = host.root(), home = ko::os::home(), tmp = ko::os::tmp();
  const auto say = [this](const std::string& text) { return [this, text] { tts->say(text); }; };
  const auto toFile = [this](const std::string& name) {
    return [this, name] { tts->sayToFile("Hello", name); };
  };
  const auto badText = [](const std::string& shown) {
    return "ZRTextToSpeech.say: Error in encoding conversion. Please verify that the text \"" +
           shown + "\" is well adapted to the selected language (Kenny)";
  };
  const std::string noFile = "ZRTextToSpeech.sayToFile: Please specify an output file.";
  const std::pair<std::function<void()>, std::string> cases[] = {
      {say(""), ""},
      {[this] { tts->sayToFile("", ""); }, ""},
      {[this] { tts->say("Guten Tag", "German"); },
       "ZRTextToSpeech.say: German language is not installed."},
      // The text refused is shown without its tags, cut after 120 bytes.
      {say(std::string(120, 'a')), badText(std::string(120, 'a'))},
      {say(std::string(121, 'b')), badText(std::string(120, 'b') + " ...")},
      {say("\\rspd=80\\" + std::string(120, 'd')), badText(std::string(120, 'd'))},
      {toFile(""), noFile},
      {toFile(root + "/folder/"), noFile},
      {toFile(root + "/song.mp3"),
       "ZRTextToSpeech.sayToFile: The specified file must be a wav file."},
      // A folder whose text holds both the home and the temporary folder is refused.
      {toFile(home + tmp + "/out.wav"),
       "ZRTextToSpeech.sayToFile: It is only allowed to write in the " + home + " or " + tmp +
           " directories"},
  };
  for (const auto& c : cases) EXPECT_EQ(errorOf(c.first), c.second);
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(backend.calls("startSynthetizer").empty());
  // Only the missing file names are logged before they are thrown.
  EXPECT_THAT(logs("xCheckFile", ko::log::error),
              ElementsAre("Please specify an output file.", "Please specify an output file."));

  // Any other folder is accepted and created, beside the home too; the extension in any case.
  backend.setEncodingAccepted(true);
  for (const std::string& name : {root + "/out/deeper/a.WAV", root + "/b.Raw"}) {
    EXPECT_EQ(errorOf(toFile(name)), "");
    EXPECT_TRUE(fs::is_regular_file(name)) << name;
  }
}

TEST_F(SpeechErrorTest, VoiceSettingErrorsReachTheCallerAndEngineErrorsEndDone) {
  backend.failNext("setCurrentVoice",
                   ZR::ZRError("TextToSpeech", "setCurrentVoice", "no such voice today"));
  EXPECT_EQ(errorOf([this] { tts->say("Hello"); }),
            "TextToSpeech.setCurrentVoice: no such voice today");
  EXPECT_THAT(serviceEvents(), ElementsAre(kEnqueued, R"(Status=[1, "thrown"])", kNoSentence));
  EXPECT_TRUE(host.hasLog(ko::log::error, "xSay", "no such voice today"));
  EXPECT_TRUE(backend.calls("startSynthetizer").empty());

  // The setting was not applied, so the next sentence tries again; an engine error is only logged.
  host.clearEvents();
  const ZR::ZRError failure("TextToSpeech", "startSynthetizer", "the engine broke");
  backend.failNext("startSynthetizer", failure);
  EXPECT_EQ(errorOf([this] { tts->say("Again"); }), "");
  EXPECT_EQ(backend.calls("setCurrentVoice").size(), 2u);
  EXPECT_THAT(statusEvents(), ElementsAre(R"(Status=[2, "enqueued"])", R"(Status=[2, "started"])",
                                          R"(Status=[2, "done"])"));
  EXPECT_TRUE(host.hasLog(ko::log::error, "xSpeakingLoop", "Error catched " + failure.toString()));
}

}  // namespace
}  // namespace bexko::testing
