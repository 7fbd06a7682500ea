#include <bexko/testing/scriptedbackend.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include <bexko/engine/backend.h>
#include <bexko/engine/parameters.h>

namespace bexko {
namespace testing {

namespace {

std::string toText(float value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

bool isValidUtf8(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    std::size_t length;
    char32_t value;
    char32_t minimum;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
      return false;
    }
    if (i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

}  // namespace

struct ScriptedBackend::State {
  struct Voice {
    std::string name;
    std::string language;
    std::string installDir;
  };

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<Voice> voices;
  std::vector<ScriptedEvent> script;
  std::deque<std::vector<ScriptedEvent>> queued;
  bool blocking = false;
  int releases = 0;
  int started = 0;
  int running = 0;
  bool stopRequested = false;
  std::chrono::milliseconds stopLatency{0};
  bool paused = false;
  bool encodingAccepted = true;
  std::map<std::string, ZR::ZRError> failures;
  std::vector<ScriptedCall> calls;
  std::vector<std::string> sentences;
  engine::ParameterSet parameters;

  // Records a call, then throws the failure asked for it, if any.
  void record(const std::string& operation, std::vector<std::string> args) {
    std::unique_lock<std::mutex> lock(mutex);
    calls.push_back(ScriptedCall{operation, std::move(args)});
    auto failure = failures.find(operation);
    if (failure != failures.end()) {
      ZR::ZRError error = failure->second;
      failures.erase(failure);
      lock.unlock();
      throw error;
    }
  }
};

namespace {

// The backend instance that a manager drives; every instance shares the test's state.
class ScriptedInstance : public engine::Backend {
 public:
  explicit ScriptedInstance(std::shared_ptr<ScriptedBackend::State> state)
      : state_(std::move(state)) {}

  std::vector<engine::VoiceDescription> load(
      const std::vector<engine::LanguageRequest>& languages) override {
    std::vector<std::string> names;
    for (const auto& language : languages) names.push_back(language.language);
    state_->record("load", names);
    std::lock_guard<std::mutex> lock(state_->mutex);
    std::vector<engine::VoiceDescription> voices;
    for (const auto& language : languages) {
      bool first = true;
      for (const auto& voice : state_->voices) {
        if (voice.language != language.language) continue;
        voices.push_back(engine::VoiceDescription{
            voice.name, language.language,
            voice.installDir.empty() ? language.installDir : voice.installDir, first});
        first = false;
      }
    }
    return voices;
  }

  void setCurrentLanguage(const std::string& language) override {
    state_->record("setCurrentLanguage", {language});
  }
  void setCurrentVoice(const std::string& voice) override {
    state_->record("setCurrentVoice", {voice});
  }

  void setParameter(const std::string& name, float value) override {
    state_->record("setParameter", {name, toText(value)});
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->parameters.set(name, value);
  }
  float getParameter(const std::string& name) const override {
    state_->record("getParameter", {name});
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->parameters.get(name);
  }
  void resetSpeed() override {
    state_->record("resetSpeed", {});
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->parameters.resetSpeed();
  }

  void startSynthetizer(const std::string& text,
                        TextToSpeechEngineCallbackInterface& callback) override {
    state_->record("startSynthetizer", {text});
    std::vector<ScriptedEvent> events;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->sentences.push_back(text);
      ++state_->started;
      ++state_->running;
      state_->stopRequested = false;
      if (!state_->queued.empty()) {
        events = std::move(state_->queued.front());
        state_->queued.pop_front();
      } else {
        events = state_->script;
      }
      state_->changed.notify_all();
    }
    struct Finish {
      ScriptedBackend::State& state;
      ~Finish() {
        std::lock_guard<std::mutex> lock(state.mutex);
        --state.running;
        state.changed.notify_all();
      }
    } finish{*state_};

    bool stopped = false;
    for (const ScriptedEvent& event : events) {
      {
        std::unique_lock<std::mutex> lock(state_->mutex);
        state_->changed.wait(lock, [&] { return !state_->paused || state_->stopRequested; });
        stopped = state_->stopRequested;
      }
      if (stopped) break;
      if (!event.samples.empty()) {
        std::vector<short> block = event.samples;
        callback.TTSCallBack(block.data(), static_cast<unsigned int>(block.size()));
      } else {
        callback.TTSEventCallBack(event.event, event.value, event.position);
      }
    }
    if (!stopped) {
      std::unique_lock<std::mutex> lock(state_->mutex);
      state_->changed.wait(
          lock, [&] { return !state_->blocking || state_->releases > 0 || state_->stopRequested; });
      if (state_->blocking && !state_->stopRequested) --state_->releases;
      stopped = state_->stopRequested;
    }
    if (stopped) {
      std::chrono::milliseconds latency;
      {
        std::lock_guard<std::mutex> lock(state_->mutex);
        latency = state_->stopLatency;
      }
      std::this_thread::sleep_for(latency);
    }
    callback.TTSEventCallBack(ZR::TTS_EVENT_END, 0, 0);
  }

  void stopSynthetizer() override {
    state_->record("stopSynthetizer", {});
    std::lock_guard<std::mutex> lock(state_->mutex);
    if (state_->running > 0) {
      state_->stopRequested = true;
      state_->paused = false;
    }
    state_->changed.notify_all();
  }
  void pauseSynthetizer() override {
    state_->record("pauseSynthetizer", {});
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->paused = true;
  }
  void restartSynthetizer() override {
    state_->record("restartSynthetizer", {});
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->paused = false;
    state_->changed.notify_all();
  }
  bool isPaused() const override {
    state_->record("isPaused", {});
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->paused;
  }

  bool testTextEncoding(const std::string& text, const std::string& language) override {
    state_->record("testTextEncoding", {text, language});
    if (!isValidUtf8(text)) return false;
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->encodingAccepted;
  }

 private:
  std::shared_ptr<ScriptedBackend::State> state_;
};

}  // namespace

ScriptedEvent scriptedAudio(int frames, short level) {
  ScriptedEvent block{ZR::TTS_EVENT_WORD, 0, 0};
  block.samples.resize(static_cast<std::size_t>(frames) * 2);
  for (std::size_t i = 0; i < block.samples.size(); ++i) {
    // A 2756 Hz square wave at 22050 Hz: 4 frames up, 4 down.
    block.samples[i] = (i / 8) % 2 ? level : static_cast<short>(-level);
  }
  return block;
}

ScriptedBackend::ScriptedBackend(std::string engineName)
    : engineName_(std::move(engineName)), state_(std::make_shared<State>()) {
  std::shared_ptr<State> state = state_;
  engine::registerBackend(engineName_, [state] {
    return std::unique_ptr<engine::Backend>(new ScriptedInstance(state));
  });
}

ScriptedBackend::~ScriptedBackend() { engine::unregisterBackend(engineName_); }

const std::string& ScriptedBackend::engineName() const { return engineName_; }

void ScriptedBackend::addVoice(const std::string& voice, const std::string& language,
                               const std::string& installDir) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->voices.push_back(State::Voice{voice, language, installDir});
}

void ScriptedBackend::setScript(std::vector<ScriptedEvent> events) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->script = std::move(events);
}

void ScriptedBackend::queueSentenceEvents(std::vector<ScriptedEvent> events) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->queued.push_back(std::move(events));
}

