#include <zr/tts/ttslanguageinfo.h>

#include <gtest/gtest.h>

namespace {

TEST(TTSLanguageInfo, LooksUpLocalesAndLanguagesIgnoringCaseAndSeparator) {
  const ZR::TTSLanguageInfo info;
  for (const std::string& language : info.getLanguages()) {
    EXPECT_EQ(info.getLanguage(info.getLocale(language)), language);
  }
  // A query, the language of the query taken as a locale, the locale of it taken as a language.
  const char* const cases[][3] = {
      {"zh-cn", "Chinese", ""}, {"french", "", "fr_FR"}, {"xx_XX", "", ""}, {"en", "", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(info.getLanguage(c[0]), c[1]) << c[0];
    EXPECT_EQ(info.getLocale(c[0]), c[2]) << c[0];
  }
}

}  // namespace
