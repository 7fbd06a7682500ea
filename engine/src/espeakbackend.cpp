#include <bexko/engine/espeakbackend.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>

#include <espeak-ng/espeak_ng.h>
#include <espeak-ng/speak_lib.h>

#include <bexko/engine/parameters.h>
#include <ko/audiooutput.h>
#include <ko/log.h>
#include <zr/zrerror.h>

#include "espeakfactory.h"
#include "espeakmarkup.h"
#include "sentencestream.h"
#include "utf8.h"

namespace bexko {
namespace engine {

namespace {

using Clock = std::chrono::steady_clock;

ko::log::CategoryType logCategory() {
  static ko::log::CategoryType category = ko::log::addCategory("engine.espeak");
  return category;
}

constexpr const char* kModule = "TextToSpeech";
// The host's default audio format: 22050 Hz, 16-bit, two channels.
constexpr long long kHostRate = 22050;
constexpr long long kHostBytesPerFrame = 4;
constexpr int kEspeakNormalRate = espeakRATE_NORMAL;  // words per minute at "speed" 100
constexpr int kEspeakNormalPitch = 50;

// libespeak-ng keeps all its state in globals: one library per process, initialised once and
// never terminated (a terminate followed by a new initialise hangs), one call at a time.
struct Library {
  std::mutex mutex;
  std::once_flag initialized;
  int sampleRate = -1;
  // The voice last selected in the library by a backend; empty when unknown (after a stop
  // inside a voice change of the markup, or after direct use of the library).
  std::string selectedVoice;
};

Library& library() {
  static Library* instance = new Library;
  return *instance;
}

std::unique_lock<std::mutex> lockLibrary() {
  Library& lib = library();
  std::call_once(lib.initialized, [&lib] {
    lib.sampleRate =
        espeak_Initialize(AUDIO_OUTPUT_SYNCHRONOUS, 0, nullptr, espeakINITIALIZE_DONT_EXIT);
    if (lib.sampleRate <= 0) {
      KO_LOG(logCategory(), ko::log::error, "lockEspeakLibrary")
          << "eSpeak NG could not be initialised (is espeak-ng-data installed?)";
    } else {
      const char* dataPath = nullptr;
      const char* version = espeak_Info(&dataPath);
      KO_LOG(logCategory(), ko::log::info, "lockEspeakLibrary")
          << "eSpeak NG " << (version ? version : "?") << " at " << lib.sampleRate
          << " Hz, data in " << (dataPath ? dataPath : "?");
    }
  });
  if (lib.sampleRate <= 0) {
    throw ZR::ZRError(kModule, "initialize", "eSpeak NG could not be initialised");
  }
  return std::unique_lock<std::mutex>(lib.mutex);
}

std::string statusMessage(espeak_ng_STATUS status) {
  char buffer[512] = {0};
  espeak_ng_GetStatusCodeMessage(status, buffer, sizeof(buffer));
  return buffer;
}

struct EspeakVoiceInfo {
  std::string identifier;
  std::vector<std::string> codes;  // lower case, in eSpeak's order
};

std::vector<EspeakVoiceInfo> listVoices() {
  std::vector<EspeakVoiceInfo> result;
  // Each call rescans the voice folder and frees the previous list: copy it at once.
  const espeak_VOICE** voices = espeak_ListVoices(nullptr);
  for (; voices && *voices; ++voices) {
    const espeak_VOICE* voice = *voices;
    if (!voice->identifier || !voice->languages) continue;
    EspeakVoiceInfo info;
    info.identifier = voice->identifier;
    // A list of (priority byte, language string) pairs, ended by an empty string.
    const char* entry = voice->languages;
    while (*entry) {
      const char* code = entry + 1;
      info.codes.push_back(detail::toLowerAscii(code));
      entry = code + std::strlen(code) + 1;
    }
    if (!info.codes.empty()) result.push_back(std::move(info));
  }
  return result;
}

std::string primaryCode(const std::string& code) { return code.substr(0, code.find('-')); }

// eSpeak NG's primary code of a locale: "en" for "en_US", "cmn" for "zh_CN".
std::string espeakCodeOf(const std::string& locale) {
  std::string code = detail::toLowerAscii(locale.substr(0, locale.find_first_of("_-")));
  if (code == "zh") return "cmn";
  return code;
}

std::string localeCode(const std::string& locale) {
  std::string code = detail::toLowerAscii(locale);
  std::replace(code.begin(), code.end(), '_', '-');
  return code;
}

// How well an eSpeak voice fits a language: 4 its first code is the locale, 3 another code is
// the locale, 2 its first code is the language's primary code, 1 its first code is a variant
// of that primary code, 0 not at all.
int fitness(const EspeakVoiceInfo& voice, const LanguageRequest& request) {
  const std::string full = localeCode(request.locale);
  if (voice.codes.front() == full) return 4;
  if (std::find(voice.codes.begin(), voice.codes.end(), full) != voice.codes.end()) return 3;
  const std::string primary = espeakCodeOf(request.locale);
  if (voice.codes.front() == primary) return 2;
  if (primaryCode(voice.codes.front()) == primary) return 1;
  return 0;
}

}  // namespace

struct EspeakBackend::Impl {
  struct Voice {
    std::string identifier;
    std::string language;
    std::string installDir;
  };

