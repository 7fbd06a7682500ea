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
  const Array pairs = {
      Array{"identifier", "espeak-languages"}, Array{"version", "1.2.0"},
      Array{"path", "/usr/share/bexko/packages/espeak-languages"},
      Array{"names", Array{Array{"en_US", "eSpeak languages"}, Array{"fr_FR", "Langues eSpeak"}}},
      Array{"languages", Array{Array{"en_US", "espeak"}, Array{"fr_FR", "espeak"}}}};
  EXPECT_EQ(espeakPackage().toValue(), ZRValue(pairs));
  // Read back in any order, unknown keys skipped.
  EXPECT_EQ(
      ko::PackageInfo(Array{pairs[4], Array{"future", 12}, pairs[3], pairs[2], pairs[1], pairs[0]}),
      espeakPackage());
}

TEST(PackageInfoValue, MalformedValueThrowsPackageInfoError) {
  const ZRValue cases[] = {"espeak", Array{"identifier", "x"}, Array{Array{"path", 3}},
                           Array{Array{"names", "English"}},
                           Array{Array{"languages", Array{Array{"en_US", 1}}}}};
  for (const ZRValue& value : cases) {
    const ZRError e = errorOf([&] { ko::PackageInfo package(value); });
    EXPECT_EQ(e.moduleName(), "PackageInfo") << value.toDebugString();
    EXPECT_THAT(e.what(), HasSubstr("not a package description"));
  }
}

TEST(PackageInfoName, FallsBackToEnglishThenAnyThenIdentifier) {
  const ko::PackageInfo espeak = espeakPackage();
  EXPECT_EQ(espeak.name("fr_FR") + "|" + espeak.name("ja_JP") + "|" + espeak.name(),
            "Langues eSpeak|eSpeak languages|eSpeak languages");
  ko::PackageInfo other;
  other.setIdentifier("pkg-id");
  EXPECT_EQ(other.name("en_US"), "pkg-id");
  other.setName("Francais", "fr_FR");
  EXPECT_EQ(other.name("ja_JP"), "Francais");
}

}  // namespace
