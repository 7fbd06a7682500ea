#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <ko/audio.h>
#include <ko/audiooutput.h>
#include <ko/clock.h>
#include <ko/fairmutex.h>
#include <ko/future.h>
#include <ko/log.h>
#include <ko/packageinfo.h>
#include <ko/signal.h>
#include <zr/tts/texttospeechenginecallbackinterface.h>
#include <zr/tts/texttospeechmanager.h>
#include <zr/tts/ttslanguageinfo.h>
#include <zr/tts/voicesetting.h>
#include <zr/zrmemoryproxy.h>
#include <zr/zrmodule.h>
#include <zr/zrpreferencesproxy.h>
#include <zr/zrproxy.h>
#include <zr/zrtexttospeechmarker.h>
#include <zr/zrtexttospeechtask.h>

namespace ZR {

/// The value form of a time of the framework's clock, so that the signal "synchroTTS" can be
/// published to clients that know it by name: [seconds, nanoseconds] since the clock's epoch.
template <>
struct ZRValueConverter<ko::Clock::time_point> {
  static ZRValue toValue(const ko::Clock::time_point& t) {
    const auto since = t.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds);
    return ZRValue::array<int, int>(static_cast<int>(seconds.count()),
                                    static_cast<int>(nanoseconds.count()));
  }
  static ko::Clock::time_point fromValue(const ZRValue& v) {
    if (!v.isArray() || v.getSize() != 2) detail::throwConversionError("time", v);
    return ko::Clock::time_point(std::chrono::seconds(v[0].toInt()) +
                                 std::chrono::nanoseconds(v[1].toInt()));
  }
  static const char* typeName() { return "time"; }
};

/// The speech service, published as "ZRTextToSpeech".
///
/// Each request to speak becomes a task with an identifier; tasks wait in arrival order and the
/// one at the head is synthesised on its caller's thread (the service starts no thread). The
/// progress of every task is raised in the event store under the keys below. `ttsMutex` is held
/// for the whole of each say, language and voice change and package reload; stop requests take
/// only `taskQueueLock`, so that they interrupt a sentence while another thread is inside say.
///
/// Audio: the service plays through the audio output that the host chose at start
/// (ko::audioOutput()), read once by the constructor. Without one (the default) the engine's
/// audio is discarded, `bytesSent` stays 0 and a file named in sayToFile receives no samples.
/// With one:
/// - each block of a spoken sentence goes through keepOnlyAudibleSamples into the output; a
///   quiet tail is held back until audible audio follows it, so pauses inside a sentence are
///   played whole and only the silence that ends a sentence is dropped. The output's bounded
///   buffer paces the engine (which then does not pace itself);
/// - `bytesSent` is the output's play position in the current sentence, read afresh whenever a
///   bookmark is scheduled or fires, so bookmarks are timed against what has been heard;
/// - word events are announced when the output has played up to the word's audio position
///   (on the event loop's thread), not when the engine reports them;
/// - when the engine returns, drainSink waits for the sentence to play out, then
///   notifyTextDone raises the closing values (TextDone 1, TextStarted 0, ...) before the
///   task's "done"; a stop empties the output at once and drops the words not yet heard;
/// - sayToFile writes the sentence's samples (22050 Hz, S16_LE, 2 channels) through
///   ZRTextToSpeechTask::writeToFile, synthesised at full speed and not played.
class ZRTextToSpeech : public ZRModule, public TextToSpeechEngineCallbackInterface {
 public:
  /// Publishes the methods, obtains the proxies, gathers the installed packages and creates the
  /// engine. Throws ZRError when no language is installed.
  explicit ZRTextToSpeech(boost::shared_ptr<ZRBroker> broker);
  ~ZRTextToSpeech() override;