  Options options;
  mutable std::mutex mutex;  // guards every field below
  std::condition_variable changed;
  std::map<std::string, Voice> voices;
  std::map<std::string, std::string> defaultVoices;  // language -> voice
  std::string currentVoice;
  ParameterSet parameters;
  bool running = false;
  bool stopRequested = false;
  bool paused = false;
};

namespace {

// One sentence being synthesised; reached from eSpeak's callback through `activeRun`, which
// only the thread holding the library lock touches.
struct Run : detail::StreamSink {
  Run(EspeakBackend::Impl& impl, TextToSpeechEngineCallbackInterface& callback,
      const detail::EspeakMarkup& markup)
      : impl(impl), callback(callback), stream(markup) {}

  bool audio(const short* samples, std::size_t count, long long first) override;
  bool event(const detail::StreamEvent& event) override;
  bool stopRequested() const;

  EspeakBackend::Impl& impl;
  TextToSpeechEngineCallbackInterface& callback;
  detail::SentenceStream stream;
  int sampleRate = 22050;
  bool realTime = true;
  Clock::time_point start;
  Clock::duration pausedFor{};
  long long samples = 0;  // eSpeak samples delivered so far
  std::vector<short> stereo;
  bool stopped = false;
  std::string callbackError;
};

Run* activeRun = nullptr;

unsigned int bytePosition(const Run& run, long long sample) {
  return static_cast<unsigned int>(sample * kHostRate / run.sampleRate * kHostBytesPerFrame);
}

// Waits until eSpeak sample `sample` would be heard (real time only), and while paused.
// False when the sentence is stopped.
bool waitUntil(Run& run, long long sample) {
  EspeakBackend::Impl& impl = run.impl;
  std::unique_lock<std::mutex> lock(impl.mutex);
  while (true) {
    if (impl.stopRequested) return false;
    if (impl.paused) {
      const Clock::time_point pausedAt = Clock::now();
      impl.changed.wait(lock, [&] { return !impl.paused || impl.stopRequested; });
      run.pausedFor += Clock::now() - pausedAt;
      continue;
    }
    if (!run.realTime) return true;
    const Clock::time_point due =
        run.start + run.pausedFor +
        std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(static_cast<double>(sample) / run.sampleRate));
    if (!impl.changed.wait_until(lock, due, [&] { return impl.stopRequested || impl.paused; })) {
      return true;
    }
  }
}

bool Run::audio(const short* samples, std::size_t count, long long first) {
  if (!waitUntil(*this, first)) return false;
  stereo.resize(count * 2);
  for (std::size_t i = 0; i < count; ++i) {
    stereo[2 * i] = samples[i];
    stereo[2 * i + 1] = samples[i];
  }
  callback.TTSCallBack(stereo.data(), static_cast<unsigned int>(count * 2));
  this->samples += static_cast<long long>(count);
  return true;
}

bool Run::event(const detail::StreamEvent& event) {
  if (!waitUntil(*this, event.sample)) return false;
  callback.TTSEventCallBack(event.type, event.value, bytePosition(*this, event.sample));
  return true;
}

bool Run::stopRequested() const {
  std::lock_guard<std::mutex> lock(impl.mutex);
  return impl.stopRequested;
}

int synthCallback(short* wav, int count, espeak_EVENT* events) {
  Run* run = activeRun;
  if (!run) return 1;
  try {
    // Audio may be held back for a while: a stop must not wait for its delivery.
    if (run->stopRequested()) {
      run->stopped = true;
      return 1;
    }
    if (wav && count > 0) run->stream.addAudio(wav, static_cast<std::size_t>(count));
    for (espeak_EVENT* event = events; event && event->type != espeakEVENT_LIST_TERMINATED;
         ++event) {
      switch (event->type) {
        case espeakEVENT_WORD:
          // eSpeak reports empty words, at the end of some sentences.
          if (event->length > 0) run->stream.addWord(event->text_position, event->sample);
          break;
        case espeakEVENT_MARK:
          if (event->id.name) {
            run->stream.addMarker(std::atoi(event->id.name), event->text_position, event->sample);
          }
          break;
        case espeakEVENT_SENTENCE:
          run->stream.addSentence(event->text_position, event->sample);
          break;
        case espeakEVENT_END:
          // The end of a clause; the end of the whole text is reported once, at the end.
          run->stream.addClauseEnd(event->text_position, event->sample);
          break;
        default:
          break;
      }
    }
    if (!run->stream.release(*run)) {
      run->stopped = true;
      return 1;
    }
  } catch (const std::exception& e) {
    run->callbackError = e.what();
    return 1;
  } catch (...) {
    run->callbackError = "unknown exception";
    return 1;
  }
  return 0;
}

}  // namespace

EspeakBackend::Options EspeakBackend::optionsFromEnvironment() {
  Options options;
  const char* fast = std::getenv("BEXKO_ENGINE_FAST");
  options.realTime = !(fast && std::strcmp(fast, "1") == 0);
  return options;
}

EspeakBackend::EspeakBackend(Options options) : impl_(new Impl) { impl_->options = options; }

EspeakBackend::~EspeakBackend() = default;

std::vector<VoiceDescription> EspeakBackend::load(const std::vector<LanguageRequest>& languages) {
  std::vector<EspeakVoiceInfo> found;
  {
    auto lock = lockLibrary();
    found = listVoices();
  }
  std::map<std::string, Impl::Voice> voices;
  std::map<std::string, std::string> defaults;
  std::map<std::string, int> bestFitness;
  std::vector<VoiceDescription> result;
  for (const EspeakVoiceInfo& voice : found) {
    const LanguageRequest* language = nullptr;
    int best = 0;
    for (const LanguageRequest& request : languages) {
      const int fit = fitness(voice, request);
      if (fit > best) {
        best = fit;
        language = &request;
      }
    }
    if (!language) continue;
    std::string name = voice.codes.front();
    if (voices.count(name)) {
      const std::size_t slash = voice.identifier.rfind('/');
      name = detail::toLowerAscii(slash == std::string::npos ? voice.identifier
                                                             : voice.identifier.substr(slash + 1));
    }
    if (voices.count(name)) {
      name = detail::toLowerAscii(voice.identifier);
      std::replace(name.begin(), name.end(), '/', '-');
    }
    if (voices.count(name)) continue;
    voices[name] = Impl::Voice{voice.identifier, language->language, language->installDir};
    if (best > bestFitness[language->language]) {
      bestFitness[language->language] = best;
      defaults[language->language] = name;
    }
    result.push_back(VoiceDescription{name, language->language, language->installDir, false});
  }
  for (VoiceDescription& voice : result) {
    voice.isDefault = defaults[voice.language] == voice.name;
  }
  KO_LOG(logCategory(), ko::log::verbose, "load")
      << result.size() << " voices for " << languages.size() << " languages";
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->voices = std::move(voices);
  impl_->defaultVoices = std::move(defaults);
  if (!impl_->voices.count(impl_->currentVoice)) impl_->currentVoice.clear();
  return result;
}

void EspeakBackend::setCurrentLanguage(const std::string& language) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto it = impl_->defaultVoices.find(language);
  if (it == impl_->defaultVoices.end()) {
    throw ZR::ZRError(kModule, "setCurrentLanguage", "eSpeak NG has no voice for " + language);
  }
  impl_->currentVoice = it->second;
}

