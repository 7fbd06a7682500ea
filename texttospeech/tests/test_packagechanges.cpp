#include <zr/zrtexttospeech.h>

#include <algorithm>

#include <boost/filesystem.hpp>

#include <bexko/services/packagemanager.h>

#include "settingsfixture.h"

namespace bexko::testing {
namespace {

namespace fs = boost::filesystem;

// The service starts with English only; French comes and goes as a package of its own.
class PackageChangeTest : public ScriptedServiceTest {
 protected:
  PackageChangeTest() { locales = {"en_US"}; }

  bool isInstalled(const std::string& language) const {
    const std::vector<std::string> languages = tts->engine()->getAvailableLanguages();
    return std::find(languages.begin(), languages.end(), language) != languages.end();
  }

  // Installs a package through the package manager, from a folder holding its manifest.
  void install(const ko::PackageInfo& package) {
    const std::string folder = host.root() + "/incoming/" + package.identifier();
    bexko::services::writeManifest(folder, package);
    host.services().packageManager->install(folder);
  }

  // Returns once no package-change handler holds the service's main lock.
  void waitForHandlers() { tts->setDefaultVoice(); }
};

TEST_F(PackageChangeTest, InstallingReloadsTheEngineAndRemovingDeletesTheDefaultVoiceFile) {
  ASSERT_FALSE(isInstalled("French"));
  tts->setParameter("pitchShift", 2.0f);
  // The deliveries to the service run in raise order: once French is served, the package
  // without languages installed before it has been handled too, without an error.
  install(scriptedPackage("documentation", {}));
  install(scriptedPackage("french", {"fr_FR"}));
  ASSERT_TRUE(eventually([this] { return isInstalled("French"); }));
  waitForHandlers();
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
  waitForHandlers();
  EXPECT_TRUE(isInstalled("English"));
}

TEST_F(PackageChangeTest, AnEventForAPackageWithoutLanguagesChangesNothing) {
  tts->setParameter("pitchShift", 2.0f);
  const ZR::VoiceSetting before = tts->globalSetting();
  const ko::PackageInfo documentation = scriptedPackage("documentation", {});
  backend.clearCalls();
  host.clearLogs();
  tts->bexStoreApplicationInstalled("packageInstalled", documentation.toValue(), "");
  tts->bexStoreApplicationUninstalled("packageRemoved", documentation.toValue(), "");
  EXPECT_TRUE(backend.calls("load").empty());
  EXPECT_EQ(tts->globalSetting(), before);
  EXPECT_TRUE(host.logRecords(kServiceCategory).empty());
}

TEST_F(PackageChangeTest, SignalsForgetTheRemovedLanguagesInOrderUpToAnUnknownLocale) {
  tts->setLanguageDefaultVoice("English", "Sam");
  writeVoiceSettings(defaultVoiceFile("French"), ZR::VoiceSetting(ZR::VOICE, "Julie"), "French");
  const ko::PackageInfo both = scriptedPackage("both", {"en_US", "fr_FR"});
  // An installation is handled when the event store reports it, not on the signal.
  const ZR::VoiceSetting before = tts->globalSetting();
  backend.clearCalls();
  tts->onPackageInstalled(both);
  EXPECT_TRUE(backend.calls().empty());
  EXPECT_EQ(tts->globalSetting(), before);

  host.clearLogs();
  tts->onPackageRemoved(scriptedPackage("odd", {"xx_XX", "fr_FR"}));
  EXPECT_TRUE(fs::exists(defaultVoiceFile("French")));
  EXPECT_THAT(logs("onPackageRemoved", ko::log::error),
              ElementsAre("Language iso code xx_XX not managed by our TTS engine"));

  tts->onPackageRemoved(both);
  EXPECT_FALSE(fs::exists(defaultVoiceFile("English")));
  EXPECT_FALSE(fs::exists(defaultVoiceFile("French")));
  EXPECT_THAT(logs("xRemoveVoiceSettingFromLanguage", ko::log::verbose),
              ElementsAre("Remove file " + defaultVoiceFile("English"),
                          "Remove file " + defaultVoiceFile("French")));
}

}  // namespace
}  // namespace bexko::testing
