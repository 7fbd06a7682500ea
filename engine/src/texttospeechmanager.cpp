#include <zr/tts/texttospeechmanager.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>

#include <boost/filesystem.hpp>

#include <bexko/engine/backend.h>
#include <ko/log.h>
#include <ko/path.h>
#include <zr/zrerror.h>

#include "dictionary.h"
#include "registry.h"
#include "utf8.h"

namespace ZR {

namespace {

using bexko::engine::Backend;
using bexko::engine::LanguageRequest;
using bexko::engine::VoiceDescription;
using bexko::engine::detail::toLowerAscii;

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("engine.manager");
  return category;
}

constexpr const char* kModule = "TextToSpeech";

struct ServedLanguage {
  std::string name;
  std::string engine;
  std::string defaultVoice;
};

struct VoiceEntry {
  std::string language;
  std::string installDir;
  std::string engine;
};

// What the manager serves: the backends by engine name (with the registration each was made
// from), the languages in table order and the voices by name.
struct Tables {
  std::map<std::string, std::shared_ptr<Backend>> backends;
  std::map<std::string, std::uint64_t> registrations;
  std::vector<ServedLanguage> languages;
  std::map<std::string, VoiceEntry> voices;
};

// Passes a backend's events on, with word indexes taken back from the text the backend spoke
// (after the dictionary's replacements) to the text the caller gave.
class IndexMappingCallback : public TextToSpeechEngineCallbackInterface {
 public:
  IndexMappingCallback(TextToSpeechEngineCallbackInterface* target,
                       const bexko::engine::detail::ReplacedText& text)
      : target_(target), text_(text) {}
  void TTSCallBack(short* samples, unsigned int count) override {
    if (target_) target_->TTSCallBack(samples, count);
  }
  void TTSEventCallBack(TextToSpeechEngineEvent event, int value, unsigned int position) override {
    if (!target_) return;
    if (event == TTS_EVENT_WORD || event == TTS_EVENT_SENTENCE) value = text_.toOriginal(value);
    target_->TTSEventCallBack(event, value, position);
  }

 private:
  TextToSpeechEngineCallbackInterface* target_;
  const bexko::engine::detail::ReplacedText& text_;
};

std::string join(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
  return out;
}

}  // namespace

struct TextToSpeechManager::Impl {
  TextToSpeechEngineCallbackInterface* callback = nullptr;
  boost::shared_ptr<TTSLanguageInfo> info;

  // Serialises the operations that change the engine (initialize, reload, language, voice,
  // parameters, dictionary); held across backend calls. Never taken by the operations that
  // may come from another thread during a sentence (stop, pause, resume, queries).
  std::mutex configMutex;

  // Guards every field below; held only for short reads and writes, never across a backend
  // call.
  mutable std::mutex stateMutex;
  std::map<std::string, std::shared_ptr<Backend>> backends;
  std::map<std::string, std::uint64_t> registrations;
  std::vector<ServedLanguage> languages;
  std::map<std::string, VoiceEntry> voices;
  std::string currentLanguage;
  std::string currentVoice;
  std::shared_ptr<Backend> activeBackend;  // the one synthesising, if any
  bool paused = false;
  std::vector<std::string> loadedEffects;
  std::set<std::string> appliedEffects;
  bool filterEnabled = false;
  bexko::engine::detail::Dictionary dictionary;
  std::string dictionaryLanguage;  // whose entries `dictionary` holds; empty when unloaded
  bool dictionaryWanted = true;    // cleared by unloadDictionary

  const ServedLanguage* findLanguage(const std::string& name) const {
    const std::string wanted = toLowerAscii(name);
    for (const ServedLanguage& language : languages) {
      if (toLowerAscii(language.name) == wanted) return &language;
    }
    return nullptr;
  }

  const VoiceEntry* findVoice(const std::string& name, std::string* canonical) const {
    auto it = voices.find(name);
    if (it == voices.end()) {
      const std::string wanted = toLowerAscii(name);
      it = std::find_if(voices.begin(), voices.end(),
                        [&](const auto& entry) { return toLowerAscii(entry.first) == wanted; });
    }
    if (it == voices.end()) return nullptr;
    if (canonical) *canonical = it->first;
    return &it->second;
  }

  std::shared_ptr<Backend> currentBackend() const {
    const ServedLanguage* language = findLanguage(currentLanguage);
    if (!language) return nullptr;
    auto it = backends.find(language->engine);
    return it == backends.end() ? nullptr : it->second;
  }

