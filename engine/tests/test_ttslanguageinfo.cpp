#include <zr/tts/ttslanguageinfo.h>

#include <gtest/gtest.h>

namespace {

TEST(TTSLanguageInfo, LooksUpLocalesAndLanguagesIgnoringCaseAndSeparator) {
  struct Case {
    std::string query;
    std::string language;  // the language of the query taken as a locale
    std::string locale;    // the locale of the query taken as a language
  };
  const ZR::TTSLanguageInfo info;
  for (const Case& c :
       {Case{"en-US", "English", ""}, Case{"en_us", "English", ""}, Case{"pt_BR", "Brazilian", ""},
        Case{"pt_PT", "Portuguese", ""}, Case{"nb_NO", "Norwegian", ""},
        Case{"zh-cn", "Chinese", ""}, Case{"french", "", "fr_FR"}, Case{"JAPANESE", "", "ja_JP"},
        Case{"xx_XX", "", ""}, Case{"en", "", ""}, Case{"Klingon", "", ""}, Case{"", "", ""}}) {
    EXPECT_EQ(info.getLanguage(c.query), c.language) << c.query;
    EXPECT_EQ(info.getLocale(c.query), c.locale) << c.query;
  }
  for (const std::string& language : info.getLanguages()) {
    EXPECT_EQ(info.getLanguage(info.getLocale(language)), language);
  }
}

}  // namespace
