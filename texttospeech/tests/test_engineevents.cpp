// What the service makes of the engine's callbacks: word events, unknown codes, the end of a
// sentence, trimming of quiet audio and the tags-only test.
#include <zr/zrtexttospeech.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "speechfixture.h"

namespace bexko {
namespace testing {
namespace {

using ZR::TTS_EVENT_WORD;

// --- keepOnlyAudibleSamples ------------------------------------------------------------------

struct AudibleCase {
  const char* name;
  std::vector<short> samples;
  int count;  // the count given; -1 in `samples`' size means "use the block size"
  int expectedCount;
  bool expectedResult;
};

std::vector<short> block(int loud, int quietTail, short loudValue = 5000, short quietValue = 0) {
  std::vector<short> samples(loud, loudValue);
  samples.insert(samples.end(), quietTail, quietValue);
  return samples;
}

class KeepOnlyAudibleSamplesTest : public SpeechServiceTest,
                                   public ::testing::WithParamInterface<AudibleCase> {};

TEST_P(KeepOnlyAudibleSamplesTest, TrimsOnlyALongEnoughQuietTail) {
  const AudibleCase& c = GetParam();
  int count = c.count;
  const bool result = tts->keepOnlyAudibleSamples(c.samples.data(), count);
  EXPECT_EQ(count, c.expectedCount);
  EXPECT_EQ(result, c.expectedResult);
}

std::vector<short> innerSilence() {
  std::vector<short> samples = block(100, 300);  // quiet inside...
  samples.push_back(4000);                       // ...then loud at the very end
  return samples;
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, KeepOnlyAudibleSamplesTest,
    ::testing::Values(
        AudibleCase{"QuietTailOf250IsCut", block(750, 250), 1000, 750, true},
        AudibleCase{"QuietTailOf150IsKept", block(850, 150), 1000, 1000, true},
        AudibleCase{"QuietTailOfExactlyMinSizeIsCut", block(800, 200), 1000, 800, true},
        AudibleCase{"MaxLevelItselfIsQuiet", block(700, 300, 5000, 1000), 1000, 700, true},
        AudibleCase{"NegativeMaxLevelIsQuiet", block(700, 300, 5000, -1000), 1000, 700, true},
        AudibleCase{"MaxLevelPlusOneIsLoud", block(0, 1000, 0, 1001), 1000, 1000, true},
        AudibleCase{"MostNegativeSampleIsLoud", block(0, 1000, 0, -32768), 1000, 1000, true},
        AudibleCase{"ShortAllQuietBlockBecomesEmpty", block(0, 100), 100, 0, true},
        AudibleCase{"ShortBlockKeepsAQuietTailAfterSound", block(20, 80), 100, 100, true},
        AudibleCase{"InnerSilenceIsKept", innerSilence(), 401, 401, true},
        AudibleCase{"ZeroCountStaysZero", {}, 0, 0, true},
        AudibleCase{"NegativeCountIsRefusedUnchanged", {}, -4, -4, false}),
    [](const ::testing::TestParamInfo<AudibleCase>& info) { return info.param.name; });

// --- Engine events ---------------------------------------------------------------------------

using EngineEventTest = SpeechServiceTest;

TEST_F(EngineEventTest, UnknownCodeIsLoggedAndChangesNothing) {
  tts->TTSEventCallBack(static_cast<ZR::TextToSpeechEngineEvent>(7), 3, 4);
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(host.hasLog(ko::log::error, "TTSEventCallBack", "event not recognized: 7"));
}

TEST_F(EngineEventTest, SentenceBoundaryCodeIsIgnored) {
  tts->TTSEventCallBack(ZR::TTS_EVENT_SENTENCE, 3, 4);
  EXPECT_TRUE(host.events().empty());
  EXPECT_TRUE(host.logRecords(kServiceCategory).empty());
}

TEST_F(EngineEventTest, WordWithoutWordsLeftRaisesNothing) {
  tts->TTSEventCallBack(TTS_EVENT_WORD, 3, 0);
  EXPECT_TRUE(host.events().empty());
}

TEST_F(EngineEventTest, WordEventsBeyondTheLastWordOnlyMoveThePosition) {
  backend.setScript({{TTS_EVENT_WORD, 0, 0},
                     {TTS_EVENT_WORD, 4, 10},
                     {TTS_EVENT_WORD, 8, 20},
                     {TTS_EVENT_WORD, 12, 30}});
  tts->say("Two, words!");
  const std::vector<std::string> words = describe(host.events("ZRTextToSpeech/CurrentWord"));
  EXPECT_EQ(words, (std::vector<std::string>{eventText("CurrentWord", std::string("Two")),
                                             eventText("CurrentWord", std::string("words"))}));
  EXPECT_EQ(describe(host.events(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent)),
            (std::vector<std::string>{eventText("PositionOfCurrentWord", 1),
                                      eventText("PositionOfCurrentWord", 5)}));
}

TEST_F(EngineEventTest, WordPositionsOfAFileSentenceFollowThePreviousFileSentence) {
  // A spoken sentence counts its words from its own start; a sentence written to a file keeps
  // the offset of the sentence before it.
  backend.setScript({{TTS_EVENT_WORD, 0, 0}});
  const std::string file = host.root() + "/offset.wav";
  tts->sayToFile("Hello", file);
  tts->sayToFile("Again", file);
  tts->say("Spoken");
  EXPECT_EQ(describe(host.events(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent)),
            (std::vector<std::string>{eventText("PositionOfCurrentWord", 1),
                                      eventText("PositionOfCurrentWord", 6),
                                      eventText("PositionOfCurrentWord", 1)}));
}

TEST_F(EngineEventTest, TextDoneNotificationRaisesTheClosingValues) {
  tts->notifyTextDone(false);
  EXPECT_EQ(
      serviceEvents(),
      (std::vector<std::string>{
          eventText("TextDone", 1), eventText("TextStarted", 0), eventText("CurrentBookMark", 0),
          eventText("PositionOfCurrentWord", 0), eventText("CurrentWord", std::string())}));
  EXPECT_TRUE(host.hasLog(ko::log::info, "notifyTextDone", "text done"));
}

TEST_F(EngineEventTest, InterruptedTextDoneLeavesTextDoneAndTextStartedAlone) {
  tts->notifyTextDone(true);
  EXPECT_EQ(serviceEvents(), (std::vector<std::string>{eventText("CurrentBookMark", 0),
                                                       eventText("PositionOfCurrentWord", 0),
                                                       eventText("CurrentWord", std::string())}));
}

TEST_F(EngineEventTest, TextDoneNotificationForgetsTheLastTask) {
  tts->say("Finished");
  tts->notifyTextDone(false);
  host.clearEvents();
  // The clean-up reset the current task: a stop now interrupts nothing.
  tts->stopAll();
  EXPECT_TRUE(host.events().empty());
}

// --- Tags-only sentences ---------------------------------------------------------------------

struct TagsCase {
  const char* text;
  bool tagsOnly;
};

class TagsOnlySentenceTest : public ::testing::TestWithParam<TagsCase> {};

TEST_P(TagsOnlySentenceTest, MatchesSpacesAndTagsOnly) {
  EXPECT_EQ(ZR::ZRTextToSpeech::isTagsOnlySentence(GetParam().text), GetParam().tagsOnly)
      << '"' << GetParam().text << '"';
}

INSTANTIATE_TEST_SUITE_P(
    Texts, TagsOnlySentenceTest,
    ::testing::Values(TagsCase{"", true}, TagsCase{"  ", true}, TagsCase{"\\rst\\ ", true},
                      TagsCase{"\\style=reset\\ \\rst\\", true},
                      TagsCase{"  \\rspd=90\\\\vct=120\\  ", true}, TagsCase{"\\\\", true},
                      TagsCase{"Hello", false}, TagsCase{"\\rst\\Hello", false},
                      TagsCase{"Hello \\rst\\", false}, TagsCase{"\\unclosed", false},
                      TagsCase{" \\rst\\ x", false}, TagsCase{"\t\\rst\\", false}));

}  // namespace
}  // namespace testing
}  // namespace bexko