void EspeakBackend::setCurrentVoice(const std::string& voice) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->voices.count(voice)) {
    throw ZR::ZRError(kModule, "setCurrentVoice", "eSpeak NG has no voice " + voice);
  }
  impl_->currentVoice = voice;
}

void EspeakBackend::setParameter(const std::string& name, float value) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->parameters.set(name, value);
}

float EspeakBackend::getParameter(const std::string& name) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->parameters.get(name);
}

void EspeakBackend::resetSpeed() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->parameters.resetSpeed();
}

std::string EspeakBackend::voiceIdentifier(const std::string& voice) const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto it = impl_->voices.find(voice);
  return it == impl_->voices.end() ? std::string() : it->second.identifier;
}

void EspeakBackend::startSynthetizer(const std::string& text,
                                     TextToSpeechEngineCallbackInterface& callback) {
  std::string identifier;
  std::string voiceName;
  int rate;
  int pitch;
  int volume;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->running) {
      throw ZR::ZRError(kModule, "startSynthetizer", "A sentence is already being synthesised");
    }
    auto voice = impl_->voices.find(impl_->currentVoice);
    if (voice == impl_->voices.end()) {
      throw ZR::ZRError(kModule, "startSynthetizer", "No eSpeak NG voice is selected");
    }
    identifier = voice->second.identifier;
    voiceName = voice->first;
    rate = static_cast<int>(kEspeakNormalRate * impl_->parameters.speed() / 100.0f + 0.5f);
    pitch = std::min(
        99, static_cast<int>(kEspeakNormalPitch * impl_->parameters.pitch() / 100.0f + 0.5f));
    volume = static_cast<int>(impl_->parameters.volume() + 0.5f);
    impl_->running = true;
    impl_->stopRequested = false;
  }
  struct Finish {
    Impl& impl;
    ~Finish() {
      std::lock_guard<std::mutex> lock(impl.mutex);
      impl.running = false;
      impl.stopRequested = false;
    }
  } finish{*impl_};
  // Made for the voice: what eSpeak NG can read safely depends on its language.
  const detail::EspeakMarkup markup = detail::toEspeakMarkup(text, voiceName);

  Run run(*impl_, callback, markup);
  // With a host audio output, the output's bounded buffer paces the sentence.
  run.realTime = impl_->options.realTime && !ko::audioOutput();
  espeak_ng_STATUS status = ENS_OK;
  std::string failure;
  {
    auto lock = lockLibrary();
    Library& lib = library();
    run.sampleRate = lib.sampleRate;
    {
      std::lock_guard<std::mutex> state(impl_->mutex);
      run.stopped = impl_->stopRequested;
    }
    if (!run.stopped && lib.selectedVoice != identifier) {
      const espeak_ERROR selected = espeak_SetVoiceByName(identifier.c_str());
      if (selected != EE_OK) {
        lib.selectedVoice.clear();
        failure = "eSpeak NG cannot select the voice " + voiceName;
      } else {
        lib.selectedVoice = identifier;
      }
    }
    if (!run.stopped && failure.empty()) {
      espeak_SetParameter(espeakRATE, rate, 0);
      espeak_SetParameter(espeakPITCH, pitch, 0);
      espeak_SetParameter(espeakVOLUME, volume, 0);
      espeak_SetSynthCallback(&synthCallback);
      KO_LOG(logCategory(), ko::log::debug, "startSynthetizer")
          << "Voice " << voiceName << ", rate " << rate << ", pitch " << pitch << ", volume "
          << volume << ": " << markup.text;
      activeRun = &run;
      run.start = Clock::now();
      status = espeak_ng_Synthesize(markup.text.c_str(), markup.text.size() + 1, 0, POS_CHARACTER,
                                    0, espeakCHARS_UTF8 | espeakSSML, nullptr, nullptr);
      activeRun = nullptr;
      if (status == ENS_SPEECH_STOPPED) run.stopped = true;
      // A stop inside a voice change of the markup leaves that voice selected.
      if (run.stopped) lib.selectedVoice.clear();
    }
  }
  if (!run.stopped && failure.empty() && status == ENS_OK && run.callbackError.empty()) {
    try {
      run.stream.finish();
      if (!run.stream.release(run)) run.stopped = true;
    } catch (const std::exception& e) {
      run.callbackError = e.what();
    } catch (...) {
      run.callbackError = "unknown exception";
    }
    // The last block has been handed over; the sentence ends when it has been heard.
    if (!run.stopped && run.callbackError.empty()) waitUntil(run, run.samples);
  }
  callback.TTSEventCallBack(ZR::TTS_EVENT_END, 0, bytePosition(run, run.samples));
  if (!failure.empty()) throw ZR::ZRError(kModule, "startSynthetizer", failure);
  if (!run.callbackError.empty()) {
    throw ZR::ZRError(kModule, "startSynthetizer",
                      "The engine callback failed: " + run.callbackError);
  }
  if (status != ENS_OK && status != ENS_SPEECH_STOPPED) {
    throw ZR::ZRError(kModule, "startSynthetizer", "eSpeak NG failed: " + statusMessage(status));
  }
  KO_LOG(logCategory(), ko::log::verbose, "startSynthetizer")
      << (run.stopped ? "Stopped after " : "Spoke ") << run.samples << " samples";
}

