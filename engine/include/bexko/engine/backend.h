#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zr/export.h>
#include <zr/tts/texttospeechenginecallbackinterface.h>

namespace bexko {
namespace engine {

/// One language that the manager asks a backend to serve, taken from an installed package.
struct LanguageRequest {
  /// The language's name in the language table ("English").
  std::string language;
  /// Its locale as the package declares it ("en_US").
  std::string locale;
  /// The folder of the package that declares it.
  std::string installDir;
};

/// One voice that a backend offers.
///
/// A voice keeps its optional settings file in "<installDir>/voices/<name>.xml" (the layout of
/// a voice-settings file is that of ZR::makeVoiceSettingFromXml); ZR::xRetrieveVoiceSettingsFile
/// finds it there.
struct VoiceDescription {
  /// Unique among every backend's voices, without spaces ("en-us").
  std::string name;
  /// The name of the language it speaks, one of the languages asked for.
  std::string language;
  /// The folder of its data (its package folder).
  std::string installDir;
  /// The voice that selecting its language selects. When no voice of a language is marked,
  /// the first one listed is the default.
  bool isDefault = false;
};

/// A synthesis engine behind ZR::TextToSpeechManager, registered under an engine name (the
/// engine name that packages give their languages). The manager creates one instance per
/// engine name through the registered factory and drives it as follows.
///
/// Threads: startSynthetizer runs on the caller's thread and reports through `callback` on
/// that thread; stopSynthetizer, pauseSynthetizer, restartSynthetizer and isPaused may come
/// from any other thread meanwhile. The manager never makes two of the other calls at once,
/// but they may come while a sentence is synthesised: language, voice and parameter changes
/// then take effect from the next sentence. Errors are ZR::ZRError (module "TextToSpeech").
class BEXKO_API Backend {
 public:
  virtual ~Backend() = default;

  /// Loads the languages asked for, replacing those of an earlier call, and returns the voices
  /// that serve them. A language without a voice is not served.
  virtual std::vector<VoiceDescription> load(const std::vector<LanguageRequest>& languages) = 0;

  /// Selects the default voice of a language it serves (the name as load received it).
  virtual void setCurrentLanguage(const std::string& language) = 0;
  /// Selects one of its voices.
  virtual void setCurrentVoice(const std::string& voice) = 0;

  /// Engine parameters, with the meaning that ZR::TextToSpeechEngine::setParameter documents.
  virtual void setParameter(const std::string& name, float value) = 0;
  virtual float getParameter(const std::string& name) const = 0;
  virtual void resetSpeed() = 0;

  /// Synthesises `text` (with its engine tags) and returns when it is finished or stopped.
  /// Word events carry the character index of the word in the text without its tags; every
  /// call ends with one TTS_EVENT_END, stopped or not.
  virtual void startSynthetizer(const std::string& text,
                                TextToSpeechEngineCallbackInterface& callback) = 0;
  /// Ends the running synthesis promptly and cancels a pause; no effect when idle.
  virtual void stopSynthetizer() = 0;
  /// Suspends the running synthesis, or the next one when idle, until restartSynthetizer.
  virtual void pauseSynthetizer() = 0;
  virtual void restartSynthetizer() = 0;
  virtual bool isPaused() const = 0;

  /// Whether the backend can speak `text` (valid UTF-8) in one of its languages.
  virtual bool testTextEncoding(const std::string& text, const std::string& language) = 0;
};

/// Makes a new backend instance.
using BackendFactory = std::function<std::unique_ptr<Backend>()>;

/// Registers a backend under an engine name, replacing an earlier registration of that name.
/// Managers create their backends when they initialize or reload, so a registration counts from
/// the next initialize or reload. The eSpeak NG backend is registered from the start under
/// "tts_espeak". Thread-safe.
BEXKO_API void registerBackend(const std::string& engineName, BackendFactory factory);
/// Removes a registration; backends already created keep working. False when there was none.
BEXKO_API bool unregisterBackend(const std::string& engineName);
/// Whether an engine name is registered.
BEXKO_API bool isBackendRegistered(const std::string& engineName);
/// A new instance of the backend registered under `engineName`; null when none is registered.
/// An exception thrown by the factory propagates.
BEXKO_API std::unique_ptr<Backend> createBackend(const std::string& engineName);

}  // namespace engine
}  // namespace bexko