  std::shared_ptr<Backend> requireCurrentBackend(const char* method) const {
    std::lock_guard<std::mutex> lock(stateMutex);
    auto backend = currentBackend();
    if (!backend) throw ZRError(kModule, method, "No language is selected");
    return backend;
  }

  static std::string dictionaryPath(const std::string& language) {
    const boost::filesystem::path folder =
        boost::filesystem::path(ko::path::userWritableDataPath("bexko")) / "dictionary";
    return (folder / (language + ".dic")).string();
  }

  // Under configMutex: makes `dictionary` hold the current language's entries (when wanted).
  void syncDictionary(bool force) {
    std::string language;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      language = currentLanguage;
      if (!force && (!dictionaryWanted || dictionaryLanguage == language)) return;
    }
    bexko::engine::detail::Dictionary loaded;
    if (!language.empty()) {
      try {
        int skipped = 0;
        loaded.load(dictionaryPath(language), &skipped);
        if (skipped > 0) {
          KO_LOG(logCategory(), ko::log::warning, "loadDictionary")
              << "Skipped " << skipped << " malformed lines of the " << language << " dictionary";
        }
      } catch (const std::exception& e) {
        KO_LOG(logCategory(), ko::log::error, "loadDictionary")
            << "Cannot read the " << language << " dictionary: " << e.what();
      }
    }
    std::lock_guard<std::mutex> lock(stateMutex);
    dictionary = std::move(loaded);
    dictionaryLanguage = language;
    dictionaryWanted = true;
  }

  // Under configMutex. Creates or reuses one backend per engine name and loads into it the
  // languages that the packages ask it for. Returns the new tables without installing them.
  Tables loadPackages(const std::vector<ko::PackageInfo>& packages) {
    Tables next;
    auto& newBackends = next.backends;
    auto& newRegistrations = next.registrations;
    auto& newLanguages = next.languages;
    auto& newVoices = next.voices;
    std::map<std::string, std::vector<LanguageRequest>> requests;  // by engine
    std::set<std::string> requested;                               // language names
    std::map<std::string, std::shared_ptr<Backend>> existing;
    std::map<std::string, std::uint64_t> existingRegistrations;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      existing = backends;
      existingRegistrations = registrations;
    }
    for (const ko::PackageInfo& package : packages) {
      for (const ko::LanguageInfo& language : package.languages()) {
        const std::string& engine = language.engineName();
        if (language.locale().empty()) {
          KO_LOG(logCategory(), ko::log::warning, "initialize")
              << "Package " << package.name() << " declares a language of engine " << engine
              << " without a locale; skipped";
          continue;
        }
        const std::string name = info->getLanguage(language.locale());
        if (name.empty()) {
          KO_LOG(logCategory(), ko::log::warning, "initialize")
              << "Package " << package.name() << ": locale " << language.locale()
              << " is not a supported language; skipped";
          continue;
        }
        if (requested.count(name)) {
          KO_LOG(logCategory(), ko::log::verbose, "initialize")
              << "Package " << package.name() << ": " << name
              << " is already served by an earlier package; skipped";
          continue;
        }
        if (!newBackends.count(engine)) {
          std::shared_ptr<Backend> backend;
          // A backend is reused while its engine keeps the registration it was made from, so
          // that a reload keeps its parameters.
          const std::uint64_t registration = bexko::engine::detail::registrationOf(engine);
          auto reuse = existing.find(engine);
          if (reuse != existing.end() && registration != 0 &&
              existingRegistrations[engine] == registration) {
            backend = reuse->second;
          } else {
            try {
              backend = bexko::engine::createBackend(engine);
            } catch (const std::exception& e) {
              KO_LOG(logCategory(), ko::log::warning, "initialize")
                  << "Engine " << engine << " failed to start: " << e.what();
            }
          }
          if (!backend) {
            KO_LOG(logCategory(), ko::log::warning, "initialize")
                << "Package " << package.name() << ": engine " << engine << " of " << name
                << " is not available; skipped";
            continue;
          }
          newBackends[engine] = std::move(backend);
          newRegistrations[engine] = registration;
        }
        requested.insert(name);
        requests[engine].push_back(LanguageRequest{name, language.locale(), package.path()});
      }
    }

    std::map<std::string, std::vector<VoiceDescription>> voicesByLanguage;
    for (auto it = newBackends.begin(); it != newBackends.end();) {
      const std::string& engine = it->first;
      std::vector<VoiceDescription> voices;
      try {
        voices = it->second->load(requests[engine]);
      } catch (const std::exception& e) {
        KO_LOG(logCategory(), ko::log::warning, "initialize")
            << "Engine " << engine << " could not load its languages: " << e.what();
        newRegistrations.erase(engine);
        it = newBackends.erase(it);
        continue;
      }
      for (VoiceDescription& voice : voices) {
        const bool asked =
            std::any_of(requests[engine].begin(), requests[engine].end(),
                        [&](const LanguageRequest& r) { return r.language == voice.language; });
        if (!asked || voice.name.empty()) continue;
        if (newVoices.count(voice.name)) {
          KO_LOG(logCategory(), ko::log::warning, "initialize")
              << "Voice " << voice.name << " of engine " << engine
              << " has the name of another voice; skipped";
          continue;
        }
        newVoices[voice.name] = VoiceEntry{voice.language, voice.installDir, engine};
        voicesByLanguage[voice.language].push_back(voice);
      }
      for (const LanguageRequest& request : requests[engine]) {
        if (!voicesByLanguage.count(request.language)) {
          KO_LOG(logCategory(), ko::log::warning, "initialize")
              << "Engine " << engine << " has no voice for " << request.language << "; skipped";
        }
      }
      ++it;
    }

    for (const std::string& name : info->getLanguages()) {
      auto voices = voicesByLanguage.find(name);
      if (voices == voicesByLanguage.end()) continue;
      const VoiceDescription* chosen = &voices->second.front();
      for (const VoiceDescription& voice : voices->second) {
        if (voice.isDefault) {
          chosen = &voice;
          break;
        }
      }
      newLanguages.push_back(ServedLanguage{name, newVoices.at(chosen->name).engine, chosen->name});
    }
    return next;
  }

  // Under configMutex: installs new tables and keeps the current language when it is still
  // served, else selects the first one.
  void install(Tables next, const char* method) {
    std::string select;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      backends = std::move(next.backends);
      registrations = std::move(next.registrations);
      languages = std::move(next.languages);
      voices = std::move(next.voices);
      const ServedLanguage* kept = findLanguage(currentLanguage);
      const bool voiceKept =
          kept && voices.count(currentVoice) && voices.at(currentVoice).language == kept->name;
      if (kept && !voiceKept) {
        select = kept->name;  // its voice is gone: its default voice
      } else if (!kept && !languages.empty()) {
        select = languages.front().name;
      } else if (!kept) {
        currentLanguage.clear();
        currentVoice.clear();
      }
    }
    if (!select.empty()) {
      try {
        selectLanguage(select);
      } catch (const std::exception& e) {
        KO_LOG(logCategory(), ko::log::warning, method)
            << "Cannot select " << select << ": " << e.what();
      }
    } else {
      // The same language and voice stay; a reused backend is told again in case its load
      // reset its selection.
      std::shared_ptr<Backend> backend;
      std::string voice;
      {
        std::lock_guard<std::mutex> lock(stateMutex);
        backend = currentBackend();
        voice = currentVoice;
      }
      if (backend && !voice.empty()) {
        try {
          backend->setCurrentVoice(voice);
        } catch (const std::exception& e) {
          KO_LOG(logCategory(), ko::log::warning, method)
              << "Cannot select " << voice << " again: " << e.what();
        }
      }
    }
    syncDictionary(false);
  }

  // Under configMutex.
  void selectLanguage(const std::string& name) {
    std::shared_ptr<Backend> backend;
    std::string canonical;
    std::string voice;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      const ServedLanguage* language = findLanguage(name);
      if (!language) {
        throw ZRError(kModule, "setCurrentLanguage", "The language " + name + " is not installed");
      }
      canonical = language->name;
      voice = language->defaultVoice;
      backend = backends.at(language->engine);
    }
    backend->setCurrentLanguage(canonical);
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      currentLanguage = canonical;
      currentVoice = voice;
    }
    KO_LOG(logCategory(), ko::log::verbose, "setCurrentLanguage")
        << "Language " << canonical << ", voice " << voice;
    syncDictionary(false);
  }

  void selectVoice(const std::string& name) {
    std::shared_ptr<Backend> backend;
    std::string canonical;
    std::string language;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      const VoiceEntry* voice = findVoice(name, &canonical);
      if (!voice)
        throw ZRError(kModule, "setCurrentVoice", "The voice " + name + " is not installed");
      language = voice->language;
      backend = backends.at(voice->engine);
    }
    backend->setCurrentVoice(canonical);
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      currentLanguage = language;
      currentVoice = canonical;
    }
    KO_LOG(logCategory(), ko::log::verbose, "setCurrentVoice")
        << "Voice " << canonical << " (" << language << ")";
    syncDictionary(false);
  }

  std::vector<std::string> languageNames() const {
    std::vector<std::string> names;
    for (const ServedLanguage& language : languages) names.push_back(language.name);
    return names;
  }

  // Under configMutex: runs `change` on the current language's dictionary and saves it.
  template <typename Change>
  bool changeDictionary(const char* method, Change change) {
    std::string language;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      language = currentLanguage;
    }
    if (language.empty()) {
      KO_LOG(logCategory(), ko::log::warning, method) << "No language is selected";
      return false;
    }
    bool loaded;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      loaded = dictionaryLanguage == language;
    }
    // The entries on file are kept: a change to an unloaded dictionary reads it first.
    if (!loaded) syncDictionary(true);
    bexko::engine::detail::Dictionary updated;
    {
      std::lock_guard<std::mutex> lock(stateMutex);
      updated = dictionary;
    }
    if (!change(updated)) return false;
    try {
      updated.save(dictionaryPath(language));
    } catch (const std::exception& e) {
      KO_LOG(logCategory(), ko::log::error, method)
          << "Cannot save the " << language << " dictionary: " << e.what();
      return false;
    }
    std::lock_guard<std::mutex> lock(stateMutex);
    dictionary = std::move(updated);
    return true;
  }
};