void EspeakBackend::stopSynthetizer() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->running) return;
  impl_->stopRequested = true;
  impl_->paused = false;
  impl_->changed.notify_all();
}

void EspeakBackend::pauseSynthetizer() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->paused = true;
  impl_->changed.notify_all();
}

void EspeakBackend::restartSynthetizer() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->paused = false;
  impl_->changed.notify_all();
}

bool EspeakBackend::isPaused() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->paused;
}

bool EspeakBackend::testTextEncoding(const std::string& text, const std::string& language) {
  if (!detail::isValidUtf8(text)) return false;
  for (char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && c != '\t' && c != '\n' && c != '\r') || byte == 0x7F) return false;
  }
  return true;
}

std::unique_lock<std::mutex> lockEspeakLibrary() {
  auto lock = lockLibrary();
  // The caller may select another voice: the next sentence selects its own again.
  library().selectedVoice.clear();
  return lock;
}

int espeakSampleRate() {
  auto lock = lockLibrary();
  return library().sampleRate;
}

namespace detail {
std::unique_ptr<Backend> makeEspeakBackend() {
  return std::unique_ptr<Backend>(new EspeakBackend(EspeakBackend::optionsFromEnvironment()));
}
}  // namespace detail

}  // namespace engine
}  // namespace bexko
