#include <ko/packageinfo.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zr/zrerror.h>

namespace {

using ZR::ZRValue;
using Array = ZRValue::Array;

ko::PackageInfo espeakPackage() {
  ko::PackageInfo package;
  package.setIdentifier("espeak-languages");
  package.setName("eSpeak languages");
  package.setName("Langues eSpeak", "fr_FR");
  package.setPath("/usr/share/bexko/packages/espeak-languages");
  package.setVersion("1.2.0");
  package.addLanguage(ko::LanguageInfo("en_US", "espeak"));
  package.addLanguage(ko::LanguageInfo("fr_FR", "espeak"));
  return package;
}

TEST(PackageInfoValue, ValueFormHasPairsInDocumentedOrder) {
  const ZRValue expected(Array{
      ZRValue(Array{"identifier", "espeak-languages"}),
      ZRValue(Array{"version", "1.2.0"}),
      ZRValue(Array{"path", "/usr/share/bexko/packages/espeak-languages"}),
      ZRValue(Array{"names", ZRValue(Array{ZRValue(Array{"en_US", "eSpeak languages"}),
                                           ZRValue(Array{"fr_FR", "Langues eSpeak"})})}),
      ZRValue(Array{"languages", ZRValue(Array{ZRValue(Array{"en_US", "espeak"}),
                                               ZRValue(Array{"fr_FR", "espeak"})})}),
  });
  EXPECT_EQ(espeakPackage().toValue(), expected);
}

TEST(PackageInfoValue, RoundTripsThroughValue) {
  const ko::PackageInfo original = espeakPackage();
  const ko::PackageInfo copy(original.toValue());
  EXPECT_EQ(copy, original);
  ASSERT_EQ(copy.languages().size(), 2u);
  EXPECT_EQ(copy.languages()[1].locale(), "fr_FR");
  EXPECT_EQ(copy.languages()[1].engineName(), "espeak");
}

TEST(PackageInfoValue, ReadsPairsInAnyOrderAndIgnoresUnknownKeys) {
  const ZRValue value(Array{
      ZRValue(Array{"languages", ZRValue(Array{ZRValue(Array{"de_DE", "espeak"})})}),
      ZRValue(Array{"future", 12}),
      ZRValue(Array{"path", "/p"}),
  });
  const ko::PackageInfo package(value);
  EXPECT_EQ(package.path(), "/p");
  EXPECT_EQ(package.identifier(), "");
  ASSERT_EQ(package.languages().size(), 1u);
  EXPECT_EQ(package.languages()[0], ko::LanguageInfo("de_DE", "espeak"));
}

TEST(PackageInfoValue, ConvertsAsListThroughTheHost) {
  const ZRValue list = ZR::toZRValue(std::vector<ko::PackageInfo>{espeakPackage()});
  const auto packages = ZR::fromZRValue<std::vector<ko::PackageInfo>>(list);
  ASSERT_EQ(packages.size(), 1u);
  EXPECT_EQ(packages[0], espeakPackage());
}

class PackageInfoMalformed : public ::testing::TestWithParam<ZRValue> {};

TEST_P(PackageInfoMalformed, ThrowsPackageInfoError) {
  try {
    ko::PackageInfo package(GetParam());
    FAIL() << "accepted " << GetParam().toDebugString();
  } catch (const ZR::ZRError& e) {
    EXPECT_EQ(e.moduleName(), "PackageInfo");
    EXPECT_NE(std::string(e.what()), "");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, PackageInfoMalformed,
    ::testing::Values(
        ZRValue("espeak"), ZRValue(), ZRValue(Array{"identifier", "x"}),
        ZRValue(Array{ZRValue(Array{"identifier"})}), ZRValue(Array{ZRValue(Array{1, "x"})}),
        ZRValue(Array{ZRValue(Array{"path", 3})}),
        ZRValue(Array{ZRValue(Array{"names", "English"})}),
        ZRValue(Array{ZRValue(Array{"names", ZRValue(Array{"en_US"})})}),
        ZRValue(Array{ZRValue(Array{"languages", ZRValue(Array{ZRValue(Array{"en_US", 1})})})})));

struct NameCase {
  std::vector<std::pair<std::string, std::string>> names;  // locale, name
  const char* asked;
  const char* expected;
};

class PackageInfoName : public ::testing::TestWithParam<NameCase> {};

TEST_P(PackageInfoName, FallsBackToEnglishThenAnyThenIdentifier) {
  ko::PackageInfo package;
  package.setIdentifier("pkg-id");
  for (const auto& name : GetParam().names) package.setName(name.second, name.first);
  EXPECT_EQ(package.name(GetParam().asked), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PackageInfoName,
    ::testing::Values(NameCase{{{"en_US", "English"}, {"fr_FR", "Francais"}}, "fr_FR", "Francais"},
                      NameCase{{{"en_US", "English"}, {"fr_FR", "Francais"}}, "ja_JP", "English"},
                      NameCase{{{"fr_FR", "Francais"}}, "ja_JP", "Francais"},
                      NameCase{{}, "en_US", "pkg-id"}));

TEST(PackageInfoName, DefaultLocaleIsEnglish) {
  ko::PackageInfo package;
  package.setName("Voices");
  package.setName("Stimmen", "de_DE");
  EXPECT_EQ(package.name(), "Voices");
  EXPECT_EQ(package.names().at("en_US"), "Voices");
}

}  // namespace
