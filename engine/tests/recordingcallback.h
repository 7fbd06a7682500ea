#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <zr/tts/texttospeechenginecallbackinterface.h>

namespace bexko {
namespace engine {
namespace testing {

/// Records what an engine reports: every event with the audio bytes delivered before it.
class RecordingCallback : public TextToSpeechEngineCallbackInterface {
 public:
  struct Event {
    ZR::TextToSpeechEngineEvent event;
    int value;
    unsigned int position;
    unsigned long long audioBytesBefore;  // 16-bit samples delivered before the event, in bytes
  };

  void TTSCallBack(short* samples, unsigned int count) override {
    std::lock_guard<std::mutex> lock(mutex_);
    audioBytes_ += static_cast<unsigned long long>(count) * sizeof(short);
    ++blocks_;
    if (count * sizeof(short) > largestBlockBytes_) largestBlockBytes_ = count * sizeof(short);
    changed_.notify_all();
  }
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value,
                        unsigned int position) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(Event{event, value, position, audioBytes_});
    changed_.notify_all();
  }

  std::vector<Event> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::vector<Event> events(ZR::TextToSpeechEngineEvent type) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> selected;
    for (const Event& e : events_) {
      if (e.event == type) selected.push_back(e);
    }
    return selected;
  }
  unsigned long long audioBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return audioBytes_;
  }
  /// The largest audio block delivered, in bytes.
  unsigned long long largestBlockBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return largestBlockBytes_;
  }
  int blocks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return blocks_;
  }
  /// Waits until at least `count` events have been recorded.
  bool waitForEvents(std::size_t count, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return events_.size() >= count; });
  }
  /// Waits until some audio has been delivered.
  bool waitForAudio(int timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                             [&] { return audioBytes_ > 0; });
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
    audioBytes_ = 0;
    blocks_ = 0;
    largestBlockBytes_ = 0;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Event> events_;
  unsigned long long audioBytes_ = 0;
  unsigned long long largestBlockBytes_ = 0;
  int blocks_ = 0;
};

}  // namespace testing
}  // namespace engine
}  // namespace bexko