TextToSpeechManager::TextToSpeechManager(TextToSpeechEngineCallbackInterface* callback,
                                         boost::shared_ptr<TTSLanguageInfo> info)
    : impl_(new Impl) {
  impl_->callback = callback;
  impl_->info = info ? std::move(info) : boost::shared_ptr<TTSLanguageInfo>(new TTSLanguageInfo);
}

TextToSpeechManager::~TextToSpeechManager() {
  try {
    stopSynthetizer();
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::warning, "~TextToSpeechManager") << e.what();
  }
}

bool TextToSpeechManager::initialize(const std::vector<ko::PackageInfo>& packages) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  Tables next = impl_->loadPackages(packages);
  std::vector<std::string> names;
  for (const ServedLanguage& language : next.languages) names.push_back(language.name);
  if (names.empty()) {
    KO_LOG(logCategory(), ko::log::warning, "initialize") << "No language can be served";
  } else {
    KO_LOG(logCategory(), ko::log::info, "initialize") << "Languages served: " << join(names);
  }
  impl_->install(std::move(next), "initialize");
  return !names.empty();
}

void TextToSpeechManager::reload(const std::vector<ko::PackageInfo>& packages, bool& changed,
                                 std::string& message) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  std::vector<std::string> before;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    before = impl_->languageNames();
  }
  Tables next;
  try {
    next = impl_->loadPackages(packages);
  } catch (const std::exception& e) {
    changed = false;
    message = std::string("reload failed: ") + e.what();
    KO_LOG(logCategory(), ko::log::error, "reload") << message;
    return;
  }
  std::vector<std::string> after;
  for (const ServedLanguage& language : next.languages) after.push_back(language.name);
  std::vector<std::string> added;
  std::vector<std::string> removed;
  for (const std::string& name : after) {
    if (std::find(before.begin(), before.end(), name) == before.end()) added.push_back(name);
  }
  for (const std::string& name : before) {
    if (std::find(after.begin(), after.end(), name) == after.end()) removed.push_back(name);
  }
  impl_->install(std::move(next), "reload");
  changed = !added.empty() || !removed.empty();
  if (!changed) {
    message = "unchanged";
  } else {
    message.clear();
    if (!added.empty()) message = "added: " + join(added);
    if (!removed.empty()) message += (message.empty() ? "" : "; ") + ("removed: " + join(removed));
  }
  if (after.empty()) message += "; no language can be served";
  KO_LOG(logCategory(), ko::log::info, "reload") << "Languages reloaded: " << message;
}

