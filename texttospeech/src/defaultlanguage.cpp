// The language spoken at start-up, read from the robot's preferences, and the forgiving
// language change published as "_setDefaultLanguage".

#include <sstream>
#include <string>

#include <ko/log.h>
#include <zr/zrerror.h>
#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory = ko::log::addCategory("audio.zrtexttospeech.main");

const char* const fallbackLanguage = "English";

}  // namespace

void ZRTextToSpeech::xLoadDefaultLanguage() {
  // One buffer for the whole load: each record logged repeats everything appended before it,
  // so the last record tells the whole story of the start-up choice.
  std::ostringstream buffer;
  auto logBuffer = [&buffer]() {
    KO_LOG(logCategory, ko::log::error, "xLoadDefaultLanguage") << buffer.str();
  };

  std::string language = fallbackLanguage;
  try {
    if (!preferenceManagerProxy) {
      throw ZRError(getName(), "xLoadDefaultLanguage",
                    "The preference manager ZRPreferenceManager is not available.");
    }
    language =
        preferenceManagerProxy->getValue("com.veltra.robotwebpage", "ChosenLanguage").toString();
    const std::string formatted = xFormatLanguage(language);
    if (!xIsLanguageInstalled(formatted)) {
      buffer << language << " language is not installed.";
      logBuffer();
      throw ZRError(getName(), "xLoadDefaultLanguage", buffer.str());
    }
    VoiceSetting setting = xGetVoiceSettingFromLanguage(language);
    {
      boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
      globalVoiceSetting = setting;
    }
    ttsManager->setCurrentLanguage(language);
    return;
  } catch (const ZRError& error) {
    if (!language.empty()) {
      buffer << "Could not set default language " << language << ": " << error.what() << " ";
    } else {
      buffer << "No valid default language could be found. ";
    }
    if (language == fallbackLanguage) {
      logBuffer();
      try {
        ttsManager->setCurrentLanguage(fallbackLanguage);
      } catch (const ZRError& engineError) {
        // Start-up never fails for a language: the service keeps serving without one.
        KO_LOG(logCategory, ko::log::error, "xLoadDefaultLanguage")
            << "Could not set language " << fallbackLanguage << ": " << engineError.what();
      }
      return;
    }
    buffer << "ZRTextToSpeech will start in English then.";
    logBuffer();
    language = fallbackLanguage;
  }

  try {
    const std::string formatted = xFormatLanguage(language);
    if (!xIsLanguageInstalled(formatted)) {
      KO_LOG(logCategory, ko::log::error, "xLoadDefaultLanguage")
          << language << " language is not installed.";
      return;
    }
    VoiceSetting setting = xGetVoiceSettingFromLanguage(fallbackLanguage);
    {
      boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
      globalVoiceSetting = setting;
    }
    ttsManager->setCurrentLanguage(fallbackLanguage);
  } catch (const ZRError& error) {
    KO_LOG(logCategory, ko::log::error, "xLoadDefaultLanguage")
        << "Could not set language " << language << ": " << error.what();
  }
}

void ZRTextToSpeech::setDefaultLanguage(const std::string& language) {
  std::lock_guard<ko::FairMutex> lock(ttsMutex);
  try {
    const std::string formatted = xFormatLanguage(language);
    if (!xIsLanguageInstalled(formatted)) {
      KO_LOG(logCategory, ko::log::warning, "setDefaultLanguage")
          << language << " language is not installed.";
      return;
    }
    VoiceSetting setting = xGetVoiceSettingFromLanguage(language);
    // A stop's clean-up re-applies the requested setting under taskQueueLock.
    boost::unique_lock<boost::shared_mutex> settingsLock(taskQueueLock);
    globalVoiceSetting = setting;
    xSetVoiceSetting(globalVoiceSetting);
  } catch (const ZRError& error) {
    KO_LOG(logCategory, ko::log::warning, "setDefaultLanguage")
        << "The specified language (" << language << ") is not valid: " << error.what();
  }
}

}  // namespace ZR
