// Language packages installed and removed while the service runs: the event-store path reloads
// the engine, the package manager's signals forget the voice settings of removed languages.

#include <string>
#include <vector>

#include <ko/log.h>
#include <ko/packageinfo.h>
#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory = ko::log::addCategory("audio.zrtexttospeech.main");

}  // namespace

void ZRTextToSpeech::onPackageInstalled(const ko::PackageInfo& package) {
  // Installation is handled when the event store reports it (bexStoreApplicationInstalled);
  // this slot only keeps the signal connected.
}

void ZRTextToSpeech::onPackageRemoved(const ko::PackageInfo& package) {
  const std::vector<ko::LanguageInfo> languages = package.languages();
  for (const ko::LanguageInfo& language : languages) {
    const std::string name = languageInfo->getLanguage(language.locale());
    if (name.empty()) {
      KO_LOG(logCategory, ko::log::error, "onPackageRemoved")
          << "Language iso code " << language.locale() << " not managed by our TTS engine";
      return;
    }
    xRemoveVoiceSettingFromLanguage(name);
  }
}

// The two event-store callbacks have the same body: whichever way the packages changed, the
// engine is reloaded on the full current list and the requested setting follows its language.
void ZRTextToSpeech::bexStoreApplicationInstalled(const std::string& key, const ZRValue& value,
                                                  const std::string& message) {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  const ko::PackageInfo package(value);
  if (package.languages().empty()) return;
  ttsManager->reload(xGetInstalledPackages(), reloadFlag, reloadText);
  VoiceSetting setting = xGetVoiceSettingFromLanguage(ttsManager->getCurrentLanguage());
  // A stop's clean-up reads the requested setting under taskQueueLock.
  boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  globalVoiceSetting = setting;
}

void ZRTextToSpeech::bexStoreApplicationUninstalled(const std::string& key, const ZRValue& value,
                                                    const std::string& message) {
  // An installation and a removal are handled alike: the engine reloads on the current list.
  bexStoreApplicationInstalled(key, value, message);
}

}  // namespace ZR
