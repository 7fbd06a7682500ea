#include <zr/zrtexttospeech.h>

#include <boost/filesystem.hpp>

#include <bexko/services/packagemanager.h>

#include "speechfixture.h"

namespace bexko::testing {
namespace {

namespace fs = boost::filesystem;

// The service starts with English only; French comes and goes as a package of its own.
class PackageChangeTest : public SpeechServiceTest {
 protected:
  PackageChangeTest() { locales = {"en_US"}; }

  bool isInstalled(const std::string& language) const {
    return ::testing::Value(tts->engine()->getAvailableLanguages(), ::testing::Contains(language));
  }
};

TEST_F(PackageChangeTest, InstallingReloadsTheEngineAndRemovingDeletesTheDefaultVoiceFile) {
  tts->setParameter("pitchShift", 2.0f);
  // The deliveries to the service run in raise order: once French is served, the package
  // without languages installed before it has been handled too, without an error.
  for (const ko::PackageInfo& package :
       {scriptedPackage("documentation", {}), scriptedPackage("french", {"fr_FR"})}) {
    // The package manager installs from a folder holding the manifest.
    const std::string folder = host.root() + "/incoming/" + package.identifier();
    bexko::services::writeManifest(folder, package);
    host.services().packageManager->install(folder);
  }
  ASSERT_TRUE(eventually([this] { return isInstalled("French"); }));
  tts->setDefaultVoice();  // returns once no package-change handler holds the main lock
  for (const ko::log::Record& record : host.logRecords()) {
    EXPECT_GT(record.level, ko::log::error) << record.function << ": " << record.message;
  }
  // The current language did not change; its setting was rebuilt all the same.
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "English");
  EXPECT_EQ(tts->globalSetting(), ZR::VoiceSetting(ZR::VOICE, "Kenny"));
  tts->setLanguage("French");
  EXPECT_EQ(tts->getVoice(), "Julie");

  tts->setLanguageDefaultVoice("French", "Julie");
  tts->setLanguage("English");
  ASSERT_TRUE(fs::exists(defaultVoiceFile("French")));
  host.services().packageManager->remove("french");
  EXPECT_TRUE(eventually([this] { return !fs::exists(defaultVoiceFile("French")); }));
  EXPECT_TRUE(eventually([this] { return !isInstalled("French"); }));
  tts->setDefaultVoice();  // as above
  EXPECT_TRUE(isInstalled("English"));
}

TEST_F(PackageChangeTest, AnEventForAPackageWithoutLanguagesChangesNothing) {
  tts->setParameter("pitchShift", 2.0f);
  const ZR::VoiceSetting before = tts->globalSetting();
  const ko::PackageInfo documentation = scriptedPackage("documentation", {});
  tts->bexStoreApplicationInstalled("packageInstalled", documentation.toValue(), "");
  tts->bexStoreApplicationUninstalled("packageRemoved", documentation.toValue(), "");
  EXPECT_TRUE(backend.calls("load").empty());
  EXPECT_EQ(tts->globalSetting(), before);
  EXPECT_TRUE(host.logRecords(kServiceCategory).empty());
}

// Each language's default-voice file is removed when it has one, up to a locale the engine
// does not know.
TEST_F(PackageChangeTest, ARemovalSignalForgetsTheLanguagesInOrderUpToAnUnknownLocale) {
  writeVoiceSettings(defaultVoiceFile("French"), ZR::VoiceSetting(ZR::VOICE, "Julie"), "French");
  tts->onPackageRemoved(scriptedPackage("odd", {"xx_XX", "fr_FR"}));
  EXPECT_TRUE(fs::exists(defaultVoiceFile("French")));
  EXPECT_THAT(logs("onPackageRemoved", ko::log::error),
              ElementsAre("Language iso code xx_XX not managed by our TTS engine"));
  tts->onPackageRemoved(scriptedPackage("both", {"en_US", "fr_FR"}));
  EXPECT_FALSE(fs::exists(defaultVoiceFile("French")));
  EXPECT_THAT(logs("xRemoveVoiceSettingFromLanguage", ko::log::verbose),
              ElementsAre("No file ZRTextToSpeech_DefaultVoiceEnglish.xml found. So no file to "
                          "remove.",
                          "Remove file " + defaultVoiceFile("French")));
}

}  // namespace
}  // namespace bexko::testing
