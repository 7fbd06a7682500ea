// The speech service on the real eSpeak NG backend (fast mode), through the package shipped with
// the host.
#include <zr/zrtexttospeech.h>

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