void TextToSpeechManager::setCurrentLanguage(const std::string& language) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  impl_->selectLanguage(language);
}

std::string TextToSpeechManager::getCurrentLanguage() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  return impl_->currentLanguage;
}

std::vector<std::string> TextToSpeechManager::getAvailableLanguages() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  return impl_->languageNames();
}

void TextToSpeechManager::setCurrentVoice(const std::string& voice) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  impl_->selectVoice(voice);
}

std::string TextToSpeechManager::getCurrentVoice() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  return impl_->currentVoice;
}

std::map<std::string, std::string> TextToSpeechManager::getAvailableVoices() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  std::map<std::string, std::string> voices;
  for (const auto& entry : impl_->voices) voices[entry.first] = entry.second.language;
  return voices;
}

std::string TextToSpeechManager::getDefaultVoiceForLanguage(const std::string& language) const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  const ServedLanguage* served = impl_->findLanguage(language);
  if (!served) {
    throw ZRError(kModule, "getDefaultVoiceForLanguage",
                  "The language " + language + " is not installed");
  }
  return served->defaultVoice;
}

std::string TextToSpeechManager::getVoiceInstallDir(const std::string& voice) const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  const VoiceEntry* entry = impl_->findVoice(voice, nullptr);
  return entry ? entry->installDir : std::string();
}

