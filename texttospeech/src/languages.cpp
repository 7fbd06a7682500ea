// Languages: changing and reporting the language of speech, and the two checks that every
// language-taking operation runs first.

#include <locale>
#include <string>
#include <vector>

#include <ko/log.h>
#include <zr/zrerror.h>
#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory = ko::log::addCategory("audio.zrtexttospeech.main");

}  // namespace

std::string ZRTextToSpeech::xFormatLanguage(const std::string& language) const {
  // The lower-case copy only serves the message: the name is validated, not normalised.
  std::locale defaultLocale;
  std::string lowerCase = language;
  for (char& c : lowerCase) c = std::tolower(c, defaultLocale);

  if (languageInfo->getLocale(language).empty()) {
    const std::string message = lowerCase + " language is not supported.";
    KO_LOG(logCategory, ko::log::error, "xFormatLanguage") << message;
    // Reported under "setLanguage" whichever operation asked.
    throw ZRError("ZRTextToSpeech", "setLanguage", message);
  }
  return language;
}

bool ZRTextToSpeech::xIsLanguageInstalled(std::string language) {
  std::locale defaultLocale;
  const std::vector<std::string> installed = ttsManager->getAvailableLanguages();
  for (const std::string& candidate : installed) {
    if (candidate.size() != language.size()) continue;
    bool same = true;
    for (std::size_t i = 0; i < candidate.size() && same; ++i) {
      same = std::toupper(candidate[i], defaultLocale) == std::toupper(language[i], defaultLocale);
    }
    if (same) return true;
  }
  return false;
}

void ZRTextToSpeech::xSetLanguage(const std::string& language) {
  ttsManager->setCurrentLanguage(language);
}

void ZRTextToSpeech::setLanguage(const std::string& language) {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);

  auto unsupported = [this, &language](const ZRError& error) {
    const std::string message = language + " language is not supported: " + error.what();
    KO_LOG(logCategory, ko::log::error, "setLanguage") << message;
    return ZRError(getName(), "setLanguage", message);
  };

  std::string formatted;
  try {
    formatted = xFormatLanguage(language);
  } catch (const ZRError& error) {
    throw unsupported(error);
  }

  if (!xIsLanguageInstalled(formatted)) {
    const std::string message = language + " language is not installed.";
    KO_LOG(logCategory, ko::log::error, "setLanguage") << message;
    throw ZRError(getName(), "setLanguage", message);
  }

  // The caller's letter case goes on to the engine and the voice-setting lookup.
  try {
    VoiceSetting setting = xGetVoiceSettingFromLanguage(language);
    {
      // A stop's clean-up re-applies the requested setting under taskQueueLock: the settings
      // change under that lock too.
      boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
      globalVoiceSetting = setting;
      ttsManager->setCurrentLanguage(language);
      xSetVoiceSetting(globalVoiceSetting);
    }
    languageTTS(languageInfo->getLocale(language));
  } catch (const ZRError& error) {
    throw unsupported(error);
  }

  reloadFlag = false;
  reloadText.clear();
}

std::string ZRTextToSpeech::getLanguage() {
  const VoiceSetting requested = xRequestedSetting();
  switch (requested.type) {
    case VOICE:
      return ttsManager->getLanguage(requested.value);
    case LANGUAGE:
      return requested.value;
    default:
      throw ZRError(getName(), "getLanguage()", "Invalid default language");
  }
}

std::vector<std::string> ZRTextToSpeech::getAvailableLanguages() {
  return xGetAvailableLanguages();
}

std::vector<std::string> ZRTextToSpeech::xGetAvailableLanguages() {
  return ttsManager->getAvailableLanguages();
}

std::vector<std::string> ZRTextToSpeech::getSupportedLanguages() {
  KO_LOG(logCategory, ko::log::warning, "getSupportedLanguages")
      << "Method getSupportedLanguages is deprecated.";
  return languageInfo->getLanguages();
}

std::string ZRTextToSpeech::locale() { return languageInfo->getLocale(getLanguage()); }

}  // namespace ZR
