// The speech service on the real eSpeak NG backend (fast mode), through the package shipped with
// the host.
#include <zr/zrtexttospeech.h>

#include <zr/tts/textutils.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

using ::testing::Contains;

class EspeakTest : public SpeechServiceTest {
 protected:
  EspeakTest() : SpeechServiceTest(TestHostOptions{true}) { locales.clear(); }
};

TEST_F(EspeakTest, SentenceWithTwoBookmarksRaisesBothInOrderAndEveryWord) {
  tts->say("Hello\\mrk=1\\ big\\mrk=2\\ world");
  EXPECT_THAT(
      serviceEvents(ZR::ZRTextToSpeech::strCurrentWordEvent),
      ElementsAre(R"(CurrentWord="Hello")", R"(CurrentWord="big")", R"(CurrentWord="world")"));
  // Positions count characters of the text without tags, from 1.
  EXPECT_THAT(serviceEvents(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent),
              ElementsAre("PositionOfCurrentWord=1", "PositionOfCurrentWord=7",
                          "PositionOfCurrentWord=11"));
  // Bookmarks are timed against the audio: they may come after say returned.
  ASSERT_TRUE(host.waitForEvent(ZR::ZRTextToSpeech::strCurrentBookMarkEvent, 2, 10000));
  EXPECT_THAT(serviceEvents(ZR::ZRTextToSpeech::strCurrentBookMarkEvent),
              ElementsAre("CurrentBookMark=1", "CurrentBookMark=2"));
}

// eSpeak NG's own words are not the service's: it folds "the" into "shell", reads "p.m." as one
// word and reports a lower-case word after a full stop on the space before it. Each word of
// the service's split is still announced, in order, with its position.
TEST_F(EspeakTest, EveryWordOfTheSentenceIsAnnouncedInOrderWithItsPosition) {
  std::string sixtyWords;
  const char* const sentences[] = {
      "The cat sat down quietly.", "and then it ran away.",           "so we went out again.",
      "but the air was cold.",     "still the dog kept going.",       "then a bird sang loudly.",
      "and the sun came out.",     "so the children played outside.", "but nobody saw the fox.",
      "maybe it was far away.",    "yet the farmer was worried.",     "and the day went on."};
  for (const char* sentence : sentences) sixtyWords += sentence + std::string(" ");
  const std::string texts[] = {
      "Hello from the shell",
      "We met Dr. Smith at 5 p.m. near the station, and then we went home.",
      sixtyWords,
  };
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    std::string tagFree = text;
    std::vector<std::string> words;
    ZR::tokenizeString(tagFree, words, " .,;:!");
    std::vector<std::string> expectedWords, expectedPositions;
    std::size_t from = 0;
    for (const std::string& word : words) {
      from = text.find(word, from);  // ASCII texts: a byte offset is a character index
      expectedWords.push_back("CurrentWord=\"" + word + "\"");
      expectedPositions.push_back("PositionOfCurrentWord=" + std::to_string(from + 1));
      from += word.size();
    }
    host.clearEvents();
    tts->say(text);
    EXPECT_EQ(serviceEvents(ZR::ZRTextToSpeech::strCurrentWordEvent), expectedWords);
    EXPECT_EQ(serviceEvents(ZR::ZRTextToSpeech::strPositionOfCurrentWordEvent), expectedPositions);
    // Each name comes right after its position.
    const std::vector<std::string> all = serviceEvents();
    for (std::size_t i = 0; i + 1 < all.size(); ++i) {
      if (all[i].rfind("PositionOfCurrentWord=", 0) == 0) {
        EXPECT_EQ(all[i + 1].rfind("CurrentWord=", 0), 0u) << all[i];
      }
    }
  }
}

// The service sets the engine parameter "inputMode" for Japanese.
TEST_F(EspeakTest, ResetInJapaneseSucceeds) {
  tts->setLanguage("Japanese");
  EXPECT_EQ(errorOf([&] { tts->reset(); }), "");
  EXPECT_EQ(tts->getLanguage(), "Japanese");
  EXPECT_THAT(statusEvents(), Contains(R"(Status=[1, "done"])"));
}

TEST_F(EspeakTest, ListsLanguagesAndVoicesAndSpeaksFrenchAfterSetLanguage) {
  EXPECT_THAT(tts->getAvailableLanguages(), ::testing::IsSupersetOf({"English", "French"}));
  EXPECT_THAT(tts->getAvailableVoices(),
              Contains(tts->engine()->getDefaultVoiceForLanguage("French")));
  tts->setLanguage("French");
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->engine()->getLanguage(tts->getVoice()), "French");

  tts->say("Bonjour, je parle français.");
  EXPECT_THAT(statusEvents(), Contains(R"(Status=[1, "done"])"));
  EXPECT_TRUE(
      host.waitForEvent(ZR::ZRTextToSpeech::strCurrentSentenceEvent, ZR::ZRValue(""), 1000));
}

TEST_F(EspeakTest, ADefaultVoiceSurvivesARestartOfTheService) {
  // Choose a voice other than the language's own default, when there is one.
  const std::string defaultVoice = tts->engine()->getDefaultVoiceForLanguage("French");
  ASSERT_FALSE(defaultVoice.empty());
  std::string chosen = defaultVoice;
  for (const auto& voice : tts->engine()->getAvailableVoices()) {
    if (voice.second == "French" && voice.first != defaultVoice) chosen = voice.first;
  }
  tts->setLanguageDefaultVoice("French", chosen);
  chosenLanguage = std::string("French");

  tts->exit();
  tts.reset();
  ASSERT_FALSE(host.broker()->getModuleByName("ZRTextToSpeech"));
  start();
  EXPECT_EQ(tts->globalSetting(), ZR::VoiceSetting(ZR::VOICE, chosen));
  EXPECT_EQ(tts->getLanguage(), "French");
  tts->say("Le service a redémarré.");
  EXPECT_EQ(tts->getVoice(), chosen);
}

}  // namespace
}  // namespace bexko::testing
