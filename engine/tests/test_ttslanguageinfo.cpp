#include <zr/tts/ttslanguageinfo.h>

#include <gtest/gtest.h>

namespace {

TEST(TTSLanguageInfo, ListsTheSupportedLanguagesInTableOrder) {
  const std::vector<std::string> languages = ZR::TTSLanguageInfo().getLanguages();
  const std::vector<std::string> expected = {
      "English", "French",    "German",  "Spanish", "Italian", "Portuguese", "Brazilian",
      "Dutch",   "Polish",    "Russian", "Czech",   "Danish",  "Finnish",    "Greek",
      "Swedish", "Norwegian", "Turkish", "Arabic",  "Chinese", "Japanese",   "Korean"};
  EXPECT_EQ(languages, expected);
}

TEST(TTSLanguageInfo, EveryLanguageRoundTripsThroughItsLocale) {
  ZR::TTSLanguageInfo info;
  for (const std::string& language : info.getLanguages()) {
    const std::string locale = info.getLocale(language);
    ASSERT_EQ(locale.size(), 5u) << language;
    EXPECT_EQ(info.getLanguage(locale), language);
  }
}

struct LocaleCase {
  std::string locale;
  std::string language;
};

class LocaleLookup : public ::testing::TestWithParam<LocaleCase> {};

TEST_P(LocaleLookup, AcceptsUnderscoreHyphenAndAnyCase) {
  EXPECT_EQ(ZR::TTSLanguageInfo().getLanguage(GetParam().locale), GetParam().language);
}

INSTANTIATE_TEST_SUITE_P(
    Locales, LocaleLookup,
    ::testing::Values(LocaleCase{"en_US", "English"}, LocaleCase{"en-US", "English"},
                      LocaleCase{"en_us", "English"}, LocaleCase{"pt_BR", "Brazilian"},
                      LocaleCase{"pt_PT", "Portuguese"}, LocaleCase{"nb_NO", "Norwegian"},
                      LocaleCase{"zh-cn", "Chinese"}, LocaleCase{"xx_XX", ""}, LocaleCase{"en", ""},
                      LocaleCase{"", ""}));

TEST(TTSLanguageInfo, LocaleOfALanguageIgnoresCaseAndIsEmptyWhenUnknown) {
  ZR::TTSLanguageInfo info;
  EXPECT_EQ(info.getLocale("French"), "fr_FR");
  EXPECT_EQ(info.getLocale("french"), "fr_FR");
  EXPECT_EQ(info.getLocale("JAPANESE"), "ja_JP");
  EXPECT_EQ(info.getLocale("Klingon"), "");
  EXPECT_EQ(info.getLocale(""), "");
}

}  // namespace
