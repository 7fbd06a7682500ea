#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <bexko/testing/testhost.h>
#include <zr/zrmodule.h>

namespace {

// The service on the real eSpeak NG backend, through the package shipped with the host.
class EspeakLanguageTest : public ::testing::Test {
 protected:
  EspeakLanguageTest() : host(bexko::testing::TestHostOptions{true}) {}

  void SetUp() override {
    host.setPreference("com.veltra.robotwebpage", "ChosenLanguage", std::string("English"));
    tts = ZR::ZRModule::createModule<ZR::ZRTextToSpeech>(host.broker());
  }

  std::vector<std::string> voicesOf(const std::string& language) const {
    std::vector<std::string> voices;
    for (const auto& voice : tts->engine()->getAvailableVoices()) {
      if (voice.second == language) voices.push_back(voice.first);
    }
    return voices;
  }

  bexko::testing::TestHost host;
  boost::shared_ptr<ZR::ZRTextToSpeech> tts;
};

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

TEST_F(EspeakLanguageTest, ListsLanguagesAndVoices) {
  const std::vector<std::string> languages = tts->getAvailableLanguages();
  EXPECT_TRUE(contains(languages, "English"));
  EXPECT_TRUE(contains(languages, "French"));
  const std::vector<std::string> voices = tts->getAvailableVoices();
  EXPECT_FALSE(voices.empty());
  EXPECT_TRUE(std::is_sorted(voices.begin(), voices.end()));
  EXPECT_FALSE(voicesOf("French").empty());
  EXPECT_EQ(tts->getLanguage(), "English");
}

TEST_F(EspeakLanguageTest, SpeaksFrenchAfterSetLanguage) {
  std::vector<std::string> locales;
  tts->languageTTS.connect([&locales](const std::string& locale) { locales.push_back(locale); });
  tts->setLanguage("French");
  EXPECT_EQ(tts->getLanguage(), "French");
  EXPECT_EQ(tts->locale(), "fr_FR");
  EXPECT_EQ(locales, std::vector<std::string>{"fr_FR"});
  EXPECT_EQ(tts->engine()->getLanguage(tts->getVoice()), "French");

  host.clearEvents();
  tts->say("Bonjour, je parle français.");
  const auto statuses = host.events(ZR::ZRTextToSpeech::strStatusEvent);
  ASSERT_FALSE(statuses.empty());
  EXPECT_EQ(statuses.back().value[1], ZR::ZRValue("done"));
  EXPECT_TRUE(
      host.waitForEvent(ZR::ZRTextToSpeech::strCurrentSentenceEvent, ZR::ZRValue(""), 1000));
}

TEST_F(EspeakLanguageTest, ADefaultVoiceSurvivesARestartOfTheService) {
  const std::vector<std::string> french = voicesOf("French");
  ASSERT_FALSE(french.empty());
  // Choose a voice other than the language's own default, when there is one.
  const std::string defaultVoice = tts->engine()->getDefaultVoiceForLanguage("French");
  std::string chosen = french.back();
  for (const std::string& voice : french) {
    if (voice != defaultVoice) chosen = voice;
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
