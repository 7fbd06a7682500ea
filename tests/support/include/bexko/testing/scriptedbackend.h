#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <zr/tts/texttospeechenginecallbackinterface.h>
#include <zr/zrerror.h>

namespace bexko {
namespace testing {

/// One event that the scripted backend reports while it "synthesises" a sentence, or, when
/// `samples` is not empty, one block of audio that it hands to TTSCallBack in its place.
struct ScriptedEvent {
  ZR::TextToSpeechEngineEvent event;
  int value;
  unsigned int position;
  std::vector<short> samples = {};
};

/// A block of `frames` stereo frames of a square wave of amplitude `level` (0: silence), as
/// the engine's 16-bit interleaved audio.
ScriptedEvent scriptedAudio(int frames, short level = 8000);

/// One operation that a backend instance received, with its arguments as strings: texts as
/// given, numbers as an ostream writes them (100, 1.5), booleans as "true"/"false".
struct ScriptedCall {
  std::string operation;
  std::vector<std::string> args;
};

/// A synthesis engine backend that plays back what the test chooses, for driving a
/// ZR::TextToSpeechManager (and the speech service above it) without real synthesis.
///
/// The constructor registers a backend factory under `engineName` with the engine registry;
/// packages whose languages name that engine are then served by it from the manager's next
/// initialize or reload. Every instance the manager creates shares this object's state.
///
/// Recorded operations and their arguments:
///   "load" (the language names asked for), "setCurrentLanguage" (language),
///   "setCurrentVoice" (voice), "setParameter" (name, value), "getParameter" (name),
///   "resetSpeed" (), "startSynthetizer" (text), "stopSynthetizer" (), "pauseSynthetizer" (),
///   "restartSynthetizer" (), "isPaused" (), "testTextEncoding" (text, language).
///
/// Parameters behave as those of every backend (bexko/engine/parameters.h): "speed",
/// "defaultVoiceSpeed", "pitch" and "volume" default to 100 and are clamped, "presel" and
/// "selBreak" are accepted, another name throws ZR::ZRError.
///
/// A sentence: startSynthetizer records its call, throws if failNext asked for it, counts the
/// sentence as started, reports the events and audio queued for it (or else the script), each
/// unless stopped meanwhile and waiting while paused, then, when blocking, waits until release() or
/// stopSynthetizer(), and always ends with TTS_EVENT_END (value 0, position 0).
///
/// Thread-safe. The instances that managers hold share this object's state and keep it alive,
/// so a manager may outlive this object; only its engine name is unregistered.
class ScriptedBackend {
 public:
  explicit ScriptedBackend(std::string engineName = "tts_scripted");
  /// Unregisters the engine name.
  ~ScriptedBackend();
  ScriptedBackend(const ScriptedBackend&) = delete;
  ScriptedBackend& operator=(const ScriptedBackend&) = delete;

  const std::string& engineName() const;

  /// Declares a voice of a language (by name, "English"); the first voice of a language is its
  /// default. An empty `installDir` means the folder of the package that asks for the
  /// language. Seen by the manager from its next initialize or reload.
  void addVoice(const std::string& voice, const std::string& language,
                const std::string& installDir = "");

  /// Events reported during every sentence, before the final TTS_EVENT_END.
  void setScript(std::vector<ScriptedEvent> events);
  /// Events for the next sentence only, in place of the script. Several calls queue the
  /// events of several sentences in order.
  void queueSentenceEvents(std::vector<ScriptedEvent> events);

  /// With `block`, startSynthetizer waits after its events until release() or
  /// stopSynthetizer(). Turning blocking off also lets the blocked sentences finish.
  void setBlocking(bool block);
  /// A stopped sentence returns only `latency` after the stop, as an engine that finishes its
  /// current chunk first (default 0).
  void setStopLatency(std::chrono::milliseconds latency);
  /// Lets one blocked sentence (or the next one to block) finish.
  void release();
  /// Waits until `count` sentences have started since construction; false on time-out.
  bool waitForSynthesis(int count, int timeoutMs) const;

  /// The next call of `operation` (a recorded operation name) throws `error`, after being
  /// recorded.
  void failNext(const std::string& operation, const ZR::ZRError& error);
  /// What testTextEncoding answers for valid UTF-8 (default true); invalid UTF-8 is always
  /// refused.
  void setEncodingAccepted(bool accepted);

  /// Every recorded call, in order; or only those of one operation.
  std::vector<ScriptedCall> calls() const;
  std::vector<ScriptedCall> calls(const std::string& operation) const;
  void clearCalls();
  /// The texts given to startSynthetizer, in order.
  std::vector<std::string> sentences() const;

  struct State;

 private:
  std::string engineName_;
  std::shared_ptr<State> state_;
};

}  // namespace testing
}  // namespace bexko
