#pragma once

#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <zr/export.h>
#include <zr/tts/texttospeechengine.h>
#include <zr/tts/texttospeechenginecallbackinterface.h>
#include <zr/tts/textutils.h>
#include <zr/tts/ttslanguageinfo.h>
#include <zr/tts/voicesetting.h>

namespace ZR {

/// The engine the speech service owns. It serves each language through the backend named by
/// the engine name of the package that declares it ("tts_espeak" for the eSpeak NG backend);
/// languages whose engine is not available are skipped with a warning.
///
/// The callback interface is not owned and must outlive the manager.
class BEXKO_API TextToSpeechManager : public TextToSpeechEngine {
 public:
  TextToSpeechManager(TextToSpeechEngineCallbackInterface* callback,
                      boost::shared_ptr<TTSLanguageInfo> info);
  ~TextToSpeechManager() override;
  TextToSpeechManager(const TextToSpeechManager&) = delete;
  TextToSpeechManager& operator=(const TextToSpeechManager&) = delete;

  bool initialize(const std::vector<ko::PackageInfo>& packages) override;
  void reload(const std::vector<ko::PackageInfo>& packages, bool& changed,
              std::string& message) override;
  void setCurrentLanguage(const std::string& language) override;
  std::string getCurrentLanguage() const override;
  std::vector<std::string> getAvailableLanguages() const override;
  void setCurrentVoice(const std::string& voice) override;
  std::string getCurrentVoice() const override;
  std::map<std::string, std::string> getAvailableVoices() const override;
  std::string getDefaultVoiceForLanguage(const std::string& language) const override;
  std::string getVoiceInstallDir(const std::string& voice) const override;
  std::string getVoiceNameFromXml(boost::filesystem::path& path) const override;
  void setParameter(const std::string& name, const float& value) override;
  float getParameter(const std::string& name) const override;
  void resetSpeed() override;
  void startSynthetizer(const std::string& text) override;
  void stopSynthetizer() override;
  void pauseSynthetizer() override;
  void restartSynthetizer() override;
  bool isPaused() const override;

  /// False when `text` is not valid UTF-8, or holds characters that the language's engine
  /// cannot speak.
  bool testTextEncoding(const std::string& text, const std::string& language);
  /// The language name of a voice; empty for an unknown voice.
  std::string getLanguage(const std::string& voice);

  /// Selects the default voice of the current language, if there is one.
  void setDefaultVoice();

  /// Voice effects and the output filter are kept as state (the desktop engine applies none).
  void loadEffect(const std::string& effectPath);
  void applyEffect(const std::string& effectName, bool enable);
  void enableFilter(bool enable);
  bool isFilterEnabled() const;
  std::vector<std::string> loadedEffects() const;

  /// The user dictionary of the current language, kept in a file in the data folder of "bexko".
  void loadDictionary();
  void unloadDictionary();
  /// Logs every entry of the dictionary at info level.
  void showDictionary();
  /// Five strings (type, word, priority, phonetic, accent) store a reading of `word`; with
  /// only the first two non-empty, an entry replaces the text `type` by `word` before
  /// synthesis. Returns false when nothing was stored.
  bool addToDictionary(const std::string& a, const std::string& b, const std::string& c,
                       const std::string& d, const std::string& e);
  /// Deletes the entry of `word` (the second argument; the first may name a type). Returns
  /// false when there was none.
  bool deleteFromDictionary(const std::string& type, const std::string& word);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace ZR