  void exit() override;
  void init() override;
  /// The host's stop of a posted call: stops the task with this id.
  void stop(const int& id) override;
  void TTSCallBack(short* samples, unsigned int count) override;
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value,
                        unsigned int position) override;

  // Event keys of the event store -------------------------------------------------------------
  static const std::string strTextDoneEvent;
  static const std::string strTextStartedEvent;
  static const std::string strCurrentBookMarkEvent;
  static const std::string strPositionOfCurrentWordEvent;
  static const std::string strCurrentWordEvent;
  static const std::string strCurrentSentenceEvent;
  static const std::string strStatusEvent;
  static const std::string strTextInterruptedEvent;

  // Published methods -------------------------------------------------------------------------
  void say(const std::string& text);
  void say(const std::string& text, const std::string& language);
  void sayToFile(const std::string& text, const std::string& fileName);
  void stopAll();
  void setLanguage(const std::string& language);
  std::string getLanguage();
  std::vector<std::string> getAvailableLanguages();
  std::vector<std::string> getSupportedLanguages();
  void resetSpeed();
  void setParameter(const std::string& name, const float& value);
  float getParameter(const std::string& name);
  void setVoice(const std::string& voice);
  std::string getVoice();
  std::vector<std::string> getAvailableVoices();
  void setVolume(const float& volume);
  float getVolume();
  std::string locale();
  void loadVoicePreference(const std::string& name);
  void setDefaultLanguage(const std::string& language);
  void setLanguageDefaultVoice(const std::string& language, const std::string& voice);
  void setDefaultVoice();
  void bexStoreApplicationInstalled(const std::string& key, const ZR::ZRValue& value,
                                    const std::string& message);
  void bexStoreApplicationUninstalled(const std::string& key, const ZR::ZRValue& value,
                                      const std::string& message);
  void pause();
  void resume();
  void enableFilter(bool enable);
  void loadEffect(const std::string& effectPath);
  void applyEffect(const std::string& effectName, bool enable);
  void diagnosis() const;
  void showVoiceSettings() const;
  void showDictionary();
  void reset();
  void unloadDictionary();
  bool deleteFromDictionary(const std::string& type, const std::string& word);
  bool deleteFromDictionary(const std::string& word);
  bool addToDictionary(const std::string& type, const std::string& word,
                       const std::string& priority, const std::string& phonetic,
                       const std::string& accent);
  bool addToDictionary(const std::string& text, const std::string& toReplace);
  void loadDictionary();

  // Package manager signals -------------------------------------------------------------------
  void onPackageInstalled(const ko::PackageInfo& package);
  void onPackageRemoved(const ko::PackageInfo& package);

  // Internal operations (not published; public so that the module's tests can drive them) ----
  std::vector<ko::PackageInfo> xGetInstalledPackages() const;
  static void addSystemEnginePackage(std::vector<ko::PackageInfo>& packages,
                                     const std::string& engineName);

  void xSay(const std::string& text, ZR::VoiceSetting setting, bool toFile,
            const std::string& fileName);
  int xGenerateUniqueTaskID();
  void xCheckFile(std::string fileName);
  void xSpeakingLoop(boost::shared_ptr<ZRTextToSpeechTask> task);
  void xConcludeSay(boost::shared_ptr<ZRTextToSpeechTask> task, const std::string& message,
                    const std::string& status);
  bool xStopTask(int id);
  void xPause();
  void xResume();

  bool keepOnlyAudibleSamples(const short* samples, int& count);
  /// With an audio output, waits until the current sentence has been heard (or a stop emptied
  /// the output); then `bytesSent` = 0.
  void drainSink();
  void notifyTextDone(bool interrupted);
  void cleanUp();
  static bool isTagsOnlySentence(std::string text);

  void scheduleMarker(ZRTextToSpeechMarker& marker);
  void markerCB(ZRTextToSpeechMarker marker);
  void flushMarkers();
  void raiseMrkPause(std::list<ZRTextToSpeechMarker>::iterator it);

  // Audio output (see the class comment) ------------------------------------------------------
  /// Starts the output stream of `task`'s sentence: positions count from here. Called under
  /// taskQueueLock before the task is handed to the engine.
  void xStartPlayback(const ZRTextToSpeechTask& task);
  /// Ends the sentence of `task` after the engine returned: waits for it to be heard, then
  /// announces the words left and raises the closing values; after a stop, empties the output.
  void xEndPlayback(const ZRTextToSpeechTask& task);
  /// Plays `count` samples of the current sentence (blocking while the output is full); false
  /// when a stop emptied the output meanwhile.
  bool xPlay(const short* samples, std::size_t count);
  /// Empties the output at once and drops the words not yet heard (a stop).
  void xSilenceOutput();
  /// Bytes of the current sentence that the output has played; 0 when it plays none.
  unsigned int xPlayedBytes() const;
  /// Raises a word event's PositionOfCurrentWord (`position`) and CurrentWord (the next token).
  void xAnnounceWord(int position);
  /// Announces the queued words that have been heard, then waits for the next (timer body).
  void xAnnounceHeardWords(unsigned int generation);
  /// Starts the timer of the first queued word. Called with heardWordsMutex held.
  void xScheduleHeardWord();
  /// Cancels the word timer and empties the queue, announcing what it held when `announce`.
  void xFlushHeardWords(bool announce);

  void xSetParameter(const std::string& name, const float& value);
  bool shouldFxBeAppliedOnVoice();

  void xSetLanguage(const std::string& language);
  bool xIsLanguageInstalled(std::string language);
  std::string xFormatLanguage(const std::string& language) const;
  std::vector<std::string> xGetAvailableLanguages();

  /// Copies of the requested and the applied voice settings, read under taskQueueLock (shared):
  /// both change only under that lock taken exclusively.
  ZR::VoiceSetting xRequestedSetting() const;
  ZR::VoiceSetting xAppliedSetting() const;

  void xSetVoice(const std::string& voice);
  void xSetDefaultVoice();
  void xSetVoiceSetting(ZR::VoiceSetting setting);
  ZR::VoiceSetting xGetVoiceSettingFromLanguage(const std::string& language);
  void xRemoveVoiceSettingFromLanguage(const std::string& language);

  void xLoadDefaultLanguage();

  /// Publishes the module documentation, every method and the two signals (constructor step 3).
  void xPublishMethods();

  // Read access for tests and diagnostics -----------------------------------------------------
  TextToSpeechManager* engine() const { return ttsManager; }
  ZR::VoiceSetting globalSetting() const { return xRequestedSetting(); }
  ZR::VoiceSetting appliedSetting() const { return xAppliedSetting(); }
  int markerAdvance() const { return mrkAdvance; }
  int audibleMaxLevel() const { return maxLevel; }
  int audibleMinSize() const { return minSize; }

  ko::Signal<const ko::Clock::time_point&> synchroTTS;
  ko::Signal<const std::string&> languageTTS;

 private:
  ZR::TextToSpeechManager* ttsManager;
  boost::shared_ptr<ZR::TTSLanguageInfo> languageInfo;
  std::list<boost::shared_ptr<ZRTextToSpeechTask>> taskQueue;
  // Fair: callers that wait for it (says queued behind a long sentence) take it in the order
  // they asked for it, so that sentences are spoken in the order they were requested.
  ko::FairMutex ttsMutex;
  // Guards the queue, and the voice settings (`globalVoiceSetting`, `appliedVoiceSetting`):
  // they change only with it taken exclusively; readers that do not change them take it
  // shared. Mutable, so that const readers (diagnosis) take it too.
  mutable boost::shared_mutex taskQueueLock;
  ZR::VoiceSetting appliedVoiceSetting;
  ZR::VoiceSetting globalVoiceSetting;
  boost::condition_variable_any taskAvailable;
  ko::AudioSndFile outputFile;
  ko::AudioSampleInfo sampleInfo;
  boost::mutex audioMutex;
  boost::condition_variable_any unusedCondition1;
  boost::condition_variable_any unusedCondition2;
  boost::condition_variable_any unusedCondition3;
  ko::Promise<void> speakingLoopPromise;
  bool speakingLoopPending;
  boost::shared_ptr<ZR::ZRMemoryProxy> memoryProxy;
  boost::shared_ptr<ZR::ZRProxy> packageManagerProxy;
  boost::shared_ptr<ZR::ZRProxy> animatedSpeechProxy;
  boost::shared_ptr<ZR::ZRPreferencesProxy> preferencesProxy;
  boost::shared_ptr<ZR::ZRPreferenceManagerProxy> preferenceManagerProxy;
  int wordPosition;
  int textOffset;
  // Set and read by any client thread without a lock.
  std::atomic<float> volume;
  // The words of the sentence being spoken; the first `announcedWords` of them have been
  // announced, so a word event costs the same however long the sentence is.
  std::vector<std::string> currentWords;
  std::size_t announcedWords = 0;
  boost::shared_mutex currentWordsLock;  // guards the two above
  // Read by stop requests on other threads while the speaking thread sets it.
  std::atomic<int> currentTaskId;
  int lastTaskId;
  std::string packageInstalledEvent;
  std::string packageRemovedEvent;
  unsigned int bytesSent;
  boost::shared_ptr<ZRTextToSpeechTask> currentTask;
  boost::mutex markerMutex;
  std::list<ZRTextToSpeechMarker> markers;
  boost::mutex pendingMarkerMutex;
  std::list<ZRTextToSpeechMarker> pendingMarkers;
  // Set by clients, read by the audio callback on the speaking thread.
  std::atomic<int> maxLevel;
  std::atomic<int> minSize;
  int mrkAdvance;
  bool lastTagResult;
  bool reloadFlag;
  std::string reloadText;

  // The audio path (see the class comment). `audioOutput` is null when the host plays none.
  std::shared_ptr<ko::AudioOutput> audioOutput;
  // Whether the current sentence plays through the output (false for a file), and the
  // output's written position at which its audio starts.
  std::atomic<bool> sentencePlays{false};
  std::atomic<std::uint64_t> sentenceStart{0};
  // Set by a stop, so that a block the engine still delivers is not played; cleared when the
  // next sentence starts.
  std::atomic<bool> outputMuted{false};
  // The quiet tail of the last block, played only if audible audio follows it. Touched only
  // by the speaking thread.
  std::vector<short> heldQuietSamples;
  bool outputFailed = false;
  // Words reported by the engine and not heard yet, in order, with their audio positions.
  struct WordToHear {
    int position;              // the value raised as PositionOfCurrentWord
    unsigned int audioOffset;  // byte position of the word in the sentence's audio
  };
  boost::mutex heardWordsMutex;  // guards the four fields below
  std::deque<WordToHear> wordsToHear;
  ko::Future<void> wordTimer;
  bool wordTimerRunning = false;
  unsigned int wordGeneration = 0;  // a timer of an earlier generation finds nothing to do

  // Exit stops every task and then waits, for a bounded time, until no say is inside the
  // service, so that the event store is still there for the last events of each. A say that
  // arrives once exit has begun is refused (`exiting` is read under taskQueueLock).
  std::atomic<bool> exiting{false};
  std::mutex activeSaysMutex;
  std::condition_variable activeSaysLeft;
  int activeSays = 0;
};

/// Logs a voice setting at info level, one record per line, under `title`.
void printVoiceSettings(const ZR::VoiceSetting& setting, std::string title);

}  // namespace ZR