std::string TextToSpeechManager::getVoiceNameFromXml(boost::filesystem::path& path) const {
  try {
    const VoiceSetting setting = makeVoiceSettingFromXml(path.string());
    return setting.type == VOICE ? setting.value : std::string();
  } catch (const ZRError& e) {
    KO_LOG(logCategory(), ko::log::warning, "getVoiceNameFromXml") << e.description();
    return {};
  }
}

void TextToSpeechManager::setParameter(const std::string& name, const float& value) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  impl_->requireCurrentBackend("setParameter")->setParameter(name, value);
}

float TextToSpeechManager::getParameter(const std::string& name) const {
  return impl_->requireCurrentBackend("getParameter")->getParameter(name);
}

void TextToSpeechManager::resetSpeed() {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  impl_->requireCurrentBackend("resetSpeed")->resetSpeed();
}

void TextToSpeechManager::startSynthetizer(const std::string& text) {
  std::shared_ptr<bexko::engine::Backend> backend;
  bexko::engine::detail::ReplacedText prepared;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    backend = impl_->currentBackend();
    if (!backend) throw ZRError(kModule, "startSynthetizer", "No language is selected");
    if (impl_->activeBackend) {
      throw ZRError(kModule, "startSynthetizer", "A sentence is already being synthesised");
    }
    prepared = impl_->dictionary.apply(text);
    impl_->activeBackend = backend;
  }
  struct ClearActive {
    Impl* impl;
    ~ClearActive() {
      std::lock_guard<std::mutex> lock(impl->stateMutex);
      impl->activeBackend.reset();
    }
  } clearActive{impl_.get()};
  if (prepared.text != text) {
    KO_LOG(logCategory(), ko::log::debug, "startSynthetizer") << "Dictionary: " << prepared.text;
  }
  IndexMappingCallback callback(impl_->callback, prepared);
  backend->startSynthetizer(prepared.text, callback);
}

void TextToSpeechManager::stopSynthetizer() {
  std::shared_ptr<bexko::engine::Backend> backend;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    backend = impl_->activeBackend;
    // A stop ends a pause together with the sentence it held.
    if (backend) impl_->paused = false;
  }
  if (backend) backend->stopSynthetizer();
}

void TextToSpeechManager::pauseSynthetizer() {
  std::vector<std::shared_ptr<bexko::engine::Backend>> backends;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    impl_->paused = true;
    for (const auto& entry : impl_->backends) backends.push_back(entry.second);
  }
  for (const auto& backend : backends) backend->pauseSynthetizer();
}

void TextToSpeechManager::restartSynthetizer() {
  std::vector<std::shared_ptr<bexko::engine::Backend>> backends;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    impl_->paused = false;
    for (const auto& entry : impl_->backends) backends.push_back(entry.second);
  }
  for (const auto& backend : backends) backend->restartSynthetizer();
}

bool TextToSpeechManager::isPaused() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  return impl_->paused;
}

bool TextToSpeechManager::testTextEncoding(const std::string& text, const std::string& language) {
  if (!bexko::engine::detail::isValidUtf8(text)) return false;
  std::shared_ptr<bexko::engine::Backend> backend;
  std::string canonical;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    const ServedLanguage* served = impl_->findLanguage(language);
    // A language that is not installed has no engine to judge the text; the change to it fails
    // later with its own error.
    if (!served) return true;
    canonical = served->name;
    backend = impl_->backends.at(served->engine);
  }
  return backend->testTextEncoding(text, canonical);
}

