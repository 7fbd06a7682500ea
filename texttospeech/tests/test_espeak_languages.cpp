#include <zr/zrtexttospeech.h>

#include "settingsfixture.h"

namespace bexko::testing {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;

// The service on the real eSpeak NG backend, through the package shipped with the host.
class EspeakLanguageTest : public ScriptedServiceTest {
 protected:
  EspeakLanguageTest() : ScriptedServiceTest(TestHostOptions{true}) { locales.clear(); }
};

TEST_F(EspeakLanguageTest, ListsLanguagesAndVoicesAndSpeaksFrenchAfterSetLanguage) {
  EXPECT_THAT(tts->getAvailableLanguages(), ::testing::IsSupersetOf({"English", "French"}));
  EXPECT_THAT(tts->getAvailableVoices(),
              Contains(tts->engine()->getDefaultVoiceForLanguage("French")));
  tts->setLanguage("French");
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->engine()->getLanguage(tts->getVoice()), "French");

  host.clearEvents();
  tts->say("Bonjour, je parle français.");
  const std::vector<RaisedEvent> statuses = host.events(ZR::ZRTextToSpeech::strStatusEvent);
  ASSERT_THAT(statuses, Not(IsEmpty()));
  EXPECT_EQ(statuses.back().value[1], ZR::ZRValue("done"));
  EXPECT_TRUE(
      host.waitForEvent(ZR::ZRTextToSpeech::strCurrentSentenceEvent, ZR::ZRValue(""), 1000));
}

TEST_F(EspeakLanguageTest, ADefaultVoiceSurvivesARestartOfTheService) {
  // Choose a voice other than the language's own default, when there is one.
  const std::string defaultVoice = tts->engine()->getDefaultVoiceForLanguage("French");
  ASSERT_FALSE(defaultVoice.empty());
  std::string chosen = defaultVoice;
  for (const auto& voice : tts->engine()->getAvailableVoices()) {
    if (voice.second == "French" && voice.first != defaultVoice) chosen = voice.first;
  }
  tts->setLanguageDefaultVoice("French", chosen);
  host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("French"));

  tts->exit();
  tts.reset();
  ASSERT_FALSE(host.broker()->getModuleByName("ZRTextToSpeech"));
  tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  EXPECT_EQ(tts->globalSetting().type, ZR::VOICE);
  EXPECT_EQ(tts->globalSetting().value, chosen);
  EXPECT_EQ(tts->getLanguage(), "French");
  tts->say("Le service a redémarré.");
  EXPECT_EQ(tts->getVoice(), chosen);
}

}  // namespace
}  // namespace bexko::testing
