#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include <bexko/services/packagemanager.h>

#include "settingsfixture.h"

namespace {

using bexko::testing::eventually;
using bexko::testing::scriptedPackage;
using bexko::testing::ScriptedServiceTest;
using bexko::testing::serviceLogs;
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

  std::string frenchDefaultVoiceFile() const {
    return configFile("ZRTextToSpeech_DefaultVoiceFrench.xml");
  }
};

TEST_F(PackageChangeTest, InstallingALanguageReloadsTheEngineAndRebuildsTheVoiceSetting) {
  ASSERT_FALSE(isInstalled("French"));
  tts->setParameter("pitchShift", 2.0f);
  ASSERT_FLOAT_EQ(tts->globalSetting().parameters.at("pitchShift"), 2.0f);

  install(scriptedPackage("french", {"fr_FR"}));
  ASSERT_TRUE(eventually([this] { return isInstalled("French"); }));
  waitForHandlers();

  // The current language did not change; its setting was rebuilt all the same.
  EXPECT_EQ(tts->engine()->getCurrentLanguage(), "English");
  EXPECT_TRUE(tts->globalSetting() == ZR::VoiceSetting(ZR::VOICE, "Kenny"));
  tts->setLanguage("French");
  EXPECT_EQ(tts->getVoice(), "Julie");
}

TEST_F(PackageChangeTest, RemovingALanguageDeletesItsDefaultVoiceFile) {
  install(scriptedPackage("french", {"fr_FR"}));
  ASSERT_TRUE(eventually([this] { return isInstalled("French"); }));
  waitForHandlers();
  tts->setLanguageDefaultVoice("French", "Julie");
  ASSERT_TRUE(fs::exists(frenchDefaultVoiceFile()));

  host.services().packageManager->remove("french");
  EXPECT_TRUE(eventually([this] { return !fs::exists(frenchDefaultVoiceFile()); }));
  EXPECT_TRUE(eventually([this] { return !isInstalled("French"); }));
  waitForHandlers();
  EXPECT_TRUE(isInstalled("English"));
}

TEST_F(PackageChangeTest, APackageWithoutLanguagesChangesNothing) {
  tts->setParameter("pitchShift", 2.0f);
  const ZR::VoiceSetting before = tts->globalSetting();
  ko::PackageInfo documentation = scriptedPackage("documentation", {});

  backend.clearCalls();
  host.clearLogs();
  tts->bexStoreApplicationInstalled("packageInstalled", documentation.toValue(), "");
  tts->bexStoreApplicationUninstalled("packageRemoved", documentation.toValue(), "");
  EXPECT_TRUE(backend.calls("load").empty());
  EXPECT_TRUE(tts->globalSetting() == before);
  EXPECT_TRUE(host.logRecords("audio.zrtexttospeech.main").empty());

  // Through the package manager: the deliveries to the service run in raise order, so once the
  // language package that follows is served, the first one has been too.
  install(documentation);
  install(scriptedPackage("french", {"fr_FR"}));
  ASSERT_TRUE(eventually([this] { return isInstalled("French"); }));
  waitForHandlers();
  for (const ko::log::Record& record : host.logRecords()) {
    EXPECT_GT(record.level, ko::log::error) << record.function << ": " << record.message;
  }
}

TEST_F(PackageChangeTest, RemovedPackageForgetsEachKnownLanguageInOrder) {
  tts->setLanguageDefaultVoice("English", "Sam");
  const std::string englishFile = configFile("ZRTextToSpeech_DefaultVoiceEnglish.xml");
  bexko::testing::writeVoiceSettings(frenchDefaultVoiceFile(), ZR::VoiceSetting(ZR::VOICE, "Julie"),
                                     "French");
  ASSERT_TRUE(fs::exists(englishFile));

  host.clearLogs();
  tts->onPackageRemoved(scriptedPackage("both", {"en_US", "fr_FR"}));
  EXPECT_FALSE(fs::exists(englishFile));
  EXPECT_FALSE(fs::exists(frenchDefaultVoiceFile()));
  EXPECT_EQ(serviceLogs(host, "xRemoveVoiceSettingFromLanguage", ko::log::verbose),
            (std::vector<std::string>{"Remove file " + englishFile,
                                      "Remove file " + frenchDefaultVoiceFile()}));
}

TEST_F(PackageChangeTest, AnUnknownLocaleStopsTheRemovalOfThePackagesLanguages) {
  bexko::testing::writeVoiceSettings(frenchDefaultVoiceFile(), ZR::VoiceSetting(ZR::VOICE, "Julie"),
                                     "French");
  host.clearLogs();
  tts->onPackageRemoved(scriptedPackage("odd", {"xx_XX", "fr_FR"}));
  EXPECT_TRUE(fs::exists(frenchDefaultVoiceFile()));
  EXPECT_EQ(serviceLogs(host, "onPackageRemoved", ko::log::error),
            std::vector<std::string>{"Language iso code xx_XX not managed by our TTS engine"});
}

TEST_F(PackageChangeTest, InstalledSignalAloneChangesNothing) {
  const ZR::VoiceSetting before = tts->globalSetting();
  backend.clearCalls();
  tts->onPackageInstalled(scriptedPackage("french", {"fr_FR"}));
  EXPECT_TRUE(backend.calls().empty());
  EXPECT_TRUE(tts->globalSetting() == before);
}

}  // namespace
