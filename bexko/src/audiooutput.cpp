#include <ko/audiooutput.h>

#include <mutex>
#include <utility>

namespace ko {

namespace {

std::mutex& outputMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<AudioOutput>& chosenOutput() {
  static std::shared_ptr<AudioOutput> output;
  return output;
}

}  // namespace

std::shared_ptr<AudioOutput> audioOutput() {
  std::lock_guard<std::mutex> lock(outputMutex());
  return chosenOutput();
}

void setAudioOutput(std::shared_ptr<AudioOutput> output) {
  std::shared_ptr<AudioOutput> previous;
  {
    std::lock_guard<std::mutex> lock(outputMutex());
    previous = std::exchange(chosenOutput(), std::move(output));
  }
  // The previous output, if this was its last owner, closes outside the lock.
}

}  // namespace ko
