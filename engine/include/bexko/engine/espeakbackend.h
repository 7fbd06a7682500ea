#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <bexko/engine/backend.h>
#include <zr/export.h>

namespace bexko {
namespace engine {

/// The synthesis backend on eSpeak NG (libespeak-ng), registered under the engine name
/// "tts_espeak".
///
/// Voices: every eSpeak NG voice whose language is one of the languages asked for. A voice is
/// named after the first language code that eSpeak lists for it, in lower case ("en-us",
/// "en-gb", "fr-fr", "pt-br", "cmn"); when two voices share that code, the later one takes
/// the lower-case file name of its voice ("yue-latn-jyutping"). A voice belongs to the
/// language whose locale matches one of its codes ("pt-pt" is Portuguese), else to the language
/// whose primary code matches its first code ("en-gb" is English; Chinese is "cmn"). The
/// default voice of a language is the one whose first code is the locale ("en-us", "fr-fr"),
/// else its primary code ("de", "es").
///
/// Synthesis runs on the caller's thread, one sentence at a time in the whole process (the
/// library keeps global state). Audio goes to TextToSpeechEngineCallbackInterface::TTSCallBack
/// as interleaved 16-bit stereo at 22050 Hz, the host's default format (`count` = number of
/// shorts, two per frame); event positions are byte offsets in that audio (4 bytes per
/// frame). Engine tags are turned into eSpeak markup (see the tag list in zr/tts/textutils.h).
///
/// Events in stream order: every event comes after exactly the audio before its position and
/// before the audio after it, so that a consumer that writes the audio into an output sees
/// each event when the stream reaches it.
///
/// Words: one TTS_EVENT_WORD per word of the text without its tags, as the speech service
/// splits it (ZR::tokenizeString on " .,;:!"), in order, each with the word's character index.
/// A word that eSpeak NG reports is at eSpeak's position; one that it folds into a neighbour
/// ("the" of "from the shell"), reads as one word with another ("p.m.") or does not speak is
/// placed inside the audio around it, between the words around it and on its side of a mark.
/// Placing those takes the position of eSpeak's next word or clause end, so audio and events
/// after eSpeak's latest word are held back until then (a clause is synthesised much faster
/// than it sounds; a stop ends the sentence without delivering what is held).
///
/// Pacing: when `Options::realTime` is set and the host has no audio output
/// (ko::audioOutput() is null when the sentence starts), each audio block, word and marker is
/// delivered when it would be heard, so that a sentence takes as long as it sounds. With an
/// audio output, the output's bounded buffer paces the consumer and the backend delivers as
/// fast as it synthesises. With the environment variable BEXKO_ENGINE_FAST=1 (read when the
/// backend is created) audio and events always come as fast as they are synthesised, for
/// tests and benchmarks. A pause holds the delivery in every mode.
///
/// Parameters: see bexko/engine/parameters.h; they apply from the next sentence.
class BEXKO_API EspeakBackend : public Backend {
 public:
  struct Options {
    /// Deliver audio and events at the pace of playback, unless the host has an audio output.
    bool realTime = true;
  };
  /// realTime unless BEXKO_ENGINE_FAST=1.
  static Options optionsFromEnvironment();

  explicit EspeakBackend(Options options = optionsFromEnvironment());
  ~EspeakBackend() override;
  EspeakBackend(const EspeakBackend&) = delete;
  EspeakBackend& operator=(const EspeakBackend&) = delete;

  /// Throws ZR::ZRError when the library cannot be initialised (no voice data).
  std::vector<VoiceDescription> load(const std::vector<LanguageRequest>& languages) override;
  void setCurrentLanguage(const std::string& language) override;
  void setCurrentVoice(const std::string& voice) override;
  void setParameter(const std::string& name, float value) override;
  float getParameter(const std::string& name) const override;
  void resetSpeed() override;
  void startSynthetizer(const std::string& text,
                        TextToSpeechEngineCallbackInterface& callback) override;
  void stopSynthetizer() override;
  void pauseSynthetizer() override;
  void restartSynthetizer() override;
  bool isPaused() const override;
  /// False for invalid UTF-8 and for control characters other than tab and line breaks.
  bool testTextEncoding(const std::string& text, const std::string& language) override;

  /// The eSpeak NG file name of a loaded voice ("gmw/en-US"); empty when unknown.
  std::string voiceIdentifier(const std::string& voice) const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

/// Locks the process-wide eSpeak NG library, initialising it on first use (synchronous output,
/// never terminated). Code that calls libespeak-ng directly must hold this lock for the whole
/// call and set its own synth callback. Throws ZR::ZRError when initialisation fails.
BEXKO_API std::unique_lock<std::mutex> lockEspeakLibrary();

/// The sample rate of eSpeak NG's output (22050), initialising the library if needed.
BEXKO_API int espeakSampleRate();

}  // namespace engine
}  // namespace bexko
