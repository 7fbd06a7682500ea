#include <ko/packageinfo.h>

#include "support.h"

namespace {

using namespace bexko::test;

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

TEST(PackageInfoValue, ValueFormHasPairsInDocumentedOrderAndRoundTrips) {
  const ZRValue expected = Array{
      Array{"identifier", "espeak-languages"}, Array{"version", "1.2.0"},
      Array{"path", "/usr/share/bexko/packages/espeak-languages"},
      Array{"names", Array{Array{"en_US", "eSpeak languages"}, Array{"fr_FR", "Langues eSpeak"}}},
      Array{"languages", Array{Array{"en_US", "espeak"}, Array{"fr_FR", "espeak"}}}};
  EXPECT_EQ(espeakPackage().toValue(), expected);
  EXPECT_EQ(ko::PackageInfo(expected), espeakPackage());
  // Lists convert through the host's converters, as method arguments and results do.
  const ZRValue list = ZR::toZRValue(std::vector<ko::PackageInfo>{espeakPackage()});
  EXPECT_EQ(list, ZRValue(Array{expected}));
  EXPECT_EQ(ZR::fromZRValue<std::vector<ko::PackageInfo>>(list),
            std::vector<ko::PackageInfo>{espeakPackage()});
}

TEST(PackageInfoValue, ReadsPairsInAnyOrderAndIgnoresUnknownKeys) {
  ko::PackageInfo expected;
  expected.setPath("/p");
  expected.addLanguage(ko::LanguageInfo("de_DE", "espeak"));
  EXPECT_EQ(ko::PackageInfo(Array{Array{"languages", Array{Array{"de_DE", "espeak"}}},
                                  Array{"future", 12}, Array{"path", "/p"}}),
            expected);
}

TEST(PackageInfoValue, MalformedValueThrowsPackageInfoError) {
  const ZRValue cases[] = {"espeak",
                           ZRValue(),
                           Array{"identifier", "x"},
                           Array{Array{"identifier"}},
                           Array{Array{1, "x"}},
                           Array{Array{"path", 3}},
                           Array{Array{"names", "English"}},
                           Array{Array{"names", Array{"en_US"}}},
                           Array{Array{"languages", Array{Array{"en_US", 1}}}}};
  for (const ZRValue& value : cases) {
    const ZRError e = errorOf([&] { ko::PackageInfo package(value); });
    EXPECT_EQ(e.moduleName(), "PackageInfo") << value.toDebugString();
    EXPECT_STRNE(e.what(), "");
  }
}

TEST(PackageInfoName, FallsBackToEnglishThenAnyThenIdentifier) {
  using Names = std::vector<std::pair<std::string, std::string>>;  // locale, name
  const std::tuple<Names, const char*, const char*> cases[] = {
      {{{"en_US", "English"}, {"fr_FR", "Francais"}}, "fr_FR", "Francais"},
      {{{"en_US", "English"}, {"fr_FR", "Francais"}}, "ja_JP", "English"},
      {{{"fr_FR", "Francais"}}, "ja_JP", "Francais"},
      {{}, "en_US", "pkg-id"}};
  for (const auto& [names, asked, expected] : cases) {
    ko::PackageInfo package;
    package.setIdentifier("pkg-id");
    for (const auto& [locale, name] : names) package.setName(name, locale);
    EXPECT_EQ(package.name(asked), expected) << asked;
  }
  EXPECT_EQ(espeakPackage().name(), "eSpeak languages");  // English unless told otherwise
}

}  // namespace
