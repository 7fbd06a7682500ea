// What the service makes of the engine's callbacks outside a sentence, the end of a sentence,
// trimming of quiet audio and the tags-only test. Word events within a sentence are shown with it
// (test_speechtasks.cpp).
#include <zr/zrtexttospeech.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::Field;

using EngineEventTest = SpeechServiceTest;

TEST_F(EngineEventTest, KeepOnlyAudibleSamplesTrimsOnlyALongEnoughQuietTail) {
  // Each row {n1, v1, n2, v2, kept}: n1 samples of v1, then n2 of v2, and how many are kept. Quiet
  // is at most 1000 either way; a quiet tail is cut from 200 samples on, or when it is the whole of
  // a shorter block. So: a tail of 199 is kept, one of 200 cut; 1000 and -1000 are quiet, 1001 and
  // -32768 loud; a short block quiet all through is emptied, a short one keeps its tail after
  // sound; quiet inside is kept; an empty block stays empty.
  const int rows[][5] = {{801, 5000, 199, 0, 1000},   {800, 5000, 200, 0, 800},
                         {700, 5000, 300, 1000, 700}, {700, 5000, 300, -1000, 700},
                         {0, 0, 1000, 1001, 1000},    {0, 0, 1000, -32768, 1000},
                         {0, 0, 100, 0, 0},           {20, 5000, 80, 0, 100},
                         {300, 0, 1, 4000, 301},      {0, 0, 0, 0, 0}};
  for (const auto& row : rows) {
    std::vector<short> block(row[0], static_cast<short>(row[1]));
    block.insert(block.end(), row[2], static_cast<short>(row[3]));
    int count = row[0] + row[2];
    tts->keepOnlyAudibleSamples(block.data(), count);
    EXPECT_EQ(count, row[4]) << "row " << &row - rows;
  }
  int negative = -4;
  EXPECT_FALSE(tts->keepOnlyAudibleSamples(nullptr, negative));
  EXPECT_EQ(negative, -4);
}

TEST_F(EngineEventTest, CallbacksOutsideASentenceRaiseNothing) {
  tts->TTSEventCallBack(ZR::TTS_EVENT_SENTENCE, 3, 4);
  tts->TTSEventCallBack(ZR::TTS_EVENT_WORD, 3, 4);  // no word left to raise
  tts->TTSEventCallBack(static_cast<ZR::TextToSpeechEngineEvent>(7), 3, 4);
  EXPECT_TRUE(host.events().empty());
  EXPECT_THAT(host.logRecords(kServiceCategory),
              ElementsAre(Field(&ko::log::Record::message, "event not recognized: 7")));
}

TEST_F(EngineEventTest, TextDoneNotificationRaisesTheClosingValuesAndForgetsTheTask) {
  tts->say("Finished");  // its task stays the current one until a clean-up
  host.clearEvents();
  tts->notifyTextDone(false);
  tts->stopAll();             // nothing is left to interrupt
  tts->notifyTextDone(true);  // an interrupted end leaves TextDone and TextStarted alone
  EXPECT_THAT(serviceEvents(),
              ElementsAre("TextDone=1", "TextStarted=0", "CurrentBookMark=0",
                          "PositionOfCurrentWord=0", R"(CurrentWord="")", "CurrentBookMark=0",
                          "PositionOfCurrentWord=0", R"(CurrentWord="")"));
  EXPECT_THAT(serviceLogTexts(host, "notifyTextDone", ko::log::info),
              ElementsAre("text done", "text done"));
}

TEST(TagsOnlySentenceTest, MatchesSpacesAndTagsOnly) {
  for (const char* text :
       {"", "  ", "\\rst\\ ", "\\style=reset\\ \\rst\\", "\\\\", "  \\rspd=90\\\\vct=120\\  "}) {
    EXPECT_TRUE(ZR::ZRTextToSpeech::isTagsOnlySentence(text)) << '"' << text << '"';
  }
  for (const char* text :
       {"Hello", "\\rst\\Hello", "Hello \\rst\\", "\\unclosed", " \\rst\\ x", "\t\\rst\\"}) {
    EXPECT_FALSE(ZR::ZRTextToSpeech::isTagsOnlySentence(text)) << '"' << text << '"';
  }
}

}  // namespace
}  // namespace bexko::testing
