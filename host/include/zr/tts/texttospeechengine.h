#pragma once

#include <map>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

#include <ko/packageinfo.h>
#include <zr/export.h>

namespace ZR {

/// The operations of a synthesis engine. Errors are ZRError (module "TextToSpeech").
///
/// Threads: startSynthetizer runs on the caller's thread and calls the callback interface on
/// it; stopSynthetizer, pauseSynthetizer and restartSynthetizer may come from any other thread
/// while it runs. Language, voice and parameter changes made while a sentence is synthesised
/// take effect from the next sentence.
class BEXKO_API TextToSpeechEngine {
 public:
  virtual ~TextToSpeechEngine() = default;

  /// Loads the languages declared by `packages`; false when no language can be served.
  virtual bool initialize(const std::vector<ko::PackageInfo>& packages) = 0;
  /// Loads the languages of `packages` again. `changed` tells whether the set of installed
  /// languages changed; `message` says what changed ("added: ...; removed: ..."), or why the
  /// reload failed. The current language is kept when it is still installed, else the first
  /// installed one is selected.
  virtual void reload(const std::vector<ko::PackageInfo>& packages, bool& changed,
                      std::string& message) = 0;

  /// Selects a language (by name, compared without regard to case) and its default voice.
  /// Throws ZRError for a language not installed.
  virtual void setCurrentLanguage(const std::string& language) = 0;
  virtual std::string getCurrentLanguage() const = 0;
  /// The installed language names, in table order.
  virtual std::vector<std::string> getAvailableLanguages() const = 0;

  /// Selects a voice by name. Throws ZRError for an unknown voice.
  virtual void setCurrentVoice(const std::string& voice) = 0;
  virtual std::string getCurrentVoice() const = 0;
  /// Every installed voice name with its language name, in voice-name order.
  virtual std::map<std::string, std::string> getAvailableVoices() const = 0;
  /// The default voice of an installed language; throws ZRError for another name.
  virtual std::string getDefaultVoiceForLanguage(const std::string& language) const = 0;
  /// The folder that holds a voice's data (its package folder); empty when unknown.
  virtual std::string getVoiceInstallDir(const std::string& voice) const = 0;
  /// The voice named by a voice-settings file; empty when the file names none.
  virtual std::string getVoiceNameFromXml(boost::filesystem::path& path) const = 0;

  /// Sets an engine parameter: "speed" (percent of the default speed), "defaultVoiceSpeed"
  /// (percent; also resets "speed" to it), "pitch" (percent), "volume" (percent); "presel",
  /// "selBreak" and "inputMode" are accepted and ignored. Values are clamped to what the engine
  /// can do.
  /// Throws ZRError for an unknown name.
  virtual void setParameter(const std::string& name, const float& value) = 0;
  /// The value of a parameter as the engine applies it; throws ZRError for an unknown name.
  virtual float getParameter(const std::string& name) const = 0;
  /// Sets "speed" back to "defaultVoiceSpeed".
  virtual void resetSpeed() = 0;

  /// Synthesises `text` (with its tags) and returns when it is finished or stopped, reporting
  /// audio and events through the callback interface on this thread. Throws ZRError when
  /// nothing can be synthesised (no language selected, engine failure).
  virtual void startSynthetizer(const std::string& text) = 0;
  /// Ends the running synthesis; startSynthetizer then returns promptly. No effect when idle.
  virtual void stopSynthetizer() = 0;
  virtual void pauseSynthetizer() = 0;
  virtual void restartSynthetizer() = 0;
  virtual bool isPaused() const = 0;
};

}  // namespace ZR
