// The speech service on the real eSpeak NG backend (fast mode): bookmarks and words of a real
// sentence.
#include <zr/zrtexttospeech.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "speechfixture.h"

namespace bexko {
namespace testing {
namespace {

class EspeakSpeechTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
    tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
    host.clearEvents();
    host.clearLogs();
  }

  TestHost host{TestHostOptions{true}};
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
};

TEST_F(EspeakSpeechTest, SentenceWithTwoBookmarksRaisesBothInOrderAndEveryWord) {
  tts->say("Hello\\mrk=1\\ big\\mrk=2\\ world");

  EXPECT_EQ(describe(host.events(ZR::ZRTextToSpeech::strStatusEvent)),
            (std::vector<std::string>{statusText(1, "enqueued"), statusText(1, "started"),
                                      statusText(1, "done")}));
  EXPECT_EQ(describe(host.events(ZR::ZRTextToSpeech::strCurrentSentenceEvent)),
            (std::vector<std::string>{eventText("CurrentSentence", std::string("Hello big world")),
                                      eventText("CurrentSentence", std::string())}));

  // Bookmarks are timed against the audio: they may come after say returned.
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, 2, 10000));
  EXPECT_EQ(
      describe(host.events(ZR::ZRTextToSpeech::strCurrentBookMarkEvent)),
      (std::vector<std::string>{eventText("CurrentBookMark", 1), eventText("CurrentBookMark", 2)}));

  EXPECT_EQ(describe(host.events(ZR::ZRTextToSpeech::strCurrentWordEvent)),
            (std::vector<std::string>{eventText("CurrentWord", std::string("Hello")),
                                      eventText("CurrentWord", std::string("big")),
                                      eventText("CurrentWord", std::string("world"))}));
  const std::vector<RaisedEvent> positions =
      host.events(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent);
  ASSERT_EQ(positions.size(), 3u);
  // Positions count characters of the text without tags, from 1.
  EXPECT_EQ(positions[0].value, ZR::ZRValue(1));
  EXPECT_LT(positions[0].value.toInt(), positions[1].value.toInt());
  EXPECT_LT(positions[1].value.toInt(), positions[2].value.toInt());
}

}  // namespace
}  // namespace testing
}  // namespace bexko
