#pragma once

#include <algorithm>
#include <mutex>
#include <vector>

#include <zr/tts/texttospeechenginecallbackinterface.h>

namespace bexko::engine::testing {

/// Records what an engine reports: every event with the audio bytes delivered before it.
class RecordingCallback : public TextToSpeechEngineCallbackInterface {
 public:
  struct Event {
    ZR::TextToSpeechEngineEvent event;
    int value;
    unsigned int position;
    unsigned long long audioBytesBefore;  // 16-bit samples delivered before the event, in bytes
  };

  void TTSCallBack(short*, unsigned int count) override {
    std::lock_guard<std::mutex> lock(mutex_);
    audioBytes_ += count * sizeof(short);
    largestBlockBytes_ = std::max<unsigned long long>(largestBlockBytes_, count * sizeof(short));
  }
  void TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value,
                        unsigned int position) override {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(Event{event, value, position, audioBytes_});
  }

  /// The events recorded so far: all of them (type -1) or those of one type.
  std::vector<Event> events(int type = -1) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> selected;
    for (const Event& e : events_) {
      if (type < 0 || e.event == type) selected.push_back(e);
    }
    return selected;
  }
  /// The values of the events of one type (word indexes, mark numbers), in order.
  std::vector<int> values(ZR::TextToSpeechEngineEvent type) const {
    std::vector<int> values;
    for (const Event& e : events(type)) values.push_back(e.value);
    return values;
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

 private:
  mutable std::mutex mutex_;
  std::vector<Event> events_;
  unsigned long long audioBytes_ = 0;
  unsigned long long largestBlockBytes_ = 0;
};

}  // namespace bexko::engine::testing
