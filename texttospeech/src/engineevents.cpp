// What the engine reports while it synthesises: audio blocks, words, markers and the end of a
// sentence; and the routines that close a sentence.
#include <zr/zrtexttospeech.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include <QRegExp>
#include <QString>

#include <zr/zrerror.h>

namespace ZR {

namespace {

ko::log::CategoryType logCategory() {
  static const ko::log::CategoryType category = ko::log::addCategory("audio.zrtexttospeech.main");
  return category;
}

// Markers above this number are pause marks for the animated-speech module.
constexpr int kLastBookmark = 64535;

}  // namespace

void ZRTextToSpeech::TTSCallBack(short* samples, unsigned int count) {
  // Without an audio output the samples are discarded.
  if (!audioOutput || count == 0) {
    return;
  }
  // The engine calls back from its synthesis loop: nothing may unwind into it.
  try {
    if (!sentencePlays) {
      if (boost::shared_ptr<ZRTextToSpeechTask> task = boost::atomic_load(&currentTask)) {
        task->writeToFile(samples, count * sizeof(short));
      }
      return;
    }
    if (outputMuted) {
      return;
    }
    int audible = static_cast<int>(count);
    keepOnlyAudibleSamples(samples, audible);
    // Whole frames only: a frame cut by the trim is kept.
    const int channels = std::max(1, sampleInfo.channels);
    audible = std::min(static_cast<int>(count), (audible + channels - 1) / channels * channels);
    if (audible > 0) {
      // The quiet stretch before this block is inside the sentence: it is played whole.
      if (!heldQuietSamples.empty()) {
        xPlay(heldQuietSamples.data(), heldQuietSamples.size());
        heldQuietSamples.clear();
      }
      xPlay(samples, static_cast<std::size_t>(audible));
    }
    heldQuietSamples.insert(heldQuietSamples.end(), samples + audible, samples + count);
  } catch (const std::exception& e) {
    if (!outputFailed) {
      KO_LOG(logCategory(), ko::log::error, "TTSCallBack") << "audio lost: " << e.what();
    }
    outputFailed = true;
    return;
  }
  outputFailed = false;
}

bool ZRTextToSpeech::xPlay(const short* samples, std::size_t count) {
  // In short pieces, each after a look at outputMuted: a stop that empties the output just
  // before a write began lets at most one piece through, and the end of the stopped sentence
  // empties the output again.
  const std::size_t piece = static_cast<std::size_t>(std::max(1, sampleInfo.sampleRate / 100) *
                                                     std::max(1, sampleInfo.channels));
  for (std::size_t done = 0; done < count; done += piece) {
    if (outputMuted) {
      return false;
    }
    if (!audioOutput->write(samples + done, std::min(piece, count - done) * sizeof(short))) {
      return false;
    }
  }
  return true;
}

void ZRTextToSpeech::TTSEventCallBack(ZR::TextToSpeechEngineEvent event, int value,
                                      unsigned int position) {
  // The engine calls back from its synthesis loop: nothing may unwind into it.
  try {
    switch (static_cast<unsigned int>(event)) {
      case 0: {
        ZRTextToSpeechMarker marker;
        marker.value = value;
        marker.position = position;
        marker.taskId = currentTaskId;
        marker.isPause = value > kLastBookmark ? 1 : 0;
        {
          boost::lock_guard<boost::mutex> lock(markerMutex);
          if (!marker.isPause) {
            if (markers.empty()) {
              scheduleMarker(marker);
            }
            markers.push_back(marker);
          }
        }
        if (marker.isPause) {
          boost::lock_guard<boost::mutex> lock(pendingMarkerMutex);
          pendingMarkers.push_back(marker);
        }
        break;
      }
      case 1: {
        const int raisedPosition = value + textOffset + 1;
        if (!sentencePlays) {
          xAnnounceWord(raisedPosition);
          break;
        }
        // Announced when the output has played up to the word.
        boost::lock_guard<boost::mutex> lock(heardWordsMutex);
        wordsToHear.push_back(WordToHear{raisedPosition, position});
        if (!wordTimerRunning) {
          xScheduleHeardWord();
        }
        break;
      }
      case 2:
        break;
      case 3:
        boost::atomic_store(&currentTask, boost::shared_ptr<ZRTextToSpeechTask>());
        break;
      default:
        KO_LOG(logCategory(), ko::log::error, "TTSEventCallBack")
            << "event not recognized: " << static_cast<unsigned int>(event);
        break;
    }
  } catch (const std::exception& e) {
    KO_LOG(logCategory(), ko::log::error, "TTSEventCallBack")
        << "engine event " << static_cast<unsigned int>(event) << " not handled: " << e.what();
  }
}

bool ZRTextToSpeech::keepOnlyAudibleSamples(const short* samples, int& count) {
  const int n = count;
  if (n <= 0) {
    return n >= 0;
  }
  const int quietLevel = maxLevel;
  int run = 0;
  for (int i = 0; i < n; ++i) {
    if (std::abs(static_cast<int>(samples[i])) > quietLevel) {
      run = 0;
    } else {
      ++run;
    }
  }
  if (run >= std::min(static_cast<int>(minSize), n)) {
    count = n - run;
  }
  return count >= 0;
}

void ZRTextToSpeech::drainSink() {
  if (sentencePlays) {
    // Returns early when a stop empties the output.
    audioOutput->drain();
    sentencePlays = false;
  }
  // Bookmark timing reads the played bytes under the marker lock.
  boost::lock_guard<boost::mutex> lock(markerMutex);
  bytesSent = 0;
}

void ZRTextToSpeech::notifyTextDone(bool interrupted) {
  KO_LOG(logCategory(), ko::log::info, "notifyTextDone") << "text done";
  try {
    if (!interrupted) {
      memoryProxy->raiseEvent(strTextDoneEvent, ZRValue(1));
      memoryProxy->raiseEvent(strTextStartedEvent, ZRValue(0));
    }
    memoryProxy->raiseEvent(strCurrentBookMarkEvent, ZRValue(0));
    memoryProxy->raiseEvent(strPositionOfCurrentWordEvent, ZRValue(0));
    memoryProxy->raiseEvent(strCurrentWordEvent, ZRValue(std::string()));
  } catch (const ZRError& e) {
    KO_LOG(logCategory(), ko::log::warning, "notifyTextDone")
        << " failed to raise event: " << e.what();
  }
  cleanUp();
  taskAvailable.notify_all();
}

void ZRTextToSpeech::cleanUp() {
  flushMarkers();
  {
    boost::lock_guard<boost::mutex> lock(pendingMarkerMutex);
    if (!pendingMarkers.empty()) {
      raiseMrkPause(pendingMarkers.begin());
    }
  }
  try {
    xSetVoiceSetting(ZR::VoiceSetting(globalVoiceSetting));
  } catch (const ZRError& e) {
    // The stop itself succeeded; the setting is applied again by the next sentence, since a
    // failed attempt leaves the applied setting as it was.
    KO_LOG(logCategory(), ko::log::error, "cleanUp")
        << "Could not apply the voice setting again: " << e.what();
  }
  currentTaskId = -1;
}

bool ZRTextToSpeech::isTagsOnlySentence(std::string text) {
  const QString sentence = QString::fromLocal8Bit(text.c_str());
  const QRegExp tagsOnly("^ *(\\\\[^\\\\]*\\\\ *)*$");
  return tagsOnly.indexIn(sentence) == 0;
}

}  // namespace ZR
