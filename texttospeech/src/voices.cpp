// Voices and voice settings: which voice the engine speaks with and with which parameters,
// the per-language default-voice files, and how a setting is applied to the engine.

#include <locale>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <ko/log.h>
#include <ko/path.h>
#include <zr/tts/voicesetting.h>
#include <zr/zrerror.h>
#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory = ko::log::addCategory("audio.zrtexttospeech.main");

const std::string defaultVoicePrefix = "ZRTextToSpeech_DefaultVoice";
const std::string voicePreferencePrefix = "ZRTextToSpeech_Voice_";
const std::string officialVoicePrefix = "BexOfficialVoice";

std::string findConfFile(const std::string& fileName) {
  return ko::path::findConf("bexko", fileName, false);
}

bool sameWithoutCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  std::locale defaultLocale;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::toupper(a[i], defaultLocale) != std::toupper(b[i], defaultLocale)) return false;
  }
  return true;
}

// The preferences module, or a clear error when the service started without it.
ZRPreferencesProxy& preferencesOf(const boost::shared_ptr<ZRPreferencesProxy>& proxy,
                                  const std::string& module, const std::string& method) {
  if (!proxy) {
    throw ZRError(module, method, "The preferences module ZRPreferences is not available.");
  }
  return *proxy;
}

}  // namespace

void printVoiceSettings(const VoiceSetting& setting, std::string title) {
  KO_LOG(logCategory, ko::log::info, "printVoiceSettings") << title << " voice settings:";
  KO_LOG(logCategory, ko::log::info, "printVoiceSettings")
      << "- type " << static_cast<int>(setting.type) << " (0 = LANGUAGE, 1=VOICE, 2=UNDEFINED)";
  KO_LOG(logCategory, ko::log::info, "printVoiceSettings") << "- value " << setting.value;
  for (const auto& parameter : setting.parameters) {
    KO_LOG(logCategory, ko::log::info, "printVoiceSettings")
        << "- " << parameter.first << " = " << parameter.second;
  }
}

VoiceSetting ZRTextToSpeech::xGetVoiceSettingFromLanguage(const std::string& language) {
  const std::string formatted = xFormatLanguage(language);
  VoiceSetting setting(VOICE, formatted);

  // A default voice chosen for the language wins over everything else.
  const std::string defaultVoiceFile = findConfFile(defaultVoicePrefix + formatted + ".xml");
  if (!defaultVoiceFile.empty()) {
    KO_LOG(logCategory, ko::log::info, "xGetVoiceSettingFromLanguage")
        << "Apply voice settings from " << defaultVoiceFile;
    return makeVoiceSettingFromXml(defaultVoiceFile);
  }

  const std::string officialName = officialVoicePrefix + formatted;
  const std::string officialFile = voicePreferencePrefix + officialName + ".xml";
  if (!findConfFile(officialFile).empty()) {
    const ZRValue value = preferencesOf(preferencesProxy, getName(), "xGetVoiceSettingFromLanguage")
                              .readPrefFile(voicePreferencePrefix + officialName, true);
    VoiceSetting official = makeVoiceSettingFromSysXml(value, officialName);
    KO_LOG(logCategory, ko::log::info, "xGetVoiceSettingFromLanguage")
        << "Apply voice settings from " << officialFile;
    return official;
  }

  const std::string voice = ttsManager->getDefaultVoiceForLanguage(formatted);
  const std::string voiceFile =
      xRetrieveVoiceSettingsFile(voice, ttsManager->getVoiceInstallDir(voice));
  if (voiceFile.empty()) {
    setting.value = voice;
    return setting;
  }
  VoiceSetting fromFile = makeVoiceSettingFromXml(voiceFile);
  fromFile.value = voice;
  return fromFile;
}

VoiceSetting ZRTextToSpeech::xRequestedSetting() const {
  boost::shared_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  return globalVoiceSetting;
}

VoiceSetting ZRTextToSpeech::xAppliedSetting() const {
  boost::shared_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  return appliedVoiceSetting;
}