std::string TextToSpeechManager::getLanguage(const std::string& voice) {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  const VoiceEntry* entry = impl_->findVoice(voice, nullptr);
  return entry ? entry->language : std::string();
}

void TextToSpeechManager::setDefaultVoice() {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  std::string voice;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    const ServedLanguage* language = impl_->findLanguage(impl_->currentLanguage);
    if (!language) return;
    voice = language->defaultVoice;
  }
  impl_->selectVoice(voice);
}

void TextToSpeechManager::loadEffect(const std::string& effectPath) {
  const std::string name = boost::filesystem::path(effectPath).stem().string();
  boost::system::error_code error;
  if (!boost::filesystem::exists(effectPath, error)) {
    KO_LOG(logCategory(), ko::log::warning, "loadEffect")
        << "Effect file " << effectPath << " does not exist; effect " << name
        << " is recorded but has no data";
  }
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  if (std::find(impl_->loadedEffects.begin(), impl_->loadedEffects.end(), name) ==
      impl_->loadedEffects.end()) {
    impl_->loadedEffects.push_back(name);
  }
}

void TextToSpeechManager::applyEffect(const std::string& effectName, bool enable) {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  if (std::find(impl_->loadedEffects.begin(), impl_->loadedEffects.end(), effectName) ==
      impl_->loadedEffects.end()) {
    KO_LOG(logCategory(), ko::log::warning, "applyEffect")
        << "Effect " << effectName << " has not been loaded";
  }
  if (enable) {
    impl_->appliedEffects.insert(effectName);
  } else {
    impl_->appliedEffects.erase(effectName);
  }
}

void TextToSpeechManager::enableFilter(bool enable) {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  impl_->filterEnabled = enable;
}

bool TextToSpeechManager::isFilterEnabled() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  return impl_->filterEnabled;
}

std::vector<std::string> TextToSpeechManager::loadedEffects() const {
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  return impl_->loadedEffects;
}

void TextToSpeechManager::loadDictionary() {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  impl_->syncDictionary(true);
}

void TextToSpeechManager::unloadDictionary() {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  std::lock_guard<std::mutex> lock(impl_->stateMutex);
  impl_->dictionary.clear();
  impl_->dictionaryLanguage.clear();
  impl_->dictionaryWanted = false;
}

void TextToSpeechManager::showDictionary() {
  bexko::engine::detail::Dictionary dictionary;
  std::string language;
  {
    std::lock_guard<std::mutex> lock(impl_->stateMutex);
    dictionary = impl_->dictionary;
    language = impl_->dictionaryLanguage;
  }
  auto* category = logCategory();
  if (!category->isEnabled(ko::log::info)) return;
  KO_LOG(category, ko::log::info, "showDictionary")
      << "Dictionary of " << (language.empty() ? std::string("(none loaded)") : language) << ": "
      << dictionary.entries().size() << " entries";
  for (const auto& entry : dictionary.entries()) {
    if (entry.isReading) {
      KO_LOG(category, ko::log::info, "showDictionary")
          << "reading: type \"" << entry.fields[0] << "\", word \"" << entry.fields[1]
          << "\", priority \"" << entry.fields[2] << "\", phonetic \"" << entry.fields[3]
          << "\", accent \"" << entry.fields[4] << "\"";
    } else {
      KO_LOG(category, ko::log::info, "showDictionary")
          << "replace \"" << entry.fields[0] << "\" by \"" << entry.fields[1] << "\"";
    }
  }
}

bool TextToSpeechManager::addToDictionary(const std::string& a, const std::string& b,
                                          const std::string& c, const std::string& d,
                                          const std::string& e) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  const bool twoStrings = c.empty() && d.empty() && e.empty();
  const bool stored = impl_->changeDictionary("addToDictionary", [&](auto& dictionary) {
    return twoStrings ? dictionary.addReplacement(a, b) : dictionary.addReading(a, b, c, d, e);
  });
  if (!stored) {
    KO_LOG(logCategory(), ko::log::warning, "addToDictionary")
        << "Nothing stored for \"" << a << "\", \"" << b << "\"";
  }
  return stored;
}

bool TextToSpeechManager::deleteFromDictionary(const std::string& type, const std::string& word) {
  std::lock_guard<std::mutex> config(impl_->configMutex);
  return impl_->changeDictionary("deleteFromDictionary",
                                 [&](auto& dictionary) { return dictionary.remove(type, word); });
}

}  // namespace ZR
