// Playing spoken sentences through the host's audio output: the stream of each sentence, the
// words announced when they are heard, the end of a sentence and the silence of a stop.
#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include <boost/thread/locks.hpp>

#include <ko/eventloop.h>
#include <zr/zrerror.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static const ko::log::CategoryType category = ko::log::addCategory("audio.zrtexttospeech.main");
  return category;
}

using QueueLock = boost::unique_lock<boost::shared_mutex>;

// A word not yet heard is looked at again after at least this long, so that a paused output
// does not spin the event loop.
constexpr std::uint64_t kWordRecheckMicroseconds = 500;

}  // namespace

void ZRTextToSpeech::xStartPlayback(const ZRTextToSpeechTask& task) {
  xFlushHeardWords(false);
  heldQuietSamples.clear();
  const bool plays = audioOutput && !task.fileAsOutput();
  if (plays) {
    sentenceStart = audioOutput->writtenBytes();
  }
  outputMuted = false;
  sentencePlays = plays;
}

void ZRTextToSpeech::xEndPlayback(const ZRTextToSpeechTask& task) {
  // The quiet end of the sentence is not played.
  heldQuietSamples.clear();
  drainSink();

  // Under the queue lock, as a stop's clean-up runs: the sentence is either stopped (and the
  // stop has cleaned up) or it ends here, never both.
  QueueLock queueLock(taskQueueLock);
  if (task.isStopped() || outputMuted) {
    // A block that the engine delivered while the stop was under way must not be heard.
    if (!task.fileAsOutput()) {
      audioOutput->flush();
    }
    return;
  }
  xFlushHeardWords(true);
  notifyTextDone(false);
}

void ZRTextToSpeech::xSilenceOutput() {
  if (!audioOutput) {
    return;
  }
  outputMuted = true;
  audioOutput->flush();
  xFlushHeardWords(false);
}

unsigned int ZRTextToSpeech::xPlayedBytes() const {
  if (!sentencePlays) {
    return 0;
  }
  const std::uint64_t played = audioOutput->playedBytes();
  const std::uint64_t start = sentenceStart;
  if (played <= start) {
    return 0;
  }
  return static_cast<unsigned int>(
      std::min<std::uint64_t>(played - start, std::numeric_limits<std::uint32_t>::max()));
}

void ZRTextToSpeech::xAnnounceWord(int position) {
  wordPosition = position;
  std::string word;
  {
    boost::unique_lock<boost::shared_mutex> wordsLock(currentWordsLock);
    if (announcedWords >= currentWords.size()) {
      return;
    }
    word = std::move(currentWords[announcedWords++]);
  }
  memoryProxy->raiseEvent(strPositionOfCurrentWordEvent, ZRValue(wordPosition));
  memoryProxy->raiseEvent(strCurrentWordEvent, ZRValue(word));
}

void ZRTextToSpeech::xAnnounceHeardWords(unsigned int generation) {
  boost::lock_guard<boost::mutex> lock(heardWordsMutex);
  if (generation != wordGeneration) {
    return;
  }
  wordTimerRunning = false;
  const unsigned int heard = xPlayedBytes();
  while (!wordsToHear.empty() && wordsToHear.front().audioOffset <= heard) {
    const int position = wordsToHear.front().position;
    wordsToHear.pop_front();
    try {
      xAnnounceWord(position);
    } catch (const ZRError& e) {
      KO_LOG(logCategory(), ko::log::error, "xAnnounceHeardWords")
          << "failed to raise a word event: " << e.what();
    }
  }
  if (!wordsToHear.empty()) {
    xScheduleHeardWord();
  }
}

void ZRTextToSpeech::xScheduleHeardWord() {
  const unsigned int heard = xPlayedBytes();
  const unsigned int due = wordsToHear.front().audioOffset;
  std::uint64_t delay = 0;
  if (due > heard) {
    const std::uint64_t bytesPerSecond =
        static_cast<std::uint64_t>(sampleInfo.bytesPerFrame()) * sampleInfo.sampleRate;
    // Rounded up, so that the timer never fires before the word is heard.
    delay = ((due - heard) * 1000000ULL + bytesPerSecond - 1) / bytesPerSecond;
    delay = std::max(delay, kWordRecheckMicroseconds);
  }
  const unsigned int generation = wordGeneration;
  wordTimerRunning = true;
  wordTimer =
      ko::getEventLoop()->async([this, generation] { xAnnounceHeardWords(generation); }, delay);
}

void ZRTextToSpeech::xFlushHeardWords(bool announce) {
  boost::lock_guard<boost::mutex> lock(heardWordsMutex);
  ++wordGeneration;
  if (wordTimerRunning) {
    wordTimer.cancel();
    wordTimerRunning = false;
  }
  if (announce) {
    try {
      for (const WordToHear& word : wordsToHear) {
        xAnnounceWord(word.position);
      }
    } catch (const ZRError& e) {
      KO_LOG(logCategory(), ko::log::error, "xFlushHeardWords")
          << "failed to raise a word event: " << e.what();
    }
  }
  wordsToHear.clear();
}

}  // namespace ZR