void ZRTextToSpeech::xSetVoiceSetting(VoiceSetting setting) {
  const VoiceSetting requested = setting;
  const VoiceSetting applied = appliedVoiceSetting;
  if (requested == applied) return;

  if (setting.type == VOICE) {
    ttsManager->setCurrentVoice(setting.value);
  } else if (setting.type == LANGUAGE) {
    ttsManager->setCurrentLanguage(setting.value);
  }
  for (const auto& parameter : setting.parameters) {
    xSetParameter(parameter.first, parameter.second);
  }
  // Only reached when everything was applied, so that a failed attempt is retried next time.
  appliedVoiceSetting.type = setting.type;
  appliedVoiceSetting.value = setting.value;
  appliedVoiceSetting.parameters = setting.parameters;
}

void ZRTextToSpeech::xSetVoice(const std::string& voice) { ttsManager->setCurrentVoice(voice); }

void ZRTextToSpeech::setVoice(const std::string& voice) {
  KO_LOG(logCategory, ko::log::info, "setVoice") << voice;
  std::lock_guard<ko::FairMutex> lock(ttsMutex);

  auto unsupported = [this, &voice](const ZRError& error) {
    const std::string message = voice + " voice is not supported: " + error.what();
    KO_LOG(logCategory, ko::log::error, "setVoice") << message;
    return ZRError(getName(), "setVoice", message);
  };

  bool installed = false;
  try {
    installed = xIsLanguageInstalled(ttsManager->getLanguage(voice));
  } catch (const ZRError& error) {
    throw unsupported(error);
  }
  if (!installed) {
    throw ZRError(getName(), "setVoice", voice + " voice is not installed.");
  }

  VoiceSetting setting(UNDEFINED, "");
  setting.type = VOICE;
  try {
    const std::string voiceFile =
        xRetrieveVoiceSettingsFile(voice, ttsManager->getVoiceInstallDir(voice));
    if (voiceFile.empty()) {
      // The engine hears of the voice when the next sentence applies the requested setting.
      setting.value = voice;
    } else {
      // A voice with its own settings is switched to at once.
      setting = makeVoiceSettingFromXml(voiceFile);
      setting.value = voice;
      ttsManager->setCurrentVoice(voice);
    }
  } catch (const ZRError& error) {
    throw unsupported(error);
  }

  // A stop's clean-up reads the requested setting under taskQueueLock.
  boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  globalVoiceSetting.type = setting.type;
  globalVoiceSetting.value = setting.value;
  globalVoiceSetting.parameters = setting.parameters;
}

std::string ZRTextToSpeech::getVoice() { return ttsManager->getCurrentVoice(); }

std::vector<std::string> ZRTextToSpeech::getAvailableVoices() {
  const std::map<std::string, std::string> voices = ttsManager->getAvailableVoices();
  std::vector<std::string> names;
  names.reserve(voices.size());
  for (const auto& voice : voices) names.push_back(voice.first);
  return names;
}