void ScriptedBackend::setBlocking(bool block) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->blocking = block;
  state_->changed.notify_all();
}

void ScriptedBackend::setStopLatency(std::chrono::milliseconds latency) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->stopLatency = latency;
}

void ScriptedBackend::release() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  ++state_->releases;
  state_->changed.notify_all();
}

bool ScriptedBackend::waitForSynthesis(int count, int timeoutMs) const {
  std::unique_lock<std::mutex> lock(state_->mutex);
  return state_->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return state_->started >= count; });
}

void ScriptedBackend::failNext(const std::string& operation, const ZR::ZRError& error) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->failures.erase(operation);
  state_->failures.emplace(operation, error);
}

void ScriptedBackend::setEncodingAccepted(bool accepted) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->encodingAccepted = accepted;
}

std::vector<ScriptedCall> ScriptedBackend::calls() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->calls;
}

std::vector<ScriptedCall> ScriptedBackend::calls(const std::string& operation) const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  std::vector<ScriptedCall> selected;
  for (const ScriptedCall& call : state_->calls) {
    if (call.operation == operation) selected.push_back(call);
  }
  return selected;
}

void ScriptedBackend::clearCalls() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->calls.clear();
}

std::vector<std::string> ScriptedBackend::sentences() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->sentences;
}

}  // namespace testing
}  // namespace bexko
