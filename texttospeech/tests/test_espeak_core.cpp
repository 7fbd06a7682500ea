// The speech service on the real eSpeak NG backend (fast mode): bookmarks and words of a real
// sentence.
#include <zr/zrtexttospeech.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ::testing::ElementsAre;

TEST(EspeakSpeechTest, SentenceWithTwoBookmarksRaisesBothInOrderAndEveryWord) {
  TestHost host{TestHostOptions{true}};  // with the shipped English package
  host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
  auto tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  host.clearEvents();
  tts->say("Hello\\mrk=1\\ big\\mrk=2\\ world");
  const auto events = [&host](const std::string& key) { return describe(host.events(key)); };

  EXPECT_THAT(
      events(ZR::ZRTextToSpeech::strCurrentWordEvent),
      ElementsAre(R"(CurrentWord="Hello")", R"(CurrentWord="big")", R"(CurrentWord="world")"));
  // Positions count characters of the text without tags, from 1.
  EXPECT_THAT(events(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent),
              ElementsAre("PositionOfCurrentWord=1", "PositionOfCurrentWord=7",
                          "PositionOfCurrentWord=11"));

  // Bookmarks are timed against the audio: they may come after say returned.
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, 2, 10000));
  EXPECT_THAT(events(ZR::ZRTextToSpeech::strCurrentBookMarkEvent),
              ElementsAre("CurrentBookMark=1", "CurrentBookMark=2"));
}

}  // namespace
}  // namespace bexko::testing
