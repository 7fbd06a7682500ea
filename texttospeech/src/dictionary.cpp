// The engine's user dictionary, passed straight to the engine manager, and the diagnostics
// that write the service's state to the log.

#include <string>

#include <boost/thread/locks.hpp>

#include <ko/log.h>
#include <zr/zrtexttospeech.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory = ko::log::addCategory("audio.zrtexttospeech.main");

}  // namespace

void ZRTextToSpeech::showDictionary() { ttsManager->showDictionary(); }

void ZRTextToSpeech::loadDictionary() { ttsManager->loadDictionary(); }

void ZRTextToSpeech::unloadDictionary() { ttsManager->unloadDictionary(); }

bool ZRTextToSpeech::deleteFromDictionary(const std::string& type, const std::string& word) {
  return ttsManager->deleteFromDictionary(type, word);
}

bool ZRTextToSpeech::deleteFromDictionary(const std::string& word) {
  return ttsManager->deleteFromDictionary("", word);
}

bool ZRTextToSpeech::addToDictionary(const std::string& type, const std::string& word,
                                     const std::string& priority, const std::string& phonetic,
                                     const std::string& accent) {
  KO_LOG(logCategory, ko::log::info, "addToDictionary") << "Add to japanese dictionary";
  return ttsManager->addToDictionary(type, word, priority, phonetic, accent);
}

bool ZRTextToSpeech::addToDictionary(const std::string& text, const std::string& toReplace) {
  KO_LOG(logCategory, ko::log::info, "addToDictionary")
      << "Add to Nuance dictionary " << text << " to replace by " << toReplace;
  return ttsManager->addToDictionary(text, toReplace, "", "", "");
}

void ZRTextToSpeech::diagnosis() const {
  // Each engine query is made only when its record is written (KO_LOG checks the level first).
  KO_LOG(logCategory, ko::log::info, "diagnosis") << "TTS Diagnosis :";
  KO_LOG(logCategory, ko::log::info, "diagnosis")
      << "- current voice setting : " << xAppliedSetting().value;
  KO_LOG(logCategory, ko::log::info, "diagnosis")
      << "- language : " << ttsManager->getLanguage(xRequestedSetting().value);
  KO_LOG(logCategory, ko::log::info, "diagnosis")
      << "- current language : " << ttsManager->getCurrentLanguage();
  KO_LOG(logCategory, ko::log::info, "diagnosis")
      << "- isPaused : " << static_cast<int>(ttsManager->isPaused());
  if (logCategory->isEnabled(ko::log::info)) {
    std::size_t pending = 0;
    {
      // The queue changes on the speaking thread; a reader's lock keeps the count consistent.
      boost::shared_lock<boost::shared_mutex> lock(taskQueueLock);
      pending = taskQueue.size();
    }
    KO_LOG(logCategory, ko::log::info, "diagnosis")
        << "- nb tasks (sentences to say) : " << pending;
  }
  showVoiceSettings();
}

void ZRTextToSpeech::showVoiceSettings() const {
  printVoiceSettings(xAppliedSetting(), "Current");
  printVoiceSettings(xRequestedSetting(), "Global");
}

}  // namespace ZR