void ZRTextToSpeech::setLanguageDefaultVoice(const std::string& language,
                                             const std::string& voice) {
  std::ostringstream message;
  auto refuse = [&message]() {
    KO_LOG(logCategory, ko::log::error, "setLanguageDefaultVoice") << message.str();
    return ZRError("ZRTextToSpeech", "setLanguageDefaultVoice", message.str());
  };

  if (!xIsLanguageInstalled(language)) {
    message << "There is no voice installed for " << language << " language.";
    throw refuse();
  }
  const std::map<std::string, std::string> voices = ttsManager->getAvailableVoices();
  const auto found = voices.find(voice);
  if (found == voices.end()) {
    message << "The voice " << voice << " is not installed";
    throw refuse();
  }
  if (!sameWithoutCase(found->second, language)) {
    message << "You can't use the " << voice << " voice for " << language
            << " language because it is a(n) " << found->second << " voice.";
    throw refuse();
  }

  const std::string formatted = xFormatLanguage(language);
  const std::string preferenceName = defaultVoicePrefix + formatted;
  ZRPreferencesProxy& preferences =
      preferencesOf(preferencesProxy, getName(), "setLanguageDefaultVoice");
  preferences.writePrefFile(
      preferenceName, formatVoicePreferences(VoiceSetting(VOICE, voice), preferenceName), false);

  // A voice's own settings, or else the official settings of the language when they name this
  // voice, replace the bare choice just written.
  const std::string voiceFile =
      xRetrieveVoiceSettingsFile(voice, ttsManager->getVoiceInstallDir(voice));
  if (!voiceFile.empty()) {
    VoiceSetting setting = makeVoiceSettingFromXml(voiceFile);
    setting.value = voice;
    preferences.writePrefFile(preferenceName, formatVoicePreferences(setting, preferenceName),
                              false);
    return;
  }

  const std::string officialName = officialVoicePrefix + formatted;
  const std::string officialFile = findConfFile(voicePreferencePrefix + officialName + ".xml");
  if (officialFile.empty()) return;
  boost::filesystem::path officialPath(officialFile);
  if (ttsManager->getVoiceNameFromXml(officialPath) != voice) return;
  const ZRValue value = preferences.readPrefFile(voicePreferencePrefix + officialName, true);
  VoiceSetting setting = makeVoiceSettingFromSysXml(value, officialName);
  setting.value = voice;
  preferences.writePrefFile(preferenceName, formatVoicePreferences(setting, preferenceName), false);
}

void ZRTextToSpeech::xRemoveVoiceSettingFromLanguage(const std::string& language) {
  const std::string formatted = xFormatLanguage(language);
  const std::string fileName = defaultVoicePrefix + formatted + ".xml";
  const std::string path = findConfFile(fileName);
  if (path.empty()) {
    KO_LOG(logCategory, ko::log::verbose, "xRemoveVoiceSettingFromLanguage")
        << "No file " << fileName << " found. So no file to remove.";
    return;
  }
  KO_LOG(logCategory, ko::log::verbose, "xRemoveVoiceSettingFromLanguage")
      << "Remove file " << path;
  boost::filesystem::remove(path);
}

void ZRTextToSpeech::setDefaultVoice() {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  ttsManager->setDefaultVoice();
}

void ZRTextToSpeech::xSetDefaultVoice() { ttsManager->setDefaultVoice(); }

void ZRTextToSpeech::loadVoicePreference(const std::string& name) {
  KO_LOG(logCategory, ko::log::warning, "loadVoicePreference")
      << "Method loadVoicePreference is deprecated. Files ZRTextToSpeech_Voice_* have been "
         "removed. "
      << "Please use setParameter() to change the parameters.";

  VoiceSetting setting;
  try {
    const ZRValue value = preferencesOf(preferencesProxy, getName(), "loadVoicePreference")
                              .readPrefFile(voicePreferencePrefix + name, true);
    setting = makeVoiceSettingFromSysXml(value, name);
  } catch (const ZRError& error) {
    const std::string message = std::string("loadVoicePreference failed: ") + error.what();
    KO_LOG(logCategory, ko::log::error, "loadVoicePreference") << message;
    throw ZRError(getName(), "loadVoicePreference", message);
  }

  std::string language;
  if (setting.type == VOICE) {
    language = ttsManager->getLanguage(setting.value);
  } else if (setting.type == LANGUAGE) {
    language = setting.value;
  }
  if (!xIsLanguageInstalled(language)) {
    const std::string message =
        "loadVoicePreference failed. Language corresponding to this voice preference (" + language +
        ") is not installed.";
    KO_LOG(logCategory, ko::log::error, "loadVoicePreference") << message;
    throw ZRError(getName(), "loadVoicePreference", message);
  }
  // A stop's clean-up reads the requested setting under taskQueueLock.
  boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
  globalVoiceSetting.type = setting.type;
  globalVoiceSetting.value = setting.value;
  globalVoiceSetting.parameters = setting.parameters;
}

}  // namespace ZR
